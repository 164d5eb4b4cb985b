package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;

import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import java.util.stream.Collectors;

/** The lines that a test of a file system reports. */
final class PlatformReport {
    /** A file size in bytes, and where and how much the two passes write and read. */
    record Case(long size, long from1, int length1, long from2, int length2) {}

    static final Case SMALL = new Case(100, 0, 99, 0, 99);
    static final Case MEDIUM = new Case(5000, 0, 2048, 2952, 2048);
    static final List<Case> CASES = List.of(
            new Case(1, 0, 0, 0, 0),
            SMALL,
            new Case(2047, 0, 2046, 0, 2046),
            new Case(2048, 0, 2047, 0, 2048),
            new Case(2049, 0, 2048, 1, 2048),
            MEDIUM,
            new Case(1 << 20, 0, 2048, 1046528, 2048),
            // More than 32 bits hold; most of it is a hole.
            new Case(4294967301L, 0, 2048, 4294965253L, 2048));

    /** What the report tells of a file system: total and free space, total and free slots. */
    record Attributes(String space, String freeSpace, String slots, String freeSlots) {}

    /** Options of a file system, and what the report tells of it while it is empty. */
    static final String OPTIONS = "size=64m,nr_inodes=1000";
    static final Attributes ATTRIBUTES =
            new Attributes("64.0MB", "64.0MB", "1000(3E8)", "999(3E7)");

    private static final String TEXT = """
            =============================== START TEST ===============================
             >> Directory : "{folder}"
             >> File      : "{folder}/test.bak"

            ------------------------ ATTRIBUTES of file system -----------------------
            Current time (in milliseconds)          : {now}
            Maximum File Size                       : 2.0TB
            Total Disk Space                        : {space}
            Free Disk Space                         : {freeSpace}
            Free Disk Space To Caller               : {freeSpace}
            Total File Slots                        : {slots}
            Free File Slots                         : {freeSlots}
            Free File Slots To Caller               : {freeSlots}

            -------------------------------- FILE IO ---------------------------------
            [ OK ] Create directory "{folder}".
            [ OK ] Create file "{folder}/test.bak".
            [ OK ] Close file "{folder}/test.bak".
            [ OK ] Enlarge file "{folder}/test.bak" size to {enlarged}.
            [ OK ] Open file "{folder}/test.bak".
            [ OK ] Verify file size.
            [ OK ] Close file "{folder}/test.bak".
            [ OK ] Shrink file "{folder}/test.bak" size to {size}.
            [ OK ] Open file "{folder}/test.bak".
            [ OK ] Verify file size.
            [ OK ] Close file "{folder}/test.bak".
            [ OK ] Open file "{folder}/test.bak".
            [ OK ] File seek to position {from1}.
            [ OK ] Write data with length {length1}.
            [ OK ] Move pointer to position {from1}.
            [ OK ] Read data with length {length1}.
            [ OK ] Verify data with size {length1}.
            [ OK ] File seek to position {from2}.
            [ OK ] Write data with length {length2}.
            [ OK ] Move pointer to position {from2}.
            [ OK ] Read data with length {length2}.
            [ OK ] Verify data with size {length2}.
            [ OK ] Get file stat from file "{folder}/test.bak".
            [ OK ] Set file mode 8124 to file "{folder}/test.bak".
            [ OK ] Get file mode from file "{folder}/test.bak".
            [ OK ] Verify file mode 8124 from file "{folder}/test.bak".
            [ OK ] Set file mode {mode} to file "{folder}/test.bak".
            [ OK ] Get file mode from file "{folder}/test.bak".
            [ OK ] Verify file mode {mode} from file "{folder}/test.bak".
            [ OK ] Close file "{folder}/test.bak".
            [ OK ] Rename file from "{folder}/test.bak" to "{folder}/test.bak2".
            [ OK ] Remove file "{folder}/test.bak2".
            [ OK ] Remove directory "{folder}".
            ================================ END TEST ================================
            """;

    private static final Pattern NOW =
            Pattern.compile("(?<=\\|Current time \\(in milliseconds\\) {10}: )([0-9]{13})(?=\n)");
    private static final String OK = "[ OK ] ";

    private final List<String> lines;

    /** A report in which every step works. */
    PlatformReport(String directory, Attributes attributes, Case test) {
        this(directory, attributes, test, "81A4");
    }

    /** The mode is the file's before the steps that change it, its type included. */
    PlatformReport(String directory, Attributes attributes, Case test, String mode) {
        lines = new ArrayList<>(TEXT
                .replace("{folder}", directory + "/_test")
                .replace("{space}", attributes.space())
                .replace("{freeSpace}", attributes.freeSpace())
                .replace("{slots}", attributes.slots())
                .replace("{freeSlots}", attributes.freeSlots())
                .replace("{enlarged}", String.valueOf(test.size() + 1024))
                .replace("{size}", String.valueOf(test.size()))
                .replace("{from1}", String.valueOf(test.from1()))
                .replace("{length1}", String.valueOf(test.length1()))
                .replace("{from2}", String.valueOf(test.from2()))
                .replace("{length2}", String.valueOf(test.length2()))
                .replace("{mode}", mode)
                .lines().toList());
    }

    /** Lets a step fail: the nth, from 1, of those that begin like this and have not failed yet. */
    PlatformReport failing(int nth, String step, String reason) {
        int left = nth;
        for (int i = 0; i < lines.size(); ++i) {
            String line = lines.get(i);
            if (line.startsWith(OK + step) && --left == 0) {
                lines.set(i, "[FAIL] " + line.substring(OK.length()) + " Error=" + reason);
                return this;
            }
        }
        throw new AssertionError("no step " + step);
    }

    /** The rest of a pass when its data could not be written. */
    PlatformReport notWriting(String reason) {
        return failing(1, "Write data", reason)
                .failing(1, "Move pointer", "File write failed")
                .failing(1, "Read data", "File seek failed")
                .failing(1, "Verify data", "File read failed");
    }

    /** The lines as a host gets them, one text. */
    String text(String id) {
        return text(lines.stream().map(line -> "info|" + id + "|" + line)
                .collect(Collectors.toList()));
    }

    /** Lines that a host got, with no moment in them. */
    static String timeless(List<String> lines) {
        Matcher now = NOW.matcher(text(lines));
        return now.replaceAll(moment -> {
            // Clocks are set at times.
            assertEquals(System.currentTimeMillis(), Long.parseLong(moment.group()), 60_000.0);
            return "{now}";
        });
    }

    private static String text(List<String> lines) {
        return String.join("\n", lines) + "\n";
    }
}
