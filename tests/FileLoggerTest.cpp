// The log file: its lines, its opening and its rotation.
// ctest-labels: threaded

#include "FileLogger.h"

#include <atomic>
#include <climits>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <regex>
#include <set>
#include <thread>

#include "support/Faults.h"
#include "UtilitiesFixture.h"

namespace faults = support::faults;

using ::testing::ElementsAre;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

namespace {

// "[yyyy/mm/dd hh:mm:ss]" takes this many characters.
constexpr std::size_t TIME_SIZE = 21;

std::vector<std::string> LinesOf(const std::string& sPath) {
    std::vector<std::string> vLines;
    std::ifstream file(sPath);
    for (std::string sLine; std::getline(file, sLine);) {
        vLines.push_back(sLine);
    }
    return vLines;
}

// The lines of a file without their times.
std::vector<std::string> TextsOf(const std::string& sPath) {
    std::vector<std::string> vLines = LinesOf(sPath);
    for (std::string& sLine : vLines) {
        sLine.erase(0, TIME_SIZE);
    }
    return vLines;
}

class FileLoggerTest : public ::testing::Test {
protected:
    support::ScopedTempDir m_Dir;
    const std::string m_sLog = m_Dir / "log";
    faults::Guard m_Faults;
};

}  // namespace

// --- Lines ---

TEST_F(FileLoggerTest, WritesTimeTypeAndText) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogInfo("first"));
    EXPECT_TRUE(logger.LogError("second"));
    EXPECT_TRUE(logger.LogRaw("third"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre("[info] first", "[error] second", " third"));
}

TEST_F(FileLoggerTest, TheTimeIsTheLocalTimeOfTheWriting) {
    ASSERT_EQ(0, setenv("TZ", "XYZ-5:30", 1));
    tzset();
    faults::SetTime(1'700'000'000);  // 2023/11/14 22:13:20 UTC
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogInfo("x"));
    EXPECT_TRUE(logger.LogRaw("y"));
    EXPECT_EQ("[2023/11/15 03:43:20][info] x\n[2023/11/15 03:43:20] y\n",
              support::ReadFile(m_sLog));
    unsetenv("TZ");
    tzset();
}

TEST_F(FileLoggerTest, TextIsNotTakenForAFormat) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogInfo("100%s %n"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre("[info] 100%s %n"));
}

TEST_F(FileLoggerTest, ALineIsCutTo2048CharactersAndStillEnds) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogInfo(std::string(5000, 'x').c_str()));
    EXPECT_TRUE(logger.LogRaw("next"));
    const std::vector<std::string> vLines = LinesOf(m_sLog);
    ASSERT_EQ(2u, vLines.size());
    EXPECT_LE(vLines[0].size() + 1, 2048u);
    EXPECT_GE(vLines[0].size() + 1, 2047u);
    EXPECT_THAT(vLines[0], EndsWith("xxx"));
}

TEST_F(FileLoggerTest, AWriteThatFailsIsNotDelivered) {
    CFileLogger logger("/dev/full");
    ASSERT_TRUE(logger.Open(0));
    CaptureStdout();
    EXPECT_FALSE(logger.LogInfo("x"));
    EXPECT_FALSE(logger.LogError("x"));
    EXPECT_FALSE(logger.LogRaw("x"));
    GetCapturedStdout();
}

TEST_F(FileLoggerTest, ALineIsDeliveredDespiteAnInterruptingSignal) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    faults::Fail(faults::Call::Write, EINTR, 2);
    EXPECT_TRUE(logger.LogInfo("x"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre("[info] x"));
}

// --- Opening and closing ---

TEST_F(FileLoggerTest, NothingIsCreatedBeforeOpen) {
    CFileLogger logger(m_sLog.c_str());
    EXPECT_FALSE(support::FileExists(m_sLog));
    EXPECT_FALSE(logger.LogInfo("x"));
    EXPECT_FALSE(logger.LogError("x"));
    EXPECT_FALSE(logger.LogRaw("x"));
    EXPECT_FALSE(support::FileExists(m_sLog));
}

