// The pid file of the program.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>

#include "ConsoleFixture.h"

using namespace console;

namespace {

// The number of a process that has ended, and whose number nobody has taken since.
std::string DeadProcess() {
    Process program({"true"});
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_EQ(-1, kill(program.Pid(), 0));
    return std::to_string(program.Pid());
}

class PidFileTest : public testing::Test {
protected:
    static RunResult Run(const std::string& pidFile) {
        return RunConsole({"-md", "int", "-pidfile", pidFile}, "quit\n");
    }

    // A file with such a text is replaced by one with the program's own number.
    void ExpectReplaced(const std::string& text) {
        SCOPED_TRACE("text \"" + text + "\"");
        WriteFile(m_path, text);
        Process program(CommandLine({"-md", "int", "-pidfile", m_path}));
        ASSERT_TRUE(program.WaitForOutput(kPrompt));
        EXPECT_EQ(std::to_string(program.Pid()) + "\n", ReadFile(m_path));
        program.Send("quit\n");
        EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
        EXPECT_EQ(kOpening + "\nExit\n", program.Output());
        EXPECT_FALSE(FileExists(m_path));
    }

    // A file with such a text makes the start fail and stays as it is.
    void ExpectRefused(const std::string& text, const std::string& number) {
        SCOPED_TRACE("text \"" + text + "\"");
        WriteFile(m_path, text);
        const RunResult result = Run(m_path);
        EXPECT_EQ(ExitStatus::Code(1), result.status);
        EXPECT_EQ("Fail to create pid file \"" + m_path + "\". Reason=Process ID \"" + number +
                      "\" is still running\n",
                  result.output);
        EXPECT_EQ(text, ReadFile(m_path));
    }

    const ScopedTempDir m_folder;
    const std::string m_path = m_folder / "pid";
};

}  // namespace

TEST_F(PidFileTest, HoldsTheNumberAndANewlineWhileTheProgramRuns) {
    Process program(CommandLine({"-md", "int", "-pidfile", m_path}));
    ASSERT_TRUE(program.WaitForOutput(kPrompt));
    EXPECT_EQ(std::to_string(program.Pid()) + "\n", ReadFile(m_path));
    program.Send("quit\n");
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_FALSE(FileExists(m_path));
}

TEST_F(PidFileTest, IsRemovedAfterEveryEnd) {
    for (const std::vector<std::string>& arguments :
         {std::vector<std::string>{"-query"}, std::vector<std::string>{"-shutdown"},
          std::vector<std::string>{"-id", ""}}) {
        std::vector<std::string> all{"-md", "int", "-pidfile", m_path};
        all.insert(all.end(), arguments.begin(), arguments.end());
        RunConsole(all);
        EXPECT_FALSE(FileExists(m_path)) << arguments[0];
    }
}

TEST_F(PidFileTest, IsRemovedWhateverNumberItHolds) {
    Process program(CommandLine({"-md", "int", "-pidfile", m_path}));
    ASSERT_TRUE(program.WaitForOutput(kPrompt));
    WriteFile(m_path, "1\n");
    program.Send("quit\n");
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_FALSE(FileExists(m_path));
}

TEST_F(PidFileTest, MayBeGoneAtTheEnd) {
    Process program(CommandLine({"-md", "int", "-pidfile", m_path}));
    ASSERT_TRUE(program.WaitForOutput(kPrompt));
    std::filesystem::remove(m_path);
    program.Send("quit\n");
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_EQ(kOpening + "\nExit\n", program.Output());
}

TEST_F(PidFileTest, OfALiveProcessMakesTheStartFail) {
    const std::string own = std::to_string(getpid());
    ExpectRefused(own + "\n", own);
    ExpectRefused(own, own);
    ExpectRefused(own + "\r\n", own);
    ExpectRefused(own + "\r", own);
    ExpectRefused(" " + own + " and more\n", own);
}

TEST_F(PidFileTest, OfARunningServerProtectsIt) {
    Process first(CommandLine({"-md", "int", "-pidfile", m_path}));
    ASSERT_TRUE(first.WaitForOutput(kPrompt));
    const std::string number = std::to_string(first.Pid());
    const RunResult second = Run(m_path);
    EXPECT_EQ(ExitStatus::Code(1), second.status);
    EXPECT_EQ("Fail to create pid file \"" + m_path + "\". Reason=Process ID \"" + number +
                  "\" is still running\n",
              second.output);
    EXPECT_EQ(number + "\n", ReadFile(m_path)) << "the second must not remove what is not its own";
    first.Send("quit\n");
    EXPECT_EQ(ExitStatus::Code(0), first.WaitExit());
}

TEST_F(PidFileTest, OfADeadProcessIsReplaced) {
    const std::string number = DeadProcess();
    ExpectReplaced(number + "\n");
    ExpectReplaced(number);
    ExpectReplaced(number + "\r\n");
}

