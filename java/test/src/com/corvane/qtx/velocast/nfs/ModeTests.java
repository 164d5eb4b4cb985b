package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.After;
import org.junit.AfterClass;
import org.junit.Before;
import org.junit.Test;

/** What holds in every access mode; a subclass starts the service of one. */
public abstract class ModeTests {
    /** As the export's name is the identity of what its clients cause. */
    private static final String EXPORT = "vm01";
    private static final long SIZE = 1_000_000;

    static RecordingHost host;
    static long handle;
    private static int mode;
    private static ConsoleServer console;

    private Path folder;
    private Path source;
    private Path disk;

    static void startService(int accessMode) throws IOException {
        mode = accessMode;
        host = new RecordingHost();
        if (mode == NfsLibNative.MODE_IPC_CLIENT) {
            console = new ConsoleServer(Files.createTempFile("console", ".txt"));
        }
        handle = host.initial("java", mode, 1);
        assertTrue(host.startRemoteController(handle));
        host.startLoop(handle);
        assertFalse(host.isServerRunning(handle));
        assertEquals(1, host.getServerStatus(handle));
        assertTrue(host.startServer(handle, 0, 0, false));
    }

    @AfterClass
    public static void stopService() throws Exception {
        host.stopServer(handle);
        // A controller never stops the server of another process.
        assertEquals(mode == NfsLibNative.MODE_IPC_CLIENT, host.isServerRunning(handle));
        host.stopRemoteController(handle);
        host.stopLoop();
        host.terminate(handle);
        if (console != null) {
            console.close();
            console = null;
        }
    }

    @Before
    public void exportFolder() throws IOException {
        folder = Files.createTempDirectory("export").toRealPath();
        source = Files.createTempFile("source", ".raw").toRealPath();
        byte[] content = new byte[(int) SIZE];
        for (int i = 0; i < content.length; ++i) {
            content[i] = (byte) (i % 251);
        }
        Files.write(source, content);
        disk = folder.resolve("disk.img");
        Files.createFile(disk);
        assertTrue(host.addMountPoint(handle, folder.toString(), EXPORT));
        host.notifications.clear();
        host.lines.clear();
        host.attributesAnswer = host.removeAnswer = host.renameAnswer = 0;
        host.writeAnswer = length -> length;
    }

    @After
    public void takeExportBack() {
        host.setLogControl(handle, 1);
        host.closeAllRedirectedFiles(handle, folder.toString());
        host.removeMountPoint(handle, folder.toString());
    }

    private void redirect() throws IOException {
        host.openRedirectedFile(handle, disk.toString(), SIZE, false, 0, 0);
        host.addRedirectedFileSegment(handle, disk.toString(), source.toString(), 0, 0, SIZE);
    }

    private static String hex(byte[] bytes, int from, int count) {
        StringBuilder text = new StringBuilder();
        for (int i = from; i < from + count; ++i) {
            text.append(String.format("%02x", bytes[i]));
        }
        return text.toString();
    }

    // ---------------------------------------------------------------------------------------------
    // The service
    // ---------------------------------------------------------------------------------------------

    @Test
    public void tellsWhatTheServerIs() {
        assertEquals(mode, host.getAccessMode(handle));
        assertEquals("1.2", host.getVersion(handle));
        assertEquals(mode == NfsLibNative.MODE_INTERNAL ? "Internal NFS Server"
                : "External NFS Server", host.getDescription(handle));
        assertTrue(host.isServerRunning(handle));
        assertEquals(3, host.getServerStatus(handle));
    }

    @Test
    public void aSecondStartThrowsTheReason() {
        IOException e = assertThrows(
                IOException.class, () -> host.startServer(handle, 0, 0, false));
        assertEquals(IOException.class, e.getClass());
        assertEquals("NFS already running", e.getMessage());
    }

    @Test
    public void startingTheControllerAgainIsFine() throws IOException {
        assertTrue(host.startRemoteController(handle));
    }

