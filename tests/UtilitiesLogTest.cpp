// Which sink a message reaches, and what it looks like there.

#include "FileLogger.h"
#include "UtilitiesFixture.h"

using ::testing::ElementsAre;
using ::testing::internal::CaptureStdout;
using ::testing::internal::GetCapturedStdout;

namespace {

class LogRoutingTest : public ::testing::Test {
protected:
    CUtilities m_Utilities;
    CRuntimeParam m_Param{"cRun", 0};
    support::ScopedTempDir m_Dir;
};

constexpr const char* TIME_PATTERN = "\\[[0-9]{4}/[0-9]{2}/[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\]";

}  // namespace

TEST_F(LogRoutingTest, WithoutASinkAnErrorGoesToTheConsoleWithItsId) {
    CaptureStdout();
    m_Utilities.LogError(&m_Param, "%s", "x");
    EXPECT_EQ("[erro] (cRun) x\n", GetCapturedStdout());
}

TEST_F(LogRoutingTest, WithoutASinkAnInfoGoesToTheConsoleWithItsId) {
    CaptureStdout();
    m_Utilities.LogInfo(&m_Param, "%s", "x");
    EXPECT_EQ("[info] (cRun) x\n", GetCapturedStdout());
}

TEST_F(LogRoutingTest, WithoutASinkARawMessageIsPrintedAlone) {
    CaptureStdout();
    m_Utilities.LogRaw(&m_Param, "%s", "x");
    EXPECT_EQ("x\n", GetCapturedStdout());
}

TEST_F(LogRoutingTest, AnEmptyIdLeavesEmptyBrackets) {
    CRuntimeParam param(nullptr, 0);
    CaptureStdout();
    m_Utilities.LogInfo(&param, "%s", "x");
    EXPECT_EQ("[info] () x\n", GetCapturedStdout());
}

TEST_F(LogRoutingTest, FinishedMessagesMayBeRoutedWithAnyId) {
    char cMessage[] = "100%s done";
    CaptureStdout();
    m_Utilities.LogInfo("idA", cMessage);
    m_Utilities.LogError("idB", cMessage);
    m_Utilities.LogRaw("idC", cMessage);
    EXPECT_EQ("[info] (idA) 100%s done\n[erro] (idB) 100%s done\n100%s done\n",
              GetCapturedStdout());
}

TEST_F(LogRoutingTest, FinishedMessagesOfAContextCarryItsId) {
    char cMessage[] = "100%s done";
    CaptureStdout();
    m_Utilities.LogInfo(&m_Param, cMessage);
    m_Utilities.LogError(&m_Param, cMessage);
    m_Utilities.LogRaw(&m_Param, cMessage);
    EXPECT_EQ("[info] (cRun) 100%s done\n[erro] (cRun) 100%s done\n100%s done\n",
              GetCapturedStdout());
}

TEST_F(LogRoutingTest, AMessageInTheFileIsNotOnTheConsoleAndHasNoId) {
    CFileLogger logger((m_Dir / "log").c_str());
    ASSERT_TRUE(logger.Open(0));
    m_Utilities.SetFileLogger(&logger);
    CaptureStdout();
    m_Utilities.LogInfo(&m_Param, "an info %d", 1);
    m_Utilities.LogError(&m_Param, "an error %d", 2);
    m_Utilities.LogRaw(&m_Param, "a raw one %d", 3);
    EXPECT_EQ("", GetCapturedStdout());
    EXPECT_THAT(support::ReadFile(m_Dir / "log"),
                ::testing::MatchesRegex(std::string(TIME_PATTERN) + "\\[info\\] an info 1\n" +
                                        TIME_PATTERN + "\\[error\\] an error 2\n" + TIME_PATTERN +
                                        " a raw one 3\n"));
}

TEST_F(LogRoutingTest, ALoggerThatIsNotOpenLeavesMessagesToTheConsole) {
    CFileLogger logger((m_Dir / "log").c_str());
    m_Utilities.SetFileLogger(&logger);
    CaptureStdout();
    m_Utilities.LogInfo(&m_Param, "%s", "a");
    m_Utilities.LogError(&m_Param, "%s", "b");
    m_Utilities.LogRaw(&m_Param, "%s", "c");
    EXPECT_EQ("[info] (cRun) a\n[erro] (cRun) b\nc\n", GetCapturedStdout());
    EXPECT_FALSE(support::FileExists(m_Dir / "log"));
}

TEST_F(LogRoutingTest, AMessageThatTheFileRefusesGoesToTheConsole) {
    CFileLogger logger("/dev/full");
    ASSERT_TRUE(logger.Open(0));
    m_Utilities.SetFileLogger(&logger);
    CaptureStdout();
    m_Utilities.LogError(&m_Param, "%s", "x");
    // The logger reports its own failure first, through its own service object.
    EXPECT_THAT(
        GetCapturedStdout(),
        ::testing::MatchesRegex(
            "\\[erro\\] \\(\\) \\[CFileLogger\\.LogMessage\\] OS write file \\([0-9]+\\)\\. "
            "Error=No space left on device \\(28\\)\n\\[erro\\] \\(cRun\\) x\n"));
}

