package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.junit.After;
import org.junit.AfterClass;
import org.junit.BeforeClass;
import org.junit.Test;

/**
 * Datastores that a host records are unmounted, in the order of their names, before the service
 * stops: by a helper program beside the program that serves, which is {@code java} for a host that
 * serves itself.
 */
public class DatastoreTest {
    private static final int[] SERVING = {
        NfsLibNative.MODE_INTERNAL, NfsLibNative.MODE_IPC_SERVER};
    private static final int CLIENT = NfsLibNative.MODE_IPC_CLIENT;

    private static final int NFS_PORT = 2049;

    private static TmpFs besideJava;

    private final RecordingHost host = new RecordingHost();
    private long handle;

    /** Covers the folder of the running program, whose own files nothing here needs any more. */
    @BeforeClass
    public static void makeRoomBesideJava() throws IOException {
        Path java = Path.of(ProcessHandle.current().info().command().orElseThrow());
        besideJava = new TmpFs(java.getParent(), "size=1m");
    }

    @AfterClass
    public static void uncover() throws IOException {
        besideJava.close();
    }

    private void begin(int mode, int logControl) throws Exception {
        end();
        handle = host.initial("java", mode, logControl);
        host.lines.clear();
    }

    @After
    public void end() throws Exception {
        host.stopLoop();
        host.terminate(handle);
        handle = 0;
    }

    private static RecordingHelper helperBesideJava(String commands) throws IOException {
        return new RecordingHelper(besideJava.folder, commands);
    }

    /** A copy of the console program in a folder of its own, whose name is no single word. */
    private static Path copyOfTheServer() throws IOException {
        Path folder = Files.createTempDirectory("a  server").toRealPath();
        return Files.copy(ConsoleServer.PROGRAM, folder.resolve("server"));
    }

    /** Has them unmounted by a start that fails, which tells the host without a loop. */
    private void assertUnmounts(List<String> lines) throws IOException {
        host.lines.clear();
        try (ServerSocket busy =
                new ServerSocket(NFS_PORT, 1, InetAddress.getLoopbackAddress())) {
            assertEquals("NFS daemon failed to open port " + busy.getLocalPort(),
                    assertThrows(IOException.class,
                            () -> host.startServer(handle, 0, 0, false)).getMessage());
        }
        assertEquals(lines, host.lines);
    }

    // ---------------------------------------------------------------------------------------------
    // Five records, of which four remain
    // ---------------------------------------------------------------------------------------------

    private void record() {
        host.addVSphereInfo(handle, "ds-2", "old", "1", "user", "forgotten");
        host.addVSphereInfo(handle, "ds-2", "host2", "443", "root", "secret2");  // replaces it
        host.addVSphereInfo(handle, "ds-3", "host3", "443", "root", "secret3");
        host.addVSphereInfo(handle, "ds-\u00E4", "10.0.0.4", "902", "\u00FCser", "ge\u20ACim");
        host.addVSphereInfo(handle, "ds-10", "host10", "8443", "admin@example.org", "secret10");
        host.addVSphereInfo(handle, "DS-9", "host9", "80", "user", "secret9");
        host.removeVSphereInfo(handle, "ds-3");
        host.removeVSphereInfo(handle, "ds-1");  // begins like another one
    }

    /** Byte by byte: capitals before small letters, digits as they are, and accents at the end. */
    private static final List<List<String>> CALLS = List.of(
            RecordingHelper.call("DS-9", "host9", "80", "user", "secret9"),
            RecordingHelper.call("ds-10", "host10", "8443", "admin@example.org", "secret10"),
            RecordingHelper.call("ds-2", "host2", "443", "root", "secret2"),
            RecordingHelper.call("ds-\u00E4", "10.0.0.4", "902", "\u00FCser", "ge\u20ACim"));

    private static final List<String> LINES = List.of(
            "info|java|Start cleanup mounted NFS datastores",
            "info|java|Unmount NFS datastore with MOID \"DS-9\" on host \"host9:80\"",
            "info|java|Unmount NFS datastore with MOID \"ds-10\" on host \"host10:8443\"",
            "info|java|Unmount NFS datastore with MOID \"ds-2\" on host \"host2:443\"",
            "info|java|Unmount NFS datastore with MOID \"ds-\u00E4\" on host \"10.0.0.4:902\"");

    /** The same as a console prints them. */
    private static final String PRINTED =
            String.join("\n", LINES).replace("info|java|", "[info] (console) ") + "\n";

    // ---------------------------------------------------------------------------------------------
    // A host that serves
    // ---------------------------------------------------------------------------------------------

