// Redirected files as NFS clients see them: an in-process server whose controller is the test.

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/time.h>
// libnfs.h takes struct timeval from its includer.
#include <nfsc/libnfs.h>

#include <algorithm>
#include <memory>
#include <optional>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

#include "Nfs3Types.h"
#include "NfsMain.h"
#include "RedirectedFixture.h"
#include "support/Nfs3Client.h"

using namespace redirtest;
using support::Bytes;
using support::FileExists;
using support::Handle;
using support::PatternData;
using support::ReadFile;
using testing::ElementsAre;
using testing::IsEmpty;

namespace {

class ControlledMain : public CNfsMain {
public:
    explicit ControlledMain(bool controlled) : m_controlled(controlled) {
        InitMemberVaribles("test", 0);
    }
    ~ControlledMain() override {
        StopServer();
        Terminate();
    }
    std::unique_ptr<CUtilities> CreateUtilities() override {
        return m_controlled ? std::make_unique<ControlledUtilities>()
                            : std::make_unique<CUtilities>();
    }

private:
    const bool m_controlled;
};

Bytes ToBytes(const std::string& text) { return {text.begin(), text.end()}; }

class RedirectedNfsTest : public testing::Test {
protected:
    explicit RedirectedNfsTest(bool controlled = true) : service(controlled) {}

    void SetUp() override {
        ASSERT_EQ(0, mkdir(root.c_str(), 0755));
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(service.Initial(reason)) << reason;
        ASSERT_TRUE(service.StartServer(0, 0, 0, 0, false, reason)) << reason;
        ASSERT_TRUE(service.AddMountPoint(root.c_str(), "vm01", reason)) << reason;
    }
    void Mount() {
        const support::MountResult mounted = support::MountClient().Mnt("vm01");
        ASSERT_EQ(support::MNT3_OK, mounted.status);
        rootHandle = mounted.handle;
        nfs.emplace();
    }

    ControlledUtilities& Controller() {
        return dynamic_cast<ControlledUtilities&>(*service.GetUtils());
    }
    std::string PathOf(const std::string& name) const { return root + "/" + name; }
    std::string MakeSource(const std::string& name, const std::string& content) const {
        support::WriteFile(folder / name, content);
        return folder / name;
    }
    // A redirected file with an (empty) real file at its path, and its handle.
    Handle OpenDisk(long long size, bool infoFile = false, const std::string& name = "disk.img") {
        support::WriteFile(PathOf(name), "");
        service.OpenRedirectedFile(PathOf(name).c_str(), size, infoFile, 0, 0);
        const support::LookupResult found = nfs->Lookup(rootHandle, name);
        EXPECT_EQ(NFS3_OK, found.status);
        return found.handle;
    }
    void Add(const std::string& source, long long sourceOffset, long long offset,
             long long length) {
        ASSERT_TRUE(service.AddRedirectedFileSegment(disk.c_str(), source.c_str(), sourceOffset,
                                                     offset, length, nullptr));
    }

    support::ScopedTempDir folder;
    const std::string root = folder / "export";
    const std::string disk = root + "/disk.img";
    ControlledMain service;
    Handle rootHandle;
    std::optional<support::Nfs3Client> nfs;
};

class MountedRedirectedNfsTest : public RedirectedNfsTest {
protected:
    using RedirectedNfsTest::RedirectedNfsTest;
    void SetUp() override {
        RedirectedNfsTest::SetUp();
        Mount();
    }
};

class UncontrolledRedirectedNfsTest : public MountedRedirectedNfsTest {
protected:
    UncontrolledRedirectedNfsTest() : MountedRedirectedNfsTest(false) {}
};

constexpr std::uint32_t kInvalid = 22;
constexpr std::uint32_t kIoError = 5;

}  // namespace

// ------------------------------------------------------------------------------------------------
// Reading
// ------------------------------------------------------------------------------------------------

