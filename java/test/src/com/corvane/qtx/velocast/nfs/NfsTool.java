package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertNotNull;
import static org.junit.Assert.assertTrue;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.io.Writer;
import java.nio.charset.StandardCharsets;
import java.util.concurrent.TimeUnit;

/** A process that mounts an export and runs commands on it. */
final class NfsTool implements AutoCloseable {
    private final Process process;
    private final Writer commands;
    private final BufferedReader answers;

    NfsTool(String export) throws IOException {
        process = new ProcessBuilder(System.getProperty("velocast.nfs.tool"), export)
                .redirectError(ProcessBuilder.Redirect.INHERIT).start();
        commands = process.outputWriter(StandardCharsets.US_ASCII);
        answers = new BufferedReader(
                new InputStreamReader(process.getInputStream(), StandardCharsets.UTF_8));
    }

    /** The whole answer: "ok" or "error" and what follows. */
    String answer(String command) throws IOException {
        commands.write(command + "\n");
        commands.flush();
        String line = answers.readLine();
        assertNotNull("an answer to " + command, line);
        return line;
    }

    /** The result of a command that must succeed. */
    String run(String command) throws IOException {
        String line = answer(command);
        assertTrue(command + ": " + line, line.startsWith("ok "));
        return line.substring(3);
    }

    /** The reason of a command that must fail. */
    String fail(String command) throws IOException {
        String line = answer(command);
        assertTrue(command + ": " + line, line.startsWith("error "));
        return line.substring(6);
    }

    /** Whether a command succeeds with the result. */
    boolean answers(String command, String result) {
        try {
            return answer(command).equals("ok " + result);
        } catch (IOException e) {
            throw new AssertionError(e);
        }
    }

    /** Unmounts. */
    @Override
    public void close() throws IOException {
        commands.close();
        try {
            if (!process.waitFor(30, TimeUnit.SECONDS)) {
                process.destroyForcibly();
                throw new AssertionError("the client does not end");
            }
        } catch (InterruptedException e) {
            throw new AssertionError(e);
        }
    }
}
