package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.io.RandomAccessFile;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.Arrays;
import java.util.concurrent.TimeUnit;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.Test;

/** The programs that a reader is given do what they say. */
public class DocumentedProgramsTest {
    private static final Path SOURCE_DIR = Path.of(System.getProperty("velocast.nfs.source"));
    private static final String JAR = System.getProperty("velocast.nfs.jar");

    private static String tool(String name) {
        return Path.of(System.getProperty("java.home"), "bin", name).toString();
    }

    private static Path compile(Path program) throws Exception {
        Path classes = Files.createTempDirectory("classes");
        Process javac = new ProcessBuilder(tool("javac"), "-Xlint:all", "-Werror", "-cp", JAR,
                "-d", classes.toString(), program.toString()).inheritIO().start();
        assertEquals(0, javac.waitFor());
        return classes;
    }

    private static Process run(Path classes, Path output, String... command) throws IOException {
        String[] line = {tool("java"), "-XX:TieredStopAtLevel=1", "-Xmx128m",
            "-Dvelocast.nfs.library=" + System.getProperty("velocast.nfs.library"),
            "-cp", JAR + ":" + classes};
        String[] all = Arrays.copyOf(line, line.length + command.length);
        System.arraycopy(command, 0, all, line.length, command.length);
        return new ProcessBuilder(all).redirectErrorStream(true).redirectOutput(output.toFile())
                .start();
    }

    private static void await(Path output, String text) {
        Wait.until("the program prints " + text, () -> {
            try {
                return Files.readString(output).contains(text);
            } catch (IOException e) {
                throw new AssertionError(e);
            }
        });
    }

    /** Waits until the export can be mounted. */
    private static NfsTool mount() {
        NfsTool[] tool = new NfsTool[1];
        Wait.until("the export is there", () -> {
            try {
                tool[0] = new NfsTool("vm01");
                tool[0].run("stat disk.img");
                return true;
            } catch (IOException | AssertionError e) {
                return false;  // not yet
            }
        });
        return tool[0];
    }

    @Test
    public void theHostOfTheReadmeServesAndHears() throws Exception {
        Matcher block = Pattern.compile("```java\\n(.*?)```", Pattern.DOTALL)
                .matcher(Files.readString(SOURCE_DIR.resolve("README.md")));
        assertTrue(block.find());
        String text = block.group(1);
        Path folder = Files.createTempDirectory("readme").toRealPath();
        Path export = Files.createDirectory(folder.resolve("vm"));
        Path disk = Files.createFile(export.resolve("disk.img"));
        Path backup = folder.resolve("disk.raw");
        try (RandomAccessFile file = new RandomAccessFile(backup.toFile(), "rw")) {
            file.setLength(1L << 30);
            file.seek(4096);
            file.write(new byte[] {0x11, 0x22});
        }
        assertTrue(text.contains("\"/srv/vm\"") && text.contains("\"/backup/disk.raw\""));
        Path program = Files.writeString(folder.resolve("Host.java"),
                text.replace("/srv/vm", export.toString())
                        .replace("/backup/disk.raw", backup.toString()));
        Path output = folder.resolve("output.txt");
        Process host = run(compile(program), output, "Host");
        try (NfsTool tool = mount()) {
            Wait.until("the segment is there", () -> tool.answers("stat disk.img", "1073741824"));
            Wait.until("the content is there",
                    () -> tool.answers("read disk.img 4095 4", "00112200"));
            Wait.until("the host listens", () -> tool.answers("write disk.img 512 100", "100"));
            await(output, "written 100 bytes at 512 of " + disk);
        }
        host.destroy();
        assertTrue(host.waitFor(30, TimeUnit.SECONDS));
        assertEquals("ended by SIGTERM only", 128 + 15, host.exitValue());
    }

    @Test
    public void theExampleHostPrintsEveryNotification() throws Exception {
        Path folder = Files.createTempDirectory("example").toRealPath();
        Path export = Files.createDirectory(folder.resolve("vm"));
        Path source = Files.write(folder.resolve("source.raw"), new byte[] {1, 2, 3, 4, 5});
        Path output = folder.resolve("output.txt");
        Path classes = compile(SOURCE_DIR.resolve("java/example/ExampleHost.java"));
        Process host = run(classes, output, "ExampleHost", export.toString(), source.toString());
        await(output, "Serving");
        Path disk = export.resolve("disk.img");
        Path moved = export.resolve("moved.img");
        try (NfsTool tool = new NfsTool("vm01")) {
            assertEquals("0102030405", tool.run("read disk.img 0 5"));
            assertEquals("3", tool.run("write disk.img 1 3"));
            tool.run("truncate disk.img 4");
            tool.run("rename disk.img moved.img");
            tool.run("remove moved.img");
        }
        host.getOutputStream().close();
        assertTrue(host.waitFor(30, TimeUnit.SECONDS));
        assertEquals(0, host.exitValue());
        assertEquals("Serving " + disk + ", press Ctrl-D to end\n"
                + "written 3 bytes at 1 of " + disk + "\n"
                + "attributes of " + disk + ", size 4\n"
                + "renamed " + disk + " to " + moved + "\n"
                + "removed " + moved + "\n",
                // An error line tells of each COMMIT, which is not served.
                Files.readString(output).replaceAll("(?m)^error .*\n", ""));
    }
}