TEST_F(FileLoggerTest, MissingParentsAreCreatedWithMode0755) {
    const CFileMask mask(0);
    const std::string sLog = m_Dir / "a/b/c/log";
    CFileLogger logger(sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_EQ(0755u, ModeOf(m_Dir / "a"));
    EXPECT_EQ(0755u, ModeOf(m_Dir / "a/b"));
    EXPECT_EQ(0755u, ModeOf(m_Dir / "a/b/c"));
    EXPECT_EQ(0666u, ModeOf(sLog));
    EXPECT_TRUE(logger.LogInfo("x"));
    EXPECT_THAT(TextsOf(sLog), ElementsAre("[info] x"));
}

TEST_F(FileLoggerTest, AnExistingFileIsAppended) {
    support::WriteFile(m_sLog, "[2020/01/01 00:00:00] old\n");
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogRaw("new"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre(" old", " new"));
}

TEST_F(FileLoggerTest, AppendingGoesToTheEndWhateverOthersAdd) {
    support::WriteFile(m_sLog, "");
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogRaw("one"));
    std::ofstream(m_sLog, std::ios::app) << "[2020/01/01 00:00:00] foreign\n";
    EXPECT_TRUE(logger.LogRaw("two"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre(" one", " foreign", " two"));
}

TEST_F(FileLoggerTest, OpeningTwiceUsesOneDescriptor) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.Open(0));
    EXPECT_EQ(1, OpenCount(m_sLog));
}

TEST_F(FileLoggerTest, CloseEndsDeliveryUntilTheNextOpen) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogRaw("one"));
    logger.Close();
    EXPECT_EQ(0, OpenCount(m_sLog));
    EXPECT_FALSE(logger.LogRaw("lost"));
    logger.Close();
    ASSERT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogRaw("two"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre(" one", " two"));
}

TEST_F(FileLoggerTest, TheDestructorClosesTheFile) {
    {
        CFileLogger logger(m_sLog.c_str());
        ASSERT_TRUE(logger.Open(0));
        EXPECT_EQ(1, OpenCount(m_sLog));
    }
    EXPECT_EQ(0, OpenCount(m_sLog));
}

TEST_F(FileLoggerTest, AFailedOpenIsReportedOnTheConsole) {
    support::WriteFile(m_Dir / "file", "");
    const std::string sLog = m_Dir / "file/log";
    CFileLogger logger(sLog.c_str());
    CaptureStdout();
    EXPECT_FALSE(logger.Open(0));
    EXPECT_EQ("[erro] () [CFileLogger.Open] OS create file \"" + sLog +
                  "\". Error=Not a directory (20)\n"
                  "[erro] () Fail to create log file \"" +
                  sLog + "\". Reason=Not a directory (20)\n",
              GetCapturedStdout());
    EXPECT_FALSE(logger.LogInfo("x"));
}

TEST_F(FileLoggerTest, AParentThatCannotBeCreatedIsTheReason) {
    CFileLogger logger("/proc/none/log");
    CaptureStdout();
    EXPECT_FALSE(logger.Open(0));
    EXPECT_THAT(GetCapturedStdout(),
                EndsWith("[erro] () Fail to create log file \"/proc/none/log\". "
                         "Reason=No such file or directory (2)\n"));
}

TEST_F(FileLoggerTest, AnOpenMayBeTriedAgain) {
    support::WriteFile(m_Dir / "file", "");
    CFileLogger logger((m_Dir / "file/log").c_str());
    CaptureStdout();
    EXPECT_FALSE(logger.Open(0));
    GetCapturedStdout();
    std::filesystem::remove(m_Dir / "file");
    EXPECT_TRUE(logger.Open(0));
    EXPECT_TRUE(logger.LogRaw("x"));
}

TEST_F(FileLoggerTest, TheCallersCategoriesHoldForTheOpeningOnly) {
    const std::string sLog = m_Dir / "sub/log";
    CFileLogger logger(sLog.c_str());
    CaptureStdout();
    EXPECT_TRUE(logger.Open(LOG_CONTROL_FILE_ACCESS));
    const std::string sOpening = GetCapturedStdout();
    EXPECT_THAT(sOpening, HasSubstr("[info] () [CFileLogger.Open] OS create folder \"" +
                                    (m_Dir / "sub") + "\" (mode = 493)\n"));
    EXPECT_THAT(sOpening,
                HasSubstr("[info] () [CFileLogger.Open] OS create file \"" + sLog + "\"\n"));
    CaptureStdout();
    EXPECT_TRUE(logger.LogInfo("x"));
    logger.Close();
    EXPECT_EQ("", GetCapturedStdout()) << "writing and closing are not announced any more";
}

TEST_F(FileLoggerTest, WithoutCategoriesTheOpeningIsSilent) {
    CFileLogger logger((m_Dir / "sub/log").c_str());
    CaptureStdout();
    EXPECT_TRUE(logger.Open(0));
    EXPECT_EQ("", GetCapturedStdout());
}

// --- Rotation ---

TEST_F(FileLoggerTest, TheDefaultLimitIs32MiB) {
    CFileLogger logger(m_sLog.c_str());
    EXPECT_EQ(33'554'432, logger.GetMaxLogSize());
}