    @Test
    public void logControlDecidesWhatIsLogged() throws IOException {
        try (NfsTool tool = new NfsTool(EXPORT)) {
            host.setLogControl(handle, 2);
            host.lines.clear();
            tool.run("stat disk.img");
            Wait.until("general lines come", () -> host.hasLine("info", "Path match"));
            assertTrue(host.lines.stream().allMatch(
                    line -> line.matches("info\\|(vm01|127.0.0.1|" + serverId() + ")\\|.*")));
            host.setLogControl(handle, 1);
            host.lines.clear();
            tool.run("stat disk.img");
        }
        assertEquals(List.of(), host.lines);
    }

    // ---------------------------------------------------------------------------------------------
    // Exports and sessions
    // ---------------------------------------------------------------------------------------------

    @Test
    public void aRefusedExportThrowsTheReason() throws IOException {
        String path = folder.toString();
        assertEquals("Export name \"vm01\" already defined", assertThrows(IOException.class,
                () -> host.addMountPoint(handle, "/", EXPORT)).getMessage());
        assertEquals("Local mount path \"" + path + "\" already defined",
                assertThrows(IOException.class,
                        () -> host.addMountPoint(handle, path + "/", "vm02")).getMessage());
        assertEquals("Invalid char \"/\" inside export name", assertThrows(IOException.class,
                () -> host.addMountPoint(handle, "/", "a/b")).getMessage());
        assertEquals(1, host.getMountInfo(handle, false, false));
    }

    @Test
    public void exportsAreCountedAndListed() throws IOException {
        assertEquals(0, host.getMountInfo(handle, true, false));
        assertEquals(List.of(), host.lines);
        try (NfsTool tool = new NfsTool(EXPORT)) {
            tool.run("stat disk.img");
            assertEquals(1, host.getMountInfo(handle, true, true));
        }
        String owner = mode == NfsLibNative.MODE_IPC_CLIENT ? "java" : "";
        Wait.until("the line comes", () -> !host.lines.isEmpty());
        assertEquals(List.of("raw|" + serverId() + "| mount1 - " + folder
                + " : vm01 (127.0.0.1) [" + owner + "]"), host.lines);
        host.removeMountPoint(handle, folder.toString());
        assertEquals(0, host.getMountInfo(handle, false, false));
    }

    @Test
    public void sessionsAreAddedListedAndRemoved() {
        host.addSession(handle, "s1", "/somewhere");
        host.addSession(handle, "s2", "/elsewhere");
        assertTrue(host.isSessionExists(handle, "s1"));
        assertFalse(host.isSessionExists(handle, "s3"));
        // A controller has an own table, which nothing fills.
        assertEquals(mode != NfsLibNative.MODE_IPC_CLIENT, host.isLocalSessionExists(handle, "s1"));
        assertEquals(2, host.getSessionInfo(handle, true));
        Wait.until("the lines come", () -> host.lines.size() == 2);
        assertEquals(List.of("raw|" + serverId() + "| session1 - s1 : /somewhere",
                "raw|" + serverId() + "| session2 - s2 : /elsewhere"), host.lines);
        host.removeSession(handle, "s1");
        assertFalse(host.isSessionExists(handle, "s1"));
        host.removeSession(handle, "s2");
        host.lines.clear();
        assertEquals(0, host.getSessionInfo(handle, false));
        assertEquals(List.of(), host.lines);
    }

    /** The identity of the process that serves. */
    private static String serverId() {
        return mode == NfsLibNative.MODE_IPC_CLIENT ? "console" : "java";
    }

    // ---------------------------------------------------------------------------------------------
    // Redirected files
    // ---------------------------------------------------------------------------------------------

    @Test
    public void aClientReadsTheSegments() throws IOException {
        redirect();
        byte[] content = Files.readAllBytes(source);
        try (NfsTool tool = new NfsTool(EXPORT)) {
            assertEquals("1000000", tool.run("stat disk.img"));
            assertEquals(hex(content, 70_000, 300), tool.run("read disk.img 70000 300"));
        }
        assertEquals(List.of(), host.notifications);
    }

