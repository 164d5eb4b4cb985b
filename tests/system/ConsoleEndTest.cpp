// How signals end the program: in every mode, at any time, whatever it waits for, and without
// anything left behind.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <latch>
#include <memory>

#include "ConsoleFixture.h"
#include "DatastoreFixture.h"
#include "IpcFixture.h"

using namespace console;
using ipctest::FakePeer;
using ipctest::U32At;

namespace {

std::string SignalName(int number) {
    switch (number) {
        case SIGINT:
            return "Interrupt";
        case SIGTERM:
            return "Terminate";
        default:
            return "HangUp";
    }
}

// Listens on the server's channel; answers the first requests of each connection as a server does
// and keeps everybody else waiting.
class MuteServer {
public:
    // answered: the greatest request type that is answered (with a text).
    explicit MuteServer(std::uint32_t answered)
        : m_peer(ipctest::kServerChannel, [this, answered](const Bytes& message) {
              if (U32At(message, 4) <= answered) {
                  return ipctest::ReplyMsg("1.2");
              }
              m_asked = true;
              m_released.wait();
              return Bytes();
          }) {}
    ~MuteServer() { m_released.count_down(); }
    MuteServer(const MuteServer&) = delete;
    MuteServer& operator=(const MuteServer&) = delete;

    // Waits until somebody waits.
    [[nodiscard]] bool IsAsked() const {
        return WaitFor([this] { return m_asked.load(); });
    }

private:
    std::atomic<bool> m_asked{false};
    std::latch m_released{1};
    FakePeer m_peer;
};

// The program with a standard output of one page, which is only read on demand.
class UnreadRun {
public:
    enum class Output { Pipe, Terminal };

    explicit UnreadRun(std::vector<std::string> arguments, Output kind = Output::Pipe)
        : m_arguments(CommandLine(std::move(arguments))) {
        int input[2];
        int output[2];
        if (pipe2(input, O_CLOEXEC) != 0 || !Open(kind, output)) {
            throw std::runtime_error(std::string("pipe: ") + std::strerror(errno));
        }
        m_input = input[1];
        m_output = output[0];
        m_outputEnd = output[1];
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, input[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
        std::vector<char*> pointers;
        for (std::string& argument : m_arguments) {
            pointers.push_back(argument.data());
        }
        pointers.push_back(nullptr);
        const int error =
            posix_spawn(&m_pid, pointers[0], &actions, nullptr, pointers.data(), environ);
        posix_spawn_file_actions_destroy(&actions);
        close(input[0]);
        if (error != 0) {
            throw std::runtime_error(std::string("spawn: ") + std::strerror(error));
        }
    }
    ~UnreadRun() {
        if (!m_status) {
            ADD_FAILURE() << "still running at the end of the test. Output:\n" << m_text;
            kill(m_pid, SIGKILL);
            waitpid(m_pid, nullptr, 0);
        }
        close(m_input);
        close(m_output);
        close(m_outputEnd);
    }
    UnreadRun(const UnreadRun&) = delete;
    UnreadRun& operator=(const UnreadRun&) = delete;

    void Send(const std::string& text) const {
        ASSERT_EQ(static_cast<ssize_t>(text.size()), write(m_input, text.data(), text.size()));
    }
    // Reads until a text has come.
    [[nodiscard]] bool WaitForOutput(const std::string& text) {
        return WaitFor([&] {
            pollfd output{m_output, POLLIN, 0};
            while (m_text.find(text) == std::string::npos && poll(&output, 1, 0) > 0) {
                char buffer[256];
                const ssize_t count = read(m_output, buffer, sizeof buffer);
                m_text.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(count, 0)));
                std::erase(m_text, '\r');  // a terminal's line ends
            }
            return m_text.find(text) != std::string::npos;
        });
    }
    // Waits until nothing more goes into the output.
    [[nodiscard]] bool WaitUntilFull() const {
        return WaitFor([this] {
            pollfd output{m_outputEnd, POLLOUT, 0};
            return poll(&output, 1, 0) == 0;
        });
    }
    void Signal(int number) const { kill(m_pid, number); }
    std::optional<ExitStatus> WaitExit() {
        int status = 0;
        if (WaitFor([&] { return waitpid(m_pid, &status, WNOHANG) == m_pid; })) {
            m_status = WIFEXITED(status) ? ExitStatus::Code(WEXITSTATUS(status))
                                         : ExitStatus::Signal(WTERMSIG(status));
        }
        return m_status;
    }

private:
    // The reading and the writing end.
    static bool Open(Output kind, int (&ends)[2]) {
        if (kind == Output::Pipe) {
            return pipe2(ends, O_CLOEXEC) == 0 && fcntl(ends[1], F_SETPIPE_SZ, 4096) >= 0;
        }
        return openpty(&ends[0], &ends[1], nullptr, nullptr, nullptr) == 0 &&
               fcntl(ends[0], F_SETFD, FD_CLOEXEC) == 0 && fcntl(ends[1], F_SETFD, FD_CLOEXEC) == 0;
    }

