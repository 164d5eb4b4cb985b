package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.stream.Collectors;
import org.junit.Test;

/** The signals belong to the host. Runs in a machine that has not loaded the library before. */
public class SignalsTest {
    private static String handledAndIgnored() throws IOException {
        return Files.readAllLines(Path.of("/proc/self/status")).stream()
                .filter(line -> line.startsWith("SigCgt") || line.startsWith("SigIgn"))
                .collect(Collectors.joining("\n"));
    }

    @Test
    public void theLibraryChangesNoSignalHandler() throws IOException {
        String before = handledAndIgnored();
        RecordingHost host = new RecordingHost();
        assertEquals("Not Defined", host.getVersion(0));
        assertEquals("after loading", before, handledAndIgnored());
        try (Service service = new Service(host); NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.run("create file");
            assertEquals("while serving", before, handledAndIgnored());
        }
        assertEquals("at the end", before, handledAndIgnored());
    }
}
