// The cache of open descriptors: what it opens, what it keeps, what it closes and when.
// ctest-labels: threaded

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <future>
#include <thread>

#include "support/Faults.h"
#include "support/Process.h"
#include "support/Server.h"
#include "UtilitiesFixture.h"

namespace faults = support::faults;

using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// Time stands still, so that only a test's own steps make an entry older than another.
class CacheTest : public UtilitiesFixture {
protected:
    CacheTest() { SetNow(1'000'000'000); }

    void SetNow(std::time_t lNow) {
        m_lNow = lNow;
        faults::SetTime(lNow);
    }
    void Tick() { SetNow(m_lNow + 1); }

    std::string MakeFile(const std::string& sName, const std::string& sContent = "0123456789") {
        support::WriteFile(m_Dir / sName, sContent);
        return m_Dir / sName;
    }
    std::vector<std::string> MakeFiles(int iCount) {
        std::vector<std::string> vFiles;
        for (int i = 0; i < iCount; ++i) {
            vFiles.push_back(MakeFile("f" + std::to_string(i)));
        }
        return vFiles;
    }
    int Get(CRuntimeParam* pParam, const std::string& sPath, bool bAlwaysReadWrite = false) {
        return m_Utilities.GetCachedFileHandle(pParam, &m_Argu, sPath.c_str(), bAlwaysReadWrite);
    }
    // Opens through the cache, each file a second later than the one before.
    void GetInTurn(const std::vector<std::string>& vFiles) {
        for (const std::string& sFile : vFiles) {
            Tick();
            ASSERT_NE(-1, Get(&m_Silent, sFile)) << sFile;
        }
    }
    void Close(CRuntimeParam* pParam, const std::string& sPath) {
        m_Utilities.CloseCachedFileHandle(pParam, &m_Argu, sPath.c_str());
    }
    void CloseBelow(CRuntimeParam* pParam, const std::string& sPath) {
        m_Utilities.CloseAllCachedFileHandles(pParam, &m_Argu, sPath.c_str());
    }
    void Evict(CRuntimeParam* pParam) {
        m_Utilities.CloseExceededCachedFileHandle(pParam, &m_Argu);
    }

    static std::string Opened(const std::string& sPath) {
        return "info: [Test.Case] OS open file \"" + sPath + "\"";
    }
    static std::string Closed(const std::string& sPath) {
        return "info: [Test.Case] OS close file \"" + sPath + "\"";
    }
    static std::string ClosedNothing(const std::string& sPath) {
        return "error: [Test.Case] OS close file \"" + sPath + "\". Error=Bad file descriptor";
    }
    std::string Missing(const std::string& sPath) {
        return "error: [Test.Case] OS open file \"" + sPath +
               "\". Error=No such file or directory (2)";
    }
    static int AccessModeOf(int iFile) { return fcntl(iFile, F_GETFL) & O_ACCMODE; }

    CRuntimeParam m_AccessAndErrors{"vm01", LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_ERROR};
    faults::Guard m_Faults;

private:
    std::time_t m_lNow = 0;
};

}  // namespace

// --- Opening ---

TEST_F(CacheTest, AFileIsOpenedOnceAndKept) {
    const std::string sFile = MakeFile("f");
    const int iFile = Get(&m_Access, sFile);
    ASSERT_NE(-1, iFile);
    EXPECT_EQ(sFile, DescriptorTarget(iFile));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] open read only mode " + sFile, Opened(sFile)));
    EXPECT_EQ(iFile, Get(&m_Access, sFile));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
    EXPECT_EQ(1, OpenCount(sFile));
}

TEST_F(CacheTest, InsideAnExportFilesAreOpenedForReadingAndWriting) {
    const std::string sFile = MakeFile("f");
    Export(m_Dir.Path(), "vm01");
    const int iFile = Get(&m_Access, sFile);
    EXPECT_EQ(O_RDWR, AccessModeOf(iFile));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] open read/write mode " + sFile, Opened(sFile)));
}

TEST_F(CacheTest, OutsideEveryExportFilesAreOpenedForReadingOnly) {
    const std::string sFile = MakeFile("f");
    Export(m_Dir / "f2", "vm01");
    EXPECT_EQ(O_RDONLY, AccessModeOf(Get(&m_Silent, sFile)));
}

