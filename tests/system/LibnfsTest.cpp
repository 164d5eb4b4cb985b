// A client library that others wrote works on an export: what it lists, reads and writes is what
// lies in the exported folder.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <filesystem>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>

#include "support/LibnfsClient.h"
#include "support/Server.h"

using namespace support;

namespace {

class LibnfsTest : public testing::Test {
protected:
    LibnfsTest() : m_server({.exports = {{"vm01", m_folder.Path()}}}) {
        if (m_client.Mount("vm01") != 0) {
            throw std::runtime_error("mount: " + m_client.Error());
        }
    }

    // The path of a file in the exported folder.
    std::string Local(const std::string& name) const { return m_folder / name; }

    std::string ReadAll(const std::string& path) {
        nfsfh* file = nullptr;
        if (nfs_open(*m_client, path.c_str(), O_RDONLY, &file) != 0) {
            throw std::runtime_error("open: " + m_client.Error());
        }
        std::string content;
        std::string buffer(1 << 20, '\0');
        int count = 0;
        while ((count = nfs_read(*m_client, file, buffer.size(), buffer.data())) > 0) {
            content.append(buffer, 0, static_cast<std::size_t>(count));
        }
        EXPECT_EQ(0, count) << m_client.Error();
        EXPECT_EQ(0, nfs_close(*m_client, file)) << m_client.Error();
        return content;
    }

    // Writes in pieces of 1 MiB and returns what nfs_close says.
    int WriteAll(const std::string& path, const std::string& content) {
        nfsfh* file = nullptr;
        if (nfs_creat(*m_client, path.c_str(), 0644, &file) != 0) {
            throw std::runtime_error("creat: " + m_client.Error());
        }
        std::size_t done = 0;
        while (done < content.size()) {
            const int count =
                nfs_write(*m_client, file, std::min<std::size_t>(1 << 20, content.size() - done),
                          content.data() + done);
            if (count <= 0) {
                throw std::runtime_error("write: " + m_client.Error());
            }
            done += static_cast<std::size_t>(count);
        }
        return nfs_close(*m_client, file);
    }

    const ScopedTempDir m_folder;
    Server m_server;
    LibnfsClient m_client;
};

class LibnfsListingTest : public LibnfsTest, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Entries, LibnfsListingTest, testing::Values(0, 3, 10, 11, 25, 2000),
                         testing::PrintToStringParamName());

}  // namespace

// The server answers ten entries at a time, so the counts lie around the ends of a page.
TEST_P(LibnfsListingTest, ListsEveryEntryOnce) {
    std::filesystem::create_directory(Local("dir"));
    std::multiset<std::string> expected;
    for (int i = 0; i < GetParam(); ++i) {
        const std::string name = "entry-" + std::to_string(i) + ".vmdk";
        WriteFile(Local("dir/" + name), "");
        expected.insert(name);
    }

    nfsdir* directory = nullptr;
    ASSERT_EQ(0, nfs_opendir(*m_client, "/dir", &directory)) << m_client.Error();
    std::multiset<std::string> listed;
    while (const nfsdirent* entry = nfs_readdir(*m_client, directory)) {
        listed.insert(entry->name);
    }
    nfs_closedir(*m_client, directory);
    EXPECT_EQ(expected, listed);
}

TEST_F(LibnfsTest, ListsTypesAndSizes) {
    std::filesystem::create_directory(Local("folder"));
    WriteFile(Local("file"), "12345");

    nfsdir* directory = nullptr;
    ASSERT_EQ(0, nfs_opendir(*m_client, "/", &directory)) << m_client.Error();
    std::set<std::string> listed;
    while (const nfsdirent* entry = nfs_readdir(*m_client, directory)) {
        listed.insert(std::string(entry->name) + (S_ISDIR(entry->mode) ? " dir" : "") +
                      (S_ISREG(entry->mode) ? " file " + std::to_string(entry->size) : ""));
    }
    nfs_closedir(*m_client, directory);
    EXPECT_EQ((std::set<std::string>{"folder dir", "file file 5"}), listed);
}

TEST_F(LibnfsTest, WritesAndRereads64MiB) {
    const std::string content = PatternData(64 << 20);
    WriteAll("/disk.img", content);
    // Compared as a bool: a message with 64 MiB of difference helps nobody.
    EXPECT_TRUE(content == ReadFile(Local("disk.img"))) << "as written to the folder";
    EXPECT_TRUE(content == ReadAll("/disk.img")) << "as read back";
}

