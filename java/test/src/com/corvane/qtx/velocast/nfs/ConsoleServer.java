package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.io.Writer;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.concurrent.TimeUnit;

/** The console program as a server that other processes drive. */
final class ConsoleServer implements AutoCloseable {
    private final Process process;
    private final Writer console;

    ConsoleServer(Path output) throws IOException {
        process = new ProcessBuilder(System.getProperty("velocast.nfs.program"),
                "-md", "svr", "-id", "console")
                .redirectErrorStream(true).redirectOutput(output.toFile()).start();
        console = process.outputWriter();
        Path channel = Paths.get("/tmp/nfs-server");
        Wait.until("the server listens", () -> Files.exists(channel) && prompts(output));
    }

    private static boolean prompts(Path output) {
        try {
            return Files.readString(output).contains("Command: ");
        } catch (IOException e) {
            throw new AssertionError(e);
        }
    }

    long pid() {
        return process.pid();
    }

    @Override
    public void close() throws IOException {
        console.write("quit\n");
        console.close();
        try {
            boolean ended = process.waitFor(30, TimeUnit.SECONDS);
            process.destroyForcibly();
            assertTrue("the server ends", ended);
            assertEquals(0, process.exitValue());
        } catch (InterruptedException e) {
            throw new AssertionError(e);
        }
    }
}
