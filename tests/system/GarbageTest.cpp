// 100,000 random and mutated messages to each port over each transport: the server survives, and a
// good client is served afterwards. VELOCAST_SEED repeats a run.

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "Nfs3Types.h"
#include "support/Nfs3Client.h"
#include "support/Server.h"

using namespace support;

namespace {

constexpr int kMessages = 100'000;
// Sent between two checks that the server still answers. Together they are far smaller than the
// receive queue of a UDP socket, so that no message is lost unseen.
constexpr int kBatch = 100;
// Each new connection takes a slot of the server while an old one may still hold its own, so there
// are few.
constexpr int kMessagesPerConnection = 20'000;

// ------------------------------------------------------------------------------------------------
// Messages
// ------------------------------------------------------------------------------------------------

class Garbage {
public:
    Garbage(std::uint64_t seed, std::vector<Bytes> templates)
        : m_random(seed), m_templates(std::move(templates)) {}

    Bytes Next() {
        const std::uint32_t kind = Below(1000);
        if (kind == 0) {
            return RandomBytes(8192);
        }
        if (kind < 200) {
            return RandomBytes(300);
        }
        Bytes message = m_templates[Below(m_templates.size())];
        for (std::uint32_t changes = 1 + Below(4); changes > 0; --changes) {
            Mutate(message);
        }
        return message;
    }

    std::uint32_t Below(std::size_t limit) {
        return static_cast<std::uint32_t>(m_random() % limit);
    }

private:
    Bytes RandomBytes(std::size_t limit) {
        Bytes bytes(Below(limit + 1));
        for (std::uint8_t& byte : bytes) {
            byte = static_cast<std::uint8_t>(m_random());
        }
        return bytes;
    }

    void Mutate(Bytes& message) {
        const std::size_t at = Below(message.size() + 1);
        const auto place = message.begin() + static_cast<std::ptrdiff_t>(at);
        switch (Below(6)) {
            case 0:  // one bit
                if (at < message.size()) {
                    message[at] ^= static_cast<std::uint8_t>(1U << Below(8));
                }
                break;
            case 1:  // one word, to a value at an edge
                SetWord(message, at / 4 * 4);
                break;
            case 2:  // cut short
                message.resize(at);
                break;
            case 3: {  // something put in
                const Bytes inserted = RandomBytes(16);
                message.insert(place, inserted.begin(), inserted.end());
                break;
            }
            case 4:  // a piece taken out
                message.erase(place, place + static_cast<std::ptrdiff_t>(std::min<std::size_t>(
                                                 Below(16), message.size() - at)));
                break;
            default: {  // the tail said twice
                const Bytes tail(place, message.end());
                message.insert(message.end(), tail.begin(), tail.end());
                break;
            }
        }
    }

    void SetWord(Bytes& message, std::size_t at) {
        static constexpr std::uint32_t kEdges[] = {
            0,      1,      2,      3,      21,         22,         55,         56,         57,
            4095,   4096,   16384,  16385,  65536,      65537,      0x000FFFFF, 0x00100000, 100000,
            100003, 100005, 100009, 100010, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFC, 0xFFFFFFFF,
        };
        const Bytes word = XdrWriter().U32(kEdges[Below(std::size(kEdges))]).Data();
        for (std::size_t i = 0; i < 4 && at + i < message.size(); ++i) {
            message[at + i] = word[i];
        }
    }