TEST_F(FileLoggerTest, ALimitOfZeroOrLessIsIgnored) {
    CFileLogger logger(m_sLog.c_str());
    logger.SetMaxLogSize(0);
    EXPECT_EQ(33'554'432, logger.GetMaxLogSize());
    logger.SetMaxLogSize(100);
    logger.SetMaxLogSize(-1);
    EXPECT_EQ(100, logger.GetMaxLogSize());
    logger.SetMaxLogSize(LLONG_MIN);
    EXPECT_EQ(100, logger.GetMaxLogSize());
    logger.SetMaxLogSize(1);
    EXPECT_EQ(1, logger.GetMaxLogSize());
}

TEST_F(FileLoggerTest, AFileThatHasReachedTheLimitIsSetAsideBeforeTheNextLine) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(TIME_SIZE + 5);  // exactly the line " one\n"
    EXPECT_TRUE(logger.LogRaw("one"));
    EXPECT_FALSE(support::FileExists(m_sLog + ".1"));
    EXPECT_TRUE(logger.LogRaw("two"));
    EXPECT_THAT(TextsOf(m_sLog + ".1"), ElementsAre(" one"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre(" two"));
}

TEST_F(FileLoggerTest, AFileOneByteBelowTheLimitIsNotSetAside) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(TIME_SIZE + 6);
    EXPECT_TRUE(logger.LogRaw("one"));
    EXPECT_TRUE(logger.LogRaw("two"));
    EXPECT_FALSE(support::FileExists(m_sLog + ".1"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre(" one", " two"));
}

TEST_F(FileLoggerTest, RotationSkipsNamesThatExist) {
    support::WriteFile(m_sLog + ".1", "mine");
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(1);
    EXPECT_TRUE(logger.LogRaw("one"));
    EXPECT_TRUE(logger.LogRaw("two"));
    EXPECT_EQ("mine", support::ReadFile(m_sLog + ".1"));
    EXPECT_THAT(TextsOf(m_sLog + ".2"), ElementsAre(" one"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre(" two"));
}

TEST_F(FileLoggerTest, RotatedFilesAreNumberedUpwardsAndKept) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(1);
    for (const char* pcText : {"one", "two", "three", "four"}) {
        EXPECT_TRUE(logger.LogRaw(pcText));
    }
    EXPECT_THAT(TextsOf(m_sLog + ".1"), ElementsAre(" one"));
    EXPECT_THAT(TextsOf(m_sLog + ".2"), ElementsAre(" two"));
    EXPECT_THAT(TextsOf(m_sLog + ".3"), ElementsAre(" three"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre(" four"));
}

TEST_F(FileLoggerTest, ANumberIsNotUsedAgainByTheSameLogger) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(1);
    EXPECT_TRUE(logger.LogRaw("one"));
    EXPECT_TRUE(logger.LogRaw("two"));
    std::filesystem::remove(m_sLog + ".1");
    EXPECT_TRUE(logger.LogRaw("three"));
    EXPECT_FALSE(support::FileExists(m_sLog + ".1"));
    EXPECT_THAT(TextsOf(m_sLog + ".2"), ElementsAre(" two"));
}

TEST_F(FileLoggerTest, ANewLoggerTakesTheFirstUnusedNumber) {
    support::WriteFile(m_sLog + ".1", "1");
    support::WriteFile(m_sLog + ".2", "2");
    support::WriteFile(m_sLog + ".4", "4");
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(1);
    EXPECT_TRUE(logger.LogRaw("one"));
    EXPECT_TRUE(logger.LogRaw("two"));
    EXPECT_TRUE(logger.LogRaw("three"));
    EXPECT_THAT(TextsOf(m_sLog + ".3"), ElementsAre(" one"));
    EXPECT_EQ("4", support::ReadFile(m_sLog + ".4"));
    EXPECT_THAT(TextsOf(m_sLog + ".5"), ElementsAre(" two"));
}

TEST_F(FileLoggerTest, AnOldFileIsMeasuredFromItsFirstNewLineOn) {
    // The descriptor stands at 0 until something has been appended.
    support::WriteFile(m_sLog, std::string(100, 'x') + "\n");
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(50);
    EXPECT_TRUE(logger.LogRaw("one"));
    EXPECT_FALSE(support::FileExists(m_sLog + ".1"));
    EXPECT_TRUE(logger.LogRaw("two"));
    EXPECT_EQ(2u, LinesOf(m_sLog + ".1").size());
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre(" two"));
}