TEST_F(CacheTest, ACallerMayInsistOnWriting) {
    const std::string sFile = MakeFile("f");
    EXPECT_EQ(O_RDWR, AccessModeOf(Get(&m_Access, sFile, true)));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] open read/write mode " + sFile, Opened(sFile)));
}

TEST_F(CacheTest, APipeThatNobodyWritesIsOpenedAtOnceAndHasNeitherSizeNorContent) {
    const std::string sPipe = m_Dir / "pipe";
    ASSERT_EQ(0, mkfifo(sPipe.c_str(), 0600));
    for (const bool bExported : {false, true}) {
        if (bExported) {
            Close(&m_Silent, sPipe);
            Export(m_Dir.Path(), "vm01");
        }
        auto done = std::async(std::launch::async, [&] {
            char cBuf[10];
            bool bEof = false;
            return std::tuple(
                Get(&m_Silent, sPipe),
                m_Utilities.GetFileSize(&m_Silent, &m_Argu, sPipe.c_str(), 77),
                m_Utilities.ReadFile(&m_Silent, &m_Argu, sPipe.c_str(), 0, SEEK_SET, cBuf, 10,
                                     &bEof),
                m_Utilities.WriteFile(&m_Silent, &m_Argu, sPipe.c_str(), 0, SEEK_SET, cBuf, 10));
        });
        const bool bInTime = done.wait_for(support::kPatience) == std::future_status::ready;
        EXPECT_TRUE(bInTime) << "waits for a writer";
        if (!bInTime) {
            close(open(sPipe.c_str(), O_WRONLY | O_CLOEXEC));
        }
        const auto [iFile, iSize, iRead, iWritten] = done.get();
        EXPECT_NE(-1, iFile);
        EXPECT_EQ(77, iSize);
        EXPECT_EQ(-1, iRead);
        EXPECT_EQ(-1, iWritten);
    }
}

TEST_F(CacheTest, AFileThatSomebodyHasALeaseOnIsOpenedWhenItIsGivenBack) {
    const std::string sFile = MakeFile("f");
    sigset_t asked;
    sigemptyset(&asked);
    sigaddset(&asked, SIGIO);
    sigset_t mask;
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &asked, &mask));
    const int iLeased = open(sFile.c_str(), O_RDWR | O_CLOEXEC);
    ASSERT_EQ(0, fcntl(iLeased, F_SETLEASE, F_WRLCK));
    auto holder = std::async(std::launch::async, [&] {
        const timespec patience{support::kPatience.count() / 1000, 0};
        const int iSignal = sigtimedwait(&asked, nullptr, &patience);
        fcntl(iLeased, F_SETLEASE, F_UNLCK);
        return iSignal;
    });
    EXPECT_NE(-1, Get(&m_AccessAndErrors, sFile));
    EXPECT_EQ(SIGIO, holder.get()) << "the lease stood in the way";
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] open read only mode " + sFile, Opened(sFile)));
    close(iLeased);
    pthread_sigmask(SIG_SETMASK, &mask, nullptr);
}

TEST_F(CacheTest, AKeptDescriptorKeepsItsMode) {
    const std::string sFile = MakeFile("f");
    const int iFile = Get(&m_Silent, sFile);
    EXPECT_EQ(iFile, Get(&m_Silent, sFile, true));
    Export(m_Dir.Path(), "vm01");
    EXPECT_EQ(iFile, Get(&m_Silent, sFile));
    EXPECT_EQ(O_RDONLY, AccessModeOf(iFile));
}

TEST_F(CacheTest, APathIsKeptAsTheCallerSpellsIt) {
    const std::string sFile = MakeFile("f");
    EXPECT_NE(Get(&m_Silent, sFile), Get(&m_Silent, m_Dir / "./f"));
    EXPECT_EQ(2, OpenCount(sFile));
}

TEST_F(CacheTest, NoPathIsNoFileAndLeavesNoTrace) {
    EXPECT_EQ(-1, m_Utilities.GetCachedFileHandle(&m_All, &m_Argu, nullptr, false));
    EXPECT_EQ(-1, Get(&m_All, ""));
    m_Utilities.CloseCachedFileHandle(&m_All, &m_Argu, nullptr);
    Close(&m_All, "");
    m_Utilities.CloseAllCachedFileHandles(&m_All, &m_Argu, nullptr);
    CloseBelow(&m_All, "");
    m_Utilities.CloseAllCachedFileHandles(&m_All, &m_Argu);
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(CacheTest, TheExportScanOfAnOpenIsLoggedUnderTheCallersName) {
    const std::string sFile = MakeFile("f");
    Export("/none", "vm01");
    Get(&m_General, sFile);
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Path scan: \"" + sFile + "/\" vs \"/none\""));
    Get(&m_General, sFile);
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty()) << "a kept descriptor needs no scan";
}

