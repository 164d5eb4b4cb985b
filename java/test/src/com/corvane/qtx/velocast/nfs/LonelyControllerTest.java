package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.After;
import org.junit.Before;
import org.junit.Test;

/** A controller without a server, and two that want the same channel. */
public class LonelyControllerTest {
    private static final String NO_SERVER =
            "Fail to connect ipc client socket. No such file or directory (2)";

    private final RecordingHost host = new RecordingHost();
    private long handle;

    @Before
    public void create() throws IOException {
        handle = host.initial("lonely", NfsLibNative.MODE_IPC_CLIENT, 1);
    }

    @After
    public void end() {
        host.terminate(handle);
    }

    @Test
    public void whatReportsFailuresThrowsTheReason() {
        assertEquals(NO_SERVER, assertThrows(IOException.class,
                () -> host.startServer(handle, 0, 0, false)).getMessage());
        assertEquals(NO_SERVER, assertThrows(IOException.class,
                () -> host.addMountPoint(handle, "/", "x")).getMessage());
        assertEquals(NO_SERVER, assertThrows(IOException.class,
                () -> host.addRedirectedFileSegment(handle, "/x", "/y", 0, 0, 1)).getMessage());
        assertEquals("nothing but the exception tells", List.of(), host.lines);
    }

    @Test
    public void whatReportsNoneLogsTheReason() {
        host.removeMountPoint(handle, "/");
        assertEquals(List.of("error|lonely|[IpcClient.SendRequest] " + NO_SERVER), host.lines);
        assertFalse(host.isSessionExists(handle, "s"));
        assertEquals(2, host.lines.size());
        host.setLogControl(handle, 0);
        host.removeMountPoint(handle, "/");
        assertEquals(2, host.lines.size());
    }

    @Test
    public void defaultsStandForWhatNobodyAnswers() {
        assertEquals("Unknown", host.getVersion(handle));
        assertEquals("Unknown", host.getDescription(handle));
        assertEquals(2, host.getAccessMode(handle));
        assertEquals(0, host.getServerStatus(handle));
        assertFalse(host.isServerRunning(handle));
        assertEquals(0, host.getMountInfo(handle, false, false));
        assertEquals(0, host.getSessionInfo(handle, false));
        assertFalse(host.isLocalSessionExists(handle, "s"));
    }

    @Test
    public void aStartIsForUserAndGroupZero() throws IOException {
        try (FakeServer server = new FakeServer(4, "refused".getBytes())) {
            assertEquals("refused", assertThrows(IOException.class,
                    () -> host.startServer(handle, 11, 22, true)).getMessage());
            ByteBuffer request = server.lastRequest();
            assertEquals(36, request.limit());
            assertEquals("mount port", 11, request.getInt(16));
            assertEquals("NFS port", 22, request.getInt(20));
            assertEquals("user", 0, request.getInt(24));
            assertEquals("group", 0, request.getInt(28));
            assertEquals("read-only", 1, request.get(32));
        }
    }

    @Test
    public void aChannelBelongsToOneController() throws IOException {
        Path channel = Path.of("/tmp/nfs-lonely");
        assertTrue(host.startRemoteController(handle));
        assertTrue(Files.exists(channel));
        // Two of one name in one process are as bad as in two.
        RecordingHost other = new RecordingHost();
        long second = other.initial("lonely", NfsLibNative.MODE_IPC_CLIENT, 1);
        assertEquals("Ipc channel is already created by others.", assertThrows(IOException.class,
                () -> other.startRemoteController(second)).getMessage());
        other.terminate(second);
        host.stopRemoteController(handle);
        assertFalse(Files.exists(channel));
    }
}
