package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertThrows;
import static org.junit.Assert.assertTrue;

import java.io.File;
import java.io.IOException;
import java.lang.ref.WeakReference;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.List;
import org.junit.Test;

/** Nothing is kept: no object, no thread, no descriptor. */
public class LeakTest {
    /** Waits until the collector has taken them all, which no global reference to one survives. */
    private static void assertCollected(List<WeakReference<RecordingHost>> hosts) {
        Wait.until("the objects are collected", () -> {
            System.gc();
            return hosts.stream().allMatch(host -> host.get() == null);
        });
    }

    private static int count(String folder) {
        return new File("/proc/self", folder).list().length;
    }

    private interface Action {
        void on(RecordingHost host) throws Exception;
    }

    private static void assertKeepsNone(Action action) throws Exception {
        List<WeakReference<RecordingHost>> hosts = new ArrayList<>();
        for (int i = 0; i < 20; ++i) {
            RecordingHost host = new RecordingHost();
            action.on(host);
            hosts.add(new WeakReference<>(host));
        }
        assertCollected(hosts);
    }

    @Test
    public void callsKeepNoObject() throws Exception {
        try (Service service = new Service(new RecordingHost())) {
            assertKeepsNone(host -> {
                service.listOneSession(host);
                assertEquals(1, host.lines.size());
            });
        }
    }

    @Test
    public void callsThatThrowKeepNoObject() throws Exception {
        try (Service service = new Service(new RecordingHost())) {
            assertKeepsNone(host -> assertThrows(IOException.class,
                    () -> host.startServer(service.handle, 0, 0, false)));
        }
        assertKeepsNone(host -> assertThrows(IOException.class, () -> host.initial("", 0, 1)));
    }

    @Test
    public void aWholeLifeKeepsNoObject() throws Exception {
        assertKeepsNone(host -> {
            try (Service service = new Service(host)) {
                assertTrue(host.isServerRunning(service.handle));
            }
        });
    }

    @Test
    public void loopsKeepNoObject() throws Exception {
        try (Service service = new Service(new RecordingHost())) {
            assertKeepsNone(host -> host.receiveCallbackLoop(service.handle, 0));
            List<WeakReference<RecordingHost>> hosts = new ArrayList<>();
            Path disk = service.redirected("disk.img");
            for (int i = 0; i < 3; ++i) {
                RecordingHost host = new RecordingHost();
                host.startLoop(service.handle);
                try (NfsTool tool = new NfsTool(Service.EXPORT)) {
                    tool.run("write disk.img 0 10");
                }
                host.stopLoop();
                assertEquals(List.of("write vm01 " + disk + " 0 0 10"), host.notifications);
                hosts.add(new WeakReference<>(host));
            }
            assertCollected(hosts);
        }
    }

    // Under -Xcheck:jni the machine counts the references that one call holds.
    @Test
    public void aCallThatLogsMuchHoldsFewReferences() throws Exception {
        RecordingHost host = new RecordingHost();
        try (Service service = new Service(host)) {
            for (int i = 0; i < 500; ++i) {
                host.addSession(service.handle, "s" + i, "/s");
            }
            assertEquals(500, host.getSessionInfo(service.handle, true));
            assertEquals(500, host.lines.size());
        }
    }

    @Test
    public void noThreadAndNoDescriptorStays() throws Exception {
        RecordingHost host = new RecordingHost();
        int tasks = 0;
        int descriptors = 0;
        int javaThreads = 0;
        for (int round = 0; round < 12; ++round) {
            // After two rounds the machine has what it needs itself.
            if (round == 2) {
                tasks = count("task");
                descriptors = count("fd");
                javaThreads = Thread.activeCount();
            }
            try (Service service = new Service(host)) {
                host.startRemoteController(service.handle);
                service.redirected("disk.img");
                try (NfsTool tool = new NfsTool(Service.EXPORT)) {
                    tool.run("create file");
                    tool.run("write file 0 10");
                    tool.fail("write disk.img 0 10");
                }
                host.stopRemoteController(service.handle);
            }
            long controlled = host.initial("controlled", NfsLibNative.MODE_IPC_SERVER, 1);
            host.startRemoteController(controlled);
            host.terminate(controlled);
            assertThrows(IOException.class, () -> host.initial("", 0, 1));
        }
        int tasksBefore = tasks;
        int descriptorsBefore = descriptors;
        // The machine's own helpers (for the clients' processes) end some time later.
        Wait.until("the threads are gone", () -> count("task") <= tasksBefore);
        Wait.until("the descriptors are closed", () -> count("fd") <= descriptorsBefore);
        assertTrue(Thread.activeCount() <= javaThreads);
    }
}