// --- Failed opens ---

TEST_F(CacheTest, AFailedOpenIsEnteredAndTriedAgain) {
    const std::string sFile = m_Dir / "later";
    EXPECT_EQ(-1, Get(&m_AccessAndErrors, sFile));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] open read only mode " + sFile, Missing(sFile)));
    EXPECT_EQ(-1, Get(&m_Errors, sFile));
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre(Missing(sFile)));
    MakeFile("later");
    EXPECT_NE(-1, Get(&m_Errors, sFile));
    Close(&m_AccessAndErrors, sFile);
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre(Closed(sFile)));
}

TEST_F(CacheTest, ClosingAFailedEntryReportsABadDescriptor) {
    const std::string sFile = m_Dir / "none";
    Get(&m_Silent, sFile);
    Close(&m_Errors, sFile);
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre(ClosedNothing(sFile)));
    Close(&m_Errors, sFile);
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty()) << "the entry is gone";
}

TEST_F(CacheTest, FailedEntriesAreEvictedToo) {
    Get(&m_Silent, m_Dir / "none");
    Evict(&m_Errors);
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre(ClosedNothing(m_Dir / "none")));
}

TEST_F(CacheTest, FailedOpensOfOneSecondShareOnePlaceInTheOrder) {
    // Their keys are equal, so the later one takes the place of the earlier.
    const std::vector<std::string> vFiles = MakeFiles(18);
    Get(&m_Silent, m_Dir / "none1");
    Get(&m_Silent, m_Dir / "none2");
    GetInTurn(vFiles);
    Evict(&m_AccessAndErrors);  // 2 of 20
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Close exceeded cached file handle: 2",
                            ClosedNothing(m_Dir / "none2"), Closed(vFiles[0])));
    Close(&m_Errors, m_Dir / "none1");
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre(ClosedNothing(m_Dir / "none1")))
        << "the earlier one has stayed";
}

// --- Eviction ---

TEST_F(CacheTest, TheEntryAfter1024ClosesThe102LeastRecentlyUsed) {
    const CDescriptorLimit limit(3000);
    const std::vector<std::string> vFiles = MakeFiles(1026);
    GetInTurn({vFiles.begin(), vFiles.begin() + 1024});
    EXPECT_EQ(1, OpenCount(vFiles[0])) << "1024 entries are kept";
    GetInTurn({vFiles[0]});  // used again: now the youngest

    Tick();
    EXPECT_NE(-1, Get(&m_Access, vFiles[1024]));
    std::vector<std::string> vExpected = {
        "info: [Test.Case] Close exceeded cached file handle: 102"};
    for (std::size_t i = 1; i <= 102; ++i) {
        vExpected.push_back(Closed(vFiles[i]));
    }
    vExpected.push_back("info: [Test.Case] open read only mode " + vFiles[1024]);
    vExpected.push_back(Opened(vFiles[1024]));
    EXPECT_EQ(vExpected, m_Utilities.TakeLines());
    EXPECT_EQ(1, OpenCount(vFiles[0]));
    EXPECT_EQ(0, OpenCount(vFiles[1]));
    EXPECT_EQ(0, OpenCount(vFiles[102]));
    EXPECT_EQ(1, OpenCount(vFiles[103]));

    EXPECT_NE(-1, Get(&m_Access, vFiles[1025]));
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre("info: [Test.Case] open read only mode " + vFiles[1025], Opened(vFiles[1025])))
        << "there is room again";
}

