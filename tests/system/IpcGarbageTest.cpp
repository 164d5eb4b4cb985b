// 100,000 random and mutated messages to each of the two kinds of channel: every one is answered,
// and the channel serves afterwards. VELOCAST_SEED repeats a run.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <random>

#include "IpcFixture.h"
#include "support/Server.h"

using namespace ipctest;

namespace {

constexpr int kMessages = 100'000;

class Garbage {
public:
    // callbacks: how many of a hundred messages stem from callbacks.
    Garbage(std::uint64_t seed, std::string folder, std::uint32_t callbacks)
        : m_random(seed), m_folder(std::move(folder)), m_callbacks(callbacks) {}

    Bytes Next() {
        Bytes message;
        const std::uint32_t kind = Below(100);
        if (kind < 10) {
            message = RandomBytes(kind == 0 ? 6000 : 300);
        } else {
            const bool callback = kind < 10 + m_callbacks;
            const std::vector<Bytes>& templates =
                callback ? ipcvectors::kCallbacks : ipcvectors::kRequests;
            message = templates[Below(templates.size())];
            for (std::uint32_t changes = Below(5); changes > 0; --changes) {
                Mutate(message);
            }
        }
        if (message.empty()) {
            message.push_back(2);
        }
        Tame(message);
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
        switch (Below(6)) {
            case 0:  // cut short
                message.resize(1 + Below(message.size()));
                break;
            case 1:  // longer
                message.resize(message.size() + Below(2000), static_cast<std::uint8_t>(m_random()));
                break;
            case 2:  // another type
                if (message.size() >= 8) {
                    PutU32(message, 4,
                           Below(4) == 0 ? static_cast<std::uint32_t>(m_random()) : Below(32));
                }
                break;
            case 3:  // a field without a NUL
                if (message.size() > 16) {
                    const std::size_t from = 16 + Below(message.size() - 16);
                    std::fill(message.begin() + static_cast<std::ptrdiff_t>(from), message.end(),
                              static_cast<std::uint8_t>(1 + Below(255)));
                }
                break;
            case 4:  // an extreme number
                if (message.size() >= 24) {
                    const std::size_t at = 16 + 4 * Below((message.size() - 16) / 4);
                    const std::uint32_t extremes[] = {0, 1, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF};
                    PutU32(message, at, extremes[Below(5)]);
                }
                break;
            default:
                message[Below(message.size())] = static_cast<std::uint8_t>(m_random());
        }
    }

    // Takes out of a message what would end the service on purpose, work outside the test's own
    // folder, or take long because it was asked to. What counts is the message as the server sees
    // it: completed by the bytes of earlier ones.
    void Tame(Bytes& message) {
        std::copy_n(message.begin(), std::min(message.size(), m_seen.size()), m_seen.begin());
        if (U32At(m_seen, 0) != 2) {
            return;
        }
        const std::string file = m_folder + "/f" + std::to_string(Below(4));
        switch (U32At(m_seen, 4)) {
            case 5:  // exports of the folder, few of them, and for nobody who listens
                Put(message, 16, 1024, m_folder);
                Put(message, 1040, 256, "vm" + std::to_string(Below(3)));
                break;
            case 7:  // few sessions, for listings take a connection for each
                Put(message, 16, 256, "s" + std::to_string(Below(3)));
                break;
            case 10:
                Put(message, 16, 1024, file);
                break;
            case 13:
                Put(message, 16, 1024, file);
                Put(message, 1040, 1024, m_folder + "/source");
                // The server writes a record for each piece of a segment, so none is very long.
                for (const std::size_t at : {2064, 2072, 2080}) {
                    PutNumber(message, at, U32At(m_seen, at) & 0xFFFFFF);
                    PutNumber(message, at + 4, 0);
                }
                if (Below(4) == 0) {
                    PutNumber(message, 2084, 0xFFFFFFFF);  // a negative length
                }
                break;
            case 14:  // of a file of gigabytes, to a file that is not there
                Put(message, 16, 1024, file);
                Put(message, 1040, 1024, m_folder + "/none");
                break;
            case 15:
                Put(message, 16, 1024, file);
                Put(message, 1040, 1024, m_folder + "/info");
                break;
            case 18:  // the lines of the channel itself would be many
                PutNumber(message, 16, Below(1024) & ~0xC0u);
                break;
            case 21:
                Put(message, 272, 3072, m_folder + "/none");
                break;
            case 22:
                PutNumber(message, 4, 23);
                break;
            case 26:  // at the end of the service each of them would be unmounted
                Put(message, 16, 256, "ds1");
                break;
            default:
                break;
        }
    }
    void Put(Bytes& message, std::size_t offset, std::size_t width, const std::string& text) {
        m_seen = WithText(m_seen, offset, width, text);
        Complete(message, offset + width);
    }
    void PutNumber(Bytes& message, std::size_t offset, std::uint32_t value) {
        PutU32(m_seen, offset, value);
        Complete(message, offset + 4);
    }
    // Sends at least so many bytes of what the server is to see.
    void Complete(Bytes& message, std::size_t size) {
        message.resize(std::max(message.size(), size));
        std::copy_n(m_seen.begin(), std::min(message.size(), m_seen.size()), message.begin());
    }

