package com.corvane.qtx.velocast.nfs;

import java.io.IOException;
import org.junit.BeforeClass;

/** The server runs in this process. */
public class InternalModeTest extends ModeTests {
    @BeforeClass
    public static void start() throws IOException {
        startService(NfsLibNative.MODE_INTERNAL);
    }
}