TEST_F(FileLoggerTest, ARotationThatCannotRenameSendsLaterLinesToTheConsole) {
    // The longest possible name leaves no room for a number.
    const std::string sLog = m_Dir / std::string(NAME_MAX, 'l');
    CFileLogger logger(sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(1);
    EXPECT_TRUE(logger.LogRaw("one"));

    CUtilities utilities;
    CRuntimeParam param("cRun", 0);
    utilities.SetFileLogger(&logger);
    CaptureStdout();
    utilities.LogError(&param, "%s", "two");
    EXPECT_EQ("[erro] () [CFileLogger.LogMessage] OS rename file from \"" + sLog + "\" to \"" +
                  sLog + ".1\". Error=File name too long (36)\n[erro] (cRun) two\n",
              GetCapturedStdout());
    CaptureStdout();
    utilities.LogInfo(&param, "%s", "three");
    EXPECT_EQ("[info] (cRun) three\n", GetCapturedStdout()) << "the logger has stayed closed";
    EXPECT_EQ(0, OpenCount(sLog));
    EXPECT_THAT(TextsOf(sLog), ElementsAre(" one"));
}

TEST_F(FileLoggerTest, ARotationThatCannotCreateSendsLaterLinesToTheConsole) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(1);
    EXPECT_TRUE(logger.LogRaw("one"));
    CaptureStdout();
    faults::Fail(faults::Call::Open, ENOSPC);
    EXPECT_FALSE(logger.LogRaw("two"));
    EXPECT_EQ("[erro] () [CFileLogger.LogMessage] OS create file \"" + m_sLog +
                  "\". Error=No space left on device (28)\n",
              GetCapturedStdout());
    EXPECT_FALSE(logger.LogRaw("three"));
    EXPECT_THAT(TextsOf(m_sLog + ".1"), ElementsAre(" one"));
    EXPECT_FALSE(support::FileExists(m_sLog));
}

TEST_F(FileLoggerTest, ARotationThatCannotCloseKeepsTheFileAndTriesAgain) {
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(1);
    EXPECT_TRUE(logger.LogRaw("one"));
    CaptureStdout();
    faults::Fail(faults::Call::Close, EIO);
    EXPECT_FALSE(logger.LogRaw("two"));
    EXPECT_EQ("[erro] () [CFileLogger.LogMessage] OS close file \"" + m_sLog +
                  "\". Error=Input/output error (5)\n",
              GetCapturedStdout());
    EXPECT_FALSE(support::FileExists(m_sLog + ".1"));
    EXPECT_TRUE(logger.LogRaw("three"));
    EXPECT_THAT(TextsOf(m_sLog + ".1"), ElementsAre(" one"));
    EXPECT_THAT(TextsOf(m_sLog), ElementsAre(" three"));
}

// --- Threads ---

TEST_F(FileLoggerTest, LinesOfManyThreadsNeverInterleaveAlsoAcrossRotations) {
    constexpr int THREADS = 4;
    constexpr int LINES = 400;
    CFileLogger logger(m_sLog.c_str());
    ASSERT_TRUE(logger.Open(0));
    logger.SetMaxLogSize(20'000);
    std::vector<std::thread> vThreads;
    for (int t = 0; t < THREADS; ++t) {
        vThreads.emplace_back([&, t] {
            for (int i = 0; i < LINES; ++i) {
                const std::string sText = "thread " + std::to_string(t) + " line " +
                                          std::to_string(i) + " " + std::string(60, 'x') + ".";
                EXPECT_TRUE(logger.LogInfo(sText.c_str()));
            }
        });
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    logger.Close();

    const std::regex whole("\\[info\\] thread [0-3] line [0-9]+ x{60}\\.");
    std::set<std::string> texts;
    std::size_t iFiles = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_Dir.Path())) {
        ++iFiles;
        EXPECT_LT(entry.file_size(), 20'200u) << "at most one line beyond the limit";
        for (const std::string& sText : TextsOf(entry.path())) {
            ASSERT_TRUE(std::regex_match(sText, whole)) << sText;
            EXPECT_TRUE(texts.insert(sText).second) << sText;
        }
    }
    EXPECT_EQ(std::size_t{THREADS * LINES}, texts.size());
    EXPECT_GT(iFiles, 5u) << "the run has to reach rotations to mean something";
}

TEST_F(FileLoggerTest, OpeningAndClosingMayRunBesideWriters) {
    CFileLogger logger(m_sLog.c_str());
    std::atomic<int> iDelivered{0};
    std::vector<std::thread> vThreads;
    for (int t = 0; t < 3; ++t) {
        vThreads.emplace_back([&] {
            for (int i = 0; i < 500; ++i) {
                iDelivered += logger.LogRaw("x") ? 1 : 0;
            }
        });
    }
    for (int i = 0; i < 50; ++i) {
        EXPECT_TRUE(logger.Open(0));
        logger.SetMaxLogSize(100 + i);
        logger.Close();
    }
    for (std::thread& thread : vThreads) {
        thread.join();
    }
    std::size_t iLines = 0;
    for (const auto& entry : std::filesystem::directory_iterator(m_Dir.Path())) {
        iLines += LinesOf(entry.path()).size();
    }
    EXPECT_EQ(static_cast<std::size_t>(iDelivered), iLines);
}