    @Test
    public void areUnmountedBeforeTheServiceStops() throws Exception {
        for (int mode : SERVING) {
            Path listening = Files.createTempFile("listening", ".txt");
            RecordingHelper helper = helperBesideJava(
                    "grep -c ' 00000000:0801 .* 0A ' /proc/net/tcp >>" + listening);
            begin(mode, 1);
            host.startLoop(handle);
            host.startServer(handle, 0, 0, false);
            record();
            assertEquals(List.of(), host.lines);
            assertEquals(List.of(), helper.calls());

            host.stopServer(handle);
            assertEquals(CALLS, helper.calls());
            assertEquals(LINES, host.lines);
            assertEquals(List.of("1", "1", "1", "1"), Files.readAllLines(listening));

            host.lines.clear();
            host.stopServer(handle);
            assertEquals("nothing is left to unmount", CALLS, helper.calls());
            assertEquals(List.of(), host.lines);
        }
    }

    @Test
    public void areUnmountedAndForgottenWhenAStartFails() throws Exception {
        for (int mode : SERVING) {
            RecordingHelper helper = helperBesideJava("");
            begin(mode, 1);
            record();
            String failure = "error|java|[NfsMain.StartServer] Fail to start NFS daemon. "
                    + "Reason=Fail to bind server socket. Address already in use (98)";
            List<String> first = new ArrayList<>(List.of(failure));
            first.addAll(LINES);
            assertUnmounts(first);
            assertEquals(CALLS, helper.calls());
            assertUnmounts(List.of(failure));
            host.lines.clear();
            assertTrue(host.startServer(handle, 0, 0, false));
            host.stopServer(handle);
            assertEquals(CALLS, helper.calls());
            assertEquals(List.of(), host.lines);
        }
    }

    @Test
    public void areUnmountedOfAServiceThatNeverRan() throws Exception {
        for (int mode : SERVING) {
            RecordingHelper helper = helperBesideJava("");
            begin(mode, 1);
            record();
            host.stopServer(handle);
            assertEquals(CALLS, helper.calls());
            assertEquals("nobody listens", List.of(), host.lines);
        }
    }

    @Test
    public void areLeftAloneByTheEndOfTheHost() throws Exception {
        for (int mode : SERVING) {
            RecordingHelper helper = helperBesideJava("");
            begin(mode, 1);
            host.startServer(handle, 0, 0, false);
            record();
            end();
            assertEquals(List.of(), helper.calls());
        }
    }

    // ---------------------------------------------------------------------------------------------
    // The helper
    // ---------------------------------------------------------------------------------------------

    @Test
    public void aHelperThatFailsChangesNothing() throws Exception {
        begin(NfsLibNative.MODE_INTERNAL, 0);
        for (String end : new String[] {"exit 0", "exit 3", "exit 127", "kill -9 $$"}) {
            RecordingHelper helper = helperBesideJava(end);
            record();
            assertUnmounts(LINES);
            assertEquals(end, CALLS, helper.calls());
            assertUnmounts(List.of());
            assertEquals("none is left after " + end, CALLS, helper.calls());
        }
    }

    @Test
    public void aMissingHelperChangesNothing() throws Exception {
        Files.deleteIfExists(RecordingHelper.path(besideJava.folder));
        begin(NfsLibNative.MODE_INTERNAL, 0);
        record();
        assertUnmounts(LINES);
        assertUnmounts(List.of());
    }

    /** Only the helper's own path is quoted. */
    @Test
    public void theShellSeesTheTextsAsTheyAre() throws Exception {
        Path folder = Files.createTempDirectory("folder").toRealPath();
        Path mark = folder.resolve("mark");
        RecordingHelper helper = helperBesideJava("");
        begin(NfsLibNative.MODE_INTERNAL, 1);
        host.addVSphereInfo(handle, "ds-1", "host1", "443", "a user", "two  words");
        host.addVSphereInfo(handle, "ds-2", "host2", "443", "root", "$((6*7))'a;b'\"c  d\"\\e");
        host.addVSphereInfo(handle, "ds-3", "host3", "443", "root", "x; touch " + mark + ";:");
        host.stopServer(handle);
        assertEquals(List.of(
                List.of("-host", "host1", "-port", "443", "-user", "a", "user", "-pwd", "two",
                        "words", "-method", "removeDatastore", "-argu", "ds-1"),
                RecordingHelper.call("ds-2", "host2", "443", "root", "42a;bc  de"),
                List.of("-host", "host3", "-port", "443", "-user", "root", "-pwd", "x")),
                helper.calls());
        assertTrue(Files.exists(mark));
    }

