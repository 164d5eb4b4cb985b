package com.corvane.qtx.velocast.nfs;

import java.io.IOException;
import org.junit.BeforeClass;

/** The server runs in this process and takes requests from others. */
public class IpcServerModeTest extends ModeTests {
    @BeforeClass
    public static void start() throws IOException {
        startService(NfsLibNative.MODE_IPC_SERVER);
    }
}
