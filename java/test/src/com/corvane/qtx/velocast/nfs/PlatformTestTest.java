package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;

import com.corvane.qtx.velocast.nfs.PlatformReport.Attributes;
import com.corvane.qtx.velocast.nfs.PlatformReport.Case;
import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.After;
import org.junit.Before;
import org.junit.Test;
import org.junit.runner.RunWith;
import org.junit.runners.Parameterized;
import org.junit.runners.Parameterized.Parameter;
import org.junit.runners.Parameterized.Parameters;

/**
 * A host hears the whole report of a file system's test, and why a test was refused. When the call
 * returns, everything has come: a server waits until its controller has taken a line.
 */
@RunWith(Parameterized.class)
public class PlatformTestTest {
    private static final String REFUSED = "Cannot start platrorm test. Error=";

    @Parameters(name = "mode {0}")
    public static Object[] modes() {
        return new Object[] {NfsLibNative.MODE_INTERNAL, NfsLibNative.MODE_IPC_SERVER,
            NfsLibNative.MODE_IPC_CLIENT};
    }

    @Parameter public int mode;

    private final RecordingHost host = new RecordingHost();
    private ConsoleServer console;
    private long handle;
    /** The identity of the process that tests. */
    private String id = "java";

    @Before
    public void create() throws IOException {
        if (mode == NfsLibNative.MODE_IPC_CLIENT) {
            console = new ConsoleServer(Files.createTempFile("console", ".txt"));
            id = "console";
        }
        handle = host.initial("java", mode, 0);
        host.startRemoteController(handle);
        host.setLogControl(handle, 0);
    }

    @After
    public void end() throws IOException {
        host.stopRemoteController(handle);
        host.terminate(handle);
        if (console != null) {
            console.close();
        }
    }

    private void assertReport(PlatformReport expected, Path directory, long size) {
        host.lines.clear();
        host.runTestMode(handle, directory.toString(), size);
        assertEquals(expected.text(id), PlatformReport.timeless(host.lines));
    }

    private void assertOnlyLine(String line, String directory, long size) {
        host.lines.clear();
        host.runTestMode(handle, directory, size);
        assertEquals(List.of(line), host.lines);
    }

    private void assertRefused(String reason, String directory, long size) {
        assertOnlyLine("info|" + id + "|" + REFUSED + reason, directory, size);
    }

    // ---------------------------------------------------------------------------------------------
    // The whole report
    // ---------------------------------------------------------------------------------------------

    @Test
    public void theReportOfEverySizeArrivesWhole() throws IOException {
        try (TmpFs fs = new TmpFs(PlatformReport.OPTIONS)) {
            for (Case test : PlatformReport.CASES) {
                assertReport(new PlatformReport(
                        fs.folder.toString(), PlatformReport.ATTRIBUTES, test),
                        fs.folder, test.size());
                assertTrue("nothing is left of " + test, fs.isEmpty());
            }
        }
    }

    @Test
    public void theDirectoryIsReportedAsItIsResolved() throws IOException {
        try (TmpFs fs = new TmpFs(PlatformReport.OPTIONS)) {
            Path real = Files.createDirectory(fs.folder.resolve("r\u00E9el"));
            Path link = Files.createSymbolicLink(fs.folder.resolve("link"), real);
            assertReport(new PlatformReport(real.toString(),
                    new Attributes("64.0MB", "64.0MB", "1000(3E8)", "997(3E5)"),
                    PlatformReport.SMALL), link, 100);
        }
    }

    // ---------------------------------------------------------------------------------------------
    // Steps that fail
    // ---------------------------------------------------------------------------------------------

    /** A file system of one page that is full, and its report. */
    private static PlatformReport fill(TmpFs fs) throws IOException {
        Files.write(fs.folder.resolve("filler"), new byte[4096]);
        return new PlatformReport(fs.folder.toString(),
                new Attributes("4.0KB", "0.0B", "10(A)", "8(8)"), PlatformReport.MEDIUM)
                .notWriting("No space left on device (28)")
                .notWriting("No space left on device (28)");
    }

    @Test
    public void aFullFileSystemFailsWhereDataIsWritten() throws IOException {
        try (TmpFs fs = new TmpFs("size=4096,nr_inodes=10")) {
            assertReport(fill(fs), fs.folder, 5000);
            assertFalse(Files.exists(fs.folder.resolve("_test")));
        }
    }

    @Test
    public void aFileSystemThatFillsUpTakesAPartOfTheData() throws IOException {
        // The second pass begins in the only page and ends beyond it.
        try (TmpFs fs = new TmpFs("size=4096,nr_inodes=10")) {
            PlatformReport report = new PlatformReport(fs.folder.toString(),
                    new Attributes("4.0KB", "4.0KB", "10(A)", "9(9)"), PlatformReport.MEDIUM)
                    .failing(2, "Write data", "Data lenght not match (write length = 1144)")
                    .failing(2, "Move pointer", "File write failed")
                    .failing(2, "Read data", "File seek failed")
                    .failing(2, "Verify data", "File read failed");
            assertReport(report, fs.folder, 5000);
            assertTrue(fs.isEmpty());
        }
    }

