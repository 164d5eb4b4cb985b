// The limit of file sizes (ulimit -f): what would make a file larger fails, on whatever thread, and
// nothing ends.
// ctest-labels: threaded

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>

#include <stdexcept>
#include <thread>

#include "FileLogger.h"
#include "Nfs3Types.h"
#include "RedirectedFixture.h"
#include "support/Nfs3Client.h"
#include "support/Process.h"
#include "support/Server.h"

using namespace redirtest;
using support::ReadFile;

namespace {

constexpr rlim_t kLimit = 4096;

// While it lives, no file of this process grows beyond the limit.  What the signal does is left as
// it was found: it ends the process.
class FileSizeLimit {
public:
    FileSizeLimit() {
        if (getrlimit(RLIMIT_FSIZE, &m_old) != 0 || !Set(kLimit)) {
            throw std::runtime_error("RLIMIT_FSIZE");
        }
    }
    ~FileSizeLimit() { setrlimit(RLIMIT_FSIZE, &m_old); }
    FileSizeLimit(const FileSizeLimit&) = delete;
    FileSizeLimit& operator=(const FileSizeLimit&) = delete;

private:
    bool Set(rlim_t bytes) const {
        struct rlimit limit = m_old;
        limit.rlim_cur = bytes;
        return setrlimit(RLIMIT_FSIZE, &limit) == 0;
    }

    struct rlimit m_old {};
};

class FileSizeLimitTest : public RedirectedFixture {
protected:
    FileSizeLimitTest() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGXFSZ);
        pthread_sigmask(SIG_UNBLOCK, &signals, nullptr);
        signal(SIGXFSZ, SIG_DFL);
    }
    void SetUp() override { ExportFolder(); }

    ~FileSizeLimitTest() override {
        // The host's mask and disposition are as they were, and nothing waits to be delivered.
        sigset_t signals;
        pthread_sigmask(SIG_BLOCK, nullptr, &signals);
        EXPECT_EQ(0, sigismember(&signals, SIGXFSZ));
        sigpending(&signals);
        EXPECT_EQ(0, sigismember(&signals, SIGXFSZ));
        struct sigaction action {};
        sigaction(SIGXFSZ, nullptr, &action);
        EXPECT_EQ(SIG_DFL, action.sa_handler);
    }

    int Write(const std::string& path, std::uint64_t seek, const std::string& data) {
        return utilities.WriteFile(&param, &argu, path.c_str(), seek, SEEK_SET, data.data(),
                                   static_cast<unsigned int>(data.size()));
    }

    LogArgu argu{"Test.Case"};
};

}  // namespace

TEST_F(FileSizeLimitTest, AWriteGivesWhatFitsAndThenFails) {
    const std::string path = Make("f");
    Log(LOG_CONTROL_ERROR);
    {
        const FileSizeLimit limit;
        EXPECT_EQ(96, Write(path, 4000, std::string(200, 'x')));
        EXPECT_EQ(-1, Write(path, 4096, "x"));
        std::thread([&] { EXPECT_EQ(-1, Write(path, 9000, "x")); }).join();
    }
    EXPECT_EQ(4096, SizeOf(path));
    ASSERT_EQ(2u, utilities.Errors().size());
    EXPECT_TRUE(utilities.Errors().front().ends_with("Error=File too large (27)"));
    EXPECT_EQ(1, Write(path, 4096, "x"));
}

TEST_F(FileSizeLimitTest, AHostThatHasMaskedTheSignalItselfKeepsItsMask) {
    const std::string path = Make("f");
    std::thread([&] {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &signals, nullptr);
        const FileSizeLimit limit;
        EXPECT_EQ(-1, Write(path, 4096, "x"));
        pthread_sigmask(SIG_BLOCK, nullptr, &signals);
        EXPECT_EQ(1, sigismember(&signals, SIGXFSZ));
    }).join();
}

TEST_F(FileSizeLimitTest, ASizeBeyondItIsRefused) {
    const std::string path = Make("f", "0123456789");
    const FileSizeLimit limit;
    char reason[STATUS_SIZE] = "";
    EXPECT_FALSE(utilities.OS_SetFileSize(&param, &argu, path.c_str(), 4097, reason));
    EXPECT_STREQ("File too large (27)", reason);
    EXPECT_TRUE(utilities.OS_SetFileSize(&param, &argu, path.c_str(), 4096, nullptr));
}

