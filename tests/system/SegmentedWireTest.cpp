// Hosts behind a wire that carries 1,460 bytes at a time, or any other number: what they write is
// what lies in the exported folder, and what they read back.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <filesystem>
#include <future>
#include <memory>
#include <numeric>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/LibnfsClient.h"
// After libnfs.h, which it needs.
#include <nfsc/libnfs-zdr.h>

#include "support/Nfs3Client.h"
#include "support/SegmentingProxy.h"
#include "support/Server.h"

using namespace support;

namespace {

#if defined(__SANITIZE_ADDRESS__)
constexpr std::size_t kFileSize = 2 << 20;
#else
constexpr std::size_t kFileSize = 16 << 20;
#endif
constexpr std::size_t kFiles = 4;       // 64 MiB altogether
constexpr std::size_t kPipelined = 32;  // requests of a file that are under way at once
constexpr std::size_t kOldFiles = 500;  // to be removed by the second client

// A client whose credential is that of a Linux host: the stamp in front of it is zero there, not
// the time of day. Read as arguments it is an empty file handle and a write of nothing.
class Host : public LibnfsClient {
public:
    explicit Host(int nfsPort) : LibnfsClient(nfsPort) {
        std::uint32_t groups[16];
        std::iota(std::begin(groups), std::end(groups), 0u);
        AUTH* auth = libnfs_authunix_create("host", 0, 0, std::size(groups), groups);
        std::fill_n(auth->ah_cred.oa_base, 4, '\0');
        nfs_set_auth(**this, auth);  // which owns it from now on
    }
};

// A whole file that is written or read back with many requests at once.
class Transfer {
public:
    enum class Direction { Write, Read };

    // The content must outlive this object.
    Transfer(LibnfsClient& client, nfsfh* file, Direction direction, const std::string& content,
             std::size_t step)
        : m_client(client),
          m_file(file),
          m_direction(direction),
          m_content(content),
          m_step(step) {}

    // Sends what may be under way.
    void Fill() {
        while (m_error.empty() && m_next < m_content.size() && m_underWay < kPipelined) {
            auto request = std::make_unique<Request>(Request{this, m_next});
            const int result =
                m_direction == Direction::Write
                    ? nfs_pwrite_async(*m_client, m_file, m_next, m_step, m_content.data() + m_next,
                                       &Transfer::Done, request.get())
                    : nfs_pread_async(*m_client, m_file, m_next, m_step, &Transfer::Done,
                                      request.get());
            if (result != 0) {
                throw std::runtime_error("no request: " + m_client.Error());
            }
            m_requests.push_back(std::move(request));
            m_next += m_step;
            ++m_underWay;
        }
    }
    bool Ended() const {
        return m_underWay == 0 && (!m_error.empty() || m_next >= m_content.size());
    }
    // What went wrong first; empty when nothing did.
    const std::string& Error() const { return m_error; }

private:
    struct Request {
        Transfer* transfer;
        std::size_t offset;
    };

    static void Done(int result, nfs_context* /*nfs*/, void* data, void* privateData) {
        const auto* request = static_cast<const Request*>(privateData);
        request->transfer->Check(request->offset, result, static_cast<const char*>(data));
    }
    void Check(std::size_t offset, int result, const char* data) {
        --m_underWay;
        if (!m_error.empty()) {
            return;
        }
        const std::string where = " at " + std::to_string(offset);
        if (result != static_cast<int>(m_step)) {
            m_error = "result " + std::to_string(result) + where;
        } else if (m_direction == Direction::Read &&
                   m_content.compare(offset, m_step, data, m_step) != 0) {
            m_error = "other bytes" + where;
        }
    }

    LibnfsClient& m_client;
    nfsfh* m_file;
    const Direction m_direction;
    const std::string& m_content;
    const std::size_t m_step;
    std::size_t m_next = 0;
    std::size_t m_underWay = 0;
    std::string m_error;
    std::vector<std::unique_ptr<Request>> m_requests;
};

// Runs transfers of one client side by side; returns what went wrong first.
std::string RunAll(LibnfsClient& client, std::vector<std::unique_ptr<Transfer>>& transfers) {
    for (;;) {
        bool ended = true;
        for (const auto& transfer : transfers) {
            transfer->Fill();
            ended = ended && transfer->Ended();
        }
        if (ended) {
            break;
        }
        pollfd entry{nfs_get_fd(*client), static_cast<short>(nfs_which_events(*client)), 0};
        if (poll(&entry, 1, static_cast<int>(kPatience.count())) <= 0) {
            return "no reply";
        }
        if (nfs_service(*client, entry.revents) != 0) {
            return "the connection has ended: " + client.Error();
        }
    }
    for (const auto& transfer : transfers) {
        if (!transfer->Error().empty()) {
            return transfer->Error();
        }
    }
    return "";
}

std::string NameOfOld(std::size_t i) { return "old-" + std::to_string(i) + ".vmdk"; }

// Lists a folder of kOldFiles files again and again and removes some each time, until it is told to
// stop or none is left. Returns how many it has removed; throws when a list is not what is left.
std::size_t ListAndRemove(LibnfsClient& client, const std::atomic<bool>& stop) {
    std::size_t removed = 0;
    while (!stop && removed < kOldFiles) {
        std::set<std::string> expected;
        for (std::size_t i = removed; i < kOldFiles; ++i) {
            expected.insert(NameOfOld(i));
        }
        nfsdir* directory = nullptr;
        if (nfs_opendir(*client, "/old", &directory) != 0) {
            throw std::runtime_error("opendir: " + client.Error());
        }
        std::multiset<std::string> listed;
        while (const nfsdirent* entry = nfs_readdir(*client, directory)) {
            listed.insert(entry->name);
        }
        nfs_closedir(*client, directory);
        if (!std::equal(listed.begin(), listed.end(), expected.begin(), expected.end())) {
            throw std::runtime_error("a list is not what is left");
        }
        for (int i = 0; i < 5; ++i, ++removed) {
            if (nfs_unlink(*client, ("/old/" + NameOfOld(removed)).c_str()) != 0) {
                throw std::runtime_error("unlink: " + client.Error());
            }
        }
    }
    return removed;
}

class SegmentedWireTest : public testing::Test {
protected:
    SegmentedWireTest() {
        std::filesystem::create_directory(m_folder / "old");
        for (std::size_t i = 0; i < kOldFiles; ++i) {
            WriteFile(m_folder / ("old/" + NameOfOld(i)), "old");
        }
    }

