package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;

import java.io.IOException;
import java.util.List;
import org.junit.Test;

/** Datastores that a host records are unmounted, in the order of their names, when the service stops. */
public class DatastoreTest {
    @Test
    public void areUnmountedInProcess() throws Exception {
        unmounts(NfsLibNative.MODE_INTERNAL);
    }

    @Test
    public void areUnmountedByAServerThatOthersDrive() throws Exception {
        unmounts(NfsLibNative.MODE_IPC_SERVER);
    }

    private static void unmounts(int mode) throws IOException, InterruptedException {
        RecordingHost host = new RecordingHost();
        long handle = host.initial("java", mode, 1);
        host.startLoop(handle);
        host.addVSphereInfo(handle, "ds-2", "old", "1", "user", "secret");
        host.addVSphereInfo(handle, "ds-2", "h2", "443", "user", "secret");  // replaces it
        host.addVSphereInfo(handle, "ds-3", "h3", "443", "user", "secret");
        host.addVSphereInfo(handle, "ds-1", "h1", "443", "user", "secret");
        host.removeVSphereInfo(handle, "ds-3");
        host.removeVSphereInfo(handle, "never-there");
        assertEquals(List.of(), host.lines);

        host.stopServer(handle);
        assertEquals(
                List.of("info|java|Start cleanup mounted NFS datastores",
                        "info|java|Unmount NFS datastore with MOID \"ds-1\" on host \"h1:443\"",
                        "info|java|Unmount NFS datastore with MOID \"ds-2\" on host \"h2:443\""),
                host.lines);
        host.lines.clear();
        host.stopServer(handle);
        assertEquals("nothing is left to unmount", List.of(), host.lines);
        host.stopLoop();
        host.terminate(handle);
    }
}