TEST_F(PidFileTest, OfAKilledServerIsReplaced) {
    {
        Process killed(CommandLine({"-md", "int", "-pidfile", m_path}));
        ASSERT_TRUE(killed.WaitForOutput(kPrompt));
        killed.Signal(SIGKILL);
        EXPECT_EQ(ExitStatus::Signal(SIGKILL), killed.WaitExit());
    }
    ExpectReplaced(ReadFile(m_path));
}

TEST_F(PidFileTest, WithoutANumberIsReplaced) {
    for (const char* text : {"", "\n", "\r\n", "garbage\n", "0\n", "0", "x1\n"}) {
        ExpectReplaced(text);
    }
}

TEST_F(PidFileTest, WithANegativeNumberIsReplaced) {
    // As a process group or as everybody these would be found alive.
    for (const std::string& text :
         {std::string("-1\n"), "-" + std::to_string(getpgrp()) + "\n", std::string("-0\n")}) {
        ExpectReplaced(text);
    }
}

TEST_F(PidFileTest, IsReadUpTo255Bytes) {
    const std::string own = std::to_string(getpid());
    ExpectReplaced(std::string(255, ' ') + own + "\n");
    ExpectReplaced(std::string(100'000, 'x'));
    ExpectRefused(std::string(255 - own.size(), ' ') + own + "\n", own);
}

TEST_F(PidFileTest, ParentFoldersAreMade) {
    const std::string path = m_folder / "a/b/c/pid";
    Process program(CommandLine({"-md", "int", "-pidfile", path}));
    ASSERT_TRUE(program.WaitForOutput(kPrompt));
    EXPECT_EQ(std::to_string(program.Pid()) + "\n", ReadFile(path));
    struct stat data {};
    ASSERT_EQ(0, stat((m_folder / "a/b").c_str(), &data));
    EXPECT_EQ(0u, data.st_mode & 0022) << "only the owner may write there";
    program.Send("quit\n");
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_FALSE(FileExists(path));
    EXPECT_TRUE(FileExists(m_folder / "a/b/c")) << "folders stay";
}

TEST_F(PidFileTest, MayBeRelative) {
    // The first part of a relative path is not made but must be there.
    std::filesystem::create_directory(m_folder / "run");
    for (const std::string path : {"pid", "./pid", "./deep/er/pid", "run/deep/pid"}) {
        Process program(CommandLine({"-md", "int", "-pidfile", path}),
                        {.workingDirectory = m_folder.Path()});
        ASSERT_TRUE(program.WaitForOutput(kPrompt)) << path;
        EXPECT_EQ(std::to_string(program.Pid()) + "\n", ReadFile(m_folder / path));
        program.Send("quit\n");
        EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
        EXPECT_FALSE(FileExists(m_folder / path)) << path;
    }
}

TEST_F(PidFileTest, AFolderInItsPlaceMakesTheStartFailAndStays) {
    std::filesystem::create_directory(m_path);
    const RunResult result = Run(m_path);
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    EXPECT_TRUE(result.output.ends_with("Fail to create pid file \"" + m_path +
                                        "\". Reason=Is a directory (21)\n"))
        << result.output;
    EXPECT_TRUE(std::filesystem::is_directory(m_path));
}

TEST_F(PidFileTest, AFullFolderInItsPlaceMakesTheStartFailAndStays) {
    std::filesystem::create_directory(m_path);
    WriteFile(m_path + "/file", "kept");
    EXPECT_EQ(ExitStatus::Code(1), Run(m_path).status);
    EXPECT_EQ("kept", ReadFile(m_path + "/file"));
}

TEST_F(PidFileTest, ThatCannotBeMadeIsLoggedAndEndsTheProgram) {
    WriteFile(m_folder / "file", "");
    const std::string path = m_folder / "file/pid";
    const RunResult result = Run(path);
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    const std::string line =
        "Fail to create pid file \"" + path + "\". Reason=Not a directory (20)";
    // Errors about the pid file are logged at a log control of 0 too.
    EXPECT_EQ("[erro] () [CConsoleUtilities.CreatePidFile] OS create file \"" + path +
                  "\". Error=Not a directory (20)\n[erro] () " + line + "\n" + line + "\n",
              result.output);
}

TEST_F(PidFileTest, InAFolderThatCannotBeMadeEndsTheProgram) {
    WriteFile(m_folder / "file", "");
    const std::string path = m_folder / "file/folder/pid";
    const RunResult result = Run(path);
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    EXPECT_TRUE(result.output.ends_with("\nFail to create pid file \"" + path +
                                        "\". Reason=Not a directory (20)\n"))
        << result.output;
}

TEST_F(PidFileTest, FollowsTheLogControlForTheFileAccess) {
    const RunResult result =
        RunConsole({"-md", "int", "-log", "256", "-pidfile", m_path}, "quit\n");
    const std::size_t banner = result.output.find(kBanner);
    ASSERT_NE(std::string::npos, banner);
    EXPECT_NE(
        std::string::npos,
        result.output.substr(0, banner).find(
            "[info] () [CConsoleUtilities.CreatePidFile] OS create file \"" + m_path + "\"\n"))
        << result.output;
}