TEST_F(CacheTest, AKeptEntryEvictsNothingInAFullCache) {
    const CDescriptorLimit limit(3000);
    const std::vector<std::string> vFiles = MakeFiles(1024);
    GetInTurn(vFiles);
    EXPECT_NE(-1, Get(&m_Access, vFiles[5]));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(CacheTest, WithinOneSecondTheDigitsOfTheDescriptorsDecide) {
    // Numbers of one, two and three digits: as text, "10" and "100" come before "11" and "12"
    // before "9".
    std::vector<std::string> vFiles;
    std::vector<std::pair<std::string, std::string>> order;  // digits, path
    std::vector<int> vHeld;
    for (int i = 0; i < 30; ++i) {
        vFiles.push_back(MakeFile("f" + std::to_string(i)));
        const int iFile = Get(&m_Silent, vFiles.back());
        ASSERT_NE(-1, iFile);
        order.emplace_back(std::to_string(iFile), vFiles.back());
        if (i == 20) {  // the rest has three digits
            for (int iLast = 0; iLast < 99;) {
                iLast = dup(STDIN_FILENO);
                ASSERT_NE(-1, iLast);
                vHeld.push_back(iLast);
            }
        }
    }
    std::sort(order.begin(), order.end());
    ASSERT_EQ(3u, order[1].first.size()) << "not in the order of the numbers";
    ASSERT_NE(order[0].second, vFiles[0]) << "not in the order of opening";
    Evict(&m_Access);  // 3 of 30
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre("info: [Test.Case] Close exceeded cached file handle: 3",
                    Closed(order[0].second), Closed(order[1].second), Closed(order[2].second)));
    for (const int iFile : vHeld) {
        close(iFile);
    }
}

TEST_F(CacheTest, TheSecondsDecideBeforeTheDescriptors) {
    const std::vector<std::string> vFiles = MakeFiles(10);
    SetNow(9'999'999'999);  // one more digit must not make an entry older
    std::vector<std::string> vTail(vFiles.begin() + 1, vFiles.end());
    ASSERT_NE(-1, Get(&m_Silent, vFiles[0]));
    GetInTurn(vTail);
    Evict(&m_Access);
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre("info: [Test.Case] Close exceeded cached file handle: 1", Closed(vFiles[0])));
}

TEST_F(CacheTest, FewerThanTenEntriesAreAllClosed) {
    const std::vector<std::string> vFiles = MakeFiles(9);
    GetInTurn(vFiles);
    Evict(&m_Access);
    std::vector<std::string> vExpected = {
        "info: [Test.Case] Close exceeded cached file handle: ALL"};
    for (const std::string& sFile : vFiles) {
        vExpected.push_back(Closed(sFile));
    }
    EXPECT_EQ(vExpected, m_Utilities.TakeLines());
    for (const std::string& sFile : vFiles) {
        EXPECT_EQ(0, OpenCount(sFile));
        EXPECT_NE(-1, Get(&m_Silent, sFile));
    }
}

TEST_F(CacheTest, EvictionIsSilentWithoutFileAccessLogging) {
    CRuntimeParam param("vm01", LOG_CONTROL_ALL & ~LOG_CONTROL_FILE_ACCESS);
    GetInTurn(MakeFiles(11));
    Evict(&param);
    Evict(&param);
    Evict(&param);
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(CacheTest, AnEmptyCacheIsEvictedWithoutHarm) {
    Evict(&m_Access);
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Close exceeded cached file handle: ALL"));
}

// --- Too many open files ---

TEST_F(CacheTest, TooManyOpenFilesShedATenthAndTryOnceMore) {
    const std::vector<std::string> vFiles = MakeFiles(21);
    GetInTurn({vFiles.begin(), vFiles.begin() + 20});
    // Not a real lack of descriptors: the sanitizers themselves need one for a moment.
    faults::Fail(faults::Call::Open, EMFILE);
    EXPECT_NE(-1, Get(&m_AccessAndErrors, vFiles[20]));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] open read only mode " + vFiles[20],
                            "info: [Test.Case] Close exceeded cached file handle: 2",
                            Closed(vFiles[0]), Closed(vFiles[1]), Opened(vFiles[20])))
        << "the first try is not reported";
}

TEST_F(CacheTest, TooManyOpenFilesWithFewEntriesCloseAll) {
    const std::vector<std::string> vFiles = MakeFiles(4);
    GetInTurn({vFiles.begin(), vFiles.begin() + 3});
    faults::Fail(faults::Call::Open, EMFILE);
    EXPECT_NE(-1, Get(&m_AccessAndErrors, vFiles[3]));
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre("info: [Test.Case] open read only mode " + vFiles[3],
                    "info: [Test.Case] Close exceeded cached file handle: ALL", Closed(vFiles[0]),
                    Closed(vFiles[1]), Closed(vFiles[2]), Opened(vFiles[3])));
    EXPECT_EQ(1, OpenCount(vFiles[3]));
}

