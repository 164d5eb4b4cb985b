package com.corvane.qtx.velocast.nfs;

import java.util.List;
import java.util.concurrent.CopyOnWriteArrayList;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.function.IntUnaryOperator;

/** Writes down every callback and answers as it is told. */
class RecordingHost extends NfsLibNative {
    /** Notifications: the method and its arguments, separated by blanks. */
    final List<String> notifications = new CopyOnWriteArrayList<>();
    /** Log lines: the kind, the identity and the text, separated by '|'. */
    final List<String> lines = new CopyOnWriteArrayList<>();
    final AtomicInteger interruptedAsked = new AtomicInteger();

    volatile boolean interrupted;
    volatile int attributesAnswer;
    volatile int removeAnswer;
    volatile int renameAnswer;
    volatile IntUnaryOperator writeAnswer = length -> length;

    private Thread loop;

    /** Receives callbacks on a thread of its own until {@link #stopLoop}. */
    void startLoop(long handle) {
        interrupted = false;
        int asked = interruptedAsked.get();
        loop = new Thread(() -> receiveCallbackLoop(handle, -1), "callback-loop");
        loop.start();
        Wait.until("the loop asks", () -> interruptedAsked.get() > asked);
    }

    void stopLoop() throws InterruptedException {
        if (loop != null) {
            interrupted = true;
            loop.join();
            loop = null;
        }
    }

    boolean hasLine(String kind, String part) {
        return lines.stream().anyMatch(line -> line.startsWith(kind + "|") && line.contains(part));
    }

    @Override
    protected void logInfo(String id, String text) {
        lines.add("info|" + id + "|" + text);
    }

    @Override
    protected void logError(String id, String text) {
        lines.add("error|" + id + "|" + text);
    }

    @Override
    protected void logRaw(String id, String text) {
        lines.add("raw|" + id + "|" + text);
    }

    @Override
    protected boolean isInterrupted() {
        interruptedAsked.incrementAndGet();
        return interrupted;
    }

    @Override
    protected int setRedirectedFileAttributes(
            String id, String path, boolean hasSize, long size, boolean hasAccessTime,
            long accessTimeSec, boolean hasModifiedTime, long modifiedTimeSec) {
        // A value counts only with its flag.
        notifications.add("attributes " + id + " " + path + " " + (hasSize ? size : "-") + " "
                + (hasAccessTime ? accessTimeSec : "-") + " "
                + (hasModifiedTime ? modifiedTimeSec : "-"));
        return attributesAnswer;
    }

    @Override
    protected int removeRedirectedFile(String id, String path) {
        notifications.add("remove " + id + " " + path);
        return removeAnswer;
    }

    @Override
    protected int renameRedirectedFile(String id, String pathFrom, String pathTo) {
        notifications.add("rename " + id + " " + pathFrom + " " + pathTo);
        return renameAnswer;
    }

    @Override
    protected int writeRedirectedFile(
            String id, String path, long seek, int seekType, int length) {
        notifications.add("write " + id + " " + path + " " + seek + " " + seekType + " " + length);
        return writeAnswer.applyAsInt(length);
    }
}