    std::vector<std::string> m_arguments;
    pid_t m_pid = -1;
    int m_input = -1;
    int m_output = -1;
    int m_outputEnd = -1;  // kept to ask whether it is full
    std::string m_text;
    std::optional<ExitStatus> m_status;
};

// Waits until a process has taken the signals that were sent to it: two of a kind could become one.
[[nodiscard]] bool TakesSignals(pid_t pid) {
    return WaitFor([pid] {
        const std::string status = ReadFile("/proc/" + std::to_string(pid) + "/status");
        return status.find("\nShdPnd:\t0000000000000000\n") != std::string::npos;
    });
}

class EndTest : public testing::Test {
protected:
    const ScopedTempDir m_folder;
    const std::string m_pidFile = m_folder / "pid";
};

class EndBySignalTest : public EndTest, public testing::WithParamInterface<int> {};

INSTANTIATE_TEST_SUITE_P(Signals, EndBySignalTest, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& param) { return SignalName(param.param); });

}  // namespace

// ================================================================================================
// While another process does not answer
// ================================================================================================

TEST_P(EndBySignalTest, EveryStartEndsWhileTheServerDoesNotAnswer) {
    for (const std::vector<std::string>& arguments : std::vector<std::vector<std::string>>{
             {"-md", "cli"}, {"-query"}, {"-shutdown"}, {"-md", "cli", "-test", "/tmp=1"}, {}}) {
        const MuteServer server(0);
        std::vector<std::string> all{"-pidfile", m_pidFile};
        all.insert(all.end(), arguments.begin(), arguments.end());
        Process program(CommandLine(all));
        ASSERT_TRUE(server.IsAsked());
        EXPECT_TRUE(FileExists(m_pidFile));
        program.Signal(GetParam());
        EXPECT_EQ(ExitStatus::Signal(GetParam()), program.WaitExit()) << program.Description();
        EXPECT_FALSE(FileExists(m_pidFile)) << program.Description();
        EXPECT_TRUE(FileExists(ipctest::kServerChannel)) << "it is the other process's";
    }
}

TEST_P(EndBySignalTest, EveryActionEndsWhileTheServerDoesNotAnswer) {
    for (const auto& [id, arguments] :
         std::vector<std::pair<std::string, std::vector<std::string>>>{
             {"qyRun", {"-query"}},
             {"shRun", {"-shutdown"}},
             {"tmRun", {"-md", "cli", "-test", "/tmp=1"}}}) {
        const MuteServer server(2);
        std::vector<std::string> all{"-pidfile", m_pidFile};
        all.insert(all.end(), arguments.begin(), arguments.end());
        Process program(CommandLine(all));
        ASSERT_TRUE(server.IsAsked());
        EXPECT_TRUE(FileExists("/tmp/nfs-" + id));
        program.Signal(GetParam());
        EXPECT_EQ(ExitStatus::Signal(GetParam()), program.WaitExit()) << id;
        EXPECT_FALSE(FileExists("/tmp/nfs-" + id));
        EXPECT_FALSE(FileExists(m_pidFile)) << id;
    }
}

TEST_P(EndBySignalTest, AControllersCommandEndsWhileTheServerDoesNotAnswer) {
    const MuteServer server(2);
    Process program(CommandLine({"-md", "cli", "-id", "ctl", "-pidfile", m_pidFile}));
    ASSERT_TRUE(program.WaitForOutput(kPrompt));
    program.Send("status\n");
    ASSERT_TRUE(server.IsAsked());
    program.Signal(GetParam());
    EXPECT_EQ(ExitStatus::Signal(GetParam()), program.WaitExit());
    EXPECT_FALSE(FileExists("/tmp/nfs-ctl"));
    EXPECT_FALSE(FileExists(m_pidFile));
}

TEST_P(EndBySignalTest, AControllerThatWaitsForACommandEndsInOrder) {
    const MuteServer server(2);
    Process program(CommandLine({"-md", "cli", "-id", "ctl", "-pidfile", m_pidFile}));
    ASSERT_TRUE(program.WaitForOutput(kPrompt));
    program.Signal(GetParam());
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_TRUE(program.Output().ends_with("\nExit by request\n")) << program.Output();
    EXPECT_FALSE(FileExists("/tmp/nfs-ctl"));
    EXPECT_FALSE(FileExists(m_pidFile));
}

