package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNotEquals;
import static org.junit.Assert.assertThrows;

import java.io.IOException;
import java.util.List;
import org.junit.Test;

/** Which identities a main object takes, and what access mode it gets. */
public class InitialTest {
    private static final int[] MODES = {
        NfsLibNative.MODE_INTERNAL, NfsLibNative.MODE_IPC_SERVER, NfsLibNative.MODE_IPC_CLIENT};

    private final RecordingHost host = new RecordingHost();

    private void assertRefused(String text, String id, int mode) {
        // A handle that was returned in spite of the exception is caught by it.
        long[] handle = {0};
        IOException e = assertThrows(
                IOException.class, () -> handle[0] = host.initial(id, mode, 1));
        assertEquals(IOException.class, e.getClass());
        assertEquals(text, e.getMessage());
        assertEquals(0, handle[0]);
        assertEquals("the object is used for the exception only", List.of(), host.lines);
    }

    private void assertTaken(String id, int mode, int reportedMode) throws IOException {
        long handle = host.initial(id, mode, 1);
        assertNotEquals(0, handle);
        assertEquals(reportedMode, host.getAccessMode(handle));
        host.terminate(handle);
    }

    @Test
    public void aBlankInTheIdentityIsRefusedInTheIpcModes() throws IOException {
        assertRefused("Invalid char \" \" inside ID", "a b", NfsLibNative.MODE_IPC_SERVER);
        assertRefused("Invalid char \" \" inside ID", "a b/c", NfsLibNative.MODE_IPC_CLIENT);
        assertTaken("a b", NfsLibNative.MODE_INTERNAL, 0);
    }

    @Test
    public void aSlashInTheIdentityIsRefusedInTheIpcModes() throws IOException {
        assertRefused("Invalid char \"/\" inside ID", "a/b c", NfsLibNative.MODE_IPC_SERVER);
        assertRefused("Invalid char \"/\" inside ID", "/", NfsLibNative.MODE_IPC_CLIENT);
        assertTaken("a/b", NfsLibNative.MODE_INTERNAL, 0);
    }

    @Test
    public void theServersOwnNameIsRefusedInTheIpcModes() throws IOException {
        assertRefused("Cannot use \"server\" as ID", "server", NfsLibNative.MODE_IPC_SERVER);
        assertRefused("Cannot use \"server\" as ID", "server", NfsLibNative.MODE_IPC_CLIENT);
        assertTaken("server", NfsLibNative.MODE_INTERNAL, 0);
        assertTaken("server1", NfsLibNative.MODE_IPC_SERVER, 1);
    }

    @Test
    public void noIdentityIsRefusedInEveryMode() {
        for (int mode : MODES) {
            assertRefused("ID is not defined", "", mode);
            assertRefused("ID is not defined", null, mode);
        }
    }

    @Test
    public void everyModeTakesAnOrdinaryIdentity() throws IOException {
        for (int mode : MODES) {
            assertTaken("host-1", mode, mode);
        }
    }

    @Test
    public void anyOtherModeIsTheInternalOne() throws IOException {
        assertTaken("host", 3, 0);
        assertTaken("host", -1, 0);
        assertTaken("host", Integer.MAX_VALUE, 0);
    }

    @Test
    public void theIdentityAndTheCategoriesAreThoseGiven() throws IOException {
        long quiet = host.initial("quiet", NfsLibNative.MODE_INTERNAL, 1);
        host.startRemoteController(quiet);
        assertEquals(List.of(), host.lines);
        long general = host.initial("gene ral", NfsLibNative.MODE_INTERNAL, 2);
        host.startRemoteController(general);
        assertEquals(List.of("info|gene ral|[NfsMain.StartRemoteController] No remote controller "
                + "to start. It is NOT support in internal server mode."), host.lines);
        host.terminate(quiet);
        host.terminate(general);
    }

    @Test
    public void theExceptionIsThrownOnceOnly() throws IOException {
        assertRefused("ID is not defined", "", NfsLibNative.MODE_INTERNAL);
        assertTaken("host", NfsLibNative.MODE_INTERNAL, 0);
    }
}
