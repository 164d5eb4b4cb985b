package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;

import java.io.IOException;
import java.lang.reflect.Method;
import java.lang.reflect.Modifier;
import java.util.Arrays;
import java.util.Set;
import java.util.TreeSet;
import java.util.stream.Collectors;
import org.junit.Test;

/** The library exports the native methods and nothing else. */
public class ExportedNamesTest {
    private static final String PREFIX = "Java_com_corvane_qtx_velocast_nfs_NfsLibNative_";

    private static Set<String> exportedNames() throws IOException {
        Process nm = new ProcessBuilder("nm", "-D", "--defined-only",
                System.getProperty("velocast.nfs.library")).start();
        // A line is "ADDRESS TYPE NAME".
        return new String(nm.getInputStream().readAllBytes()).lines()
                .map(line -> line.split(" +")[2]).collect(Collectors.toCollection(TreeSet::new));
    }

    @Test
    public void everyNativeMethodIsExportedAndNothingElse() throws IOException {
        Set<String> declared = new TreeSet<>();
        for (Method method : NfsLibNative.class.getDeclaredMethods()) {
            if (Modifier.isNative(method.getModifiers())) {
                declared.add(PREFIX + method.getName());
            }
        }
        assertEquals(declared, exportedNames());
    }

    @Test
    public void theNamesAreThese() throws IOException {
        String[] names = {
            "initial", "terminate", "isServerRunning", "startRemoteController",
            "stopRemoteController", "startServer", "stopServer", "receiveCallbackLoop",
            "addMountPoint", "removeMountPoint", "addSession", "removeSession", "isSessionExists",
            "isLocalSessionExists", "openRedirectedFile", "closeRedirectedFile",
            "closeAllRedirectedFiles", "addRedirectedFileSegment", "exportRedirectedFile",
            "exportRedirectedFileInfo", "closeOpenedFile", "closeAllOpenedFiles", "setLogControl",
            "getVersion", "getDescription", "getAccessMode", "getMountInfo", "getSessionInfo",
            "runTestMode", "getServerStatus", "addVSphereInfo", "removeVSphereInfo"};
        Set<String> expected = Arrays.stream(names).map(name -> PREFIX + name)
                .collect(Collectors.toCollection(TreeSet::new));
        assertEquals(expected, exportedNames());
    }

    @Test
    public void nativeMethodsBelongToInstances() {
        for (Method method : NfsLibNative.class.getDeclaredMethods()) {
            if (Modifier.isNative(method.getModifiers())) {
                assertEquals(method.getName(), false, Modifier.isStatic(method.getModifiers()));
            }
        }
    }

    // The console program needs no virtual machine.
    @Test
    public void theProgramIsNotLinkedWithJava() throws IOException {
        Process readelf = new ProcessBuilder("readelf", "-d",
                System.getProperty("velocast.nfs.program")).start();
        String needed = new String(readelf.getInputStream().readAllBytes()).lines()
                .filter(line -> line.contains("NEEDED")).collect(Collectors.joining("\n"));
        assertEquals(needed, false, needed.contains("jvm"));
        assertEquals(needed, true, needed.contains("libc.so"));
    }
}
