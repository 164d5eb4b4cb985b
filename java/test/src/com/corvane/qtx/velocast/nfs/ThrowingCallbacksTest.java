package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.ByteArrayOutputStream;
import java.io.IOException;
import java.io.PrintStream;
import java.net.ServerSocket;
import java.nio.file.Files;
import org.junit.After;
import org.junit.Before;
import org.junit.Test;

/** What a callback method throws is described and forgotten, and counts as its default result. */
public class ThrowingCallbacksTest {
    private static final class ThrowingHost extends RecordingHost {
        private volatile boolean throwing;

        private void maybeThrow(String what) {
            if (throwing) {
                throw new IllegalStateException("thrown by " + what);
            }
        }

        @Override
        protected void logError(String id, String text) {
            super.logError(id, text);
            maybeThrow("logError");
        }

        @Override
        protected void logRaw(String id, String text) {
            super.logRaw(id, text);
            maybeThrow("logRaw");
        }

        @Override
        protected boolean isInterrupted() {
            super.isInterrupted();
            maybeThrow("isInterrupted");
            return interrupted;
        }

        @Override
        protected int setRedirectedFileAttributes(
                String id, String path, boolean hasSize, long size, boolean hasAccessTime,
                long accessTimeSec, boolean hasModifiedTime, long modifiedTimeSec) {
            maybeThrow("setRedirectedFileAttributes");
            return 0;
        }

        @Override
        protected int removeRedirectedFile(String id, String path) {
            maybeThrow("removeRedirectedFile");
            return 0;
        }

        @Override
        protected int renameRedirectedFile(String id, String pathFrom, String pathTo) {
            maybeThrow("renameRedirectedFile");
            return 0;
        }

        @Override
        protected int writeRedirectedFile(
                String id, String path, long seek, int seekType, int length) {
            maybeThrow("writeRedirectedFile");
            return length;
        }
    }

    private final ThrowingHost host = new ThrowingHost();
    private final PrintStream standardError = System.err;
    private final ByteArrayOutputStream described = new ByteArrayOutputStream();
    private Service service;

    @Before
    public void serve() throws IOException {
        service = new Service(host);
        System.setErr(new PrintStream(described, true));
    }

    @After
    public void end() throws InterruptedException {
        System.setErr(standardError);
        host.throwing = false;
        host.stopLoop();
        service.close();
    }

    private void assertDescribed(String method) {
        String text = described.toString();
        assertTrue(text, text.contains("IllegalStateException: thrown by " + method));
    }

    @Test
    public void aLogMethodOnAJavaThread() {
        host.addSession(service.handle, "a", "/a");
        host.addSession(service.handle, "b", "/b");
        host.throwing = true;
        // Nothing is thrown here, and the second line comes in spite of the first.
        assertEquals(2, host.getSessionInfo(service.handle, true));
        assertEquals(2, host.lines.size());
        assertDescribed("logRaw");
    }

    @Test
    public void theReasonOfAFailureIsThrownInSpiteOfALogMethodThatThrows() throws IOException {
        host.stopServer(service.handle);
        try (ServerSocket busy = new ServerSocket(3049)) {
            host.throwing = true;
            IOException e = assertThrows(IOException.class,
                    () -> host.startServer(service.handle, 3058, busy.getLocalPort(), false));
            assertEquals("NFS daemon failed to open port 3049", e.getMessage());
        }
        assertEquals(1, host.lines.size());
        assertDescribed("logError");
    }

    @Test
    public void isInterruptedCountsAsFalse() {
        host.throwing = true;
        assertEquals(0, host.receiveCallbackLoop(service.handle, 2));
        assertEquals(2, host.interruptedAsked.get());
        assertDescribed("isInterrupted");
    }

    @Test
    public void writeCountsAsMinusOne() throws IOException {
        service.redirected("disk.img");
        host.startLoop(service.handle);
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            host.throwing = true;
            tool.fail("write disk.img 0 10");
            host.throwing = false;
            assertEquals("the same thread goes on", "10", tool.run("write disk.img 0 10"));
        }
        assertDescribed("writeRedirectedFile");
    }

    @Test
    public void attributesCountAsMinusOneWhichDoesNotMatter() throws IOException {
        service.redirected("disk.img");
        host.startLoop(service.handle);
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            host.throwing = true;
            tool.run("truncate disk.img 10");
        }
        assertDescribed("setRedirectedFileAttributes");
    }

    @Test
    public void renameAndRemoveCountAsMinusOne() throws IOException {
        service.redirected("disk.img");
        host.startLoop(service.handle);
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.run("stat disk.img");
            host.throwing = true;
            tool.fail("rename disk.img moved.img");
            assertDescribed("renameRedirectedFile");
            tool.fail("remove moved.img");
            assertDescribed("removeRedirectedFile");
        }
    }

    @Test
    public void everyMethodWorksAfterOneHasThrown() throws IOException {
        service.redirected("disk.img");
        host.startLoop(service.handle);
        host.throwing = true;
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            for (int i = 0; i < 50; ++i) {
                tool.fail("write disk.img 0 10");
            }
            host.throwing = false;
            tool.run("rename disk.img moved.img");
            tool.run("remove moved.img");
        }
        assertEquals("each failure is logged", 50, host.lines.size());
        assertEquals(false, Files.exists(service.folder.resolve("moved.img")));
    }
}
