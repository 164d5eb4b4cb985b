package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;

/** A file system of known size, mounted while it lives. */
final class TmpFs implements AutoCloseable {
    final Path folder;

    /** Covers a folder; only in the mount namespace that every test has to itself. */
    TmpFs(Path folder, String options) throws IOException {
        this.folder = folder;
        run("mount", "-t", "tmpfs", "-o", options, "tmpfs", folder.toString());
    }

    /** In a new folder. */
    TmpFs(String options) throws IOException {
        this(Files.createTempDirectory("fs").toRealPath(), options);
    }

    boolean isEmpty() throws IOException {
        try (var files = Files.list(folder)) {
            return files.findAny().isEmpty();
        }
    }

    @Override
    public void close() throws IOException {
        run("umount", "-l", folder.toString());
    }

    private static void run(String... command) throws IOException {
        Process process = new ProcessBuilder(command).inheritIO().start();
        try {
            assertEquals(String.join(" ", command), 0, process.waitFor());
        } catch (InterruptedException e) {
            throw new AssertionError(e);
        }
    }
}
