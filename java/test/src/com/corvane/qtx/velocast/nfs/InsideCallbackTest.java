package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.atomic.AtomicLong;
import org.junit.Test;

/** Inside a callback, what would end the threads that callbacks run on is refused. */
public class InsideCallbackTest {
    private static final List<String> REFUSED = List.of(
            "java.lang.IllegalStateException: stopServer must not be called from inside a callback",
            "java.lang.IllegalStateException: stopRemoteController must not be called from inside a"
                    + " callback",
            "java.lang.IllegalStateException: terminate must not be called from inside a callback");

    /** Tries to stop everything from inside each of its callbacks. */
    private static final class StoppingHost extends RecordingHost {
        final List<String> thrown = new CopyOnWriteArrayList<>();
        volatile long target;

        private void attempt(Runnable call) {
            try {
                call.run();
                thrown.add("nothing");
            } catch (RuntimeException e) {
                thrown.add(e.toString());
            }
        }

        private void stopEverything() {
            if (target != 0) {
                attempt(() -> stopServer(target));
                attempt(() -> stopRemoteController(target));
                attempt(() -> terminate(target));
            }
        }

        @Override
        protected void logRaw(String id, String text) {
            super.logRaw(id, text);
            stopEverything();
        }

        @Override
        protected void logError(String id, String text) {
            super.logError(id, text);
            stopEverything();
        }

        @Override
        protected boolean isInterrupted() {
            stopEverything();
            return super.isInterrupted();
        }

        @Override
        protected int writeRedirectedFile(
                String id, String path, long seek, int seekType, int length) {
            stopEverything();
            return super.writeRedirectedFile(id, path, seek, seekType, length);
        }
    }

    private final StoppingHost host = new StoppingHost();

    @Test
    public void onTheThreadOfAJavaCall() throws IOException {
        try (Service service = new Service(host)) {
            host.target = service.handle;
            service.listOneSession(host);
            host.target = 0;
            assertEquals(REFUSED, host.thrown);
            assertTrue(host.isServerRunning(service.handle));
        }
    }

    @Test
    public void onTheThreadOfAClient() throws Exception {
        try (Service service = new Service(host)) {
            service.redirected("disk.img");
            host.startLoop(service.handle);
            try (NfsTool tool = new NfsTool(Service.EXPORT)) {
                host.target = service.handle;
                Wait.until("the loop asks", () -> host.thrown.size() >= 3);
                host.thrown.clear();
                assertEquals("10", tool.run("write disk.img 0 10"));
                host.target = 0;
                assertTrue(host.thrown.containsAll(REFUSED));
                assertFalse(host.thrown.contains("nothing"));
                assertTrue(host.isServerRunning(service.handle));
                assertEquals("the client goes on", "10", tool.run("write disk.img 10 10"));
            }
            host.stopLoop();
        }
    }

    @Test
    public void onTheThreadOfTheLoop() throws Exception {
        try (Service service = new Service(host)) {
            host.target = service.handle;
            assertEquals(0, host.receiveCallbackLoop(service.handle, 1));
            host.target = 0;
            assertEquals(REFUSED, host.thrown);
            assertTrue(host.isServerRunning(service.handle));
        }
    }

    @Test
    public void onTheThreadOfTheCallbackChannel() throws Exception {
        try (ConsoleServer server = new ConsoleServer(Files.createTempFile("console", ".txt"))) {
            long handle = host.initial("java", NfsLibNative.MODE_IPC_CLIENT, 1);
            assertTrue(host.startRemoteController(handle));
            host.addSession(handle, "s", "/somewhere");
            host.target = handle;
            assertEquals(1, host.getSessionInfo(handle, true));
            host.target = 0;
            assertEquals(REFUSED, host.thrown);
            assertEquals("the channel goes on", 1, host.getSessionInfo(handle, true));
            assertEquals(2, host.lines.size());
            host.stopRemoteController(handle);
            host.terminate(handle);
        }
    }

    /** A refusal that the callback does not catch is described, as everything that it throws. */
    @Test
    public void anUncaughtRefusalCountsAsTheDefaultResult() throws Exception {
        AtomicLong target = new AtomicLong();
        RecordingHost careless = new RecordingHost() {
            @Override
            protected int writeRedirectedFile(
                    String id, String path, long seek, int seekType, int length) {
                stopServer(target.get());
                return length;
            }
        };
        try (Service service = new Service(careless)) {
            target.set(service.handle);
            service.redirected("disk.img");
            careless.startLoop(service.handle);
            try (NfsTool tool = new NfsTool(Service.EXPORT)) {
                tool.fail("write disk.img 0 10");
                tool.run("create file");
            }
            careless.stopLoop();
            assertTrue(careless.isServerRunning(service.handle));
        }
    }

    @Test
    public void withoutAHandleNothingIsRefused() throws IOException {
        try (Service service = new Service(new RecordingHost())) {
            List<String> thrown = new CopyOnWriteArrayList<>();
            service.listOneSession(new RecordingHost() {
                @Override
                protected void logRaw(String id, String text) {
                    try {
                        stopServer(0);
                        stopRemoteController(0);
                        terminate(0);
                    } catch (RuntimeException e) {
                        thrown.add(e.toString());
                    }
                }
            });
            assertEquals(List.of(), thrown);
        }
    }
}
