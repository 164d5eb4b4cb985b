package com.corvane.qtx.velocast.nfs;

import java.io.IOException;

/** A host's class that implements only some of the callback methods. */
public class NfsLibNative {
    static {
        System.load(System.getProperty("velocast.nfs.library"));
    }

    volatile String lastError;
    volatile String lastRemoved;

    public native long initial(String id, int accessMode, int logControl) throws IOException;

    public native void terminate(long handle);

    public native boolean startServer(long handle, int mountPort, int nfsPort, boolean readOnly)
            throws IOException;

    public native void stopServer(long handle);

    public native int receiveCallbackLoop(long handle, int seconds);

    public native boolean addMountPoint(long handle, String localFolder, String exportName)
            throws IOException;

    public native void openRedirectedFile(
            long handle, String path, long size, boolean createInfoFile, int segmentSizeMB,
            int checkPointSizeMB);

    public native int getMountInfo(long handle, boolean clientMountedOnly, boolean printDetails);

    public native void setLogControl(long handle, int bits);

    protected int removeRedirectedFile(String id, String path) {
        lastRemoved = path;
        return 0;
    }
}
