package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.io.InputStream;
import java.nio.file.Files;
import java.nio.file.Path;
import org.junit.Test;

/** A boolean counts as true only when it is exactly 1, whatever byte code may pass. */
public class BooleanTest {
    /** Passes the constant true everywhere; is also loaded with another constant in its place. */
    public static final class Caller implements Calls {
        @Override
        public void startServerReadOnly(NfsLibNative host, long handle) throws IOException {
            host.startServer(handle, 0, 0, true);
        }

        @Override
        public int mountedExports(NfsLibNative host, long handle) {
            return host.getMountInfo(handle, true, false);
        }

        @Override
        public int listedExports(NfsLibNative host, long handle) {
            return host.getMountInfo(handle, false, true);
        }

        @Override
        public int listedSessions(NfsLibNative host, long handle) {
            return host.getSessionInfo(handle, true);
        }

        @Override
        public void exportMerged(NfsLibNative host, long handle, String path, String target) {
            host.exportRedirectedFileInfo(handle, path, target, true);
        }
    }

    /** What both versions of the caller offer. */
    public interface Calls {
        void startServerReadOnly(NfsLibNative host, long handle) throws IOException;

        int mountedExports(NfsLibNative host, long handle);

        int listedExports(NfsLibNative host, long handle);

        int listedSessions(NfsLibNative host, long handle);

        void exportMerged(NfsLibNative host, long handle, String path, String target);
    }

    private static final byte ICONST_1 = 4;
    private static final byte ICONST_2 = 5;
    private static final byte INVOKEVIRTUAL = (byte) 0xB6;
    private static final byte ICONST_0 = 3;

    /** {@link Caller} with 2 where it passes true. */
    private static Calls callerWithTwo() throws Exception {
        String name = Caller.class.getName();
        byte[] code;
        try (InputStream in = Caller.class.getResourceAsStream(
                name.substring(name.lastIndexOf('.') + 1) + ".class")) {
            code = in.readAllBytes();
        }
        int patched = 0;
        for (int i = 0; i + 1 < code.length; ++i) {
            boolean last = code[i + 1] == INVOKEVIRTUAL;
            boolean lastButOne = code[i + 1] == ICONST_0 && i + 2 < code.length
                    && code[i + 2] == INVOKEVIRTUAL;
            if (code[i] == ICONST_1 && (last || lastButOne)) {
                code[i] = ICONST_2;
                ++patched;
            }
        }
        assertEquals("constants passed", 5, patched);
        byte[] changed = code;
        ClassLoader loader = new ClassLoader(BooleanTest.class.getClassLoader()) {
            @Override
            protected Class<?> loadClass(String wanted, boolean resolve)
                    throws ClassNotFoundException {
                return wanted.equals(name) ? defineClass(name, changed, 0, changed.length)
                        : super.loadClass(wanted, resolve);
            }
        };
        return (Calls) loader.loadClass(name).getConstructor().newInstance();
    }

    /** Whether each boolean counts as true. */
    private static void check(Calls calls, boolean counts) throws Exception {
        RecordingHost host = new RecordingHost();
        long handle = host.initial("java", NfsLibNative.MODE_INTERNAL, 1);
        Path folder = Files.createTempDirectory("export").toRealPath();
        Path disk = Files.createFile(folder.resolve("disk.img"));
        calls.startServerReadOnly(host, handle);
        host.addMountPoint(handle, folder.toString(), "vm01");
        try (NfsTool tool = new NfsTool("vm01")) {
            assertEquals(counts, tool.answer("create file").startsWith("error"));
        }

        assertEquals(counts ? 0 : 1, calls.mountedExports(host, handle));
        assertEquals(1, calls.listedExports(host, handle));
        assertEquals(counts ? 1 : 0, host.lines.size());
        host.addSession(handle, "s", "/s");
        assertEquals(1, calls.listedSessions(host, handle));
        assertEquals(counts ? 2 : 0, host.lines.size());

        String path = disk.toString();
        Path target = Files.createFile(folder.resolve("target.txt"));
        host.openRedirectedFile(handle, path, 100, false, 0, 0);
        host.addRedirectedFileSegment(handle, path, "/source", 0, 0, 10);
        calls.exportMerged(host, handle, path, target.toString());
        assertEquals(counts, Files.readString(target).contains("Merged"));

        host.stopServer(handle);
        host.terminate(handle);
    }

    @Test
    public void oneCountsAsTrue() throws Exception {
        check(new Caller(), true);
    }

    @Test
    public void twoCountsAsFalse() throws Exception {
        Calls calls = callerWithTwo();
        assertTrue(calls.getClass() != Caller.class);
        check(calls, false);
    }
}