    // Two clients at work on one export behind an NFS port.
    void WriteReadAndCompare(int nfsPort) {
        Host writer(nfsPort);
        ASSERT_EQ(0, writer.Mount("vm01")) << writer.Error();
        // An export is mounted by one client at a time; this one goes on without.
        MountClient().Umnt("vm01");
        Host remover(nfsPort);
        ASSERT_EQ(0, remover.Mount("vm01")) << remover.Error();
        std::atomic<bool> stop{false};
        std::future<std::size_t> removing =
            std::async(std::launch::async, [&] { return ListAndRemove(remover, stop); });

        std::vector<std::string> contents;
        std::vector<nfsfh*> files;
        for (std::size_t i = 0; i < kFiles; ++i) {
            contents.push_back(PatternData(kFileSize, i + 1));
            files.push_back(nullptr);
            ASSERT_EQ(0, nfs_creat(*writer, Name(i).c_str(), 0644, &files.back()))
                << writer.Error();
        }
        std::vector<std::unique_ptr<Transfer>> transfers;
        for (std::size_t i = 0; i < kFiles; ++i) {
            transfers.push_back(std::make_unique<Transfer>(writer, files[i],
                                                           Transfer::Direction::Write, contents[i],
                                                           i % 2 == 0 ? 4096 : 16384));
        }
        const std::string written = RunAll(writer, transfers);
        EXPECT_EQ("", written) << "when writing";
        stop = true;
        std::size_t removed = 0;
        EXPECT_NO_THROW(removed = removing.get());
        if (HasFailure()) {
            return;  // the first failure tells; closing files on a broken connection only waits
        }
        EXPECT_GT(removed, 0u);
        for (std::size_t i = 0; i < kOldFiles; ++i) {
            EXPECT_EQ(i >= removed, FileExists(m_folder / ("old/" + NameOfOld(i))));
        }

        transfers.clear();
        for (std::size_t i = 0; i < kFiles; ++i) {
            EXPECT_TRUE(contents[i] == ReadFile(m_folder.Path() + Name(i))) << "on disk: " << i;
            transfers.push_back(std::make_unique<Transfer>(
                writer, files[i], Transfer::Direction::Read, contents[i], 65536));
        }
        EXPECT_EQ("", RunAll(writer, transfers)) << "when reading back";
        for (nfsfh* file : files) {
            nfs_close(*writer, file);
        }
    }

    static std::string Name(std::size_t file) { return "/disk-" + std::to_string(file) + ".img"; }

    const ScopedTempDir m_folder;
    Server m_server{{.exports = {{"vm01", m_folder.Path()}}}};
};

}  // namespace

TEST_F(SegmentedWireTest, InPiecesOf1460BytesNothingIsLost) {
    SegmentingProxy proxy(m_server.NfsPort(), [] { return std::size_t{1460}; });
    WriteReadAndCompare(proxy.Port());
    EXPECT_GT(proxy.Pieces(), kFiles * kFileSize / 1460);
}

TEST_F(SegmentedWireTest, InRandomPiecesNothingIsLost) {
    const std::uint64_t seed = RandomSeed();
    std::printf("VELOCAST_SEED=%llu\n", static_cast<unsigned long long>(seed));
    std::mt19937_64 random(seed);
    SegmentingProxy proxy(m_server.NfsPort(),
                          [&] { return std::size_t{1} + random() % (2 * 1460); });
    WriteReadAndCompare(proxy.Port());
    EXPECT_GT(proxy.Pieces(), kFiles * kFileSize / (2 * 1460));
}

// The interface of this test's own namespace, made to carry what an Ethernet does.
TEST_F(SegmentedWireTest, OverAnInterfaceWithoutOffloadsNothingIsLost) {
    const std::vector<std::vector<std::string>> commands = {
        {"ip", "link", "set", "lo", "mtu", "1500"},
        {"ethtool", "-K", "lo", "tso", "off", "gso", "off", "gro", "off"}};
    for (const std::vector<std::string>& command : commands) {
        const RunResult result = RunProgram(command);
        ASSERT_EQ(ExitStatus::Code(0), result.status) << result.errors;
    }
    {
        const RpcClient client(Transport::Tcp, m_server.NfsPort());
        int segment = 0;
        socklen_t size = sizeof segment;
        ASSERT_EQ(0, getsockopt(client.Fd(), IPPROTO_TCP, TCP_MAXSEG, &segment, &size));
        ASSERT_LE(segment, 1460);
    }
    WriteReadAndCompare(m_server.NfsPort());
}
