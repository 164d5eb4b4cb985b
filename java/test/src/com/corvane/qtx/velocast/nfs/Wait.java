package com.corvane.qtx.velocast.nfs;

import java.util.function.BooleanSupplier;

/** Waits for conditions. */
final class Wait {
    private static final long PATIENCE_NANOS = 30_000_000_000L;

    private Wait() {}

    static void until(String what, BooleanSupplier condition) {
        long deadline = System.nanoTime() + PATIENCE_NANOS;
        while (!condition.getAsBoolean()) {
            if (System.nanoTime() > deadline) {
                throw new AssertionError("waited in vain: " + what);
            }
            try {
                Thread.sleep(5);
            } catch (InterruptedException e) {
                throw new AssertionError(e);
            }
        }
    }
}
