// The test of a host's file system as it is asked for: on the command line, at the console, and by
// a controller in another process.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdint>
#include <cstring>
#include <regex>
#include <string>
#include <vector>

#include "ConsoleFixture.h"
#include "NfsIpcClientMain.h"
#include "PlatformReport.h"
#include "RuntimeParam.h"
#include "Utilities.h"

namespace {

using namespace console;
using namespace platform;

// A report as it comes from the log of a server, its moment replaced by that of Report().
std::string Timeless(const std::string& text) {
    static const std::regex moment(R"((Current time \(in milliseconds\)          : )(\d{13})\b)");
    std::smatch match;
    if (!std::regex_search(text, match, moment)) {
        return text;
    }
    const auto now = std::chrono::duration_cast<std::chrono::milliseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    EXPECT_NEAR(static_cast<double>(now.count()), std::stod(match[2]), 60'000.0);
    return std::regex_replace(text, moment, "$01" + std::to_string(kNowMs));
}

// The lines as the program prints them.
std::string Printed(const Lines& lines, const std::string& id) {
    std::string text;
    for (const std::string& line : lines) {
        text += "[info] (" + id + ") " + line + '\n';
    }
    return text;
}

const std::string kIpcBanner = kDashes +
                               "Execute Version: 1.2\n"
                               "Server Version: 1.2\n"
                               "Server Description: External NFS Server\n" +
                               kDashes;
const std::string kRefused = "Cannot start platrorm test. Error=";

std::string Argument(const std::string& directory, long long size) {
    return directory + "=" + std::to_string(size);
}

// Runs `-test` in this process's own mode and returns what follows the banner.
std::string RunTest(const std::string& value) {
    const RunResult result = RunConsole({"-md", "int", "-test", value});
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_TRUE(result.output.starts_with(kBanner)) << result.output;
    return Timeless(result.output.substr(std::min(kBanner.size(), result.output.size())));
}

// ------------------------------------------------------------------------------------------------
// On the command line
// ------------------------------------------------------------------------------------------------

class TestOptionOfSize : public ::testing::TestWithParam<Case> {};

TEST_P(TestOptionOfSize, PrintsTheWholeReportAndEnds) {
    const TmpFs fs;
    EXPECT_EQ(Printed(Report(fs.Path(), GetParam()), "tmRun"),
              RunTest(Argument(fs.Path(), GetParam().size)));
    EXPECT_FALSE(FileExists(fs / "_test"));
}

INSTANTIATE_TEST_SUITE_P(Sizes, TestOptionOfSize, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::to_string(info.param.size); });

TEST(TestOption, FullFileSystemFailsAndStillEndsWithZero) {
    const TmpFs fs("size=4096,nr_inodes=10");
    WriteFile(fs / "filler", std::string(4096, 'x'));
    std::vector<Failure> failures;
    for (const int pass : {1, 2}) {
        failures.push_back({"Write data", pass, "No space left on device (28)"});
        failures.push_back({"Move pointer", pass, "File write failed"});
        failures.push_back({"Read data", pass, "File seek failed"});
        failures.push_back({"Verify data", pass, "File read failed"});
    }
    EXPECT_EQ(
        Printed(With(Report(fs.Path(), CaseOf(5000), Attributes("4.0KB", "0.0B", "10(A)", "8(8)")),
                     failures),
                "tmRun"),
        RunTest(Argument(fs.Path(), 5000)));
    EXPECT_FALSE(FileExists(fs / "_test"));
}

TEST(TestOption, RefusalsAreLinesOfTheLogAndTheExitCodeIsZero) {
    const ScopedTempDir folder;
    const std::string missing = folder / "missing";
    for (const auto& [value, reason] : std::vector<std::pair<std::string, std::string>>{
             {folder.Path() + "=0", "File size is ZERO"},
             {folder.Path() + "=-1", "File size is ZERO"},
             {folder.Path() + "=many", "File size is ZERO"},
             {folder.Path() + "=b=100", "File size is ZERO"},  // the first two parts count
             {missing + "=1", "Target directory \"" + missing + "\" not exist"},
             {"=1", "Target directory \"\" not exist"}}) {
        EXPECT_EQ("[info] (tmRun) " + kRefused + reason + "\n", RunTest(value)) << value;
    }
}

TEST(TestOption, LeftOversOfAnInterruptedRunAreRefused) {
    const TmpFs fs;
    ASSERT_EQ(0, mkdir((fs / "_test").c_str(), 0755));
    EXPECT_EQ(
        "[info] (tmRun) " + kRefused + "Test directory \"" + (fs / "_test") + "\" already exist\n",
        RunTest(Argument(fs.Path(), 100)));
}

TEST(TestOption, ValueWithoutASizeEndsTheProgramWithOne) {
    for (const std::string value : {"/tmp", "/tmp=", "=", ""}) {
        const RunResult result = RunConsole({"-md", "int", "-test", value});
        EXPECT_EQ(ExitStatus::Code(1), result.status) << value;
        EXPECT_EQ("In-valid test mode value: " + value + "\n", result.output);
    }
}

TEST(TestOption, ReportGoesToTheLogFileWhenThereIsOne) {
    const TmpFs fs;
    const ScopedTempDir folder;
    const RunResult result =
        RunConsole({"-md", "int", "-logfile", folder / "log", "-test", Argument(fs.Path(), 100)});
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ(kBanner, result.output);
    std::string logged;
    for (const std::string& line : LogLines(folder / "log")) {
        logged += line + '\n';
    }
    std::string expected =
        "[info] ID = tmRun, LogControl = 0, AccessMode = 0\n"
        "[info] Initial NFS\n[info] Start Remote Controller\n";
    for (const std::string& line : Report(fs.Path(), CaseOf(100))) {
        expected += "[info] " + line + '\n';
    }
    EXPECT_EQ(expected + "[info] Stop Remote Controller\n[info] Terminate NFS\n", Timeless(logged));
}

TEST(TestOption, ServerOfItsOwnTestsToo) {
    const TmpFs fs;
    const RunResult result = RunConsole({"-test", Argument(fs.Path(), 100)});
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ(kIpcBanner + Printed(Report(fs.Path(), CaseOf(100)), "tmRun"),
              Timeless(result.output));
}

// ------------------------------------------------------------------------------------------------
// At the console
// ------------------------------------------------------------------------------------------------

TEST(TestCommand, PrintsTheReportAsOftenAsAsked) {
    const TmpFs fs;
    const std::string command = "test " + Argument(fs.Path(), 2048);
    Server server({.start = false});
    server.Console("debug");
    const std::string expected = Printed(Report(fs.Path(), CaseOf(2048)), "cRun");
    EXPECT_EQ(expected, Timeless(server.Console(command)));
    EXPECT_EQ(expected, Timeless(server.Console(command)));
}

TEST(TestCommand, RunsBesideTheService) {
    const TmpFs fs;
    Server server({.exports = {{"vm01", fs.Path()}}});
    EXPECT_EQ(Printed(Report(fs.Path(), CaseOf(5000)), "cRun"),
              Timeless(server.Console("test " + Argument(fs.Path(), 5000))));
}

TEST(TestCommand, ValueWithoutASizeIsRefused) {
    Server server({.start = false});
    server.Console("debug");
    for (const std::string value : {"/tmp", "/tmp=", "="}) {
        EXPECT_EQ("Fail to run test. Reason=In-valid input value: " + value + "\n",
                  server.Console("test " + value));
    }
    EXPECT_EQ("[info] (cRun) " + kRefused + "File size is ZERO\n", server.Console("test /tmp=x"));
}

// ------------------------------------------------------------------------------------------------
// From another process
// ------------------------------------------------------------------------------------------------

// What a server printed since an offset, once the end of a report has come.
std::string OutputOfRun(Server& server, std::size_t from) {
    EXPECT_TRUE(server.Program().WaitForOutput(kEnd + "\n", kPatience, from));
    return server.Output(from);
}

TEST(TestRequest, ControllerGetsTheReportOfTheServersMachine) {
    const TmpFs fs;
    Server server({.mode = "svr", .start = false});
    const std::size_t from = server.Program().OutputSize();
    const RunResult result = RunConsole({"-md", "cli", "-test", Argument(fs.Path(), 5000)});
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    // The lines bear the name of the server that ran it, and are in its own log as well.
    const std::string expected = Printed(Report(fs.Path(), CaseOf(5000)), "cRun");
    EXPECT_EQ(kIpcBanner + expected, Timeless(result.output));
    EXPECT_EQ(expected, Timeless(OutputOfRun(server, from)));
    EXPECT_FALSE(FileExists(fs / "_test"));
}

TEST(TestRequest, CommandOfAControllerDoesTheSame) {
    const TmpFs fs;
    Server server({.arguments = {"-id", "service"}, .mode = "svr", .start = false});
    Server controller({.arguments = {"-id", "controller"}, .mode = "cli", .start = false});
    controller.Console("debug");
    EXPECT_EQ(Printed(Report(fs.Path(), CaseOf(100)), "service"),
              Timeless(controller.Console("test " + Argument(fs.Path(), 100))));
    EXPECT_EQ("[info] (service) " + kRefused + "File size is ZERO\n",
              controller.Console("test " + Argument(fs.Path(), 0)));
}

TEST(TestRequest, ControllerWithoutAServerEndsWithOne) {
    const RunResult result = RunConsole({"-md", "cli", "-test", "/tmp=100"});
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    EXPECT_TRUE(result.output.ends_with("Terminated. Reason=Fail to get server version\n"))
        << result.output;
}

// The longest path that the message takes, and one byte more.
TEST(TestRequest, PathThatDoesNotFitIsNotTestedCutShort) {
    const TmpFs fs;
    Server server({.mode = "svr", .start = false});
    CNfsIpcClientMain controller("controller", LOG_CONTROL_ERROR);
    const std::size_t from = server.Program().OutputSize();
    const std::string path = fs.Path() + std::string(3071 - fs.Path().size(), '/');
    CRuntimeParam param("controller", 0);
    controller.RunTestMode(&param, (path + "/").c_str(), 100);
    EXPECT_EQ("", server.Output(from));
    controller.RunTestMode(&param, path.c_str(), 100);
    EXPECT_EQ(Printed(Report(fs.Path(), CaseOf(100)), "cRun"), Timeless(OutputOfRun(server, from)));
}

// One message, written out byte by byte, and its reply.
TEST(TestRequest, MessageIsLaidOutLikeThis) {
    const TmpFs fs;
    Server server({.mode = "svr", .start = false});
    const std::size_t from = server.Program().OutputSize();
    std::string message(3352, '\0');
    const auto put = [&message](std::size_t at, const std::string& bytes) {
        message.replace(at, bytes.size(), bytes);
    };
    put(0, std::string("\x02\0\0\0", 4));               // a request
    put(4, std::string("\x15\0\0\0", 4));               // 21: the platform test
    put(8, "1.2");                                      // version
    put(16, "");                                        // nobody's channel
    put(272, fs.Path());                                // directory
    put(3344, std::string("\x88\x13\0\0\0\0\0\0", 8));  // 5000 bytes

    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, "/tmp/nfs-server");
    ASSERT_EQ(0, connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
    ASSERT_EQ(3352, send(fd, message.data(), message.size(), MSG_NOSIGNAL));
    char reply[64];
    ASSERT_EQ(20, recv(fd, reply, sizeof reply, 0));
    close(fd);
    EXPECT_EQ(std::string("\x01\0\0\0\x01\0\0\0"
                          "1.2\0\0\0\0\0"
                          "\x01",
                          17),
              std::string(reply, 17));
    EXPECT_EQ(Printed(Report(fs.Path(), CaseOf(5000)), "cRun"),
              Timeless(OutputOfRun(server, from)));
}

}  // namespace
