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
    static final Path PROGRAM = Path.of(System.getProperty("velocast.nfs.program"));

    private final Path output;
    private final Process process;
    private final Writer console;

    ConsoleServer(Path output) throws IOException {
        this(PROGRAM, output);
    }

    /** Runs a copy of the program. */
    ConsoleServer(Path program, Path output) throws IOException {
        this.output = output;
        process = new ProcessBuilder(program.toString(), "-md", "svr", "-id", "console")
                .redirectErrorStream(true).redirectOutput(output.toFile()).start();
        console = process.outputWriter();
        Path channel = Paths.get("/tmp/nfs-server");
        Wait.until("the server listens", () -> Files.exists(channel) && printed("Command: "));
    }

    private boolean printed(String text) {
        try {
            return output().contains(text);
        } catch (IOException e) {
            throw new AssertionError(e);
        }
    }

    /** What it has printed so far. */
    String output() throws IOException {
        return Files.readString(output);
    }

    long pid() {
        return process.pid();
    }

    /** Ends it from another process. */
    void shutDown() throws IOException {
        Process controller = new ProcessBuilder(PROGRAM.toString(), "-shutdown")
                .redirectErrorStream(true).redirectOutput(ProcessBuilder.Redirect.DISCARD).start();
        awaitEnd(controller);
        awaitEnd(process);
    }

    /** Ends it at its console, unless it has ended. */
    @Override
    public void close() throws IOException {
        if (process.isAlive()) {
            console.write("quit\n");
        }
        console.close();
        awaitEnd(process);
    }

    private static void awaitEnd(Process process) {
        try {
            boolean ended = process.waitFor(30, TimeUnit.SECONDS);
            process.destroyForcibly();
            assertTrue("the program ends", ended);
            assertEquals(0, process.exitValue());
        } catch (InterruptedException e) {
            throw new AssertionError(e);
        }
    }
}