    @Test
    public void aCommandThatIsTooLongIsNotRunCutShort() throws Exception {
        RecordingHelper helper = helperBesideJava("");
        String fixed = "\"" + RecordingHelper.path(besideJava.folder)
                + "\" -host h -port 1 -user u -pwd  -method removeDatastore -argu ds-1";
        String longest = "w".repeat(1023 - fixed.length());
        begin(NfsLibNative.MODE_INTERNAL, 0);
        host.addVSphereInfo(handle, "ds-1", "h", "1", "u", longest);
        host.addVSphereInfo(handle, "ds-2", "h", "1", "u", longest + "w");
        assertUnmounts(List.of("info|java|Start cleanup mounted NFS datastores",
                "info|java|Unmount NFS datastore with MOID \"ds-1\" on host \"h:1\"",
                "info|java|Unmount NFS datastore with MOID \"ds-2\" on host \"h:1\"",
                "error|java|Fail to unmount NFS datastore with MOID \"ds-2\". "
                        + "Reason=Command is too long"));
        assertEquals(List.of(RecordingHelper.call("ds-1", "h", "1", "u", longest)),
                helper.calls());
    }

    // ---------------------------------------------------------------------------------------------
    // A host that drives the server of another process
    // ---------------------------------------------------------------------------------------------

    @Test
    public void areUnmountedByTheServerThatAControllerToldOfThem() throws Exception {
        Path program = copyOfTheServer();
        RecordingHelper notHere = helperBesideJava("");
        for (boolean fromAnotherProcess : new boolean[] {true, false}) {
            RecordingHelper helper = new RecordingHelper(program.getParent(), "exit 3");
            try (ConsoleServer server =
                    new ConsoleServer(program, Files.createTempFile("console", ".txt"))) {
                begin(CLIENT, 1);
                host.startRemoteController(handle);
                assertTrue(host.startServer(handle, 0, 0, false));
                record();

                host.stopServer(handle);
                assertTrue("a controller stops no server", host.isServerRunning(handle));
                assertEquals(List.of(), helper.calls());
                String before = server.output();
                if (fromAnotherProcess) {
                    server.shutDown();
                }
                server.close();
                assertEquals(CALLS, helper.calls());
                assertEquals(
                        (fromAnotherProcess ? "\nExit by request\n" : "\nExit\n") + PRINTED,
                        server.output().substring(before.length()));
                assertEquals("the lines belong to the server", List.of(), host.lines);
            }
        }
        assertEquals(List.of(), notHere.calls());
    }

    @Test
    public void areUnmountedWhenAStartThatAControllerAsksForFails() throws Exception {
        Path program = copyOfTheServer();
        RecordingHelper helper = new RecordingHelper(program.getParent(), "");
        try (ConsoleServer server =
                new ConsoleServer(program, Files.createTempFile("console", ".txt"))) {
            begin(CLIENT, 1);
            host.startRemoteController(handle);
            host.setLogControl(handle, 0);
            record();
            String before = server.output();
            assertUnmounts(List.of());
            assertEquals(CALLS, helper.calls());
            assertEquals(PRINTED, server.output().substring(before.length()));
            assertUnmounts(List.of());
            assertEquals(CALLS, helper.calls());
            assertEquals(PRINTED, server.output().substring(before.length()));
        }
    }

    @Test
    public void areUnmountedByAHostThatAControllerToldOfThem() throws Exception {
        RecordingHelper helper = helperBesideJava("");
        RecordingHost server = new RecordingHost();
        long serving = server.initial("server-host", NfsLibNative.MODE_IPC_SERVER, 1);
        server.startRemoteController(serving);
        server.startServer(serving, 0, 0, false);
        begin(CLIENT, 1);
        record();
        server.removeVSphereInfo(serving, "ds-10");  // one table for all
        host.stopServer(handle);
        end();
        assertEquals(List.of(), helper.calls());
        server.stopServer(serving);
        assertEquals(List.of(CALLS.get(0), CALLS.get(2), CALLS.get(3)), helper.calls());
        server.stopRemoteController(serving);
        server.terminate(serving);
    }

    /** 255 bytes of each text fit into a message. */
    @Test
    public void aControllersTextThatDoesNotFitIsNotSentCutShort() throws Exception {
        Path program = copyOfTheServer();
        RecordingHelper helper = new RecordingHelper(program.getParent(), "");
        try (ConsoleServer server =
                new ConsoleServer(program, Files.createTempFile("console", ".txt"))) {
            begin(CLIENT, 1);
            String longest = "w".repeat(255);
            host.addVSphereInfo(handle, "ds-1", "h", "1", "u", longest);
            assertEquals(List.of(), host.lines);
            String refused = "error|java|[IpcClient.SendRequest] "
                    + "Text is too long for ipc request. (Max = 255)";
            host.addVSphereInfo(handle, "ds-1", "h", "1", "u", longest + "w");
            host.addVSphereInfo(handle, longest + "w", "h", "1", "u", "w");
            host.removeVSphereInfo(handle, longest + "w");
            assertEquals(List.of(refused, refused, refused), host.lines);
        }
        assertEquals(List.of(RecordingHelper.call("ds-1", "h", "1", "u", "w".repeat(255))),
                helper.calls());
    }
}
