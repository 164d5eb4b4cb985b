// The program with a log file.

#include <gtest/gtest.h>
#include <signal.h>

#include <filesystem>

#include "ConsoleFixture.h"
#include "support/Nfs3Client.h"

using namespace console;

namespace {

using Lines = std::vector<std::string>;

class LogFileTest : public testing::Test {
protected:
    // Enters lines in a program that logs to the file.
    std::string Enter(const std::string& lines, std::vector<std::string> arguments = {}) const {
        arguments.insert(arguments.end(), {"-logfile", m_path});
        return console::Enter(lines, std::move(arguments));
    }
    Lines Log() const { return LogLines(m_path); }

    const ScopedTempDir m_folder;
    const std::string m_path = m_folder / "log";
};

const std::string kStarted = "[info] ID = cRun, LogControl = 0, AccessMode = 0";

}  // namespace

TEST_F(LogFileTest, TellsTheWholeLifeInOrder) {
    const std::string pidFile = m_folder / "pid";
    EXPECT_EQ(kPrompt + "Start NFS success\n", Enter("debug\nstart\n", {"-pidfile", pidFile}));
    EXPECT_EQ((Lines{kStarted, "[info] Create pid file \"" + pidFile + "\"", "[info] Initial NFS",
                     "[info] Start Remote Controller",
                     "[info] Start NFS with internal portmapper: MountPort = 1058, NfsPort = 2049",
                     "[info] Stop NFS", "[info] Stop Remote Controller", "[info] Terminate NFS"}),
              Log());
}

TEST_F(LogFileTest, TellsOfNoServiceThatWasNotStarted) {
    Enter("", {"-id", "me", "-log", "1"});
    EXPECT_EQ((Lines{"[info] ID = me, LogControl = 1, AccessMode = 0", "[info] Initial NFS",
                     "[info] Start Remote Controller", "[info] Stop Remote Controller",
                     "[info] Terminate NFS"}),
              Log());
}

TEST_F(LogFileTest, TellsTheSameLifeAfterASignal) {
    Process program(CommandLine({"-md", "int", "-logfile", m_path}));
    program.Send("debug\nstart 3058=3049\n");
    ASSERT_TRUE(program.WaitForOutput("Start NFS success\n" + kPrompt));
    program.Signal(SIGTERM);
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_EQ((Lines{kStarted, "[info] Initial NFS", "[info] Start Remote Controller",
                     "[info] Start NFS with internal portmapper: MountPort = 3058, NfsPort = 3049",
                     "[info] Stop NFS", "[info] Stop Remote Controller", "[info] Terminate NFS"}),
              Log());
}

TEST_F(LogFileTest, EndsEarlyWithoutAnId) {
    const RunResult result = RunConsole({"-md", "int", "-logfile", m_path, "-id", ""});
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    EXPECT_EQ(kBanner + "Terminated. Reason=ID is not defined\n", result.output);
    EXPECT_EQ((Lines{"[info] ID = , LogControl = 0, AccessMode = 0", "[info] Initial NFS"}), Log());
}

TEST_F(LogFileTest, TakesTheLinesThatTheConsoleWouldShow) {
    EXPECT_EQ(kPrompt + kPrompt, Enter("debug\nlog 2\numount /nonexistent\n"));
    const Lines lines = Log();
    ASSERT_EQ(7u, lines.size());
    EXPECT_EQ(
        "[info] [NfsMain.RemoveMountPoint] Fail to get canonical path from non-exist path: "
        "/nonexistent",
        lines[3]);
    EXPECT_EQ("[info] Stop Remote Controller", lines[4]);
    EXPECT_EQ(
        "[info] [NfsMain.StopRemoteController] No remote controller to stop. It is NOT support in "
        "internal server mode.",
        lines[5]);
}

TEST_F(LogFileTest, TakesTheRowsOfTheStatusAndLeavesTheNumbers) {
    EXPECT_EQ(kPrompt + kPrompt + "\n" + Status("Stopped", 1),
              Enter("debug\nmount /nonexistent=vm01\nstatus\n"));
    EXPECT_EQ("  mount1 - /nonexistent : vm01 () []", Log()[3]);
}

TEST_F(LogFileTest, PrintWritesAnInfoLine) {
    EXPECT_EQ(kPrompt, Enter("debug\nprint 100%d %s %n of it\n"));
    EXPECT_EQ("[info] 100%d %s %n of it", Log()[3]);
}

TEST_F(LogFileTest, LongLinesAreCutAndEnd) {
    Enter("debug\nprint " + std::string(4000, 'a') + "\nprint b\n");
    const Lines lines = Log();
    ASSERT_EQ(7u, lines.size());
    EXPECT_TRUE(lines[3].starts_with("[info] aaaa"));
    EXPECT_LE(lines[3].size(), 2048u);
    EXPECT_GE(lines[3].size(), 2000u);
    EXPECT_EQ("[info] b", lines[4]);
}