TEST_F(LibnfsTest, CloseAfterAWriteReportsAnErrorAlthoughEveryByteIsWritten) {
    EXPECT_EQ(-EIO, WriteAll("/file", "written at once")) << "COMMIT is not served";
    EXPECT_EQ("written at once", ReadFile(Local("file")));
}

TEST_F(LibnfsTest, ReadsAFileThatLiesInTheFolder) {
    const std::string content = PatternData(300'001);
    WriteFile(Local("file"), content);
    EXPECT_TRUE(content == ReadAll("/file"));
}

TEST_F(LibnfsTest, WritesInTheMiddleOfAFile) {
    WriteFile(Local("file"), "0123456789");
    nfsfh* file = nullptr;
    ASSERT_EQ(0, nfs_open(*m_client, "/file", O_RDWR, &file)) << m_client.Error();
    EXPECT_EQ(3, nfs_pwrite(*m_client, file, 4, 3, "abc")) << m_client.Error();
    nfs_close(*m_client, file);
    EXPECT_EQ("0123abc789", ReadFile(Local("file")));
}

TEST_F(LibnfsTest, TruncatesDown) {
    WriteFile(Local("file"), "0123456789");
    ASSERT_EQ(0, nfs_truncate(*m_client, "/file", 4)) << m_client.Error();
    EXPECT_EQ("0123", ReadFile(Local("file")));
    EXPECT_EQ("0123", ReadAll("/file"));
}

TEST_F(LibnfsTest, TruncatesUpWithZeros) {
    WriteFile(Local("file"), "0123");
    ASSERT_EQ(0, nfs_truncate(*m_client, "/file", 8)) << m_client.Error();
    EXPECT_EQ(std::string("0123\0\0\0\0", 8), ReadFile(Local("file")));
    EXPECT_EQ(std::string("0123\0\0\0\0", 8), ReadAll("/file"));
}

TEST_F(LibnfsTest, TruncatesUpBeyond4GiB) {
    WriteFile(Local("file"), "");
    ASSERT_EQ(0, nfs_truncate(*m_client, "/file", 5ULL << 30)) << m_client.Error();
    EXPECT_EQ(5ULL << 30, std::filesystem::file_size(Local("file")));
}

TEST_F(LibnfsTest, CreatesAnEmptyFileWithItsMode) {
    nfsfh* file = nullptr;
    ASSERT_EQ(0, nfs_creat(*m_client, "/new", 0640, &file)) << m_client.Error();
    nfs_close(*m_client, file);
    struct stat local {};
    ASSERT_EQ(0, lstat(Local("new").c_str(), &local));
    EXPECT_TRUE(S_ISREG(local.st_mode));
    EXPECT_EQ(0640u, local.st_mode & 07777);
    EXPECT_EQ(0, local.st_size);
}

TEST_F(LibnfsTest, RenamesAFile) {
    // The server renames what it has given a handle for, as it does for whoever listed or looked up
    // the name.
    WriteFile(Local("old"), "content");
    EXPECT_EQ("content", ReadAll("/old"));
    ASSERT_EQ(0, nfs_rename(*m_client, "/old", "/new")) << m_client.Error();
    EXPECT_FALSE(FileExists(Local("old")));
    EXPECT_EQ("content", ReadAll("/new"));
}

TEST_F(LibnfsTest, RenamesOverAnExistingFile) {
    WriteFile(Local("new"), "to be replaced");
    WriteFile(Local("old"), "replacement");
    // Both are known to the server, and the target is open there, before the name changes hands.
    EXPECT_EQ("to be replaced", ReadAll("/new"));
    EXPECT_EQ("replacement", ReadAll("/old"));
    ASSERT_EQ(0, nfs_rename(*m_client, "/old", "/new")) << m_client.Error();
    EXPECT_FALSE(FileExists(Local("old")));
    EXPECT_EQ("replacement", ReadFile(Local("new")));
    EXPECT_EQ("replacement", ReadAll("/new"));
}

TEST_F(LibnfsTest, RemovesAFile) {
    WriteFile(Local("file"), "content");
    ASSERT_EQ(0, nfs_unlink(*m_client, "/file")) << m_client.Error();
    EXPECT_FALSE(FileExists(Local("file")));
    nfsfh* file = nullptr;
    EXPECT_EQ(-ENOENT, nfs_open(*m_client, "/file", O_RDONLY, &file));
}

TEST_F(LibnfsTest, MakesAndRemovesAFolder) {
    ASSERT_EQ(0, nfs_mkdir2(*m_client, "/folder", 0750)) << m_client.Error();
    struct stat local {};
    ASSERT_EQ(0, lstat(Local("folder").c_str(), &local));
    EXPECT_TRUE(S_ISDIR(local.st_mode));
    EXPECT_EQ(0750u, local.st_mode & 07777);
    ASSERT_EQ(0, nfs_rmdir(*m_client, "/folder")) << m_client.Error();
    EXPECT_FALSE(FileExists(Local("folder")));
}

TEST_F(LibnfsTest, WorksInNestedFolders) {
    ASSERT_EQ(0, nfs_mkdir(*m_client, "/a")) << m_client.Error();
    ASSERT_EQ(0, nfs_mkdir(*m_client, "/a/b")) << m_client.Error();
    WriteAll("/a/b/file", "deep");
    EXPECT_EQ("deep", ReadFile(Local("a/b/file")));
}

TEST_F(LibnfsTest, StatTellsWhatTheFolderHolds) {
    WriteFile(Local("file"), "1234567");
    struct stat local {};
    ASSERT_EQ(0, lstat(Local("file").c_str(), &local));

    nfs_stat_64 remote{};
    ASSERT_EQ(0, nfs_stat64(*m_client, "/file", &remote)) << m_client.Error();
    EXPECT_EQ(7u, remote.nfs_size);
    EXPECT_EQ(static_cast<std::uint64_t>(local.st_ino), remote.nfs_ino);
    EXPECT_EQ(local.st_mode & 0777, remote.nfs_mode & 0777);
    EXPECT_TRUE(S_ISREG(remote.nfs_mode));
    EXPECT_EQ(static_cast<std::uint64_t>(local.st_mtime), remote.nfs_mtime);
    EXPECT_EQ(local.st_nlink, remote.nfs_nlink);
}

TEST_F(LibnfsTest, StatOfAMissingNameIsNoSuchEntry) {
    nfs_stat_64 remote{};
    EXPECT_EQ(-ENOENT, nfs_stat64(*m_client, "/missing", &remote));
}

TEST_F(LibnfsTest, ASecondMountIsRefusedUntilTheFirstClientUnmounts) {
    LibnfsClient second;
    EXPECT_NE(0, second.Mount("vm01"));
    ASSERT_EQ(0, m_client.Unmount()) << m_client.Error();
    EXPECT_EQ(0, second.Mount("vm01")) << second.Error();
}

TEST_F(LibnfsTest, MountsAgainAndReadsWhatItWrote) {
    WriteAll("/file", "kept");
    ASSERT_EQ(0, m_client.Unmount()) << m_client.Error();
    LibnfsClient again;
    ASSERT_EQ(0, again.Mount("vm01")) << again.Error();
    nfsfh* file = nullptr;
    ASSERT_EQ(0, nfs_open(*again, "/file", O_RDONLY, &file)) << again.Error();
    char content[16] = {};
    EXPECT_EQ(4, nfs_read(*again, file, sizeof content, content));
    EXPECT_STREQ("kept", content);
    nfs_close(*again, file);
}

TEST(LibnfsMountTest, AnUnknownExportIsRefused) {
    const ScopedTempDir folder;
    Server server({.exports = {{"vm01", folder.Path()}}});
    LibnfsClient client;
    EXPECT_NE(0, client.Mount("vm02"));
}

TEST(LibnfsMountTest, GivenPortsAreServed) {
    const ScopedTempDir folder;
    WriteFile(folder / "file", "12345");
    Server server({.mountPort = 3058, .nfsPort = 3049, .exports = {{"vm01", folder.Path()}}});
    LibnfsClient client(3049, 3058);
    ASSERT_EQ(0, client.Mount("vm01")) << client.Error();
    nfs_stat_64 remote{};
    EXPECT_EQ(0, nfs_stat64(*client, "/file", &remote)) << client.Error();
    EXPECT_EQ(5u, remote.nfs_size);
}

TEST(LibnfsMountTest, TwoExportsAreServedSideBySide) {
    const ScopedTempDir first;
    const ScopedTempDir second;
    WriteFile(first / "one", "");
    WriteFile(second / "two", "");
    Server server({.exports = {{"vm01", first.Path()}, {"vm02", second.Path()}}});
    LibnfsClient one;
    LibnfsClient two;
    ASSERT_EQ(0, one.Mount("vm01")) << one.Error();
    ASSERT_EQ(0, two.Mount("vm02")) << two.Error();
    nfs_stat_64 remote{};
    EXPECT_EQ(0, nfs_stat64(*one, "/one", &remote));
    EXPECT_EQ(-ENOENT, nfs_stat64(*one, "/two", &remote));
    EXPECT_EQ(0, nfs_stat64(*two, "/two", &remote));
}