    @Test
    public void aNullSourceIsARangeOfZeros() throws IOException {
        host.openRedirectedFile(handle, disk.toString(), SIZE, false, 0, 0);
        host.addRedirectedFileSegment(handle, disk.toString(), source.toString(), 0, 0, 10);
        host.addRedirectedFileSegment(handle, disk.toString(), null, 0, 10, 5);
        host.addRedirectedFileSegment(handle, disk.toString(), source.toString(), 0, 15, 10);
        try (NfsTool tool = new NfsTool(EXPORT)) {
            assertEquals("0809" + "0000000000" + "0001", tool.run("read disk.img 8 9"));
        }
    }

    @Test
    public void aRefusedSegmentThrowsAnEmptyText() throws IOException {
        IOException e = assertThrows(IOException.class, () -> host.addRedirectedFileSegment(
                handle, disk.toString(), source.toString(), 0, 0, SIZE));
        assertEquals(IOException.class, e.getClass());
        assertEquals("", e.getMessage());
    }

    @Test
    public void aWriteIsANotificationWithPositionAndLength() throws IOException {
        redirect();
        try (NfsTool tool = new NfsTool(EXPORT)) {
            assertEquals("100", tool.run("write disk.img 5000 100"));
            // Positions are 64 bits wide.
            assertEquals("7", tool.run("write disk.img 1099511627777 7"));
        }
        assertEquals(List.of("write vm01 " + disk + " 5000 0 100",
                "write vm01 " + disk + " 1099511627777 0 7"), host.notifications);
        assertEquals("the file itself is left alone", 0, Files.size(disk));
    }

    @Test
    public void aShortAnswerMakesTheClientSendTheRest() throws IOException {
        redirect();
        host.writeAnswer = length -> Math.min(length, 60);
        try (NfsTool tool = new NfsTool(EXPORT)) {
            assertEquals("100", tool.run("write disk.img 0 100"));
        }
        assertEquals(List.of("write vm01 " + disk + " 0 0 100", "write vm01 " + disk + " 60 0 40"),
                host.notifications);
    }

    @Test
    public void theAnswerZeroMeansThatNothingWasWritten() throws IOException {
        redirect();
        host.writeAnswer = length -> 0;
        try (NfsTool tool = new NfsTool(EXPORT)) {
            tool.fail("write disk.img 0 100");
        }
        assertEquals(List.of("write vm01 " + disk + " 0 0 100"), host.notifications);
    }

    @Test
    public void aNegativeAnswerFailsTheWrite() throws IOException {
        redirect();
        host.writeAnswer = length -> -1;
        try (NfsTool tool = new NfsTool(EXPORT)) {
            tool.fail("write disk.img 0 100");
        }
        assertEquals(List.of("write vm01 " + disk + " 0 0 100"), host.notifications);
    }

    @Test
    public void theAnswerIsTheCountOfTheReply() throws IOException {
        redirect();
        try (RawClient client = new RawClient(EXPORT)) {
            for (int answer : new int[] {100, 60, 1, 0}) {
                host.writeAnswer = length -> answer;
                assertEquals(answer, client.write("disk.img", 0, 100));
            }
            host.writeAnswer = length -> -1;
            assertEquals("NFS3ERR_INVAL", -22, client.write("disk.img", 0, 100));
            host.writeAnswer = length -> Integer.MIN_VALUE;
            assertEquals("NFS3ERR_INVAL", -22, client.write("disk.img", 0, 100));
        }
        assertEquals(6, host.notifications.size());
    }

    @Test
    public void aTruncationIsANotificationWhoseAnswerDoesNotMatter() throws IOException {
        redirect();
        host.attributesAnswer = -1;
        try (NfsTool tool = new NfsTool(EXPORT)) {
            tool.run("truncate disk.img 5000000000");
        }
        assertEquals(List.of("attributes vm01 " + disk + " 5000000000 - -"), host.notifications);
    }