TEST_F(MountedRedirectedNfsTest, TheSizeIsThatOfTheObject) {
    const Handle handle = OpenDisk(5'000'000'000);
    const support::AttributesResult result = nfs->GetAttr(handle);
    ASSERT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(5'000'000'000u, result.attributes.size);
    EXPECT_EQ(5'000'000'000u, result.attributes.used);
    EXPECT_EQ(1u, result.attributes.type);
}

TEST_F(MountedRedirectedNfsTest, SizesAtBothEndsAreReported) {
    EXPECT_EQ(0u, nfs->GetAttr(OpenDisk(0)).attributes.size);
    EXPECT_EQ(0x7FFFFFFFFFFFFFFFu, nfs->GetAttr(OpenDisk(0x7FFFFFFFFFFFFFFF)).attributes.size);
}

TEST_F(MountedRedirectedNfsTest, AReadReturnsSegmentsJoined) {
    const std::string data = PatternData(10'000);
    const std::string source = MakeSource("source", data);
    const Handle handle = OpenDisk(10'000);
    Add(source, 5'000, 0, 5'000);
    Add(source, 0, 5'000, 5'000);
    const support::ReadResult result = nfs->Read(handle, 4'000, 2'000);
    ASSERT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(2'000u, result.count);
    EXPECT_FALSE(result.eof);
    EXPECT_EQ(ToBytes(data.substr(9'000) + data.substr(0, 1'000)), result.data);
    const support::ReadResult last = nfs->Read(handle, 9'000, 2'000);
    EXPECT_EQ(1'000u, last.count);
    EXPECT_TRUE(last.eof);
    EXPECT_EQ(ToBytes(data.substr(4'000, 1'000)), last.data);
}

TEST_F(MountedRedirectedNfsTest, AReadSeesSegmentsOfAnInfoFileAndNotItsBytes) {
    const std::string data = PatternData(100);
    const std::string source = MakeSource("source", data);
    const Handle handle = OpenDisk(100, true);
    Add(source, 0, 0, 50);
    EXPECT_EQ(28, SizeOf(disk));
    EXPECT_EQ(100u, nfs->GetAttr(handle).attributes.size);
    EXPECT_EQ(ToBytes(data.substr(0, 50) + Zeros(50)), nfs->Read(handle, 0, 100).data);
}

TEST_F(MountedRedirectedNfsTest, TheGapBetweenTwoSegmentsIsOverwritten) {
    const std::string data = PatternData(30);
    const std::string source = MakeSource("source", data);
    const Handle handle = OpenDisk(30);
    Add(source, 0, 0, 10);
    Add(source, 20, 20, 10);
    const support::ReadResult joined = nfs->Read(handle, 5, 20);
    EXPECT_EQ(15u, joined.count);
    EXPECT_EQ(ToBytes(data.substr(5, 5) + data.substr(20)), joined.data);
    const support::ReadResult inGap = nfs->Read(handle, 15, 20);
    EXPECT_EQ(ToBytes(Zeros(15)), inGap.data);
    EXPECT_TRUE(inGap.eof);
}

TEST_F(MountedRedirectedNfsTest, AnUncoveredEndReadsAsZeros) {
    const Handle handle = OpenDisk(100'000);
    Add(MakeSource("source", "data"), 0, 0, 4);
    const support::ReadResult result = nfs->Read(handle, 50'000, 20'000);
    EXPECT_EQ(ToBytes(Zeros(20'000)), result.data);
    EXPECT_FALSE(result.eof);
}

TEST_F(MountedRedirectedNfsTest, AMissingSourceReadsAsZeros) {
    const Handle handle = OpenDisk(100);
    Add(folder / "missing", 0, 0, 100);
    EXPECT_EQ(ToBytes(Zeros(100)), nfs->Read(handle, 0, 100).data);
}

TEST_F(MountedRedirectedNfsTest, ASourceThatShrinksIsAGapAndATail) {
    const std::string source = MakeSource("source", std::string(100, 'a'));
    const Handle handle = OpenDisk(200);
    Add(source, 0, 0, 100);
    Add(source, 0, 100, 100);
    ASSERT_EQ(0, truncate(source.c_str(), 30));
    const support::ReadResult result = nfs->Read(handle, 0, 200);
    ASSERT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(ToBytes(std::string(60, 'a') + Zeros(70)), result.data);
    EXPECT_FALSE(result.eof);
}

TEST_F(MountedRedirectedNfsTest, FourGibibytesWithoutSegmentsAreZerosUpToTheirEnd) {
    const std::int64_t size = std::int64_t{4} << 30;
    const Handle handle = OpenDisk(size);
    EXPECT_EQ(ToBytes(Zeros(4096)), nfs->Read(handle, 0, 4096).data);
    const support::ReadResult last =
        nfs->Read(handle, static_cast<std::uint64_t>(size) - 100, 4096);
    EXPECT_EQ(ToBytes(Zeros(100)), last.data);
    EXPECT_TRUE(last.eof);
}

TEST_F(MountedRedirectedNfsTest, AReadBeyondTheEndFailsUnlessTheEndWasReached) {
    const Handle handle = OpenDisk(100);
    EXPECT_EQ(kInvalid, nfs->Read(handle, 100, 10).status);
    EXPECT_TRUE(nfs->Read(handle, 0, 100).eof);
    const support::ReadResult result = nfs->Read(handle, 100, 10);
    EXPECT_EQ(NFS3_OK, result.status);
    EXPECT_EQ(0u, result.count);
    EXPECT_TRUE(result.eof);
}

TEST_F(MountedRedirectedNfsTest, OpenedAgainThePathHasTheNewSizeAndNoSegments) {
    const Handle handle = OpenDisk(100);
    Add(MakeSource("source", std::string(100, 'a')), 0, 0, 100);
    EXPECT_EQ(ToBytes(std::string(50, 'a')), nfs->Read(handle, 0, 50).data);
    service.OpenRedirectedFile(disk.c_str(), 60, false, 0, 0);
    EXPECT_EQ(60u, nfs->GetAttr(handle).attributes.size);
    EXPECT_EQ(ToBytes(Zeros(50)), nfs->Read(handle, 0, 50).data);
}

TEST_F(MountedRedirectedNfsTest, AfterTheCloseTheRealFileShows) {
    const Handle handle = OpenDisk(100);
    support::WriteFile(disk, "real");
    EXPECT_EQ(100u, nfs->GetAttr(handle).attributes.size);
    service.CloseAllRedirectedFiles(root.c_str());
    EXPECT_EQ(4u, nfs->GetAttr(handle).attributes.size);
    EXPECT_EQ(ToBytes("real"), nfs->Read(handle, 0, 100).data);
}

// ------------------------------------------------------------------------------------------------
// Changes
// ------------------------------------------------------------------------------------------------

TEST_F(MountedRedirectedNfsTest, TheCountOfAWriteIsTheAnswerOfTheController) {
    const Handle handle = OpenDisk(100);
    for (const int answer : {4, 3, 0}) {
        Controller().SetAnswer(answer);
        const support::WriteResult result = nfs->Write(handle, 7, ToBytes("1234"));
        EXPECT_EQ(NFS3_OK, result.status);
        EXPECT_EQ(static_cast<std::uint32_t>(answer), result.count);
        EXPECT_EQ(2u, result.committed);
    }
    const std::vector<std::string> notifications = Controller().TakeNotifications();
    ASSERT_EQ(3u, notifications.size());
    EXPECT_THAT(notifications[0], testing::EndsWith(") " + disk + " seek=7 type=0 length=4"));
    EXPECT_EQ(0, SizeOf(disk)) << "nothing is stored";
    EXPECT_EQ(ToBytes(Zeros(50)), nfs->Read(handle, 0, 50).data);
}

TEST_F(MountedRedirectedNfsTest, AWriteIsReportedUpTo16384Bytes) {
    const Handle handle = OpenDisk(100'000);
    Controller().SetAnswer(16384);
    EXPECT_EQ(16384u, nfs->Write(handle, 0, Bytes(20'000)).count);
    EXPECT_THAT(Controller().TakeNotifications(),
                ElementsAre(testing::EndsWith(" seek=0 type=0 length=16384")));
}

TEST_F(MountedRedirectedNfsTest, ANegativeAnswerToAWriteIsAnInvalidArgument) {
    const Handle handle = OpenDisk(100);
    Controller().SetAnswer(-1);
    EXPECT_EQ(kInvalid, nfs->Write(handle, 0, ToBytes("1234")).status);
}

TEST_F(MountedRedirectedNfsTest, SettingAttributesSucceedsWhateverTheAnswer) {
    const Handle handle = OpenDisk(100);
    support::SetAttributes attributes;
    attributes.size = 5;
    attributes.atime = support::NfsTime{10, 99};
    attributes.mode = 0600;
    attributes.mtimeFromServer = true;
    for (const int answer : {0, -1, 1}) {
        Controller().SetAnswer(answer);
        EXPECT_EQ(NFS3_OK, nfs->SetAttr(handle, attributes).status);
        EXPECT_THAT(Controller().TakeNotifications(),
                    ElementsAre(testing::EndsWith(disk + " size=5 atime=10 mtime=0")));
    }
    EXPECT_EQ(100u, nfs->GetAttr(handle).attributes.size);
    EXPECT_NE(0600u, nfs->GetAttr(handle).attributes.mode);
}

TEST_F(MountedRedirectedNfsTest, ARemovalSucceedsWithARealFileAndTheAnswerZero) {
    OpenDisk(100);
    EXPECT_EQ(NFS3_OK, nfs->Remove(rootHandle, "disk.img").status);
    EXPECT_THAT(Controller().TakeNotifications(), ElementsAre(testing::EndsWith(") " + disk)));
    EXPECT_FALSE(FileExists(disk));
    EXPECT_EQ(nullptr, service.GetUtils()->GetRedirectedFile(disk.c_str()));
}

TEST_F(MountedRedirectedNfsTest, ARemovalFailsWithAnotherAnswerAlthoughTheFileIsGone) {
    for (const int answer : {-1, 1}) {
        OpenDisk(100);
        Controller().SetAnswer(answer);
        EXPECT_EQ(kIoError, nfs->Remove(rootHandle, "disk.img").status);
        EXPECT_FALSE(FileExists(disk));
        EXPECT_EQ(nullptr, service.GetUtils()->GetRedirectedFile(disk.c_str()));
    }
}

TEST_F(MountedRedirectedNfsTest, ARemovalWithoutARealFileFailsAndTellsNobody) {
    service.OpenRedirectedFile(disk.c_str(), 100, false, 0, 0);
    EXPECT_NE(NFS3_OK, nfs->Remove(rootHandle, "disk.img").status);
    EXPECT_THAT(Controller().TakeNotifications(), IsEmpty());
    EXPECT_NE(nullptr, service.GetUtils()->GetRedirectedFile(disk.c_str()));
}

TEST_F(MountedRedirectedNfsTest, ARenameMovesTheObject) {
    const Handle handle = OpenDisk(100);
    Add(MakeSource("source", std::string(100, 'a')), 0, 0, 100);
    EXPECT_EQ(NFS3_OK, nfs->Rename(rootHandle, "disk.img", rootHandle, "new.img").status);
    EXPECT_THAT(Controller().TakeNotifications(),
                ElementsAre(testing::EndsWith(disk + " -> " + PathOf("new.img"))));
    EXPECT_TRUE(FileExists(PathOf("new.img")));
    EXPECT_EQ(100u, nfs->GetAttr(handle).attributes.size) << "the handle goes along";
    EXPECT_EQ(ToBytes(std::string(50, 'a')), nfs->Read(handle, 0, 50).data);
}

TEST_F(MountedRedirectedNfsTest, ARenameDoesNotMoveTheInfoFilePath) {
    const Handle handle = OpenDisk(100, true);
    Add(MakeSource("source", std::string(100, 'a')), 0, 0, 100);
    EXPECT_EQ(ToBytes(std::string(50, 'a')), nfs->Read(handle, 0, 50).data);
    EXPECT_EQ(NFS3_OK, nfs->Rename(rootHandle, "disk.img", rootHandle, "new.img").status);
    EXPECT_EQ(28, SizeOf(PathOf("new.img")));
    EXPECT_EQ(ToBytes(Zeros(50)), nfs->Read(handle, 0, 50).data);
}

TEST_F(MountedRedirectedNfsTest, ARenameFailsWhenTheControllerObjects) {
    OpenDisk(100);
    Controller().SetAnswer(1);
    EXPECT_EQ(kIoError, nfs->Rename(rootHandle, "disk.img", rootHandle, "new.img").status);
    EXPECT_TRUE(FileExists(PathOf("new.img"))) << "it is done all the same";
    EXPECT_NE(nullptr, service.GetUtils()->GetRedirectedFile(PathOf("new.img").c_str()));
}

TEST_F(UncontrolledRedirectedNfsTest, WithoutAControllerOnlyAttributesSucceed) {
    const Handle handle = OpenDisk(100);
    EXPECT_EQ(kInvalid, nfs->Write(handle, 0, ToBytes("1234")).status);
    support::SetAttributes attributes;
    attributes.size = 5;
    EXPECT_EQ(NFS3_OK, nfs->SetAttr(handle, attributes).status);
    EXPECT_EQ(kIoError, nfs->Rename(rootHandle, "disk.img", rootHandle, "new.img").status);
    EXPECT_TRUE(FileExists(PathOf("new.img")));
    EXPECT_EQ(kIoError, nfs->Remove(rootHandle, "new.img").status);
    EXPECT_FALSE(FileExists(PathOf("new.img")));
}

// ------------------------------------------------------------------------------------------------
// A machine image
// ------------------------------------------------------------------------------------------------

namespace {

// An open file of a client that others wrote.
class LibnfsFile {
public:
    explicit LibnfsFile(const std::string& name) {
        nfs_set_timeout(m_nfs, 20'000);
        nfs_url* url = nfs_parse_url_incomplete(
            m_nfs, "nfs://127.0.0.1/?nfsport=2049&mountport=1058&auto-traverse-mounts=0");
        if (url == nullptr) {
            throw std::runtime_error(nfs_get_error(m_nfs));
        }
        nfs_destroy_url(url);
        if (nfs_mount(m_nfs, "127.0.0.1", "vm01") != 0 ||
            nfs_open(m_nfs, name.c_str(), O_RDONLY, &m_file) != 0) {
            throw std::runtime_error(nfs_get_error(m_nfs));
        }
    }
    ~LibnfsFile() {
        nfs_close(m_nfs, m_file);
        nfs_umount(m_nfs);
        nfs_destroy_context(m_nfs);
    }
    LibnfsFile(const LibnfsFile&) = delete;
    LibnfsFile& operator=(const LibnfsFile&) = delete;

    std::string Read(std::uint64_t offset, std::size_t length) {
        std::string buffer(length, '\xEE');
        const int count = nfs_pread(m_nfs, m_file, offset, length, buffer.data());
        EXPECT_GE(count, 0) << nfs_get_error(m_nfs);
        buffer.resize(static_cast<std::size_t>(std::max(0, count)));
        return buffer;
    }
    std::uint64_t Size() {
        nfs_stat_64 data{};
        EXPECT_EQ(0, nfs_fstat64(m_nfs, m_file, &data));
        return data.nfs_size;
    }

private:
    nfs_context* m_nfs = nfs_init_context();
    nfsfh* m_file = nullptr;
};

class MachineImageTest : public RedirectedNfsTest, public testing::WithParamInterface<bool> {
protected:
    static constexpr std::size_t kSize = 256u << 20;
    static constexpr std::size_t kPieces = 1000;
    static constexpr std::size_t kSources = 5;

    // The borders of the pieces: no two alike, none on a block boundary but by chance.
    std::vector<std::size_t> Cut() {
        std::vector<std::size_t> borders{0, kSize};
        while (borders.size() < kPieces + 1) {
            borders.push_back(1 + m_random() % (kSize - 1));
            if (borders.size() == kPieces + 1) {
                std::sort(borders.begin(), borders.end());
                borders.erase(std::unique(borders.begin(), borders.end()), borders.end());
            }
        }
        return borders;
    }

    // Fills the image, scatters its pieces over the sources and opens the redirected file.
    void OpenImage() {
        image = PatternData(kSize, m_seed);
        const std::vector<std::size_t> borders = Cut();
        std::vector<std::size_t> order(kPieces);
        for (std::size_t i = 0; i < kPieces; ++i) {
            order[i] = i;
        }
        std::shuffle(order.begin(), order.end(), m_random);

        // The pieces lie in the sources in a random order.
        struct Place {
            std::size_t source;
            std::size_t offset;
        };
        std::vector<Place> places(kPieces);
        {
            std::vector<std::string> sources(kSources);
            for (const std::size_t piece : order) {
                std::string& source = sources[m_random() % kSources];
                places[piece] = {static_cast<std::size_t>(&source - sources.data()), source.size()};
                source.append(image, borders[piece], borders[piece + 1] - borders[piece]);
            }
            for (std::size_t i = 0; i < kSources; ++i) {
                MakeSource("source" + std::to_string(i), sources[i]);
            }
        }

        support::WriteFile(disk, "");
        const bool infoFile = GetParam();
        service.OpenRedirectedFile(disk.c_str(), kSize, infoFile, 1, 16);
        // An info file is searched from an estimate on, which needs ascending segments; and a read
        // goes on in the order of adding.
        for (std::size_t piece = 0; piece < kPieces; ++piece) {
            Add(folder / ("source" + std::to_string(places[piece].source)),
                static_cast<long long>(places[piece].offset),
                static_cast<long long>(borders[piece]),
                static_cast<long long>(borders[piece + 1] - borders[piece]));
        }
        EXPECT_EQ(infoFile, SizeOf(disk) > 0);
    }

    std::string image;
    const std::uint64_t m_seed = support::RandomSeed();
    std::mt19937_64 m_random{m_seed};
};

INSTANTIATE_TEST_SUITE_P(Segments, MachineImageTest, testing::Bool(), [](const auto& kind) {
    return std::string(kind.param ? "InAnInfoFile" : "InMemory");
});

}  // namespace

// Read from end to end.
TEST_P(MachineImageTest, CutIntoShuffledPiecesReadsLikeTheOriginal) {
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(m_seed));
    ASSERT_NO_FATAL_FAILURE(OpenImage());
    LibnfsFile file("/disk.img");
    ASSERT_EQ(kSize, file.Size());
    for (std::size_t offset = 0; offset < kSize; offset += 1u << 20) {
        ASSERT_TRUE(image.compare(offset, 1u << 20, file.Read(offset, 1u << 20)) == 0)
            << "differs in the MiB at " << offset;
    }
}

TEST_P(MachineImageTest, CutIntoShuffledPiecesReadsLikeTheOriginalAtRandomPlaces) {
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(m_seed));
    ASSERT_NO_FATAL_FAILURE(OpenImage());
    LibnfsFile file("/disk.img");
    for (int i = 0; i < 10'000; ++i) {
        const std::size_t offset = m_random() % kSize;
        const std::size_t length = 1 + m_random() % (m_random() % 20 == 0 ? 300'000 : 9'000);
        const std::string got = file.Read(offset, length);
        ASSERT_TRUE(image.compare(offset, length, got) == 0)
            << "differs at " << offset << ", " << length << " bytes, got " << got.size();
    }
}
