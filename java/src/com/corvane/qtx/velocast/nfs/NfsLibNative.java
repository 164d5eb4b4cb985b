package com.corvane.qtx.velocast.nfs;

import java.io.IOException;

/**
 * Drives a velocast-nfs server from Java.
 *
 * <p>A host creates an instance (usually of a subclass that overrides the callback methods), calls
 * {@link #initial} once, passes the handle that it returns to every other method, and calls {@link
 * #terminate} once; the handle is invalid afterwards. With the handle 0 every method does nothing and
 * returns its default.
 *
 * <p>Three access modes: {@link #MODE_INTERNAL} serves in this process; {@link #MODE_IPC_SERVER}
 * serves in this process and lets other processes drive it; {@link #MODE_IPC_CLIENT} drives the
 * server of another process. A client host also opens its callback channel with {@link
 * #startRemoteController} and keeps a thread in {@link #receiveCallbackLoop} to hear of changes.
 *
 * <p>The methods may be called from several threads. The callback methods are called from native
 * threads too, several at once, and must not block for long: the client's request, and with it all
 * NFS traffic, waits for their answer. An exception that one of them throws is printed and counts as
 * its default result (-1 for the notifications). Inside a callback {@link #stopServer}, {@link
 * #stopRemoteController} and {@link #terminate} throw an {@link IllegalStateException} and stop
 * nothing: another thread must call them.
 *
 * <p>Paths are compared as they are given with those that clients cause, which begin with the
 * canonical path of the export's folder: pass canonical paths ({@code Path.toRealPath}).
 *
 * <p>The library is {@code libvelocastnfs.so}: the file named by the system property {@value
 * #LIBRARY_PROPERTY}, else the one found in {@code java.library.path}.
 */
public class NfsLibNative {
    /** System property with the absolute path of the library. */
    public static final String LIBRARY_PROPERTY = "velocast.nfs.library";

    /** The server runs in this process. */
    public static final int MODE_INTERNAL = 0;
    /** The server runs in this process and takes requests from other processes. */
    public static final int MODE_IPC_SERVER = 1;
    /** The server runs in another process. */
    public static final int MODE_IPC_CLIENT = 2;

    static {
        String library = System.getProperty(LIBRARY_PROPERTY);
        if (library != null) {
            System.load(library);
        } else {
            System.loadLibrary("velocastnfs");
        }
    }

    // ---------------------------------------------------------------------------------------------
    // Life
    // ---------------------------------------------------------------------------------------------

    /**
     * Creates the native main object.
     *
     * @param id the identity, which tags log lines; in the IPC modes it also names channels and must
     *     not be "server" nor contain '/' or a blank
     * @param accessMode one of the MODE_ constants
     * @param logControl the log categories, a bit mask (1 errors, 1023 everything)
     * @return the handle for every other method
     * @throws IOException with the reason why the identity was refused
     */
    public native long initial(String id, int accessMode, int logControl) throws IOException;

    /**
     * Ends everything and forgets the main object. Every {@link #receiveCallbackLoop} on the handle must
     * have returned before.
     *
     * @throws IllegalStateException inside a callback
     */
    public native void terminate(long handle);

    /**
     * Opens the channel that other processes (of a client: the server's callbacks) reach this one on.
     */
    public native boolean startRemoteController(long handle) throws IOException;

    /**
     * Closes the channel.
     *
     * @throws IllegalStateException inside a callback
     */
    public native void stopRemoteController(long handle);

    /**
     * Starts the NFS service, as user and group 0.
     *
     * @param mountPort port of MOUNT, below 1 for the default (1058)
     * @param nfsPort port of NFS, below 1 for the default (2049)
     * @param readOnly refuse what changes files
     * @throws IOException with the reason of a failure
     */
    public native boolean startServer(long handle, int mountPort, int nfsPort, boolean readOnly)
            throws IOException;

    /**
     * Stops the service; a client never stops the server of another process.
     *
     * @throws IllegalStateException inside a callback
     */
    public native void stopServer(long handle);

    /** Whether the NFS service runs. */
    public native boolean isServerRunning(long handle);

    /**
     * Lends the calling thread and this object for callbacks that come while no other method runs.
     * While none is lent, every client's write to a redirected file fails. End it before {@link
     * #terminate}.
     *
     * @param seconds how long, counted in steps of one second; negative: until {@link
     *     #isInterrupted} answers true; 0: returns at once
     * @return 0
     */
    public native int receiveCallbackLoop(long handle, int seconds);

    // ---------------------------------------------------------------------------------------------
    // Exports and sessions
    // ---------------------------------------------------------------------------------------------

    /** Exports a local folder under a name. */
    public native boolean addMountPoint(long handle, String localFolder, String exportName)
            throws IOException;

    /** Takes the export of a local folder back. */
    public native void removeMountPoint(long handle, String localFolder);

    /** Records a session; one of the same ID is replaced. */
    public native void addSession(long handle, String sessionId, String localFolder);

    /** Forgets a session. */
    public native void removeSession(long handle, String sessionId);

    /** Whether the server knows the session. */
    public native boolean isSessionExists(long handle, String sessionId);

    /** Whether this process's own table knows the session. */
    public native boolean isLocalSessionExists(long handle, String sessionId);

    // ---------------------------------------------------------------------------------------------
    // Redirected files and open files
    // ---------------------------------------------------------------------------------------------