TEST_F(CacheTest, AfterTheSecondTryTheErrorIsReportedOnce) {
    const std::string sFile = MakeFile("f");
    const int iCalls = faults::Count(faults::Call::Open);
    faults::Fail(faults::Call::Open, EMFILE, 5);
    EXPECT_EQ(-1, Get(&m_Errors, sFile));
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre("error: [Test.Case] OS open file \"" + sFile +
                                                     "\". Error=Too many open files (24)"));
    EXPECT_EQ(iCalls + 2, faults::Count(faults::Call::Open));
}

TEST_F(CacheTest, OtherErrorsAreNotTriedAgain) {
    const std::string sFile = MakeFile("f");
    GetInTurn(MakeFiles(3));
    for (const int iError : {ENFILE, EACCES, EIO}) {
        const int iCalls = faults::Count(faults::Call::Open);
        faults::Fail(faults::Call::Open, iError);
        EXPECT_EQ(-1, Get(&m_Silent, sFile));
        EXPECT_EQ(iCalls + 1, faults::Count(faults::Call::Open));
    }
    EXPECT_EQ(1, OpenCount(m_Dir / "f0")) << "nothing was shed";
}

TEST_F(CacheTest, AnOpenWithoutTheWishShedsNothing) {
    GetInTurn(MakeFiles(3));
    faults::Fail(faults::Call::Open, EMFILE);
    EXPECT_EQ(-1, m_Utilities.OS_FileOpen(&m_Access, &m_Argu, (m_Dir / "f0").c_str(), O_RDONLY,
                                          false, m_cStatus));
    EXPECT_STREQ("Too many open files (24)", m_cStatus);
    EXPECT_EQ(1, OpenCount(m_Dir / "f0"));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(CacheTest, MoreFilesThanTheSoftLimitAreServed) {
    // The files come round again and again; each finds a descriptor, whatever has to give way.
    const std::vector<std::string> vFiles = MakeFiles(300);
    const CDescriptorLimit limit(128);
    for (int iRound = 0; iRound < 3; ++iRound) {
        for (const std::string& sFile : vFiles) {
            char cBuf[16];
            bool bEof = false;
            ASSERT_EQ(10, m_Utilities.ReadFile(&m_Errors, &m_Argu, sFile.c_str(), 0, SEEK_SET, cBuf,
                                               sizeof(cBuf), &bEof));
        }
    }
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST(ProgramTest, RaisesItsSoftLimitOfDescriptors) {
    struct rlimit own {};
    ASSERT_EQ(0, getrlimit(RLIMIT_NOFILE, &own));
    ASSERT_GT(own.rlim_max, 256u);
    support::Process program(
        {"bash", "-c", "ulimit -Sn 256 && exec \"$0\" -md int -id x", support::ServerProgram()});
    struct rlimit limit {};
    EXPECT_TRUE(support::WaitFor([&] {
        return prlimit(program.Pid(), RLIMIT_NOFILE, nullptr, &limit) == 0 &&
               limit.rlim_cur == own.rlim_max;
    })) << limit.rlim_cur;
    program.Stop();
}

// --- Closing ---

TEST_F(CacheTest, OnePathIsClosedAndNoOther) {
    const std::vector<std::string> vFiles = MakeFiles(2);
    GetInTurn(vFiles);
    Close(&m_Access, vFiles[0]);
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre(Closed(vFiles[0])));
    EXPECT_EQ(0, OpenCount(vFiles[0]));
    EXPECT_EQ(1, OpenCount(vFiles[1]));
    Close(&m_Access, m_Dir / "unknown");
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(CacheTest, AClosedEntryLeavesItsPlaceInTheOrder) {
    const std::vector<std::string> vFiles = MakeFiles(12);
    GetInTurn(vFiles);
    Close(&m_Silent, vFiles[0]);
    Evict(&m_Access);  // 1 of 11
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre("info: [Test.Case] Close exceeded cached file handle: 1", Closed(vFiles[1])));
}

TEST_F(CacheTest, AllAreClosedInPathOrder) {
    for (const char* pcName : {"c", "a", "b"}) {
        ASSERT_NE(-1, Get(&m_Silent, MakeFile(pcName)));
    }
    m_Utilities.CloseAllCachedFileHandles(&m_Access, &m_Argu);
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre(Closed(m_Dir / "a"), Closed(m_Dir / "b"), Closed(m_Dir / "c")));
    m_Utilities.CloseAllCachedFileHandles(&m_Access, &m_Argu);
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(CacheTest, ClosingAFolderClosesWhatLiesBelowItAndNoSibling) {
    ASSERT_EQ(0, mkdir((m_Dir / "y").c_str(), 0755));
    const std::string sBelow = MakeFile("y/z");
    const std::string sSibling = MakeFile("yz");
    GetInTurn({sBelow, sSibling});
    CloseBelow(&m_Silent, m_Dir / "y");
    EXPECT_EQ(0, OpenCount(sBelow));
    EXPECT_EQ(1, OpenCount(sSibling));
}

TEST_F(CacheTest, ClosingAFolderTakesATrailingSlashAndTheFolderItself) {
    ASSERT_EQ(0, mkdir((m_Dir / "y").c_str(), 0755));
    const std::string sBelow = MakeFile("y/z");
    GetInTurn({m_Dir / "y", sBelow});
    CloseBelow(&m_Access, m_Dir / "y/");
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre(Closed(m_Dir / "y"), Closed(sBelow)));
}