// ================================================================================================
// In a platform test
// ================================================================================================

TEST_P(EndBySignalTest, APlatformTestLeavesNoFolderBehind) {
    // A path that makes the report longer than the output of the run takes.
    std::string folder = m_folder.Path();
    for (int i = 0; i < 3; ++i) {
        folder += "/" + std::string(250, 'x');
    }
    std::filesystem::create_directories(folder);
    for (const char* mode : {"int", "svr"}) {
        UnreadRun run({"-md", mode, "-pidfile", m_pidFile, "-test", folder + "=5000"});
        ASSERT_TRUE(run.WaitForOutput("[ OK ] Create file"));
        ASSERT_TRUE(run.WaitUntilFull());
        EXPECT_TRUE(FileExists(folder + "/_test/test.bak"));
        run.Signal(GetParam());
        EXPECT_EQ(ExitStatus::Signal(GetParam()), run.WaitExit());
        EXPECT_FALSE(FileExists(folder + "/_test")) << mode;
        EXPECT_FALSE(FileExists(m_pidFile)) << mode;
        EXPECT_FALSE(FileExists(ipctest::kServerChannel)) << mode;
    }
}

TEST_F(EndTest, AFolderOfSomebodyElseStaysWhenATestIsRefused) {
    ASSERT_EQ(0, mkdir((m_folder / "_test").c_str(), 0755));
    WriteFile(m_folder / "_test/test.bak", "kept");
    Process program(CommandLine({"-md", "int"}));
    program.Send("debug\ntest " + m_folder.Path() + "=1\n");
    ASSERT_TRUE(program.WaitForOutput("already exist"));
    program.Signal(SIGTERM);
    program.Signal(SIGTERM);
    ASSERT_TRUE(program.WaitExit());
    EXPECT_EQ("kept", ReadFile(m_folder / "_test/test.bak"));
}

// ================================================================================================
// While a helper runs
// ================================================================================================

namespace {

// A server with one datastore, whose helper tells that it runs and then does what it is told.
class HelperEndTest : public EndTest {
protected:
    std::unique_ptr<Process> Serve(const std::string& commands) {
        const std::string bin = m_folder / "bin";
        std::filesystem::create_directory(bin);
        std::filesystem::copy_file(ServerProgram(), bin + "/server");
        const datastore::RecordingHelper helper(bin, "echo $$ >'" + m_helper + ".new'; mv '" +
                                                         m_helper + ".new' '" + m_helper + "'; " +
                                                         commands);
        auto program = std::make_unique<Process>(
            std::vector<std::string>{bin + "/server", "-md", "svr", "-pidfile", m_pidFile});
        program->Send("debug\naddvsphereinfo ds-1 host1 443 root secret\nprint ready\n");
        EXPECT_TRUE(program->WaitForOutput("ready\n" + kPrompt));
        return program;
    }
    // Waits until the helper runs; its process number.
    pid_t Helper() const {
        EXPECT_TRUE(WaitFor([this] { return FileExists(m_helper); })) << "no helper runs";
        return static_cast<pid_t>(std::stol(ReadFile(m_helper)));
    }
    void ExpectNothingLeft(pid_t helper) const {
        EXPECT_FALSE(FileExists(m_pidFile));
        EXPECT_FALSE(FileExists(ipctest::kServerChannel));
        // The helper and what it has started share a session of their own.
        EXPECT_TRUE(WaitFor([helper] { return kill(-helper, 0) == -1 && errno == ESRCH; }));
    }

    const std::string m_helper = m_folder / "helper";
};

}  // namespace

TEST_F(HelperEndTest, ASecondSignalEndsTheWaitForOneThatNeverEnds) {
    for (const int number : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(SignalName(number));
        const auto program = Serve("sleep 1000");
        program->Signal(number);
        const pid_t helper = Helper();
        // The first one is heeded, and waits for the helper.
        EXPECT_EQ(0, kill(helper, 0));
        EXPECT_TRUE(FileExists(m_pidFile));
        program->Signal(number);
        EXPECT_EQ(ExitStatus::Signal(number), program->WaitExit());
        EXPECT_TRUE(program->Output().find("\nExit by request\n") != std::string::npos);
        ExpectNothingLeft(helper);
        std::filesystem::remove(m_helper);
        std::filesystem::remove_all(m_folder / "bin");
    }
}

