package com.corvane.qtx.velocast.nfs;

import java.io.IOException;
import java.net.StandardProtocolFamily;
import java.net.UnixDomainSocketAddress;
import java.nio.ByteBuffer;
import java.nio.ByteOrder;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.file.Files;
import java.nio.file.Path;

/** Answers every request over the control channel with one text. */
final class FakeServer implements AutoCloseable {
    private static final Path CHANNEL = Path.of("/tmp/nfs-server");

    private final ServerSocketChannel server;
    private final Thread thread;
    private volatile ByteBuffer lastRequest;

    FakeServer(int replyType, byte[] text) throws IOException {
        Files.deleteIfExists(CHANNEL);
        server = ServerSocketChannel.open(StandardProtocolFamily.UNIX);
        server.bind(UnixDomainSocketAddress.of(CHANNEL));
        thread = new Thread(() -> {
            try {
                for (;;) {
                    answer(replyType, text);
                }
            } catch (IOException e) {
                // closed
            }
        });
        thread.start();
    }

    private void answer(int replyType, byte[] text) throws IOException {
        try (SocketChannel connection = server.accept()) {
            ByteBuffer request = ByteBuffer.allocate(4096).order(ByteOrder.LITTLE_ENDIAN);
            connection.read(request);
            lastRequest = request.flip();
            ByteBuffer reply = ByteBuffer.allocate(2064).order(ByteOrder.LITTLE_ENDIAN);
            reply.putInt(1);  // the group of replies
            reply.putInt(replyType);
            reply.put("1.2".getBytes());
            reply.position(16).put(text).rewind();
            connection.write(reply);
        }
    }

    /** The message that came last, from its first byte. */
    ByteBuffer lastRequest() {
        return lastRequest;
    }

    @Override
    public void close() throws IOException {
        server.close();
        try {
            thread.join();
        } catch (InterruptedException e) {
            throw new AssertionError(e);
        }
        Files.deleteIfExists(CHANNEL);
    }
}