TEST_F(CacheTest, ClosingAFolderIsLoggedFromTheFirstEntryAfterEachClose) {
    const std::string& d = m_Dir.Path();
    for (const char* pcName : {"a", "b", "y", "y/1", "y/2"}) {
        Get(&m_Silent, m_Dir / pcName);  // none exists: entries of failed opens
    }
    const auto compared = [&](const std::string& sName) {
        return "info: [CloseAllCachedFileHandles] Path compare: \"" + d + "/y/\" vs \"" + d + "/" +
               sName + "/\"";
    };
    CloseBelow(&m_General, m_Dir / "y");
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre(compared("a"), compared("b"), compared("y"),    // closes y
                            compared("a"), compared("b"), compared("y/1"),  // closes y/1
                            compared("a"), compared("b"), compared("y/2"),  // closes y/2
                            compared("a"), compared("b")));
}

TEST_F(CacheTest, ClosingAFolderLeavesItsEntriesPlacesInTheOrder) {
    ASSERT_EQ(0, mkdir((m_Dir / "y").c_str(), 0755));
    const std::string sBelow = MakeFile("y/z");
    const std::vector<std::string> vFiles = MakeFiles(10);
    GetInTurn({sBelow});
    GetInTurn(vFiles);
    CloseBelow(&m_Silent, m_Dir / "y");
    Evict(&m_Access);
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre("info: [Test.Case] Close exceeded cached file handle: 1", Closed(vFiles[0])));
}

// --- Use by several threads ---

TEST_F(CacheTest, ADescriptorInUseIsClosedByItsLastUser) {
    const std::string sFile = MakeFile("f");
    int iFile = -1;
    {
        const CachedFile first =
            m_Utilities.UseCachedFile(&m_Silent, &m_Argu, sFile.c_str(), false);
        iFile = first.iFile;
        ASSERT_NE(-1, iFile);
        {
            const CachedFile second =
                m_Utilities.UseCachedFile(&m_Silent, &m_Argu, sFile.c_str(), false);
            EXPECT_EQ(iFile, second.iFile);
            Close(&m_Access, sFile);
            EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre(Closed(sFile)));
            EXPECT_EQ(sFile, DescriptorTarget(iFile));
        }
        EXPECT_EQ(sFile, DescriptorTarget(iFile)) << "one user is left";
        char cBuf[4] = "";
        EXPECT_EQ(3, pread(iFile, cBuf, 3, 0));
    }
    EXPECT_EQ("", DescriptorTarget(iFile));
}

TEST_F(CacheTest, AClosedPathIsOpenedAnewBesideTheOneInUse) {
    const std::string sFile = MakeFile("f");
    const CachedFile old = m_Utilities.UseCachedFile(&m_Silent, &m_Argu, sFile.c_str(), false);
    Close(&m_Silent, sFile);
    const int iNew = Get(&m_Silent, sFile);
    EXPECT_NE(old.iFile, iNew);
    EXPECT_EQ(2, OpenCount(sFile));
}