    /**
     * Makes a path inside an export a redirected file, whose content is put together from segments of
     * other files. A file must exist at the path.
     *
     * <p>An info file is appended to and never truncated: empty it before. After the redirected file
     * is closed, its records are what clients see at the path.
     *
     * @param size the size of the virtual file, in bytes
     * @param createInfoFile keep the segments in the file at the path instead of in memory
     * @param segmentSizeMB block size of the info file in MiB, 0 for 32
     * @param checkPointSizeMB checkpoint interval of the info file in MiB, 0 for 1024
     */
    public native void openRedirectedFile(
            long handle, String path, long size, boolean createInfoFile, int segmentSizeMB,
            int checkPointSizeMB);

    /** Makes the path an ordinary file again, with the content that lies there (see above). */
    public native void closeRedirectedFile(long handle, String path);

    /** The same for the path and everything below it. */
    public native void closeAllRedirectedFiles(long handle, String path);

    /**
     * Describes a range of a redirected file.
     *
     * <p>Add the segments in ascending order of their offset, and cover gaps and the tail with segments
     * without a source. A read across an uncovered gap comes short, and what lies behind the gap comes
     * in its place; of an uncovered tail every second read comes empty once a read has reached the end
     * of the file.
     *
     * @param srcPath the source file; null for a range of zeros
     * @param srcFileOffset where the range begins in the source, in bytes
     * @param offset where it begins in the redirected file, in bytes
     * @param length its length in bytes, cut at the file's end
     * @throws IOException when the path is not redirected or the range begins behind the file's end
     */
    public native void addRedirectedFileSegment(
            long handle, String path, String srcPath, long srcFileOffset, long offset, long length)
            throws IOException;

    /**
     * Writes the content of a redirected file into an existing file inside an export; nothing is written
     * elsewhere. It starts where the server's descriptor for that file stands, which {@link
     * #closeOpenedFile} sets back to the beginning, and truncates nothing.
     */
    public native void exportRedirectedFile(long handle, String path, String exportPath);

    /**
     * Writes the segments of a redirected file as text into an existing file inside an export, in the
     * same way.
     */
    public native void exportRedirectedFileInfo(
            long handle, String path, String exportPath, boolean mergeRange);

    /** Closes the descriptor that the server keeps open for a file. */
    public native void closeOpenedFile(long handle, String path);

    /** The same for a folder and everything below it. */
    public native void closeAllOpenedFiles(long handle, String path);

    // ---------------------------------------------------------------------------------------------
    // Status
    // ---------------------------------------------------------------------------------------------

    /** Replaces the log categories. */
    public native void setLogControl(long handle, int bits);

    /** The version; "Unknown" when a client reaches no server, "Not Defined" for the handle 0. */
    public native String getVersion(long handle);

    /** The description; "Unknown" when a client reaches no server and for the handle 0. */
    public native String getDescription(long handle);

    /** One of the MODE_ constants; -1 for the handle 0. */
    public native int getAccessMode(long handle);

    /**
     * The number of exports.
     *
     * @param clientMountedOnly count only those that a client has mounted
     * @param printDetails also send a line for each to {@link #logRaw}
     */
    public native int getMountInfo(long handle, boolean clientMountedOnly, boolean printDetails);

    /** The number of sessions, as {@link #getMountInfo}. */
    public native int getSessionInfo(long handle, boolean printDetails);

    /** Tests the file system of a folder and reports the steps to {@link #logInfo}. */
    public native void runTestMode(long handle, String dirPath, long fileSize);

    /** Bits: 1 accessible, 2 service runs, 4 debug action enabled. */
    public native int getServerStatus(long handle);

    // ---------------------------------------------------------------------------------------------
    // Datastores
    // ---------------------------------------------------------------------------------------------

    /** Records a datastore that a host mounted; it is unmounted before the service stops. */
    public native void addVSphereInfo(
            long handle, String moid, String host, String port, String user, String password);

    /** Forgets a datastore without unmounting it. */
    public native void removeVSphereInfo(long handle, String moid);

    // ---------------------------------------------------------------------------------------------
    // Callbacks, to be overridden
    // ---------------------------------------------------------------------------------------------

    /** An information line. */
    protected void logInfo(String id, String text) {}

    /** An error line. */
    protected void logError(String id, String text) {}

    /** A line of a listing. */
    protected void logRaw(String id, String text) {}

    /** Whether {@link #receiveCallbackLoop} is to end; asked once a second. */
    protected boolean isInterrupted() {
        return Thread.currentThread().isInterrupted();
    }

    /**
     * A client set attributes of a redirected file. Each value counts only when its flag is set;
     * times are seconds since 1970.
     *
     * @return 0; the client is told of success in any case
     */
    protected int setRedirectedFileAttributes(
            String id, String path, boolean hasSize, long size, boolean hasAccessTime,
            long accessTimeSec, boolean hasModifiedTime, long modifiedTimeSec) {
        return 0;
    }

    /**
     * A client removed a redirected file.
     *
     * @return 0 for success; anything else fails the client's call, although the file is gone
     */
    protected int removeRedirectedFile(String id, String path) {
        return 0;
    }

    /**
     * A client renamed a redirected file.
     *
     * @return 0 for success; anything else fails the client's call, although the file has its new name
     */
    protected int renameRedirectedFile(String id, String pathFrom, String pathTo) {
        return 0;
    }

    /**
     * A client wrote to a redirected file. The bytes themselves are not kept.
     *
     * @param seek position in the file, in bytes
     * @param seekType 0: from the start of the file
     * @param length number of bytes
     * @return the number of bytes that the client is told were written. Return {@code length} to
     *     accept the write: with 0 nothing counts as written and the client tries again or fails; a
     *     negative number fails it.
     */
    protected int writeRedirectedFile(
            String id, String path, long seek, int seekType, int length) {
        return length;
    }
}
