package com.corvane.qtx.velocast.nfs;

import static org.junit.Assert.assertEquals;

import java.io.ByteArrayInputStream;
import java.io.ByteArrayOutputStream;
import java.io.DataInputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.net.Socket;
import java.nio.charset.StandardCharsets;

/** Speaks as little of MOUNT and NFS (RFC 1813) as it takes to see the reply of one WRITE. */
final class RawClient implements AutoCloseable {
    private static final int MOUNT = 100005;
    private static final int NFS = 100003;

    private final Socket mount = new Socket("127.0.0.1", 1058);
    private final Socket nfs = new Socket("127.0.0.1", 2049);
    private final String export;
    private final byte[] root;

    RawClient(String export) throws IOException {
        this.export = export;
        DataInputStream reply = call(mount, MOUNT, 1, name(export));
        assertEquals("status of MNT", 0, reply.readInt());
        root = opaque(reply);
    }

    /** The count of a WRITE of {@code length} bytes, or the negative status of a failure. */
    int write(String name, long offset, int length) throws IOException {
        ByteArrayOutputStream lookup = new ByteArrayOutputStream();
        lookup.write(opaque(root));
        lookup.write(name(name));
        DataInputStream found = call(nfs, NFS, 3, lookup.toByteArray());
        assertEquals("status of LOOKUP", 0, found.readInt());
        byte[] handle = opaque(found);

        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        DataOutputStream arguments = new DataOutputStream(bytes);
        arguments.write(opaque(handle));
        arguments.writeLong(offset);
        arguments.writeInt(length);
        arguments.writeInt(2);  // FILE_SYNC
        arguments.write(opaque(new byte[length]));
        DataInputStream reply = call(nfs, NFS, 7, bytes.toByteArray());
        int status = reply.readInt();
        if (status != 0) {
            return -status;
        }
        if (reply.readInt() != 0) {
            reply.skipBytes(24);  // attributes before
        }
        if (reply.readInt() != 0) {
            reply.skipBytes(84);  // attributes after
        }
        return reply.readInt();
    }

    @Override
    public void close() throws IOException {
        call(mount, MOUNT, 3, name(export));
        mount.close();
        nfs.close();
    }

    private static byte[] name(String text) throws IOException {
        return opaque(text.getBytes(StandardCharsets.UTF_8));
    }

    private static byte[] opaque(byte[] value) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        DataOutputStream out = new DataOutputStream(bytes);
        out.writeInt(value.length);
        out.write(value);
        out.write(new byte[(4 - value.length % 4) % 4]);
        return bytes.toByteArray();
    }

    private static byte[] opaque(DataInputStream in) throws IOException {
        byte[] value = new byte[in.readInt()];
        in.readFully(value);
        in.skipBytes((4 - value.length % 4) % 4);
        return value;
    }

    /** The results of a call in one record, without credentials. */
    private static DataInputStream call(
            Socket socket, int program, int procedure, byte[] arguments) throws IOException {
        ByteArrayOutputStream bytes = new ByteArrayOutputStream();
        DataOutputStream out = new DataOutputStream(bytes);
        out.writeInt(0x80000000 | 40 + arguments.length);
        int[] header = {1, 0, 2, program, 3, procedure, 0, 0, 0, 0};
        for (int word : header) {
            out.writeInt(word);
        }
        out.write(arguments);
        socket.getOutputStream().write(bytes.toByteArray());

        DataInputStream in = new DataInputStream(socket.getInputStream());
        byte[] reply = new byte[in.readInt() & 0x7FFFFFFF];
        in.readFully(reply);
        DataInputStream results = new DataInputStream(new ByteArrayInputStream(reply));
        results.skipBytes(20);  // call number, reply, accepted, verifier
        assertEquals("accept status", 0, results.readInt());
        return results;
    }
}