TEST_F(HelperEndTest, SignalsAfterQuitEndTheWaitToo) {
    const auto program = Serve("sleep 1000");
    program->Send("quit\n");
    const pid_t helper = Helper();
    program->Signal(SIGTERM);
    ASSERT_TRUE(TakesSignals(program->Pid()));
    EXPECT_EQ(0, kill(helper, 0)) << "it does end in order";
    program->Signal(SIGTERM);
    EXPECT_EQ(ExitStatus::Signal(SIGTERM), program->WaitExit());
    ExpectNothingLeft(helper);
}

TEST_F(HelperEndTest, ASecondHangUpDoesNotDisturbTheEnd) {
    // A terminal that goes away tells its foreground job, and its shell tells all of its jobs.
    ASSERT_EQ(0, mkfifo((m_folder / "go").c_str(), 0600));
    const auto program = Serve("read go <'" + (m_folder / "go") + "'");
    program->Signal(SIGHUP);
    Helper();
    program->Signal(SIGHUP);
    ASSERT_TRUE(TakesSignals(program->Pid()));
    std::ofstream(m_folder / "go") << "go\n";
    EXPECT_EQ(ExitStatus::Code(0), program->WaitExit());
    EXPECT_FALSE(FileExists(m_pidFile));
    EXPECT_FALSE(FileExists(ipctest::kServerChannel));
}

// ================================================================================================
// While nobody reads the output
// ================================================================================================

TEST_P(EndBySignalTest, AFullOutputDoesNotHoldUpTheEnd) {
    UnreadRun run({"-md", "int", "-pidfile", m_pidFile});
    run.Send("debug\nstart\n");
    ASSERT_TRUE(run.WaitForOutput("Start NFS success\n" + kPrompt));
    run.Send(std::string(4090, 'x') + "\n");  // whose echo alone is more than the pipe takes
    ASSERT_TRUE(run.WaitUntilFull());
    run.Signal(GetParam());
    EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
    EXPECT_FALSE(FileExists(m_pidFile));
    EXPECT_TRUE(TakenPorts(kDefaultPorts).empty());
}

TEST_F(EndTest, AFullOutputDoesNotHoldUpAStopThatAControllerAsksFor) {
    UnreadRun run({"-md", "svr", "-pidfile", m_pidFile});
    ASSERT_TRUE(run.WaitForOutput(kPrompt));
    run.Send(std::string(4090, 'x') + "\n");  // whose echo alone is more than the pipe takes
    ASSERT_TRUE(run.WaitUntilFull());
    EXPECT_EQ(ExitStatus::Code(0), RunConsole({"-shutdown"}).status);
    EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
    EXPECT_FALSE(FileExists(m_pidFile));
}

TEST_F(EndTest, ClientsWhoseLinesNobodyReadsDoNotHoldUpTheEnd) {
    for (const auto output : {UnreadRun::Output::Pipe, UnreadRun::Output::Terminal}) {
        UnreadRun run({"-md", "int", "-log", "1023", "-pidfile", m_pidFile}, output);
        run.Send("debug\nstart\n");
        ASSERT_TRUE(run.WaitForOutput("Start NFS success\n" + kPrompt));
        RpcClient nfs(Transport::Tcp, 2049);
        for (int i = 0; i < 1000; ++i) {  // a terminal takes some ten thousand bytes
            nfs.SendCall(100003, 3, 0, {});
        }
        ASSERT_TRUE(run.WaitUntilFull());
        run.Signal(SIGTERM);
        EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
        EXPECT_FALSE(FileExists(m_pidFile));
    }
}

// ================================================================================================
// Hang-ups
// ================================================================================================

TEST_F(EndTest, AHangUpThatIsIgnoredFromTheStartStaysIgnored) {
    Process program(
        {"sh", "-c", "trap '' HUP; exec \"$0\" -md int", ServerProgram()});  // as nohup does
    ASSERT_TRUE(program.WaitForOutput(kPrompt));
    program.Signal(SIGHUP);
    program.Send("status\n");
    EXPECT_TRUE(program.WaitForOutput("\n" + Status("Stopped") + kPrompt));
    program.Signal(SIGTERM);
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
}

TEST_F(EndTest, TheLossOfItsTerminalEndsTheProgramInOrder) {
    const std::string log = m_folder / "log";
    {
        TerminalRun run({"-md", "int", "-pidfile", m_pidFile, "-logfile", log});
        ASSERT_TRUE(run.WaitForOutput(kPrompt));
        run.HangUp();
        EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
    }
    EXPECT_FALSE(FileExists(m_pidFile));
    EXPECT_EQ("[info] Terminate NFS", LogLines(log).back());
}
