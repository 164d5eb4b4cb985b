package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.io.File;
import java.io.IOException;
import java.lang.ref.WeakReference;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.Test;

/** Many threads call at once while clients read and write. */
public class StressTest {
    private static final int CALLERS = 16;
    private static final int CLIENTS = 2;
    private static final long SECONDS = "1".equals(System.getenv("VELOCAST_LONG")) ? 60 : 6;

    /** Answers quickly and counts. */
    private static final class CountingHost extends NfsLibNative {
        private final AtomicLong calls = new AtomicLong();
        private final AtomicLong writes = new AtomicLong();
        private volatile boolean done;

        @Override
        protected void logInfo(String id, String text) {
            calls.incrementAndGet();
        }

        @Override
        protected void logError(String id, String text) {
            calls.incrementAndGet();
        }

        @Override
        protected void logRaw(String id, String text) {
            calls.incrementAndGet();
        }

        @Override
        protected boolean isInterrupted() {
            return done;
        }

        @Override
        protected int writeRedirectedFile(
                String id, String path, long seek, int seekType, int length) {
            writes.incrementAndGet();
            return length;
        }
    }

    private final long seed = System.nanoTime();
    private final AtomicReference<Throwable> failure = new AtomicReference<>();
    private final AtomicLong clientWrites = new AtomicLong();
    private volatile boolean end;

    private interface Body {
        void run() throws Exception;
    }

    private Thread start(Body body) {
        Thread thread = new Thread(() -> {
            try {
                body.run();
            } catch (Throwable e) {
                failure.compareAndSet(null, e);
                end = true;
            }
        });
        thread.start();
        return thread;
    }

    private static int count(String folder) {
        return new File("/proc/self", folder).list().length;
    }

    /** One call chosen by chance; each thread has an export and a session of its own. */
    private static void call(CountingHost host, long handle, Random random, int caller,
            Path own, Path source) throws IOException {
        String session = "session" + caller;
        switch (random.nextInt(16)) {
            case 0:
                host.addSession(handle, session, own.toString());
                assertTrue(host.isSessionExists(handle, session));
                break;
            case 1:
                host.removeSession(handle, session);
                break;
            case 2:
                host.getSessionInfo(handle, random.nextBoolean());
                break;
            case 3:
                assertTrue(host.getMountInfo(handle, false, random.nextBoolean()) >= CLIENTS);
                break;
            case 4:
                assertTrue(host.addMountPoint(handle, own.toString(), "own" + caller));
                host.removeMountPoint(handle, own.toString());
                break;
            case 5:
                try {
                    host.addMountPoint(handle, own.toString(), "a/b");
                    throw new AssertionError("not refused");
                } catch (IOException e) {
                    assertEquals("Invalid char \"/\" inside export name", e.getMessage());
                }
                break;
            case 6:
                String path = own.resolve("own.img").toString();
                host.openRedirectedFile(handle, path, 100_000, false, 0, 0);
                host.addRedirectedFileSegment(handle, path, source.toString(), 0, 0, 100_000);
                host.closeRedirectedFile(handle, path);
                break;
            case 7:
                host.closeAllRedirectedFiles(handle, own.toString());
                break;
            case 8:
                host.closeAllOpenedFiles(handle, own.toString());
                break;
            case 9:
                assertEquals("1.2", host.getVersion(handle));
                break;
            case 10:
                assertEquals(3, host.getServerStatus(handle));
                break;
            case 11:
                host.receiveCallbackLoop(handle, 0);
                break;
            case 12:
                host.setLogControl(handle, random.nextInt(10) == 0 ? 1023 : 1);
                break;
            case 13:
                try {
                    host.startServer(handle, 0, 0, false);
                    throw new AssertionError("started twice");
                } catch (IOException e) {
                    assertEquals("NFS already running", e.getMessage());
                }
                break;
            case 14:
                host.addVSphereInfo(handle, "ds" + caller, "h", "1", "u", "p");
                host.removeVSphereInfo(handle, "ds" + caller);
                break;
            default:
                assertTrue(host.isServerRunning(handle));
                break;
        }
    }