    std::mt19937_64 m_random;
    const std::string m_folder;
    const std::uint32_t m_callbacks;
    Bytes m_seen = Bytes(4096);  // the server's buffer
};

// Whether an answer is one of the three kinds there are.
bool IsReply(const Bytes& reply) {
    if (reply.size() < 20 || U32At(reply, 0) != 1 || TextAt(reply, 8, 8) != "1.2") {
        return false;
    }
    const std::uint32_t type = U32At(reply, 4);
    return type == 4 || type == 5 ? reply.size() == 2064
                                  : (type == 1 || type == 3) && reply.size() == 20;
}

// Sends garbage, and looks at each answer.
void SendGarbage(const std::string& channel, Garbage garbage) {
    for (int i = 0; i < kMessages; ++i) {
        const Bytes message = garbage.Next();
        const RawClient client(channel);
        ASSERT_TRUE(client.Send(message)) << "message " << i;
        if (garbage.Below(50) == 0) {
            continue;  // gone before the answer
        }
        const Bytes reply = client.Receive();
        ASSERT_TRUE(IsReply(reply))
            << "message " << i << ": " << Hex(message) << "\nanswer: " << Hex(reply);
    }
}

class IpcGarbageTest : public testing::Test {
protected:
    IpcGarbageTest() {
        for (int i = 0; i < 4; ++i) {
            support::WriteFile(dir / ("f" + std::to_string(i)), "");
        }
        support::WriteFile(dir / "info", "");
        support::WriteFile(dir / "source", support::PatternData(100'000));
    }

    support::ScopedTempDir dir;
    const std::uint64_t seed = support::RandomSeed();
    testing::ScopedTrace trace{__FILE__, __LINE__, "VELOCAST_SEED=" + std::to_string(seed)};
};

}  // namespace

TEST_F(IpcGarbageTest, TheServersChannelStillServes) {
    std::cout << "VELOCAST_SEED=" << seed << std::endl;
    const support::Server server({.mode = "svr"});
    SendGarbage(kServerChannel, Garbage(seed, dir.Path(), 15));
    Exchange(WithU32(ipcvectors::kSetLogControl, 16, 0));
    Exchange(ipcvectors::kRemoveVSphereInfo);
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion)));
    EXPECT_EQ(Hex(ReplyBool(true)), Hex(Exchange(ipcvectors::kIsServerRunning)));
    Exchange(ipcvectors::kAddSession);
    EXPECT_EQ(Hex(ReplyBool(true)), Hex(Exchange(ipcvectors::kIsSessionExists)));
}

TEST_F(IpcGarbageTest, AControllersChannelStillServes) {
    std::cout << "VELOCAST_SEED=" << seed << std::endl;
    const support::Server server({.mode = "svr"});
    const support::Server controller({.arguments = {"-id", "ctl"}, .mode = "cli", .start = false});
    SendGarbage("/tmp/nfs-ctl", Garbage(seed, dir.Path(), 60));
    Exchange(WithU32(ipcvectors::kSetLogControl, 16, 0), "/tmp/nfs-ctl");
    Exchange(ipcvectors::kRemoveVSphereInfo);
    EXPECT_EQ(Hex(ReplyBool(true)), Hex(Exchange(ipcvectors::kLogMessage, "/tmp/nfs-ctl")));
    EXPECT_EQ(Hex(ReplyInt(-1)), Hex(Exchange(ipcvectors::kWriteFile, "/tmp/nfs-ctl")));
    EXPECT_EQ(Hex(ReplyMsg("1.2")), Hex(Exchange(ipcvectors::kGetVersion, "/tmp/nfs-ctl")));
}