    std::mt19937_64 m_random;
    std::vector<Bytes> m_templates;
};

// One good call of every procedure, as clients of the program send them.
std::vector<Bytes> GoodCalls(std::uint32_t program, const Handle& root, const Handle& file) {
    std::vector<Bytes> calls;
    const OpaqueAuth credential = AuthSys(0, 0, {1, 2, 3});
    const auto add = [&](std::uint32_t version, std::uint32_t procedure,
                         const XdrWriter& arguments) {
        calls.push_back(BuildCall(0x77777777, program, version, procedure, arguments.Data(),
                                  procedure % 2 == 0 ? OpaqueAuth{} : credential));
    };
    const auto put = [](auto&&... write) {
        XdrWriter writer;
        (write(writer), ...);
        return writer;
    };
    const auto handle = [](const Handle& value) {
        return [&value](XdrWriter& writer) { writer.Opaque(value); };
    };
    const auto name = [](const char* text) {
        return [text](XdrWriter& writer) { writer.String(text); };
    };
    const auto words = [](std::initializer_list<std::uint32_t> values) {
        return [list = std::vector(values)](XdrWriter& writer) {
            for (const std::uint32_t value : list) {
                writer.U32(value);
            }
        };
    };
    const auto attributes = [](XdrWriter& writer) {
        SetAttributes set;
        set.mode = 0644;
        set.size = 1000;
        set.mtime = NfsTime{1'600'000'000, 0};
        set.Write(writer);
    };

    if (program == kPortmapProgram) {
        for (const std::uint32_t procedure : {0u, 1u, 3u, 3u, 3u, 3u, 3u, 3u, 3u, 5u}) {
            add(2, procedure, put(words({kNfsProgram, 3, 6, 0})));
        }
        return calls;
    }
    if (program == kMountProgram) {
        for (const std::uint32_t procedure : {0u, 1u, 1u, 1u, 2u, 3u, 3u, 3u, 5u}) {
            add(3, procedure, put(name("vm01")));
        }
        add(1, 1, put(name("vm01")));
        return calls;
    }
    const Bytes data = ToBytes(PatternData(200));
    add(3, 0, put());
    add(3, 1, put(handle(file)));
    add(3, 2, put(handle(file), attributes, words({0})));
    add(3, 3, put(handle(root), name("file")));
    add(3, 4, put(handle(file), words({63})));
    add(3, 5, put(handle(file)));
    add(3, 6, put(handle(file), words({0, 100, 4096})));
    add(3, 7, put(handle(file), words({0, 100, 200, 2}), [&data](XdrWriter& writer) {
            writer.Opaque(data);
        }));
    add(3, 8, put(handle(root), name("new"), words({0}), attributes));
    add(3, 9, put(handle(root), name("folder"), attributes));
    add(3, 10, put(handle(root), name("link"), attributes, name("target")));
    add(3, 11, put(handle(root), name("node"), words({7}), attributes));
    add(3, 12, put(handle(root), name("new")));
    add(3, 13, put(handle(root), name("folder")));
    add(3, 14, put(handle(root), name("new"), handle(root), name("renamed")));
    add(3, 15, put(handle(file), handle(root), name("hard")));
    add(3, 16, put(handle(root), words({0, 0, 0, 0, 8192})));
    add(3, 17, put(handle(root), words({0, 0, 0, 0, 8192, 32768})));
    add(3, 18, put(handle(root)));
    add(3, 19, put(handle(root)));
    add(3, 20, put(handle(root)));
    add(3, 21, put(handle(file), words({0, 0, 0})));
    return calls;
}

// ------------------------------------------------------------------------------------------------
// The test
// ------------------------------------------------------------------------------------------------

struct Target {
    const char* name;
    std::uint32_t program;
    int port;
    Transport transport;
};

class GarbageTest : public testing::TestWithParam<Target> {
protected:
    GarbageTest() {
        // What lies in the folder keeps a mutated RMDIR of the export itself from succeeding.
        WriteFile(m_folder / "file", PatternData(5000));
        m_server.AddExport(m_folder.Path(), "vm01");
        MountClient mount(Transport::Udp);
        m_root = mount.Mnt("vm01").handle;
        mount.Umnt("vm01");
        m_file = Nfs3Client(Transport::Udp).Lookup(m_root, "file").handle;
    }

    // The call by which the server shows that it still answers: one that it serves with success.
    Bytes ProofCall(std::uint32_t xid) const {
        if (GetParam().program == kPortmapProgram) {
            XdrWriter arguments;
            arguments.U32(kNfsProgram).U32(3).U32(6).U32(0);
            return BuildCall(xid, kPortmapProgram, 2, 3, arguments.Data());
        }
        return BuildCall(xid, GetParam().program, 3, 0);
    }

    void Send(RpcClient& client, const Bytes& bytes) const {
        ASSERT_TRUE(client.TrySendRaw(bytes, kPatience)) << "the server takes no more bytes";
    }

    // Sends the same call until its reply comes, and takes in every other reply. One is often not
    // enough: the server ends a round after a call that fails, and goes on only when more arrives.
    bool StillAnswers(RpcClient& client, std::uint32_t xid) const {
        const bool tcp = GetParam().transport == Transport::Tcp;
        const Bytes call = tcp ? WithRecordMark(ProofCall(xid)) : ProofCall(xid);
        const auto deadline = std::chrono::steady_clock::now() + kPatience;
        int open = 0;  // copies sent and not yet answered
        std::optional<RpcReply> reply;
        do {
            if (!client.TrySendRaw(call, kPatience)) {
                return false;
            }
            ++open;
            reply = client.TryReceiveReply(Milliseconds(20));
        } while ((!reply || reply->xid != xid) && std::chrono::steady_clock::now() < deadline);
        if (!reply || reply->xid != xid) {
            return false;
        }
        const bool good = reply->acceptStat == kSuccess;
        // The answers to the other copies would only be in the way of the next round. A garbled
        // call before them may have swallowed some.
        while (--open > 0 && reply) {
            reply = client.TryReceiveReply(Milliseconds(5));
        }
        return good;
    }

    void SendGarbage(std::uint64_t seed) {
        const bool tcp = GetParam().transport == Transport::Tcp;
        Garbage garbage(seed, GoodCalls(GetParam().program, m_root, m_file));
        std::unique_ptr<RpcClient> client;
        std::uint32_t xid = 0x50000000;
        for (int sent = 0; sent < kMessages; sent += kBatch) {
            if (!client || (tcp && sent % kMessagesPerConnection == 0)) {
                client = std::make_unique<RpcClient>(GetParam().transport, GetParam().port);
            }
            Bytes together;
            for (int i = 0; i < kBatch; ++i) {
                const Bytes message = garbage.Next();
                if (!tcp) {
                    ASSERT_NO_FATAL_FAILURE(Send(*client, message));
                    continue;
                }
                // Ends of messages and of segments fall together or not; marks are right or not.
                const Bytes record = garbage.Below(8) == 0 ? message : WithRecordMark(message);
                together.insert(together.end(), record.begin(), record.end());
                if (garbage.Below(4) != 0) {
                    ASSERT_NO_FATAL_FAILURE(Send(*client, together));
                    together.clear();
                }
            }
            if (!together.empty()) {
                ASSERT_NO_FATAL_FAILURE(Send(*client, together));
            }
            ASSERT_TRUE(StillAnswers(*client, ++xid)) << "after " << sent + kBatch << " messages";
        }
    }

    // A client that does it right is served, on every port.
    void ServeAGoodClient(Transport transport) {
        PortmapClient portmap(transport);
        portmap.Rpc().SetRetransmission(Milliseconds(200));
        EXPECT_EQ(2049u, portmap.GetPort(kNfsProgram).port);

        MountClient mount(transport);
        mount.Rpc().SetRetransmission(Milliseconds(200));
        mount.Umnt("vm01");  // a mutated MNT may have taken the export
        const MountResult mounted = mount.Mnt("vm01");
        ASSERT_EQ(MNT3_OK, mounted.status);
        EXPECT_EQ(m_root, mounted.handle);

        Nfs3Client nfs(transport);
        nfs.Rpc().SetRetransmission(Milliseconds(200));
        const CreateResult created = nfs.Create(m_root, "good-client");
        ASSERT_EQ(NFS3_OK, created.status);
        ASSERT_TRUE(created.handle.has_value());
        const Bytes data = ToBytes(PatternData(10'000));
        EXPECT_EQ(data.size(), nfs.Write(*created.handle, 0, data).count);
        EXPECT_EQ(data, nfs.Read(*created.handle, 0, 20'000).data);
        EXPECT_EQ(NFS3_OK, nfs.Remove(m_root, "good-client").status);
        mount.Umnt("vm01");
    }

    const ScopedTempDir m_folder;
    Server m_server;
    Handle m_root;
    Handle m_file;
};

INSTANTIATE_TEST_SUITE_P(
    Ports, GarbageTest,
    testing::Values(Target{"PortmapperTcp", kPortmapProgram, 111, Transport::Tcp},
                    Target{"PortmapperUdp", kPortmapProgram, 111, Transport::Udp},
                    Target{"NfsTcp", kNfsProgram, 2049, Transport::Tcp},
                    Target{"NfsUdp", kNfsProgram, 2049, Transport::Udp},
                    Target{"MountTcp", kMountProgram, 1058, Transport::Tcp},
                    Target{"MountUdp", kMountProgram, 1058, Transport::Udp}),
    [](const auto& info) { return info.param.name; });

}  // namespace

TEST_P(GarbageTest, DoesNotKeepTheServerFromServingAGoodClient) {
    const std::uint64_t seed = RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    SendGarbage(seed);
    if (HasFatalFailure()) {
        FAIL() << "server output:\n" << m_server.Output();
    }
    ServeAGoodClient(Transport::Tcp);
    ServeAGoodClient(Transport::Udp);
}