    private void client(int number, Random random) throws IOException {
        try (NfsTool tool = new NfsTool("vm" + number)) {
            for (int i = 0; !end; ++i) {
                tool.run("read disk.img " + random.nextInt(90_000) + " 1000");
                assertEquals("100", tool.run("write disk.img " + random.nextInt(90_000) + " 100"));
                clientWrites.incrementAndGet();
                tool.run("create file" + i);
                tool.run("write file" + i + " 0 1000");
                tool.run("rename file" + i + " renamed");
                tool.run("remove renamed");
            }
        }
    }

    private WeakReference<CountingHost> stress(int mode) throws Exception {
        System.out.println("StressTest: seed " + seed + ", mode " + mode);
        CountingHost host = new CountingHost();
        long handle = host.initial("stress", mode, 1);
        assertTrue(host.startRemoteController(handle));
        Thread loop = start(() -> host.receiveCallbackLoop(handle, -1));
        assertTrue(host.startServer(handle, 0, 0, false));
        Path source = Files.createTempFile("source", ".raw");
        Files.write(source, new byte[100_000]);
        for (int i = 0; i < CLIENTS; ++i) {
            Path folder = Files.createTempDirectory("export").toRealPath();
            Path disk = Files.createFile(folder.resolve("disk.img"));
            assertTrue(host.addMountPoint(handle, folder.toString(), "vm" + i));
            host.openRedirectedFile(handle, disk.toString(), 100_000, false, 0, 0);
            host.addRedirectedFileSegment(
                    handle, disk.toString(), source.toString(), 0, 0, 100_000);
        }
        List<Thread> threads = new ArrayList<>();
        for (int i = 0; i < CLIENTS; ++i) {
            int number = i;
            threads.add(start(() -> client(number, new Random(seed + 1000 + number))));
        }
        for (int i = 0; i < CALLERS; ++i) {
            int caller = i;
            Path own = Files.createTempDirectory("own").toRealPath();
            Files.createFile(own.resolve("own.img"));
            threads.add(start(() -> {
                Random random = new Random(seed + caller);
                while (!end) {
                    call(host, handle, random, caller, own, source);
                }
            }));
        }
        long deadline = System.nanoTime() + SECONDS * 1_000_000_000L;
        int mostTasks = 0;
        int mostDescriptors = 0;
        while (!end && System.nanoTime() < deadline) {
            Thread.sleep(200);
            mostTasks = Math.max(mostTasks, count("task"));
            mostDescriptors = Math.max(mostDescriptors, count("fd"));
        }
        end = true;
        for (Thread thread : threads) {
            thread.join();
        }
        if (failure.get() != null) {
            throw new AssertionError("seed " + seed, failure.get());
        }
        assertTrue(clientWrites.get() > 0);
        // An export's clients are heard by whoever is lent, which is always the same object here.
        assertEquals(clientWrites.get(), host.writes.get());
        assertTrue(mostTasks + " threads", mostTasks < 100);
        assertTrue(mostDescriptors + " descriptors", mostDescriptors < 200);

        host.stopServer(handle);
        host.done = true;
        loop.join();
        host.stopRemoteController(handle);
        host.terminate(handle);
        return new WeakReference<>(host);
    }

    private void stressAndCountReferences(int mode) throws Exception {
        int tasks = count("task");
        int descriptors = count("fd");
        WeakReference<CountingHost> host = stress(mode);
        Wait.until("no reference to the object is left", () -> {
            System.gc();
            return host.get() == null;
        });
        // What the machine adds for itself: helpers for processes, class loading.
        Wait.until("the threads are gone", () -> count("task") <= tasks + 3);
        Wait.until("the descriptors are closed", () -> count("fd") <= descriptors + 5);
    }

    @Test
    public void sixteenThreadsInThisProcess() throws Exception {
        stressAndCountReferences(NfsLibNative.MODE_INTERNAL);
    }

    @Test
    public void sixteenThreadsInAControlledServer() throws Exception {
        stressAndCountReferences(NfsLibNative.MODE_IPC_SERVER);
    }

    @Test
    public void sixteenThreadsOfAController() throws Exception {
        try (ConsoleServer console = new ConsoleServer(Files.createTempFile("console", ".txt"))) {
            stressAndCountReferences(NfsLibNative.MODE_IPC_CLIENT);
        }
    }
}