TEST_F(CacheTest, AnUnusedDescriptorStaysWithTheCache) {
    const std::string sFile = MakeFile("f");
    { const CachedFile file = m_Utilities.UseCachedFile(&m_Silent, &m_Argu, sFile.c_str(), false); }
    EXPECT_EQ(1, OpenCount(sFile));
    Close(&m_Silent, sFile);
    EXPECT_EQ(0, OpenCount(sFile));
}

TEST_F(CacheTest, AFileThatCannotBeOpenedHasNoUsers) {
    const CachedFile file =
        m_Utilities.UseCachedFile(&m_Silent, &m_Argu, (m_Dir / "none").c_str(), false);
    EXPECT_EQ(-1, file.iFile);
    EXPECT_EQ(nullptr, file.pUse);
}

TEST_F(CacheTest, EveryReaderGetsItsOwnFilesBytesWhileDescriptorsComeAndGo) {
    constexpr int FILES = 24;
    constexpr unsigned int SIZE = 4096;
    const std::vector<int> vBefore = support::OpenFds();
    std::vector<std::string> vFiles;
    for (int i = 0; i < FILES; ++i) {
        vFiles.push_back(MakeFile("f" + std::to_string(i), support::PatternData(SIZE, i + 1)));
    }
    Export(m_Dir.Path(), "vm01");
    std::atomic<bool> bStop{false};
    std::vector<std::thread> vReaders;
    for (int t = 0; t < 3; ++t) {
        vReaders.emplace_back([&, t] {
            LogArgu argu{"Test.Reader"};
            std::string sBuf(512, '\0');
            for (unsigned int i = 0; i < 1500; ++i) {
                const unsigned int iFile = (i * 7 + static_cast<unsigned int>(t) * 5) % FILES;
                const unsigned int iSeek = i * 37 % (SIZE - 512);
                bool bEof = true;
                ASSERT_EQ(512, m_Utilities.ReadFile(&m_Errors, &argu, vFiles[iFile].c_str(), iSeek,
                                                    SEEK_SET, sBuf.data(), 512, &bEof));
                ASSERT_EQ(support::PatternData(SIZE, iFile + 1).substr(iSeek, 512), sBuf);
                ASSERT_FALSE(bEof);
                ASSERT_EQ(SIZE,
                          m_Utilities.GetFileSize(&m_Errors, &argu, vFiles[iFile].c_str(), -1));
            }
        });
    }
    std::thread closer([&] {
        LogArgu argu{"Test.Closer"};
        for (unsigned int i = 0; !bStop; ++i) {
            m_Utilities.CloseCachedFileHandle(&m_Errors, &argu, vFiles[i % FILES].c_str());
            m_Utilities.CloseExceededCachedFileHandle(&m_Errors, &argu);
            if (i % 16 == 0) {
                m_Utilities.CloseAllCachedFileHandles(&m_Errors, &argu, m_Dir.Path().c_str());
            }
        }
    });
    for (std::thread& thread : vReaders) {
        thread.join();
    }
    bStop = true;
    closer.join();
    m_Utilities.CloseAllCachedFileHandles(&m_Silent, &m_Argu);
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty()) << "no descriptor was closed twice";
    EXPECT_EQ(vBefore.size(), support::OpenFds().size()) << "none was left open";
}

TEST_F(CacheTest, WritersOfOneFileDoNotMixTheirPlaces) {
    constexpr unsigned int BLOCK = 64;
    constexpr unsigned int BLOCKS = 400;
    const std::string sFile = MakeFile("f", "");
    Export(m_Dir.Path(), "vm01");
    std::vector<std::thread> vWriters;
    for (unsigned int t = 0; t < 4; ++t) {
        vWriters.emplace_back([&, t] {
            LogArgu argu{"Test.Writer"};
            for (unsigned int i = t; i < BLOCKS; i += 4) {
                const std::string sBlock(BLOCK, static_cast<char>('a' + i % 26));
                ASSERT_EQ(static_cast<int>(BLOCK),
                          m_Utilities.WriteFile(&m_Silent, &argu, sFile.c_str(), i * BLOCK,
                                                SEEK_SET, sBlock.data(), BLOCK));
            }
        });
    }
    for (std::thread& thread : vWriters) {
        thread.join();
    }
    std::string sExpected;
    for (unsigned int i = 0; i < BLOCKS; ++i) {
        sExpected += std::string(BLOCK, static_cast<char>('a' + i % 26));
    }
    EXPECT_EQ(sExpected, support::ReadFile(sFile));
}
