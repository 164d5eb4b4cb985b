package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.file.Path;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicBoolean;
import org.junit.After;
import org.junit.Before;
import org.junit.Test;

/** Which object is told, and how long the callback loop lasts. */
public class CallbackLoopTest {
    private static final List<String> ONE_LINE = List.of("raw|java| session1 - s : /somewhere");

    /** Stays in a log line or a write until it is told to go on. */
    private static final class BlockingHost extends RecordingHost {
        final CountDownLatch entered = new CountDownLatch(1);
        final CountDownLatch released = new CountDownLatch(1);

        private void block() {
            entered.countDown();
            try {
                released.await();
            } catch (InterruptedException e) {
                throw new AssertionError(e);
            }
        }

        @Override
        protected void logRaw(String id, String text) {
            super.logRaw(id, text);
            block();
        }

        @Override
        protected int writeRedirectedFile(
                String id, String path, long seek, int seekType, int length) {
            if (seek == 0) {
                block();
            }
            return super.writeRedirectedFile(id, path, seek, seekType, length);
        }
    }

    private final RecordingHost first = new RecordingHost();
    private final RecordingHost second = new RecordingHost();
    private Service service;
    private Path disk;

    @Before
    public void serve() throws IOException {
        service = new Service(new RecordingHost());
        disk = service.redirected("disk.img");
    }

    @After
    public void end() throws InterruptedException {
        first.stopLoop();
        second.stopLoop();
        service.close();
    }

    private String write(long position) {
        return "write vm01 " + disk + " " + position + " 0 10";
    }

    // ---------------------------------------------------------------------------------------------
    // How long
    // ---------------------------------------------------------------------------------------------

    @Test
    public void zeroSecondsReturnAtOnceWithoutAsking() {
        first.interrupted = true;
        long begin = System.nanoTime();
        assertEquals(0, first.receiveCallbackLoop(service.handle, 0));
        assertTrue(System.nanoTime() - begin < 900_000_000L);
        assertEquals(0, first.interruptedAsked.get());
    }

    @Test
    public void threeSecondsTakeAboutThreeSeconds() {
        long begin = System.nanoTime();
        assertEquals(0, first.receiveCallbackLoop(service.handle, 3));
        double seconds = (System.nanoTime() - begin) / 1e9;
        assertTrue(seconds + " s", seconds >= 3 && seconds < 6);
        assertEquals("once a second", 3, first.interruptedAsked.get());
    }

    @Test
    public void anInterruptionEndsTheSecondsEarly() {
        first.interrupted = true;
        long begin = System.nanoTime();
        assertEquals(0, first.receiveCallbackLoop(service.handle, 1000));
        assertTrue(System.nanoTime() - begin < 900_000_000L);
        assertEquals(1, first.interruptedAsked.get());
    }

    @Test
    public void aNegativeNumberLastsUntilTheObjectIsInterrupted() {
        RecordingHost host = new RecordingHost() {
            @Override
            protected boolean isInterrupted() {
                return super.isInterrupted() || interruptedAsked.get() == 4;
            }
        };
        long begin = System.nanoTime();
        assertEquals(0, host.receiveCallbackLoop(service.handle, -1));
        assertEquals(4, host.interruptedAsked.get());
        assertTrue(System.nanoTime() - begin >= 3_000_000_000L);
    }

    @Test
    public void theDefaultAsksTheThread() throws InterruptedException {
        NfsLibNative plain = new NfsLibNative();
        Thread loop = new Thread(() -> plain.receiveCallbackLoop(service.handle, -1));
        loop.start();
        loop.interrupt();
        loop.join(10_000);
        assertEquals(false, loop.isAlive());
    }

    // ---------------------------------------------------------------------------------------------
    // Who is told
    // ---------------------------------------------------------------------------------------------

    @Test
    public void aCallLendsItsOwnObjectWhenNoOtherIsThere() {
        service.listOneSession(first);
        assertEquals(ONE_LINE, first.lines);
        service.listOneSession(second);
        assertEquals(ONE_LINE, second.lines);
        assertEquals(ONE_LINE, first.lines);
    }

