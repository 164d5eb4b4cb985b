package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.List;
import org.junit.After;
import org.junit.Before;
import org.junit.Test;

/** Names need not be UTF-8, and not all of UTF-8 is what the virtual machine calls so. */
public class TextTest {
    private final RecordingHost host = new RecordingHost();
    private Service service;

    @Before
    public void serve() throws IOException {
        service = new Service(host);
        host.startLoop(service.handle);
    }

    @After
    public void end() throws InterruptedException {
        host.stopLoop();
        service.close();
    }

    /** What arrives when a client gives a redirected file the name. */
    private void assertArrives(String arriving, String name) throws IOException {
        Path disk = service.redirected("disk.img");
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.run("stat disk.img");  // what no client has looked up is not renamed
            tool.run("rename disk.img " + name);
            tool.run("write " + name + " 0 10");
            tool.run("remove " + name);
        }
        String path = service.folder + "/" + arriving;
        assertEquals(List.of("rename vm01 " + disk + " " + path, "write vm01 " + path + " 0 0 10",
                "remove vm01 " + path), host.notifications);
        host.notifications.clear();
    }

    @Test
    public void badSequencesBecomeReplacementCharacters() throws IOException {
        assertArrives("a\uFFFDb", "a%FFb");
        assertArrives("a\uFFFDb", "a%80b");              // a continuation without a beginning
        assertArrives("a\uFFFD\uFFFDb", "a%E2%82b");     // cut short
        assertArrives("a\uFFFD", "a%C3");                // cut short by the end
        assertArrives("\uFFFD\uFFFD\uFFFD", "%F0%9F%98");
        assertArrives("\uFFFD\uFFFDa", "%C1%81a");       // more bytes than needed
        assertArrives("\uFFFD\uFFFD\uFFFD", "%E0%80%AF");
        assertArrives("\uFFFD\uFFFD\uFFFD\uFFFD", "%F5%80%80%80");  // beyond the last character
        assertArrives("\uFFFD\uFFFD\uFFFD\uFFFD", "%F4%90%80%80");
        assertArrives("\uFFFD\uFFFD", "%FE%FF");
    }

    @Test
    public void goodSequencesArriveAsTheyAre() throws IOException {
        assertArrives("\u00E4\u20AC\u4E2D\uFFFD", "%C3%A4%E2%82%AC%E4%B8%AD%EF%BF%BD");
    }

    @Test
    public void charactersBeyondTheFirst65536ArriveWhole() throws IOException {
        assertArrives("a\uD83D\uDE00b", "a%F0%9F%98%80b");
        assertArrives("\uD800\uDC00\uDBFF\uDFFF", "%F0%90%80%80%F4%8F%BF%BF");
    }

    // The virtual machine writes such a character as two surrogates of three bytes each.
    @Test
    public void aPathThatJavaGaveComesBackTheSame() throws IOException {
        String name = "\uD83D\uDE00";
        String bytes = "%ED%A0%BD%ED%B8%80";
        String path = service.folder + "/" + name;
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.run("create " + bytes);
            host.openRedirectedFile(service.handle, path, 1000, false, 0, 0);
            tool.run("write " + bytes + " 0 10");
        }
        assertEquals(List.of("write vm01 " + path + " 0 0 10"), host.notifications);
    }

    @Test
    public void logLinesArriveWithReplacementCharacters() throws IOException {
        host.setLogControl(service.handle, 1023);
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.run("create bad%FF%C3name");
        }
        host.setLogControl(service.handle, 1);
        assertTrue(host.hasLine("info", "bad\uFFFD\uFFFDname"));
    }

    @Test
    public void errorTextsArriveWithReplacementCharacters() throws IOException {
        // Refused over the control channel with a text that is not UTF-8.
        byte[] text = {'b', 'a', 'd', (byte) 0xFF};
        try (FakeServer server = new FakeServer(4, text)) {
            long controller = host.initial("controller", NfsLibNative.MODE_IPC_CLIENT, 1);
            try {
                host.addMountPoint(controller, "/", "x");
                throw new AssertionError("not refused");
            } catch (IOException e) {
                assertEquals("bad\uFFFD", e.getMessage());
            }
            host.terminate(controller);
        }
    }

    @Test
    public void aServersVersionAndDescriptionNeedNotBeUtf8() throws IOException {
        byte[] text = {'1', (byte) 0xED, '.', (byte) 0xF0, (byte) 0x9F, (byte) 0x98, (byte) 0x80};
        try (FakeServer server = new FakeServer(5, text)) {
            long controller = host.initial("controller", NfsLibNative.MODE_IPC_CLIENT, 1);
            assertEquals("1\uFFFD.\uD83D\uDE00", host.getVersion(controller));
            assertEquals("1\uFFFD.\uD83D\uDE00", host.getDescription(controller));
            host.terminate(controller);
        }
    }
}