    @Test
    public void withoutAFreeSlotEveryStepFails() throws IOException {
        String missing = "No such file or directory (2)";
        String closed = "Bad file descriptor";
        try (TmpFs fs = new TmpFs("size=64m,nr_inodes=1")) {
            PlatformReport report = new PlatformReport(fs.folder.toString(),
                    new Attributes("64.0MB", "64.0MB", "1(1)", "0(0)"), PlatformReport.MEDIUM, "0")
                    .failing(1, "Create directory", "No space left on device (28)")
                    .failing(1, "Create file", missing)
                    .failing(1, "Close file", closed);
            for (String resize : new String[] {"Enlarge file", "Shrink file"}) {
                report.failing(1, resize, missing)
                        .failing(1, "Open file", "Set file size failed")
                        .failing(1, "Verify file size", "Open file failed")
                        .failing(1, "Close file", "Open file failed");
            }
            report.failing(1, "Open file", missing);
            for (int pass = 1; pass <= 2; ++pass) {
                report.failing(1, "File seek", closed).notWriting("File seek failed");
            }
            report.failing(1, "Get file stat", missing);
            // The file's own mode is none when there is no file.
            for (String fileMode : new String[] {"8124", "0"}) {
                report.failing(1, "Set file mode " + fileMode + " ", missing)
                        .failing(1, "Get file mode", "Set file mode failed")
                        .failing(1, "Verify file mode " + fileMode + " ", "Get file mode failed");
            }
            report.failing(1, "Close file", closed)
                    .failing(1, "Rename file", missing)
                    .failing(1, "Remove file", missing)
                    .failing(1, "Remove directory", missing);
            assertReport(report, fs.folder, 5000);
        }
    }

    @Test
    public void theLargestSizeFailsTheStepsThatSetIt() throws IOException {
        try (TmpFs fs = new TmpFs(PlatformReport.OPTIONS)) {
            host.runTestMode(handle, fs.folder.toString(), Long.MAX_VALUE);
            String enlarge = "info|" + id + "|[FAIL] Enlarge file \"" + fs.folder
                    + "/_test/test.bak\" size to -9223372036854774785. ";
            assertTrue(host.lines.contains(enlarge + "Error=Invalid argument (22)"));
            assertTrue(fs.isEmpty());
        }
    }

    @Test
    public void theErrorsOfFileAccessComeBeforeTheirSteps() throws IOException {
        try (TmpFs fs = new TmpFs("size=4096,nr_inodes=10")) {
            String step = "info|" + id + "|[FAIL] Write data";
            String error = "error|" + id + "|[Utilities.RunTestMode] OS write file (N). "
                    + "Error=No space left on device (28)\n";
            String expected = fill(fs).text(id).replace(step, error + step);
            host.setLogControl(handle, 1);
            host.runTestMode(handle, fs.folder.toString(), 5000);
            assertEquals(expected, PlatformReport.timeless(host.lines)
                    .replaceAll("OS write file \\([0-9]+\\)", "OS write file (N)"));
        }
    }

    // ---------------------------------------------------------------------------------------------
    // Refusals
    // ---------------------------------------------------------------------------------------------

    @Test
    public void aSizeOfZeroOrLessIsRefused() throws IOException {
        try (TmpFs fs = new TmpFs(PlatformReport.OPTIONS)) {
            // The last one's lower 32 bits are a size.
            for (long size : new long[] {0, -1, Long.MIN_VALUE, Long.MIN_VALUE + 100}) {
                assertRefused("File size is ZERO", fs.folder.toString(), size);
            }
            // Looked at before the directory.
            assertRefused("File size is ZERO", fs.folder + "/missing", 0);
            assertTrue(fs.isEmpty());
        }
    }

    @Test
    public void aMissingDirectoryIsRefused() throws IOException {
        Path folder = Files.createTempDirectory("folder").toRealPath();
        String missing = folder.resolve("missing").toString();
        assertRefused("Target directory \"" + missing + "\" not exist", missing, 100);
        assertFalse(Files.exists(Path.of(missing)));
        assertRefused("Target directory \"\" not exist", "", 100);
    }

    @Test
    public void noDirectoryIsRefused() {
        // No message can tell nothing from an empty text.
        assertRefused(mode == NfsLibNative.MODE_IPC_CLIENT
                ? "Target directory \"\" not exist" : "Target directory is NULL", null, 100);
    }

    @Test
    public void whatAnInterruptedRunLeftIsRefusedAndKept() throws IOException {
        Path folder = Files.createTempDirectory("folder").toRealPath();
        Path left = Files.createDirectory(folder.resolve("_test"));
        Files.writeString(left.resolve("test.bak"), "left");
        assertRefused("Test directory \"" + left + "\" already exist", folder.toString(), 100);
        assertEquals("left", Files.readString(left.resolve("test.bak")));
    }

    /** 3071 bytes fit into a message. */
    @Test
    public void aPathThatDoesNotFitIsNotTestedCutShort() throws IOException {
        try (TmpFs fs = new TmpFs(PlatformReport.OPTIONS)) {
            String folder = fs.folder.toString();
            PlatformReport report =
                    new PlatformReport(folder, PlatformReport.ATTRIBUTES, PlatformReport.SMALL);
            String longest = folder + "/".repeat(3071 - folder.length());
            host.setLogControl(handle, 1);
            host.runTestMode(handle, longest, 100);
            assertEquals(report.text(id), PlatformReport.timeless(host.lines));
            host.lines.clear();
            host.runTestMode(handle, longest + "/", 100);
            assertEquals(mode == NfsLibNative.MODE_IPC_CLIENT
                    ? "error|java|[IpcClient.SendRequest] Text is too long for ipc request. "
                            + "(Max = 3071)\n"
                    : report.text(id), PlatformReport.timeless(host.lines));
        }
    }
}