TEST_F(LogRoutingTest, DetachingTheLoggerBringsMessagesBackToTheConsole) {
    CFileLogger logger((m_Dir / "log").c_str());
    ASSERT_TRUE(logger.Open(0));
    EXPECT_EQ(nullptr, m_Utilities.GetFileLogger());
    m_Utilities.SetFileLogger(&logger);
    EXPECT_EQ(&logger, m_Utilities.GetFileLogger());
    m_Utilities.SetFileLogger(nullptr);
    EXPECT_EQ(nullptr, m_Utilities.GetFileLogger());
    CaptureStdout();
    m_Utilities.LogRaw(&m_Param, "%s", "x");
    EXPECT_EQ("x\n", GetCapturedStdout());
    EXPECT_EQ("", support::ReadFile(m_Dir / "log"));
}

TEST_F(LogRoutingTest, TheCallerDecidesWhetherToLog) {
    CRuntimeParam silent("cRun", 0);
    CaptureStdout();
    m_Utilities.LogError(&silent, "%s", "x");
    EXPECT_EQ("[erro] (cRun) x\n", GetCapturedStdout()) << "routing tests no category";
}

TEST_F(LogRoutingTest, LongMessagesAreCutToTheBuffer) {
    const std::string sLong(5000, 'x');
    CaptureStdout();
    m_Utilities.LogRaw(&m_Param, "%s", sLong.c_str());
    EXPECT_EQ(std::string(STATUS_SIZE - 1, 'x') + "\n", GetCapturedStdout());
    CaptureStdout();
    m_Utilities.LogInfo(&m_Param, "%s", sLong.c_str());
    EXPECT_EQ("[info] (cRun) " + std::string(STATUS_SIZE - 1, 'x') + "\n", GetCapturedStdout());
    CaptureStdout();
    m_Utilities.LogError(&m_Param, "%s", sLong.c_str());
    EXPECT_EQ("[erro] (cRun) " + std::string(STATUS_SIZE - 1, 'x') + "\n", GetCapturedStdout());
}

TEST_F(LogRoutingTest, OutputAppearsAtOnceAlsoInAPipe) {
    int iPipe[2];
    ASSERT_EQ(0, pipe(iPipe));
    fflush(stdout);
    const int iOld = dup(STDOUT_FILENO);
    ASSERT_NE(-1, dup2(iPipe[1], STDOUT_FILENO));
    m_Utilities.LogRaw(&m_Param, "%s", "now");
    ASSERT_NE(-1, dup2(iOld, STDOUT_FILENO));
    close(iOld);
    close(iPipe[1]);
    char cBuf[16] = "";
    EXPECT_EQ(4, read(iPipe[0], cBuf, sizeof(cBuf)));
    EXPECT_STREQ("now\n", cBuf);
    close(iPipe[0]);
}

TEST_F(LogRoutingTest, WithoutACallbackNoNotificationIsDelivered) {
    EXPECT_EQ(-1, m_Utilities.LogUpdateRedirectedFileAttributes(&m_Param, "/a", true, 1, true, 2,
                                                                true, 3));
    EXPECT_EQ(-1, m_Utilities.LogRemoveRedirectedFile(&m_Param, "/a"));
    EXPECT_EQ(-1, m_Utilities.LogRenameRedirectedFile(&m_Param, "/a", "/b"));
    EXPECT_EQ(-1, m_Utilities.LogWriteRedirectedFile(&m_Param, "/a", 0, 0, 1));
}

TEST(LogFormattingTest, FormattedMessagesReachTheVirtualOperationOfTheirKind) {
    CRecordingUtilities utilities;
    CRuntimeParam param("cRun", 0);
    CUtilities& base = utilities;
    base.LogInfo(&param, "%s is %d", "one", 1);
    base.LogError(&param, "%s is %u%%", "two", 2u);
    base.LogRaw(&param, "%c", '3');
    EXPECT_THAT(utilities.TakeLines(), ElementsAre("info: one is 1", "error: two is 2%", "raw: 3"));
}

TEST(ErrorTextsTest, AreTheSystemsTextAndTheNumber) {
    char cText[STATUS_SIZE];
    CUtilities::GetLastErrorText(cText, 2);
    EXPECT_STREQ("No such file or directory (2)", cText);
    CUtilities::GetLastErrorText(cText, 24);
    EXPECT_STREQ("Too many open files (24)", cText);
}

TEST(ErrorTextsTest, StatusIsFormattedAndCutToItsBuffer) {
    char cStatus[STATUS_SIZE + 1];
    cStatus[STATUS_SIZE] = '#';
    CUtilities::SetStatus(cStatus, "%s", std::string(5000, 'x').c_str());
    EXPECT_EQ(std::string(STATUS_SIZE - 1, 'x'), cStatus);
    EXPECT_EQ('#', cStatus[STATUS_SIZE]);
    CUtilities::SetStatus(nullptr, "%s", "nobody asked");
}