TEST_F(FileSizeLimitTest, AnExportWritesWhatFits) {
    const std::string source = Make("source", support::PatternData(200'000));
    const std::string target = Make("target");
    CRedirectedFile file(&utilities);
    file.Open(&param, 200'000, 1, nullptr, 0, 0);
    ASSERT_TRUE(file.AddSegment(&param, source.c_str(), 0, 0, 200'000, nullptr));
    for (const int control : {0, LOG_CONTROL_FILE_ACCESS}) {  // inside the kernel, and by hand
        const FileSizeLimit limit;
        param.SetLogControl(control);
        file.Export(&param, target.c_str());
        EXPECT_EQ(support::PatternData(200'000).substr(0, kLimit), ReadFile(target));
    }
}

TEST_F(FileSizeLimitTest, ASegmentWhoseRecordsDoNotFitIsRefused) {
    const std::string source = Make("source", "0123456789");
    const std::string info = Make("info", std::string(4096 - 28, 'x'));
    CRedirectedFile file(&utilities);
    file.Open(&param, 100, 1, info.c_str(), 0, 0);
    const FileSizeLimit limit;
    EXPECT_TRUE(file.AddSegment(&param, source.c_str(), 0, 0, 10, nullptr));
    EXPECT_FALSE(file.AddSegment(&param, source.c_str(), 0, 10, 10, nullptr));
    EXPECT_EQ(4096, SizeOf(info));
    EXPECT_EQ("0123456789", GuardedRead(10, [&](void* buffer, bool* eof) {
                                return file.Read(&param, 0, buffer, 10, eof);
                            }).data);
}

TEST_F(FileSizeLimitTest, ALogFileTakesNoMoreLines) {
    CFileLogger logger((dir / "log").c_str());
    ASSERT_TRUE(logger.Open(0));
    const FileSizeLimit limit;
    const std::string line(1000, 'x');
    int taken = 0;
    while (taken < 10 && logger.LogInfo(line.c_str())) {
        ++taken;
    }
    EXPECT_GE(taken, 3);
    EXPECT_LT(taken, 10);
    EXPECT_EQ(4096, SizeOf(dir / "log"));
}

TEST(FileSizeLimitOfTheProgramTest, AWriteAndASizeBeyondItAreInvalidAndTheProgramGoesOn) {
    const support::ScopedTempDir folder;
    support::Server server({.logControl = LOG_CONTROL_ERROR,
                            .arguments = {"-logfile", folder / "log"},
                            .exports = {{"vm01", folder.Path()}}});
    struct rlimit limit {};
    ASSERT_EQ(0, prlimit(server.Pid(), RLIMIT_FSIZE, nullptr, &limit));
    limit.rlim_cur = kLimit;
    ASSERT_EQ(0, prlimit(server.Pid(), RLIMIT_FSIZE, &limit, nullptr));
    const support::Handle root = support::MountClient().Mnt("vm01").handle;
    support::Nfs3Client nfs;
    const support::Handle file = nfs.Create(root, "f").handle.value();
    EXPECT_EQ(96u, nfs.Write(file, 4000, support::Bytes(200)).count);
    for (int i = 0; i < 50; ++i) {  // each is told in the log, which reaches the limit as well
        EXPECT_EQ(NFS3ERR_INVAL, nfs.Write(file, 4096, support::Bytes(200)).status);
    }
    support::SetAttributes size;
    size.size = 10'000;
    EXPECT_EQ(NFS3ERR_INVAL, nfs.SetAttr(file, size).status);
    EXPECT_EQ(4096, SizeOf(folder / "f"));
    EXPECT_EQ(4096, SizeOf(folder / "log"));
    EXPECT_EQ(3u, nfs.Write(file, 0, support::Bytes(3)).count);
}

TEST(FileSizeLimitOfTheProgramTest, OutputThatGoesToAFullFileDoesNotEndIt) {
    const support::ScopedTempDir folder;
    // 1,024 bytes, which the list of commands exceeds after a few times.
    support::Process program({"bash", "-c", "ulimit -f 1; exec \"$VELOCAST_NFS\" >out"},
                             {.workingDirectory = folder.Path()});
    for (int i = 0; i < 50; ++i) {
        ASSERT_TRUE(program.Send("help\n"));
    }
    ASSERT_TRUE(support::WaitFor(
        [&] { return support::FileExists(folder / "out") && SizeOf(folder / "out") == 1024; }));
    ASSERT_TRUE(program.Send("quit\n"));
    EXPECT_EQ(support::ExitStatus::Code(0), program.WaitExit());
}