    @Test
    public void timesArriveWithZeroHighWords() throws IOException {
        redirect();
        try (NfsTool tool = new NfsTool(EXPORT)) {
            // The largest second of 32 bits, which a sign would turn into -1, and one above 2^31.
            tool.run("utimes disk.img 4294967295 2147483649");
        }
        assertEquals(List.of("attributes vm01 " + disk + " - 4294967295 2147483649"),
                host.notifications);
    }

    @Test
    public void aRenamingIsANotification() throws IOException {
        redirect();
        Path moved = folder.resolve("moved.img");
        try (NfsTool tool = new NfsTool(EXPORT)) {
            tool.run("stat disk.img");  // what no client has looked up is not renamed
            tool.run("rename disk.img moved.img");
            assertEquals("1000000", tool.run("stat moved.img"));
        }
        assertEquals(List.of("rename vm01 " + disk + " " + moved), host.notifications);
        assertTrue(Files.exists(moved));
    }

    @Test
    public void aRefusedRenamingFailsTheClientsCall() throws IOException {
        redirect();
        host.renameAnswer = 1;
        try (NfsTool tool = new NfsTool(EXPORT)) {
            tool.run("stat disk.img");
            tool.fail("rename disk.img moved.img");
        }
        assertEquals(1, host.notifications.size());
    }

    @Test
    public void aRemovalIsANotification() throws IOException {
        redirect();
        try (NfsTool tool = new NfsTool(EXPORT)) {
            tool.run("remove disk.img");
        }
        assertEquals(List.of("remove vm01 " + disk), host.notifications);
        assertFalse(Files.exists(disk));
    }

    @Test
    public void aRefusedRemovalFailsTheClientsCall() throws IOException {
        redirect();
        host.removeAnswer = 1;
        try (NfsTool tool = new NfsTool(EXPORT)) {
            tool.fail("remove disk.img");
        }
        assertEquals(List.of("remove vm01 " + disk), host.notifications);
    }

    @Test
    public void aClosedRedirectedFileIsAnOrdinaryOne() throws IOException {
        redirect();
        host.closeRedirectedFile(handle, disk.toString());
        try (NfsTool tool = new NfsTool(EXPORT)) {
            assertEquals("0", tool.run("stat disk.img"));
            assertEquals("10", tool.run("write disk.img 0 10"));
            redirect();
            assertEquals("1000000", tool.run("stat disk.img"));
            host.closeAllRedirectedFiles(handle, folder.toString());
            assertEquals("10", tool.run("stat disk.img"));
        }
        assertEquals(List.of(), host.notifications);
    }

    @Test
    public void theContentIsExported() throws IOException {
        redirect();
        Path copy = Files.createFile(folder.resolve("copy.raw"));
        host.exportRedirectedFile(handle, disk.toString(), copy.toString());
        assertArrayEquals(Files.readAllBytes(source), Files.readAllBytes(copy));
    }

    @Test
    public void theSegmentsAreExported() throws IOException {
        host.openRedirectedFile(handle, disk.toString(), SIZE, false, 0, 0);
        String path = disk.toString();
        host.addRedirectedFileSegment(handle, path, source.toString(), 0, 0, 1000);
        host.addRedirectedFileSegment(handle, path, source.toString(), 1000, 1000, 1000);
        Path apart = Files.createFile(folder.resolve("apart.txt"));
        Path merged = Files.createFile(folder.resolve("merged.txt"));
        host.exportRedirectedFileInfo(handle, path, apart.toString(), false);
        host.exportRedirectedFileInfo(handle, path, merged.toString(), true);
        assertTrue(Files.readString(apart).contains(source.toString()));
        assertTrue("neighbours become one range",
                Files.readAllLines(merged).size() < Files.readAllLines(apart).size());
    }

    @Test
    public void theInfoFileIsWrittenOnlyWhenAskedFor() throws IOException {
        host.openRedirectedFile(handle, disk.toString(), SIZE, true, 1, 1);
        host.addRedirectedFileSegment(handle, disk.toString(), source.toString(), 0, 0, SIZE);
        host.closeRedirectedFile(handle, disk.toString());
        assertTrue(Files.size(disk) > 0);
    }

