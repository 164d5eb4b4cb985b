package com.corvane.qtx.velocast.nfs;

import java.io.IOException;
import org.junit.BeforeClass;

/** The server is a console program, driven from here. */
public class ControllerModeTest extends ModeTests {
    @BeforeClass
    public static void start() throws IOException {
        startService(NfsLibNative.MODE_IPC_CLIENT);
    }
}
