package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** A server in this process with one exported folder, "vm01". */
final class Service implements AutoCloseable {
    static final String EXPORT = "vm01";

    final NfsLibNative host;
    final long handle;
    final Path folder;

    Service(NfsLibNative host) throws IOException {
        this.host = host;
        folder = Files.createTempDirectory("export").toRealPath();
        handle = host.initial("java", NfsLibNative.MODE_INTERNAL, 1);
        assertTrue(host.startServer(handle, 0, 0, false));
        assertTrue(host.addMountPoint(handle, folder.toString(), EXPORT));
    }

    /** Creates a redirected file of zeros. */
    Path redirected(String name) throws IOException {
        Path path = Files.createFile(folder.resolve(name));
        host.openRedirectedFile(handle, path.toString(), 1_000_000, false, 0, 0);
        return path;
    }

    /** Makes the calling thread deliver one raw line: one session is listed. */
    void listOneSession(NfsLibNative caller) {
        caller.addSession(handle, "s", "/somewhere");
        caller.getSessionInfo(handle, true);
    }

    @Override
    public void close() {
        host.stopServer(handle);
        host.terminate(handle);
    }
}