    // ---------------------------------------------------------------------------------------------
    // Open files, platform test, datastores, null texts
    // ---------------------------------------------------------------------------------------------

    @Test
    public void openedFilesAreClosed() throws IOException {
        try (NfsTool tool = new NfsTool(EXPORT)) {
            tool.run("write disk.img 0 10");
            tool.run("create other.img");
            tool.run("write other.img 0 10");
            assertTrue(isOpen(disk));
            host.closeOpenedFile(handle, folder.toString());
            assertTrue("a folder is no file", isOpen(disk));
            host.closeOpenedFile(handle, disk.toString());
            assertFalse(isOpen(disk));
            assertTrue(isOpen(folder.resolve("other.img")));
            host.closeAllOpenedFiles(handle, folder.toString());
            assertFalse(isOpen(folder.resolve("other.img")));
        }
    }

    /** Whether the serving process has a descriptor of the file. */
    private static boolean isOpen(Path path) throws IOException {
        String process = console != null ? String.valueOf(console.pid()) : "self";
        try (var descriptors = Files.list(Path.of("/proc", process, "fd"))) {
            return descriptors.anyMatch(descriptor -> {
                try {
                    return Files.readSymbolicLink(descriptor).equals(path);
                } catch (IOException e) {
                    return false;  // closed meanwhile
                }
            });
        }
    }

    @Test
    public void thePlatformTestRunsBesideTheService() throws IOException {
        try (TmpFs fs = new TmpFs(PlatformReport.OPTIONS)) {
            host.runTestMode(handle, fs.folder.toString(), 5000);
            assertEquals(new PlatformReport(fs.folder.toString(), PlatformReport.ATTRIBUTES,
                    PlatformReport.MEDIUM).text(serverId()), PlatformReport.timeless(host.lines));
        }
    }

    @Test
    public void nullTextsAreEmptyTexts() throws IOException {
        assertTrue(host.addMountPoint(handle, null, null));
        assertEquals("Export name \"\" already defined", assertThrows(IOException.class,
                () -> host.addMountPoint(handle, null, "")).getMessage());
        host.removeMountPoint(handle, null);
        assertEquals(1, host.getMountInfo(handle, false, false));
        host.addSession(handle, null, null);
        assertTrue(host.isSessionExists(handle, null));
        assertTrue(host.isSessionExists(handle, ""));
        host.removeSession(handle, null);
        assertFalse(host.isSessionExists(handle, ""));
        assertFalse(host.isLocalSessionExists(handle, null));
        host.openRedirectedFile(handle, null, 10, false, 0, 0);
        assertThrows(IOException.class,
                () -> host.addRedirectedFileSegment(handle, "/not/redirected", null, 0, 0, 10));
        host.exportRedirectedFile(handle, null, null);
        host.exportRedirectedFileInfo(handle, null, null, true);
        host.closeRedirectedFile(handle, null);
        host.closeOpenedFile(handle, null);
        host.runTestMode(handle, null, 0);
        host.addVSphereInfo(handle, null, null, null, null, null);
        host.removeVSphereInfo(handle, null);
        assertTrue(host.isServerRunning(handle));
    }

    @Test
    public void nullStandsForEveryPathWhereAllFilesAreClosed() throws IOException {
        redirect();
        host.closeAllOpenedFiles(handle, null);
        host.closeAllRedirectedFiles(handle, null);
        assertTrue(host.isServerRunning(handle));
    }

    @Test
    public void aSourceThatGrowsIsStillRead() throws IOException {
        redirect();
        try (RandomAccessFile file = new RandomAccessFile(source.toFile(), "rw");
                NfsTool tool = new NfsTool(EXPORT)) {
            file.seek(100);
            file.write(new byte[] {1, 2, 3});
            assertEquals("010203", tool.run("read disk.img 100 3"));
        }
    }
}