TEST_F(LogFileTest, IsContinuedByTheNextRun) {
    Enter("");
    Enter("");
    const Lines lines = Log();
    ASSERT_EQ(10u, lines.size());
    EXPECT_EQ(kStarted, lines[0]);
    EXPECT_EQ(kStarted, lines[5]);
}

TEST_F(LogFileTest, ParentFoldersAreMade) {
    const std::string path = m_folder / "a/b/log";
    console::Enter("", {"-logfile", path});
    EXPECT_EQ(kStarted, LogLines(path).at(0));
}

TEST_F(LogFileTest, ThatCannotBeMadeIsToldAndTheProgramGoesOn) {
    WriteFile(m_folder / "file", "");
    const std::string path = m_folder / "file/log";
    const RunResult result = RunConsole({"-md", "int", "-logfile", path}, "quit\n");
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    const std::string reason = "Not a directory (20)\n";
    // The logger is there but not in use: the start-up line falls back to the console, and none of
    // the lines that belong to an attached log file are written.
    EXPECT_EQ("[erro] () [CFileLogger.Open] OS create file \"" + path + "\". Error=" + reason +
                  "[erro] () Fail to create log file \"" + path + "\". Reason=" + reason +
                  "Fail to create log file: " + path + "\n" +
                  "[info] (cRun) ID = cRun, LogControl = 0, AccessMode = 0\n" + kOpening +
                  "\nExit\n",
              result.output);
}

TEST_F(LogFileTest, OfNoNameIsGivenAndCannotBeMade) {
    const RunResult result = RunConsole({"-md", "int", "-logfile", ""}, "quit\n");
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    const std::string reason = "No such file or directory (2)\n";
    EXPECT_EQ("[erro] () [CFileLogger.Open] OS create file \"\". Error=" + reason +
                  "[erro] () Fail to create log file \"\". Reason=" + reason +
                  "Fail to create log file: \n" +
                  "[info] (cRun) ID = cRun, LogControl = 0, AccessMode = 0\n" + kOpening +
                  "\nExit\n",
              result.output);
}

TEST_F(LogFileTest, ThatCannotBeMadeStillHasASize) {
    const RunResult result =
        RunConsole({"-md", "int", "-logfile", m_folder.Path(), "-pidfile", m_folder / "pid"},
                   "debug\nlogfilesize 7\nquit\n");
    EXPECT_TRUE(result.output.ends_with(
        "Fail to create log file: " + m_folder.Path() + "\n" +
        "[info] (cRun) ID = cRun, LogControl = 0, AccessMode = 0\n" +
        "[info] (cRun) Create pid file \"" + (m_folder / "pid") + "\"\n" + kOpening + kPrompt +
        "Current max log file size: 33554432\nUpdated max log file size: 7\n" + kPrompt +
        "\nExit\n"))
        << result.output;
}

TEST_F(LogFileTest, LogFileSizeShowsTheOldAndTheNewMaximum) {
    const auto sizes = [](const std::string& before, const std::string& after) {
        return "Current max log file size: " + before + "\nUpdated max log file size: " + after +
               "\n";
    };
    EXPECT_EQ(kPrompt + sizes("33554432", "5000000000") + kPrompt + sizes("5000000000", "12") +
                  kPrompt + sizes("12", "12") + kPrompt + sizes("12", "12") + kPrompt +
                  sizes("12", "12"),
              Enter("debug\nlogfilesize 5000000000\nlogfilesize 12x\nlogfilesize 0\n"
                    "logfilesize -5\nlogfilesize x\n"));
}

TEST_F(LogFileTest, IsRotatedAtTheMaximum) {
    WriteFile(m_path + ".1", "an older one");
    Enter("debug\nlogfilesize 1\nprint one\nprint two\nlogfilesize 1000000\nprint three\n");
    EXPECT_EQ("an older one", ReadFile(m_path + ".1"));
    // Each line finds the file above the maximum and goes into a new one.
    EXPECT_EQ((Lines{kStarted, "[info] Initial NFS", "[info] Start Remote Controller"}),
              LogLines(m_path + ".2"));
    EXPECT_EQ((Lines{"[info] one"}), LogLines(m_path + ".3"));
    EXPECT_EQ((Lines{"[info] two", "[info] three", "[info] Stop Remote Controller",
                     "[info] Terminate NFS"}),
              Log());
    EXPECT_FALSE(FileExists(m_path + ".4"));
}

TEST_F(LogFileTest, GetsTheReasonOfAFailedStartWhateverTheLogControl) {
    const PortHolder holder(Transport::Tcp, 2049);
    EXPECT_EQ(kPrompt + "Fail to start NFS. NFS daemon failed to open port 2049\n",
              Enter("debug\nstart\n"));
    EXPECT_EQ((Lines{kStarted, "[info] Initial NFS", "[info] Start Remote Controller",
                     "[info] Start NFS with internal portmapper: MountPort = 1058, NfsPort = 2049",
                     "[error] Fail to start NFS daemon on port 2049. Reason=Fail to bind server "
                     "socket. Address already in use (98)",
                     "[info] Stop Remote Controller", "[info] Terminate NFS"}),
              Log());
}