    @Test
    public void afterTheCallNobodyIsTold() throws IOException {
        service.listOneSession(first);
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.fail("write disk.img 0 10");
        }
        assertEquals(List.of(), first.notifications);
    }

    @Test
    public void afterTheLoopNobodyIsTold() throws Exception {
        first.startLoop(service.handle);
        first.stopLoop();
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.fail("write disk.img 0 10");
        }
        assertEquals(List.of(), first.notifications);
    }

    @Test
    public void theLoopsObjectHearsWhatOtherCallsCause() throws Exception {
        first.startLoop(service.handle);
        service.listOneSession(second);
        assertEquals(List.of(), second.lines);
        assertEquals(ONE_LINE, first.lines);

        // The other call left it in place.
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.run("write disk.img 0 10");
        }
        assertEquals(List.of(write(0)), first.notifications);
    }

    @Test
    public void aLoopAsksItsOwnObjectAlsoBehindAnother() throws Exception {
        first.startLoop(service.handle);
        int asked = first.interruptedAsked.get();
        second.interrupted = true;
        assertEquals(0, second.receiveCallbackLoop(service.handle, -1));
        assertEquals(1, second.interruptedAsked.get());
        assertTrue(first.interruptedAsked.get() <= asked + 1);

        // Leaving did not take the first one's place away.
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.run("write disk.img 0 10");
        }
        assertEquals(List.of(write(0)), first.notifications);
    }

    @Test
    public void aSecondLoopTakesOverWhenTheFirstEnds() throws Exception {
        first.startLoop(service.handle);
        second.startLoop(service.handle);
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.run("write disk.img 0 10");
            first.stopLoop();
            tool.run("write disk.img 10 10");
        }
        assertEquals(List.of(write(0)), first.notifications);
        assertEquals(List.of(write(10)), second.notifications);
    }

    // The loop's object is told as soon as the other call is over, not a second later.
    @Test
    public void aLoopTakesOverAsSoonAsAnotherCallIsOver() throws Exception {
        BlockingHost caller = new BlockingHost();
        Thread call = new Thread(() -> service.listOneSession(caller));
        call.start();
        caller.entered.await();
        second.startLoop(service.handle);
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            tool.run("write disk.img 10 10");
            caller.released.countDown();
            call.join();
            tool.run("write disk.img 20 10");
        }
        assertEquals(List.of(write(10)), caller.notifications);
        assertEquals(List.of(write(20)), second.notifications);
    }

    @Test
    public void noNotificationIsLostWhileCallsComeAndGo() throws Exception {
        Thread[] callers = new Thread[4];
        AtomicBoolean end = new AtomicBoolean();
        for (int i = 0; i < callers.length; ++i) {
            callers[i] = new Thread(() -> {
                while (!end.get()) {
                    first.isSessionExists(service.handle, "s");
                }
            });
            callers[i].start();
        }
        second.startLoop(service.handle);
        int writes = 500;
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            for (int i = 0; i < writes; ++i) {
                tool.run("write disk.img " + i + " 10");
            }
        }
        end.set(true);
        for (Thread caller : callers) {
            caller.join();
        }
        assertEquals(writes, first.notifications.size() + second.notifications.size());
    }

    @Test
    public void anObjectInUseOutlivesItsLoop() throws Exception {
        BlockingHost host = new BlockingHost();
        host.startLoop(service.handle);
        try (NfsTool tool = new NfsTool(Service.EXPORT)) {
            Thread client = new Thread(() -> {
                try {
                    tool.run("write disk.img 0 10");
                } catch (IOException e) {
                    throw new AssertionError(e);
                }
            });
            client.start();
            host.entered.await();
            host.stopLoop();
            System.gc();
            host.released.countDown();
            client.join();
            assertEquals(List.of(write(0)), host.notifications);
            tool.fail("write disk.img 0 10");
        }
        assertEquals(1, host.notifications.size());
    }
}
