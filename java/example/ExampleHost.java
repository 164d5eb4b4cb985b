import com.corvane.qtx.velocast.nfs.NfsLibNative;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;

/**
 * Serves a folder with one redirected file and prints every notification.
 *
 * <p>Usage: ExampleHost FOLDER SOURCE: FOLDER is exported as vm01 and gets a file "disk.img" with the
 * content of SOURCE, without copying it. Ends when its input ends.
 */
public class ExampleHost extends NfsLibNative {
    @Override
    protected void logInfo(String id, String text) {
        System.out.println("info (" + id + ") " + text);
    }

    @Override
    protected void logError(String id, String text) {
        System.out.println("error (" + id + ") " + text);
    }

    @Override
    protected int setRedirectedFileAttributes(
            String id, String path, boolean hasSize, long size, boolean hasAccessTime,
            long accessTimeSec, boolean hasModifiedTime, long modifiedTimeSec) {
        System.out.println("attributes of " + path + (hasSize ? ", size " + size : ""));
        return 0;
    }

    @Override
    protected int removeRedirectedFile(String id, String path) {
        System.out.println("removed " + path);
        return 0;
    }

    @Override
    protected int renameRedirectedFile(String id, String pathFrom, String pathTo) {
        System.out.println("renamed " + pathFrom + " to " + pathTo);
        return 0;
    }

    @Override
    protected int writeRedirectedFile(
            String id, String path, long seek, int seekType, int length) {
        System.out.println("written " + length + " bytes at " + seek + " of " + path);
        return length;
    }

    private volatile boolean done;

    @Override
    protected boolean isInterrupted() {
        return done;
    }

    public static void main(String[] args) throws IOException, InterruptedException {
        Path folder = Paths.get(args[0]).toRealPath();
        Path source = Paths.get(args[1]).toRealPath();
        Path disk = folder.resolve("disk.img");
        if (!Files.exists(disk)) {
            Files.createFile(disk);
        }

        ExampleHost host = new ExampleHost();
        long handle = host.initial("example", MODE_INTERNAL, 1);
        Thread callbacks = new Thread(() -> host.receiveCallbackLoop(handle, -1));
        callbacks.start();
        try {
            host.startServer(handle, 0, 0, false);
            host.addMountPoint(handle, folder.toString(), "vm01");
            long size = Files.size(source);
            host.openRedirectedFile(handle, disk.toString(), size, false, 0, 0);
            host.addRedirectedFileSegment(handle, disk.toString(), source.toString(), 0, 0, size);
            System.out.println("Serving " + disk + ", press Ctrl-D to end");
            while (System.in.read() >= 0) {
                // Wait for the end of the input.
            }
        } finally {
            host.stopServer(handle);
            host.done = true;
            callbacks.join();
            host.terminate(handle);
        }
    }
}
