package com.corvane.qtx.velocast.nfs;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.attribute.PosixFilePermissions;
import java.util.ArrayList;
import java.util.List;

/** The helper program that unmounts a datastore: a script that keeps the words of every call. */
final class RecordingHelper {
    private final Path calls;

    /**
     * Puts it into a folder in place of an earlier one.
     *
     * @param commands what its shell does at the end of a call
     */
    RecordingHelper(Path folder, String commands) throws IOException {
        calls = Files.createTempFile("calls", ".txt");
        Path script = path(folder);
        Files.writeString(script, "#!/bin/sh\n"
                + "{ echo call; for word; do printf '=%s\\n' \"$word\"; done; } >>'" + calls + "'\n"
                + commands + "\n");
        Files.setPosixFilePermissions(script, PosixFilePermissions.fromString("rwxr-xr-x"));
    }

    static Path path(Path folder) {
        return folder.resolve("dsPurgeToolFbdX86");
    }

    /** The words of each call so far. */
    List<List<String>> calls() throws IOException {
        List<List<String>> words = new ArrayList<>();
        for (String line : Files.readAllLines(calls)) {
            if (line.equals("call")) {
                words.add(new ArrayList<>());
            } else {
                words.get(words.size() - 1).add(line.substring(1));
            }
        }
        return words;
    }

    /** The words of a call for one datastore. */
    static List<String> call(String moid, String host, String port, String user, String password) {
        return List.of("-host", host, "-port", port, "-user", user, "-pwd", password,
                "-method", "removeDatastore", "-argu", moid);
    }
}
