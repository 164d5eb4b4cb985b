package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;

import java.io.IOException;
import java.nio.file.Files;
import java.nio.file.Path;
import java.util.concurrent.TimeUnit;
import org.junit.AfterClass;
import org.junit.BeforeClass;
import org.junit.Test;

/** A host whose class lacks most of the callback methods. */
public class MissingMethodsTest {
    private static final NfsLibNative HOST = new NfsLibNative();
    private static long handle;
    private static Path folder;
    private static Thread loop;

    @BeforeClass
    public static void serve() throws IOException {
        folder = Files.createTempDirectory("export").toRealPath();
        handle = HOST.initial("bare", 0, 1);
        assertTrue(HOST.startServer(handle, 0, 0, false));
        assertTrue(HOST.addMountPoint(handle, folder.toString(), "vm01"));
        // Nobody says that it is interrupted, so it lasts its whole time.
        loop = new Thread(() -> HOST.receiveCallbackLoop(handle, 12));
        loop.start();
    }

    @AfterClass
    public static void end() throws InterruptedException {
        HOST.stopServer(handle);
        loop.join();
        HOST.terminate(handle);
    }

    /** What a client says to a command, and its exit code. */
    private static String client(String... words) throws Exception {
        String[] line = new String[words.length + 2];
        line[0] = System.getProperty("velocast.nfs.tool");
        line[1] = "vm01";
        System.arraycopy(words, 0, line, 2, words.length);
        Process process = new ProcessBuilder(line).redirectErrorStream(true).start();
        String output = new String(process.getInputStream().readAllBytes()).trim();
        assertTrue(process.waitFor(30, TimeUnit.SECONDS));
        return output;
    }

    private static Path redirected(String name) throws IOException {
        Path path = Files.createFile(folder.resolve(name));
        HOST.openRedirectedFile(handle, path.toString(), 1000, false, 0, 0);
        return path;
    }

    @Test
    public void aMissingWriteMethodFailsTheWrite() throws Exception {
        redirected("write.img");
        String output = client("write", "write.img", "0", "10");
        assertTrue(output, output.startsWith("error"));
    }

    @Test
    public void aMissingRenameMethodFailsTheRenaming() throws Exception {
        redirected("rename.img");
        client("stat", "rename.img");  // what no client has looked up is not renamed
        String output = client("rename", "rename.img", "renamed.img");
        assertTrue(output, output.startsWith("error"));
    }

    @Test
    public void aMissingAttributesMethodChangesNothing() throws Exception {
        redirected("truncate.img");
        assertEquals("ok", client("truncate", "truncate.img", "10"));
    }

    @Test
    public void theOtherMethodsStillWork() throws Exception {
        Path path = redirected("remove.img");
        client("write", "remove.img", "0", "10");
        assertEquals("ok", client("remove", "remove.img"));
        assertEquals(path.toString(), HOST.lastRemoved);
    }

    // With an error pending this would throw when the native method returns.
    @Test
    public void aMissingLogMethodLeavesNoErrorBehind() {
        assertEquals(1, HOST.getMountInfo(handle, false, true));
        assertFalse(Thread.currentThread().isInterrupted());
    }
}
