// The program's front end: command line, command loop, standard input, and signals.

#include "ConsoleUtilities.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <tuple>

#include "ConsoleFixture.h"
#include "Nfs3Types.h"
#include "NfsMain.h"
#include "support/Nfs3Client.h"

using namespace console;

namespace {

// What the program makes of its options, as its log file tells: "ID = …, LogControl = …, …".
std::string OptionsInEffect(std::vector<std::string> arguments) {
    const ScopedTempDir folder;
    const std::string log = folder / "log";
    arguments.insert(arguments.begin(), {"-logfile", log, "-md", "int"});
    const RunResult result = RunConsole(std::move(arguments), "quit\n");
    EXPECT_EQ(ExitStatus::Code(0), result.status) << result.output;
    const std::vector<std::string> lines = LogLines(log);
    return lines.empty() ? "" : lines.front();
}

std::string InEffect(const std::string& id, int logControl) {
    return "[info] ID = " + id + ", LogControl = " + std::to_string(logControl) +
           ", AccessMode = 0";
}

std::string Usage(const std::string& programName) {
    return "\n"
           "Usage: " +
           programName +
           " [-help]\n"
           "       [-shutdown]\n"
           "       [-query]\n"
           "       [-test <path=max_file_size>]\n"
           "       [-id <name>] [-log <num>] [-md <int|svr|cli>] [-logfile <path>] "
           "[-pidfile <path>]\n";
}

const std::string kHelp =
    "==========================\n"
    "Command:\n"
    "  help: display help\n"
    "  quit: quit this program\n"
    "  log <num>: display log messages or not\n"
    "  status: show status\n";
const std::string kDebugHelp =
    "  start<mount_port=nfs_port]: start server\n"
    "  mount <path=exportName>: add mount point\n"
    "  umount <path>: remove mount point\n"
    "  test <dirPath=fileSizeInByte>: run platform test on target file\n"
    "  logfilesize <size>: set max log file size\n"
    "  print <message>: print message to log\n"
    "  debugaction <num>: turn on/off debug action control in QVS\n"
    "  addvsphereinfo <datastore MOID> <host> <port> <user> <password>: add VSphere info\n"
    "  removevsphereinfo <datastore MOID>: remove VSphere info\n";
const std::string kHelpEnd = "==========================\n";

// Lines after `debug`; what is printed for them.
std::string Debug(const std::string& lines, std::vector<std::string> arguments = {}) {
    const std::string output = Enter("debug\n" + lines, std::move(arguments));
    if (!output.starts_with(kPrompt)) {
        ADD_FAILURE() << "debug is not silent: " << output;
        return output;
    }
    return output.substr(kPrompt.size());
}

}  // namespace

// ================================================================================================
// Command line
// ================================================================================================

TEST(CommandLineTest, HelpPrintsTheUsageAndNothingElse) {
    const RunResult result = RunConsole({"-help"});
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ(Usage(ServerProgram()), result.output);
}

TEST(CommandLineTest, TheProgramNameBeginsBehindTheLastBackslash) {
    const ScopedTempDir folder;
    for (const auto& [file, name] : std::vector<std::pair<std::string, std::string>>{
             {"C:\\bin\\nfs.exe", "nfs.exe"}, {"end\\", ""}}) {
        const std::string link = folder / file;
        std::filesystem::create_symlink(ServerProgram(), link);
        const RunResult result = RunProgram({link, "-help"});
        EXPECT_EQ(ExitStatus::Code(0), result.status);
        EXPECT_EQ(Usage(name), result.output);
    }
}

TEST(CommandLineTest, HelpEndsTheProgramAtOnceWhateverFollows) {
    EXPECT_EQ(Usage(ServerProgram()), RunConsole({"-query", "-help", "-md", "x"}).output);
    const ScopedTempDir folder;
    const std::string pidFile = folder / "pid";
    WriteFile(pidFile, "1\n");
    EXPECT_EQ(ExitStatus::Code(0), RunConsole({"-pidfile", pidFile, "-help"}).status);
    EXPECT_EQ("1\n", ReadFile(pidFile)) << "-help has nothing to do with a pid file";
}

TEST(CommandLineTest, WhatStandsBeforeHelpIsReadFirst) {
    const RunResult result = RunConsole({"-md", "x", "-help"});
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    EXPECT_EQ("Un-supported mode: -md\n", result.output);
}

TEST(CommandLineTest, AnyOtherModeIsRefusedWithTheNameOfTheOption) {
    for (const char* mode : {"x", "", "INT", "int ", "0", "svrs", "-help"}) {
        const RunResult result = RunConsole({"-md", mode});
        EXPECT_EQ(ExitStatus::Code(1), result.status) << mode;
        EXPECT_EQ("Un-supported mode: -md\n", result.output) << mode;
    }
}

TEST(CommandLineTest, AnUnsupportedModeTouchesNoPidFile) {
    const ScopedTempDir folder;
    RunConsole({"-pidfile", folder / "new", "-md", "x"});
    EXPECT_FALSE(FileExists(folder / "new"));
    WriteFile(folder / "old", "999999999\n");
    RunConsole({"-pidfile", folder / "old", "-md", "x"});
    EXPECT_TRUE(FileExists(folder / "old"));
}

TEST(CommandLineTest, ATestValueNeedsTwoParts) {
    for (const std::string value : {"/tmp", "", "/tmp=", "=", "-md"}) {
        const RunResult result = RunConsole({"-test", value, "-md", "int"});
        EXPECT_EQ(ExitStatus::Code(1), result.status) << value;
        EXPECT_EQ("In-valid test mode value: " + value + "\n", result.output);
    }
}

TEST(CommandLineTest, TheDefaultsAreAnIdOfItsOwnAndNoLogging) {
    EXPECT_EQ(InEffect("cRun", 0), OptionsInEffect({}));
}

TEST(CommandLineTest, TheActionChoosesTheDefaultId) {
    const ScopedTempDir folder;
    const std::string test = folder.Path() + "=0";
    EXPECT_EQ(InEffect("qyRun", 0), OptionsInEffect({"-query"}));
    EXPECT_EQ(InEffect("tmRun", 0), OptionsInEffect({"-test", test, "-query"}));
    EXPECT_EQ(InEffect("tmRun", 0), OptionsInEffect({"-query", "-test", test}));
}

TEST(CommandLineTest, AGivenIdWinsOverEveryDefault) {
    EXPECT_EQ(InEffect("me", 0), OptionsInEffect({"-id", "me"}));
    EXPECT_EQ(InEffect("me", 0), OptionsInEffect({"-id", "me", "-query"}));
    EXPECT_EQ(InEffect("cRun", 0), OptionsInEffect({"-query", "-id", "cRun"}));
}

TEST(CommandLineTest, TheLastOfARepeatedOptionWins) {
    EXPECT_EQ(InEffect("b", 7),
              OptionsInEffect({"-id", "a", "-log", "9", "-id", "b", "-log", "7"}));
    EXPECT_EQ(ExitStatus::Code(0), RunConsole({"-md", "svr", "-md", "int"}, "quit\n").status);
}

TEST(CommandLineTest, TheLogControlIsReadAsADecimalNumber) {
    for (const auto& [text, value] :
         std::vector<std::pair<std::string, int>>{{"1", 1},
                                                  {"1023", 1023},
                                                  {"-1", -1},
                                                  {"-2147483648", -2147483647 - 1},
                                                  {" 8", 8},
                                                  {"12abc", 12},
                                                  {"0x10", 0},
                                                  {"010", 10},
                                                  {"abc", 0},
                                                  {"", 0}}) {
        EXPECT_EQ(InEffect("cRun", value), OptionsInEffect({"-log", text})) << text;
    }
}

TEST(CommandLineTest, AnOptionWithoutAValueEndsTheParsing) {
    for (const char* option :
         {"-id", "-log", "-md", "-logfile", "-pidfile", "-test", "-unknown", "word", ""}) {
        EXPECT_EQ(InEffect("cRun", 0), OptionsInEffect({option})) << option;
    }
}

TEST(CommandLineTest, AnUnknownOptionSwallowsAValue) {
    for (const char* option : {"-unknown", "word", "--help", "-HELP", "-help ", ""}) {
        EXPECT_EQ(InEffect("cRun", 0), OptionsInEffect({option, "-help"})) << option;
        // The swallowed -log leaves its number behind, which swallows in its turn.
        EXPECT_EQ(InEffect("me", 0), OptionsInEffect({option, "-log", "9", "-query", "-id", "me"}))
            << option;
    }
}

TEST(CommandLineTest, AnOptionIsAGoodValueOfAnother) {
    EXPECT_EQ(InEffect("-help", 0), OptionsInEffect({"-id", "-help"}));
    EXPECT_EQ(InEffect("-shutdown", 0), OptionsInEffect({"-id", "-shutdown"}));
}

TEST(CommandLineTest, ANewlineInAnArgumentMakesTwoOfIt) {
    EXPECT_EQ(InEffect("a", 5), OptionsInEffect({"-id", "a\n-log", "5"}));
    EXPECT_EQ(Usage(ServerProgram()), RunConsole({"-id", "a\n-help"}).output);
    // An argument that ends in a newline is followed by an empty one.
    EXPECT_EQ(InEffect("a", 5), OptionsInEffect({"-id", "a\n", "swallowed", "-log", "5"}));
}

TEST(CommandLineTest, AnEmptyIdIsAValueAndIsRefusedLater) {
    const ScopedTempDir folder;
    const std::string pidFile = folder / "pid";
    const RunResult result = RunConsole({"-md", "int", "-pidfile", pidFile, "-id", ""});
    EXPECT_EQ(ExitStatus::Code(1), result.status);
    EXPECT_EQ(kBanner + "Terminated. Reason=ID is not defined\n", result.output);
    EXPECT_FALSE(FileExists(pidFile));
}

TEST(CommandLineTest, AnEmptyPidFileMeansNone) {
    const RunResult result = RunConsole({"-md", "int", "-pidfile", ""}, "quit\n");
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ(kOpening + "\nExit\n", result.output);
}

TEST(CommandLineTest, LongArgumentsDoNotOverrun) {
    const std::string big(100'000, 'a');
    const RunResult result = RunConsole({big, big, "-id", big, "-query", "-md", "int"});
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ(kBanner + Status("Stopped"), result.output);
    EXPECT_EQ(Usage(ServerProgram()), RunConsole({"-id", std::string(4096, 'x'), "-help"}).output);
    EXPECT_EQ("In-valid test mode value: " + big + "\n", RunConsole({"-test", big}).output);
}

TEST(CommandLineTest, ShutdownOfTheOwnModeOnlyTells) {
    const ScopedTempDir folder;
    const std::vector<std::string> files{"-pidfile", folder / "pid", "-logfile", folder / "log"};
    for (std::vector<std::string> arguments :
         {std::vector<std::string>{"-shutdown", "-md", "int"},
          std::vector<std::string>{"-md", "int", "-query", "-shutdown", "-id", ""}}) {
        arguments.insert(arguments.begin(), files.begin(), files.end());
        const RunResult result = RunConsole(arguments);
        EXPECT_EQ(ExitStatus::Code(0), result.status);
        EXPECT_EQ("Auto shutdown is activated, terminate now\n", result.output);
        EXPECT_FALSE(FileExists(folder / "log")) << "it ends before a log file is made";
        EXPECT_FALSE(FileExists(folder / "pid"));
    }
}

TEST(CommandLineTest, QueryPrintsTheStatusAndEnds) {
    const RunResult result = RunConsole({"-query", "-md", "int"}, "status\n");
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ(kBanner + Status("Stopped"), result.output);
}

TEST(CommandLineTest, TheLogControlHoldsFromTheStart) {
    EXPECT_EQ(kBanner +
                  "[info] (me) [NfsMain.StartRemoteController] No remote controller to start. It "
                  "is NOT support in internal server mode.\n" +
                  Status("Stopped") +
                  "[info] (me) [NfsMain.StopRemoteController] No remote controller to stop. It is "
                  "NOT support in internal server mode.\n",
              RunConsole({"-query", "-md", "int", "-log", "2", "-id", "me"}).output);
}

// ================================================================================================
// Commands
// ================================================================================================

TEST(ConsoleTest, OpensWithTheBannerAHintAndAPrompt) {
    const RunResult result = RunConsole({"-md", "int"}, "quit\n");
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ(kOpening + "\nExit\n", result.output);
}

TEST(ConsoleTest, HelpListsFourCommands) { EXPECT_EQ(kHelp + kHelpEnd, Enter("help\n")); }

TEST(ConsoleTest, HelpAfterDebugListsAllOfThem) {
    EXPECT_EQ(kHelp + kDebugHelp + kHelpEnd, Debug("help\n"));
}

TEST(ConsoleTest, DebugIsSilentAndMayBeRepeated) {
    EXPECT_EQ("", Enter("debug\n"));
    EXPECT_EQ("" + kPrompt + kPrompt, Enter("debug\ndebug\ndebug\n"));
}

TEST(ConsoleTest, NothingIsReadBehindQuit) {
    const RunResult result = RunConsole({"-md", "int"}, "quit\nhelp\n");
    EXPECT_EQ(kOpening + "\nExit\n", result.output);
}

TEST(ConsoleTest, AnEmptyLineOnlyPromptsAgain) {
    EXPECT_EQ(kPrompt + kPrompt + Unknown("x"), Enter("\n\nx\n"));
}

TEST(ConsoleTest, TheCommandsOfDebugModeAreUnknownBefore) {
    for (const std::string line : {"start", "start 1058=2049", "mount /tmp=vm01", "umount /tmp",
                                   "test /tmp=1", "logfilesize 1", "print x", "debugaction 1",
                                   "addvsphereinfo a b c d e", "removevsphereinfo a"}) {
        EXPECT_EQ(Unknown(line), Enter(line + "\n"));
    }
}

TEST(ConsoleTest, AStartBeforeDebugStartsNothing) {
    EXPECT_EQ(Unknown("start") + kPrompt + "\n" + Status("Stopped"), Enter("start\nstatus\n"));
}

TEST(ConsoleTest, LinesThatOnlyBeginLikeACommandAreUnknown) {
    std::string lines;
    std::string expected;
    for (const std::string line : {"helpx",
                                   "help ",
                                   "HELP",
                                   " help",
                                   "quitx",
                                   "quit ",
                                   "status1",
                                   "status ",
                                   "debugx",
                                   "debug ",
                                   "log",
                                   "log ",
                                   "log\t1",
                                   "start1",
                                   "start ",
                                   "starts 1=2",
                                   "mount",
                                   "mount ",
                                   "mountx",
                                   "umount",
                                   "umount ",
                                   "test",
                                   "test ",
                                   "logfilesize",
                                   "logfilesize ",
                                   "print",
                                   "print ",
                                   "debugaction",
                                   "debugaction ",
                                   "addvsphereinfo",
                                   "addvsphereinfo ",
                                   "removevsphereinfo",
                                   "removevsphereinfo ",
                                   "?",
                                   " "}) {
        lines += line + "\n";
        expected += (expected.empty() ? "" : kPrompt) + Unknown(line);
    }
    EXPECT_EQ(expected, Debug(lines));
}

TEST(ConsoleTest, TextOfAnUnknownLineIsNoFormat) {
    EXPECT_EQ(Unknown("%s%n%d'"), Enter("%s%n%d'\n"));
}

TEST(ConsoleTest, StatusIsSetOffByAnEmptyLine) {
    EXPECT_EQ("\n" + Status("Stopped"), Enter("status\n"));
}

TEST(ConsoleTest, LogReplacesTheLogControl) {
    const std::string mount = "mount /nonexistent=a\numount /nonexistent\n";
    const auto path = [](const char* operation) {
        return std::string("[info] (cRun) [NfsMain.") + operation +
               "] Fail to get canonical path from non-exist path: /nonexistent\n";
    };
    // Adding resolves the path, and so does its search for duplicates.
    const std::string logged =
        path("AddMountPoint") + path("AddMountPoint") + kPrompt + path("RemoveMountPoint");
    EXPECT_EQ(kPrompt + logged + kPrompt + kPrompt + kPrompt,
              Debug("log 2\n" + mount + "log 0\n" + mount));
    // What is no number is 0; the bits behind a number's digits do not count.
    EXPECT_EQ(kPrompt + kPrompt + kPrompt, Debug("log 2\nlog x\n" + mount));
    EXPECT_EQ(kPrompt + logged + kPrompt, Debug("log 2x\n" + mount + "log 0\n"));
}

TEST(ConsoleTest, StartOpensTheDefaultPortsOnce) {
    EXPECT_EQ("Start NFS success\n" + kPrompt + "NFS already running\n" + kPrompt +
                  "NFS already running\n" + kPrompt + "NFS already running\n" + kPrompt + "\n" +
                  Status("Started"),
              Debug("start\nstart\nstart 3058=3049\nstart x\nstatus\n"));
}

TEST(ConsoleTest, StartTakesTheMountPortBeforeTheNfsPort) {
    Server server({.start = false});
    server.Console("debug");
    EXPECT_EQ("Start NFS success\n", server.Console("start 3058=3049"));
    EXPECT_EQ(kSuccess, MountClient(Transport::Tcp, 3058).Null().acceptStat);
    EXPECT_EQ(kSuccess, Nfs3Client(Transport::Udp, 3049).Null().acceptStat);
    EXPECT_EQ((std::vector<std::string>{"111/tcp", "111/udp"}), TakenPorts(kDefaultPorts));
}

TEST(ConsoleTest, APortOfZeroOrNoNumberIsTheDefault) {
    for (const auto& [value, mountPort, nfsPort] :
         std::vector<std::tuple<std::string, int, int>>{{"0=3049", 1058, 3049},
                                                        {"=3049", 1058, 3049},
                                                        {"3058=x", 3058, 2049},
                                                        {"-1=-1", 1058, 2049},
                                                        {"3058=3049=4", 3058, 3049}}) {
        Server server({.start = false});
        server.Console("debug");
        ASSERT_EQ("Start NFS success\n", server.Console("start " + value)) << value;
        EXPECT_EQ(kSuccess, MountClient(Transport::Udp, mountPort).Null().acceptStat) << value;
        EXPECT_EQ(kSuccess, Nfs3Client(Transport::Udp, nfsPort).Null().acceptStat) << value;
    }
}

TEST(ConsoleTest, AStartValueNeedsTwoParts) {
    const auto refusal = [](const std::string& value) {
        return "Fail to start NFS. Reason=In-valid input value: " + value + "\n";
    };
    EXPECT_EQ(refusal("x") + kPrompt + refusal("3058") + kPrompt + refusal("3058=") + kPrompt +
                  refusal("=") + kPrompt + refusal(" ") + kPrompt + "\n" + Status("Stopped"),
              Debug("start x\nstart 3058\nstart 3058=\nstart =\nstart  \nstatus\n"));
}

TEST(ConsoleTest, AStartThatFailsTellsWhyAndLeavesTheServerStopped) {
    const PortHolder holder(Transport::Udp, 1058);
    EXPECT_EQ("Fail to start NFS. Mount daemon failed to open port 1058\n" + kPrompt + "\n" +
                  Status("Stopped"),
              Debug("start\nstatus\n"));
}

TEST(ConsoleTest, TheStartedServerIsWritable) {
    const ScopedTempDir folder;
    Server server({.exports = {{"vm01", folder.Path()}}});
    const Handle root = MountClient().Mnt("vm01").handle;
    EXPECT_EQ(NFS3_OK, Nfs3Client().MkDir(root, "new").status);
    EXPECT_TRUE(FileExists(folder / "new"));
}

TEST(ConsoleTest, MountIsSilentAndRefusesWithTheReason) {
    const ScopedTempDir folder;
    const std::string path = folder.Path();
    const std::string fail = "Fail to add mount point to NFS. Reason=";
    EXPECT_EQ(kPrompt + fail + "Export name \"vm01\" already defined\n" + kPrompt + fail +
                  "Local mount path \"" + path + "\" already defined\n" + kPrompt + fail +
                  "Invalid char \" \" inside export name\n" + kPrompt + "\n" +
                  Status("Stopped", 1, " mount1 - " + path + " : vm01 () []\n"),
              Debug("mount " + path + "=vm01\nmount /other=vm01\nmount " + path +
                    "=vm02\nmount /other=a b\nstatus\n"));
}

TEST(ConsoleTest, AMountValueNeedsTwoPartsAndTakesNoMore) {
    const std::string fail = "Fail to add mount point to NFS. Reason=In-valid input value: ";
    EXPECT_EQ(fail + "/x\n" + kPrompt + fail + "/x=\n" + kPrompt + fail + " \n" + kPrompt +
                  kPrompt + "\n" + Status("Stopped", 1, " mount1 - /nonexistent : vm01 () []\n"),
              Debug("mount /x\nmount /x=\nmount  \nmount /nonexistent=vm01=rest\nstatus\n"));
}

TEST(ConsoleTest, UmountRemovesTheExportOfAPath) {
    EXPECT_EQ(kPrompt + kPrompt + kPrompt + kPrompt + "\n" +
                  Status("Stopped", 1, " mount1 - /nonexistent/b : b () []\n"),
              Debug("mount /nonexistent/a=a\nmount /nonexistent/b=b\numount /nonexistent/a\n"
                    "umount /nonexistent\nstatus\n"));
}

TEST(ConsoleTest, StatusListsExportsWithTheirClients) {
    const ScopedTempDir folder;
    const std::string path = folder.Path();
    Server server({.exports = {{"vm02", "/nonexistent"}, {"vm01", path}}});
    MountClient().Mnt("vm01");
    EXPECT_EQ("\n" + Status("Started", 2,
                            " mount1 - " + path +
                                " : vm01 (127.0.0.1) []\n"
                                " mount2 - /nonexistent : vm02 () []\n"),
              server.Console("status"));
}

TEST(ConsoleTest, StatusListsDatastores) {
    // Both are removed again: nothing is left to be cleaned up at the end.
    EXPECT_EQ(kPrompt + kPrompt + "\n" +
                  Status("Stopped", 0, "", 2,
                         " NFS datastore1 - ds-1 (host1:443)\n"
                         " NFS datastore2 - ds-2 (host2:80)\n") +
                  kPrompt + kPrompt + kPrompt + "\n" +
                  Status("Stopped", 0, "", 1, " NFS datastore1 - ds-2 (host2:80)\n") + kPrompt +
                  kPrompt + "\n" + Status("Stopped"),
              Debug("addvsphereinfo ds-2 host2 80 user secret more words\n"
                    "addvsphereinfo ds-1 host1 443 user secret\nstatus\n"
                    "removevsphereinfo nobody\nremovevsphereinfo ds-1\nstatus\n"
                    "removevsphereinfo ds-2\nstatus\n"));
}

TEST(ConsoleTest, ADatastoreNeedsFiveWords) {
    const std::string fail = "Fail to add VSphere info to NFS. Reason=In-valid input value: ";
    EXPECT_EQ(fail + "a b c d\n" + kPrompt + fail + "a\n" + kPrompt + fail + "a b c d \n" +
                  kPrompt + "\n" + Status("Stopped"),
              Debug("addvsphereinfo a b c d\naddvsphereinfo a\naddvsphereinfo a b c d \nstatus\n"));
}

TEST(ConsoleTest, ATestValueNeedsTwoParts) {
    const std::string fail = "Fail to run test. Reason=In-valid input value: ";
    EXPECT_EQ(fail + "/x\n" + kPrompt + fail + "/x=\n" + kPrompt + fail + "=\n",
              Debug("test /x\ntest /x=\ntest =\n"));
}

TEST(ConsoleTest, PrintLogsAnInfoMessageAsItIs) {
    EXPECT_EQ("[info] (me) 100%d %s %n\n" + kPrompt + "[info] (me)  x \n",
              Debug("print 100%d %s %n\nprint  x \n", {"-id", "me"}));
}

TEST(ConsoleTest, DebugActionShowsInTheServerStatus) {
    const auto status = [](int value) {
        return "Current Server Status=" + std::to_string(value) + "\n";
    };
    EXPECT_EQ(status(5) + kPrompt + status(1) + kPrompt + status(5) + kPrompt + status(1) +
                  kPrompt + "Start NFS success\n" + kPrompt + status(7) + kPrompt + status(3),
              Debug("debugaction 1\ndebugaction 0\ndebugaction -1\ndebugaction x\nstart\n"
                    "debugaction 2\ndebugaction 0\n"));
}

TEST(ConsoleTest, LogFileSizeWithoutALogFileLogsThatThereIsNone) {
    EXPECT_EQ("[info] (cRun) No file logger is defined\n", Debug("logfilesize 5\n"));
}

TEST(ConsoleTest, SplitValueTakesTheFirstTwoPartsOrFails) {
    std::string first = "kept";
    std::string second = "kept";
    for (const char* value : {static_cast<const char*>(nullptr), "", "a", "a=", "="}) {
        EXPECT_FALSE(CConsoleUtilities::SplitValue(nullptr, value, &first, &second));
        EXPECT_EQ("kept", first);
        EXPECT_EQ("kept", second);
    }
    EXPECT_TRUE(CConsoleUtilities::SplitValue(nullptr, "a=b=c", &first, &second));
    EXPECT_EQ("a", first);
    EXPECT_EQ("b", second);
    EXPECT_TRUE(CConsoleUtilities::SplitValue(nullptr, "=b", &first, &second));
    EXPECT_EQ("", first);
}

// ================================================================================================
// Long lines
// ================================================================================================

TEST(ConsoleLineTest, ALineOf4094BytesIsWhole) {
    const std::string line(4094, 'a');
    EXPECT_EQ(Unknown(line) + kPrompt + Unknown("x"), Enter(line + "\nx\n"));
}

TEST(ConsoleLineTest, LongerLinesAreReadInPieces) {
    const std::string piece(4095, 'a');
    EXPECT_EQ(Unknown(piece) + kPrompt, Enter(piece + "\n"));
    EXPECT_EQ(Unknown(piece) + kPrompt + Unknown(std::string(905, 'a')) + kPrompt + Unknown("x"),
              Enter(std::string(5000, 'a') + "\nx\n"));
}

TEST(ConsoleLineTest, AHundredThousandBytesDoNotOverrun) {
    std::string expected;
    for (int i = 0; i < 24; ++i) {
        expected += Unknown(std::string(4095, 'a')) + kPrompt;
    }
    expected += Unknown(std::string(100'000 - 24 * 4095, 'a')) + kPrompt + "\n" + Status("Stopped");
    EXPECT_EQ(expected, Enter(std::string(100'000, 'a') + "\nstatus\n"));
}

TEST(ConsoleLineTest, ALongArgumentDoesNotOverrun) {
    const std::string big(4000, 'a');
    const std::string fail = "Fail to start NFS. Reason=In-valid input value: " + big + "\n";
    EXPECT_EQ(fail, Debug("start " + big + "\n"));
    EXPECT_EQ("Fail to add VSphere info to NFS. Reason=In-valid input value: " + big + "\n",
              Debug("addvsphereinfo " + big + "\n"));
    // A path and an export name that fill the line; the reasons and log lines that hold them.
    const std::string output =
        Debug("log 1023\nmount /" + big + "=vm01\nmount /" + big + "=vm02\nmount /x=" + big +
                  "\nmount /y=" + big + "\numount /" + big + "\nprint " + big + "\nlog 0\nhelp\n",
              {"-log", "1"});
    EXPECT_TRUE(output.ends_with(kHelp + kDebugHelp + kHelpEnd));
    EXPECT_NE(std::string::npos, output.find("Export name \"aaaa"));
    EXPECT_NE(std::string::npos, output.find("[info] (cRun) aaaa"));
}

TEST(ConsoleLineTest, ANulEndsALine) {
    EXPECT_EQ(Unknown("a") + kPrompt + kPrompt + Unknown("x"),
              Enter(std::string("a\0b\n\0c\nx\n", 9)));
}

// ================================================================================================
// Standard input
// ================================================================================================

namespace {

// Waits until the main thread has slept about a second more and returns the processor time that it
// took: none to speak of, unless the program goes round and round.
long TicksOfASecond(pid_t pid) {
    const long ticks = CpuTicks(pid);
    const long sleeps = SleepCount(pid);
    EXPECT_TRUE(WaitFor([&] { return SleepCount(pid) >= sleeps + 10; }))
        << "the command loop does not sleep";
    return CpuTicks(pid) - ticks;
}

}  // namespace

TEST(ConsoleInputTest, TheEndOfTheInputNeitherEndsTheServerNorMakesItSpin) {
    const ScopedTempDir folder;
    Server server({.exports = {{"vm01", folder.Path()}}});
    server.Program().CloseStdin();
    EXPECT_LE(TicksOfASecond(server.Pid()), 20);
    EXPECT_EQ(support::MNT3_OK, MountClient().Mnt("vm01").status);
    server.Stop(Server::StopBy::Terminate);
}

TEST(ConsoleInputTest, AnIdleConsoleSleeps) {
    Server server;
    EXPECT_LE(TicksOfASecond(server.Pid()), 20);
}

TEST(ConsoleInputTest, AHalfTypedLineWaitsWithoutSpinning) {
    Server server;
    ASSERT_TRUE(server.Program().Send("sta"));
    EXPECT_LE(TicksOfASecond(server.Pid()), 20);
    const std::size_t from = server.Program().OutputSize();
    ASSERT_TRUE(server.Program().Send("tus\n"));
    EXPECT_TRUE(
        server.Program().WaitForOutput("\n" + Status("Started") + kPrompt, kPatience, from));
}

TEST(ConsoleInputTest, ALastLineNeedsNoNewline) {
    const RunResult result = RunConsole({"-md", "int"}, "help\nquit");
    EXPECT_EQ(ExitStatus::Code(0), result.status);
    EXPECT_EQ(kOpening + kHelp + kHelpEnd + kPrompt + "\nExit\n", result.output);
}

TEST(ConsoleInputTest, TheServerRunsWithoutAnyInput) {
    for (const char* input : {"<&-", "</dev/null", "</"}) {
        SCOPED_TRACE(input);
        Process program({"sh", "-c", "exec \"$0\" -md int " + std::string(input), ServerProgram()});
        ASSERT_TRUE(program.WaitForOutput(kPrompt));
        EXPECT_LE(TicksOfASecond(program.Pid()), 20);
        program.Signal(SIGTERM);
        EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
        EXPECT_EQ(kOpening + "\nExit by request\n", program.Output());
    }
}

TEST(ConsoleInputTest, CommandsComeFromAFileToo) {
    const ScopedTempDir folder;
    WriteFile(folder / "commands", "debug\nprint x\nquit\n");
    Process program(
        {"sh", "-c", "exec \"$0\" -md int <\"$1\"", ServerProgram(), folder / "commands"});
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_EQ(kOpening + kPrompt + "[info] (cRun) x\n" + kPrompt + "\nExit\n", program.Output());
}

TEST(ConsoleInputTest, TheLastLineOfAFileNeedsNoNewline) {
    const ScopedTempDir folder;
    WriteFile(folder / "commands", "help\nquit");
    Process program(
        {"sh", "-c", "exec \"$0\" -md int <\"$1\"", ServerProgram(), folder / "commands"});
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_EQ(kOpening + kHelp + kHelpEnd + kPrompt + "\nExit\n", program.Output());
}

TEST(ConsoleInputTest, AFifoIsReadEachTimeThatItIsWritten) {
    const ScopedTempDir folder;
    const std::string fifo = folder / "ctl";
    ASSERT_EQ(0, mkfifo(fifo.c_str(), 0600));
    Process program({"sh", "-c", "exec \"$0\" -md int <\"$1\"", ServerProgram(), fifo});
    for (const auto& [text, answer] : std::vector<std::pair<std::string, std::string>>{
             {"help\n", kHelp + kHelpEnd},
             {"", ""},
             {"status\n", "\n" + Status("Stopped")},
             {"\nhelp", kPrompt + kHelp + kHelpEnd},  // who closes it has ended the line
             {"debug\nprint x\n", kPrompt + "[info] (cRun) x\n"}}) {
        const std::size_t from = program.OutputSize();
        std::ofstream(fifo) << text;  // opened, written and closed, as `echo >ctl` does
        EXPECT_TRUE(program.WaitForOutput(answer.empty() ? "" : answer + kPrompt, kPatience, from))
            << program.Output(from);
        EXPECT_LE(TicksOfASecond(program.Pid()), 20) << "with no writer";
    }
    std::ofstream(fifo) << "quit\n";
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
}

TEST(ConsoleInputTest, AFileIsReadOnAsItGrows) {
    const ScopedTempDir folder;
    const std::string path = folder / "commands";
    const auto append = [&](const std::string& text) {
        std::ofstream(path, std::ios::app) << text;
    };
    WriteFile(path, "debug\n");
    Process program({"sh", "-c", "exec \"$0\" -md int <\"$1\"", ServerProgram(), path});
    ASSERT_TRUE(program.WaitForOutput(kOpening + kPrompt));
    EXPECT_LE(TicksOfASecond(program.Pid()), 20);
    for (const std::string text : {"one", "two"}) {
        const std::size_t from = program.OutputSize();
        append("print " + text + "\n");
        EXPECT_TRUE(
            program.WaitForOutput("[info] (cRun) " + text + "\n" + kPrompt, kPatience, from));
    }
    // A writer's buffer may end anywhere in a line.  The program looks ten times for the rest; a
    // test that was held up for longer tries again.
    for (int i = 0;; ++i) {
        ASSERT_LT(i, 20) << program.Output();
        const std::size_t from = program.OutputSize();
        const long sleeps = SleepCount(program.Pid());
        append("pri");
        ASSERT_TRUE(WaitFor([&] { return SleepCount(program.Pid()) >= sleeps + 3; }));
        append("nt three\n");
        ASSERT_TRUE(program.WaitForOutput(kPrompt, kPatience, from));
        if (program.Output(from) == "[info] (cRun) three\n" + kPrompt) {
            break;
        }
    }
    append("quit\n");
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
}

TEST(ConsoleInputTest, OutputAppearsAtOnceInAPipe) {
    Process program(CommandLine({"-md", "int"}));
    // Neither a full buffer nor the program's end brings these out.
    EXPECT_TRUE(program.WaitForOutput(kOpening));
    program.Send("debug\nprint one\n");
    EXPECT_TRUE(program.WaitForOutput(kOpening + kPrompt + "[info] (cRun) one\n" + kPrompt));
    program.Send("quit\n");
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
}

TEST(ConsoleInputTest, TheServerOutlivesTheReaderOfItsOutput) {
    const ScopedTempDir folder;
    const std::string pidFile = folder / "pid";
    // The reader ends after the first line.
    Process pipeline({"sh", "-c",
                      "{ \"$0\" -md int -pidfile \"$1\" </dev/null; echo $? >\"$2\"; } | head -n 1",
                      ServerProgram(), pidFile, folder / "code"});
    ASSERT_TRUE(pipeline.WaitForOutput(kDashes));
    ASSERT_TRUE(WaitFor([&] { return FileExists(pidFile) && !ReadFile(pidFile).empty(); }));
    const auto pid = static_cast<pid_t>(std::stol(ReadFile(pidFile)));
    EXPECT_LE(TicksOfASecond(pid), 20);
    ASSERT_EQ(0, kill(pid, SIGTERM));
    EXPECT_EQ(ExitStatus::Code(0), pipeline.WaitExit());
    EXPECT_EQ("0\n", ReadFile(folder / "code"));
    EXPECT_FALSE(FileExists(pidFile));
}

// ================================================================================================
// A terminal
// ================================================================================================

TEST(ConsoleTerminalTest, TypedCommandsWork) {
    TerminalRun run({"-md", "int"});
    ASSERT_TRUE(run.WaitForOutput(kOpening));
    std::size_t from = run.Output().size();
    run.Type("status\r");
    EXPECT_TRUE(run.WaitForOutput("status\n\n" + Status("Stopped") + kPrompt, from));
    from = run.Output().size();
    run.Type("\r");
    EXPECT_TRUE(run.WaitForOutput(kPrompt, from));
    run.Type("quit\r");
    EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
    EXPECT_TRUE(run.Output().ends_with("quit\n\nExit\n")) << run.Output();
}

TEST(ConsoleTerminalTest, KeysMayComeOneByOne) {
    TerminalRun run({"-md", "int"});
    ASSERT_TRUE(run.WaitForOutput(kPrompt));
    for (const char key : std::string("help\r")) {
        // Each key waits for a whole round of the loop, so that none comes in one read with others.
        const long sleeps = SleepCount(run.Pid());
        run.Type(std::string(1, key));
        ASSERT_TRUE(WaitFor([&] { return SleepCount(run.Pid()) >= sleeps + 3; }));
    }
    EXPECT_TRUE(run.WaitForOutput(kHelp + kHelpEnd));
    run.Type("quit\r");
    EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
}

TEST(ConsoleTerminalTest, TheSettingsAreRestoredAfterEachLookAtTheKeyboard) {
    TerminalRun run({"-md", "int"});
    ASSERT_TRUE(run.WaitForOutput(kPrompt));
    // The program changes them ten times a second and only for an instant each time.
    const long sleeps = SleepCount(run.Pid());
    int looks = 0;
    int changed = 0;
    ASSERT_TRUE(WaitFor([&] {
        ++looks;
        changed += run.HasFirstSettings() ? 0 : 1;
        return SleepCount(run.Pid()) >= sleeps + 10;
    }));
    EXPECT_LT(changed, looks / 2 + 1) << "of " << looks;
    run.Type("quit\r");
    EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
    EXPECT_TRUE(run.HasFirstSettings());
}

TEST(ConsoleTerminalTest, TheSettingsAreRestoredAtTheEndOfEveryKind) {
    for (const int number : {0, SIGTERM, SIGINT}) {
        TerminalRun run({"-md", "int"});
        ASSERT_TRUE(run.WaitForOutput(kPrompt));
        if (number == 0) {
            run.Type("quit\r");
        } else {
            run.Signal(number);
        }
        EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
        EXPECT_TRUE(run.HasFirstSettings());
    }
}

TEST(ConsoleTerminalTest, TheInterruptKeyEndsTheProgramInOrder) {
    const ScopedTempDir folder;
    TerminalRun run({"-md", "int", "-pidfile", folder / "pid"});
    ASSERT_TRUE(run.WaitForOutput(kPrompt));
    run.Type("\x03");
    EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
    EXPECT_TRUE(run.Output().ends_with("\nExit by request\n")) << run.Output();
    EXPECT_FALSE(FileExists(folder / "pid"));
}

TEST(ConsoleTerminalTest, AHalfTypedLineDoesNotHoldUpTheEnd) {
    TerminalRun run({"-md", "int"});
    ASSERT_TRUE(run.WaitForOutput(kPrompt));
    run.Type("sta");
    ASSERT_TRUE(run.WaitForOutput("Command: sta"));
    // Now the program holds the beginning of a line.
    const long sleeps = SleepCount(run.Pid());
    ASSERT_TRUE(WaitFor([&] { return SleepCount(run.Pid()) >= sleeps + 4; }));
    run.Signal(SIGTERM);
    EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
    EXPECT_TRUE(run.Output().ends_with("\nExit by request\n")) << run.Output();
}

TEST(ConsoleTerminalTest, TheEndOfFileKeyIsNotTheEndOfTheTerminal) {
    TerminalRun run({"-md", "int"});
    ASSERT_TRUE(run.WaitForOutput(kPrompt));
    // On an empty line, several times, and twice behind the beginning of a line.
    for (const auto& [keys, rest, answer] :
         std::vector<std::tuple<std::string, std::string, std::string>>{
             {"\x04", "help\r", kHelp + kHelpEnd},
             {"\x04\x04\x04", "help\r", kHelp + kHelpEnd},
             {"sta\x04\x04", "\r", Unknown("sta")},
             {"", "status\r", "\n" + Status("Stopped")}}) {
        const std::size_t from = run.Output().size();
        run.Type(keys);
        const long sleeps = SleepCount(run.Pid());
        ASSERT_TRUE(WaitFor([&] { return SleepCount(run.Pid()) >= sleeps + 4; }));
        run.Type(rest);
        EXPECT_TRUE(run.WaitForOutput("\n" + answer + kPrompt, from)) << run.Output();
    }
    EXPECT_LE(TicksOfASecond(run.Pid()), 20);
    run.Type("quit\r");
    EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
}

TEST(ConsoleTerminalTest, ATerminalThatDoesNotControlTheProgramIsReadAsAnyOther) {
    TerminalRun run({"-md", "int"}, TerminalRun::Terminal::NotControlling);
    ASSERT_TRUE(run.WaitForOutput(kOpening));
    std::size_t from = run.Output().size();
    run.Type("status\r");
    EXPECT_TRUE(run.WaitForOutput("status\n\n" + Status("Stopped") + kPrompt, from));
    from = run.Output().size();
    run.Type("sta");
    const long sleeps = SleepCount(run.Pid());
    ASSERT_TRUE(WaitFor([&] { return SleepCount(run.Pid()) >= sleeps + 4; }));
    run.Type("tus\r");
    EXPECT_TRUE(run.WaitForOutput("\n" + Status("Stopped") + kPrompt, from));
    EXPECT_LE(TicksOfASecond(run.Pid()), 20);
    run.Type("quit\r");
    EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
    EXPECT_TRUE(run.HasFirstSettings());
}

TEST(ConsoleTerminalTest, TheLossOfATerminalThatDoesNotControlTheProgramEndsNothing) {
    for (const std::string half : {"", "quit"}) {
        const ScopedTempDir folder;
        const std::string log = folder / "log";
        TerminalRun run({"-md", "int", "-logfile", log}, TerminalRun::Terminal::NotControlling);
        ASSERT_TRUE(run.WaitForOutput(kPrompt));
        run.Type(half);
        long sleeps = SleepCount(run.Pid());
        ASSERT_TRUE(WaitFor([&] { return SleepCount(run.Pid()) >= sleeps + 4; }));
        run.HangUp();
        EXPECT_LE(TicksOfASecond(run.Pid()), 20) << "nor does it make it spin";
        sleeps = SleepCount(run.Pid());
        EXPECT_TRUE(WaitFor([&] { return SleepCount(run.Pid()) >= sleeps + 10; }))
            << "the beginning of a line is no command";
        run.Signal(SIGTERM);
        EXPECT_EQ(ExitStatus::Code(0), run.WaitExit());
    }
}

// ================================================================================================
// The end
// ================================================================================================

class ConsoleSignalTest : public testing::TestWithParam<int> {};

INSTANTIATE_TEST_SUITE_P(Signals, ConsoleSignalTest, testing::Values(SIGINT, SIGTERM, SIGHUP),
                         [](const auto& param) {
                             return param.param == SIGINT    ? "Interrupt"
                                    : param.param == SIGTERM ? "Terminate"
                                                             : "HangUp";
                         });

TEST_P(ConsoleSignalTest, EndsTheServerInOrder) {
    const ScopedTempDir folder;
    const std::string pidFile = folder / "pid";
    Process program(CommandLine({"-md", "int", "-pidfile", pidFile}));
    program.Send("debug\nstart\n");
    ASSERT_TRUE(program.WaitForOutput("Start NFS success\n" + kPrompt));
    EXPECT_TRUE(FileExists(pidFile));
    EXPECT_EQ(6u, TakenPorts(kDefaultPorts).size());
    {
        // One client is served and stays connected, one keeps its half of a call to itself.
        Nfs3Client nfs;
        EXPECT_EQ(kSuccess, nfs.Null().acceptStat);
        RpcClient half(Transport::Tcp, 1058);
        half.SendRaw({0x80, 0, 0});
        program.Signal(GetParam());
        EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
        EXPECT_TRUE(nfs.Rpc().PeerClosed());
    }
    EXPECT_EQ(kOpening + kPrompt + "Start NFS success\n" + kPrompt + "\nExit by request\n",
              program.Output());
    EXPECT_FALSE(FileExists(pidFile));
}

TEST_P(ConsoleSignalTest, ReleasesThePorts) {
    Server server;
    EXPECT_EQ(6u, TakenPorts(kDefaultPorts).size());
    server.Program().Signal(GetParam());
    EXPECT_EQ(ExitStatus::Code(0), server.WaitForDeath());
    EXPECT_TRUE(TakenPorts(kDefaultPorts).empty());
}

TEST_P(ConsoleSignalTest, EndsAStoppedServerToo) {
    Process program(CommandLine({"-md", "int"}));
    ASSERT_TRUE(program.WaitForOutput(kPrompt));
    program.Signal(GetParam());
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_EQ(kOpening + "\nExit by request\n", program.Output());
}

TEST_P(ConsoleSignalTest, DoesNotWaitForTheRestOfALine) {
    Process program(CommandLine({"-md", "int"}));
    ASSERT_TRUE(program.WaitForOutput(kPrompt));
    program.Send("quit");
    const long sleeps = SleepCount(program.Pid());
    ASSERT_TRUE(WaitFor([&] { return SleepCount(program.Pid()) >= sleeps + 4; }));
    program.Signal(GetParam());
    EXPECT_EQ(ExitStatus::Code(0), program.WaitExit());
    EXPECT_EQ(kOpening + "\nExit by request\n", program.Output());
}

TEST_P(ConsoleSignalTest, MayComeTwice) {
    const ScopedTempDir folder;
    Server server({.arguments = {"-pidfile", folder / "pid"}});
    server.Program().Signal(GetParam());
    server.Program().Signal(GetParam());
    const ExitStatus status = server.WaitForDeath();
    if (GetParam() == SIGHUP || status.exited) {
        EXPECT_EQ(ExitStatus::Code(0), status);
        EXPECT_TRUE(server.Output().ends_with(kPrompt + "\nExit by request\n")) << server.Output();
    } else {
        EXPECT_EQ(ExitStatus::Signal(GetParam()), status);  // it came before the end
    }
    EXPECT_FALSE(FileExists(folder / "pid"));
}

TEST(ConsoleTest, QuitStopsTheServices) {
    Server server;
    EXPECT_EQ(6u, TakenPorts(kDefaultPorts).size());
    server.Stop();
    EXPECT_TRUE(server.Output().ends_with(kPrompt + "\nExit\n")) << server.Output();
    EXPECT_TRUE(TakenPorts(kDefaultPorts).empty());
}

// The loop in this process, with an input of ours.
class ConsoleLoopTest : public testing::Test {
protected:
    ConsoleLoopTest() {
        m_saved = dup(STDIN_FILENO);
        int fds[2];
        EXPECT_EQ(0, pipe2(fds, O_CLOEXEC));
        dup2(fds[0], STDIN_FILENO);
        close(fds[0]);
        m_input = fds[1];
    }
    ~ConsoleLoopTest() override {
        close(m_input);
        if (m_saved >= 0) {
            dup2(m_saved, STDIN_FILENO);
            close(m_saved);
        } else {
            close(STDIN_FILENO);
        }
    }
    // What the loop prints until it ends.
    static std::string Loop(CNfsMain* nfsMain) {
        CConsoleUtilities utilities;
        testing::internal::CaptureStdout();
        utilities.ProcessCommand(nfsMain, nullptr);
        return testing::internal::GetCapturedStdout();
    }
    void Type(const std::string& text) const {
        ASSERT_EQ(static_cast<ssize_t>(text.size()), write(m_input, text.data(), text.size()));
    }

private:
    int m_saved;
    int m_input;
};

TEST_F(ConsoleLoopTest, EndsWhenAnAutoShutdownIsRequested) {
    CNfsMain nfsMain("x", 0);
    nfsMain.EnableAutoShutdown(true);
    ASSERT_TRUE(nfsMain.RequestAutoShutdown());
    EXPECT_EQ(kHint + kPrompt + "\nExit by request\n", Loop(&nfsMain));
}

TEST_F(ConsoleLoopTest, LooksForARequestBeforeItLooksForACommand) {
    CNfsMain nfsMain("x", 0);
    nfsMain.EnableAutoShutdown(true);
    ASSERT_TRUE(nfsMain.RequestAutoShutdown());
    Type("help\n");
    EXPECT_EQ(kHint + kPrompt + "\nExit by request\n", Loop(&nfsMain));
}

TEST_F(ConsoleLoopTest, GoesOnWhenTheRequestIsNotHonoured) {
    CNfsMain nfsMain("x", 0);
    ASSERT_FALSE(nfsMain.RequestAutoShutdown());
    Type("quit\n");
    EXPECT_EQ(kHint + kPrompt + "\nExit\n", Loop(&nfsMain));
}

TEST_F(ConsoleLoopTest, FindsTheKeyAgainThatItHasSeen) {
    CConsoleUtilities utilities;
    EXPECT_FALSE(utilities.IsKeyboardHit());
    Type("q");
    EXPECT_TRUE(utilities.IsKeyboardHit());
    EXPECT_TRUE(utilities.IsKeyboardHit());
    Type("uit\n");
    CNfsMain nfsMain("x", 0);
    testing::internal::CaptureStdout();
    utilities.ProcessCommand(&nfsMain, nullptr);
    EXPECT_EQ(kHint + kPrompt + "\nExit\n", testing::internal::GetCapturedStdout());
}

TEST_F(ConsoleLoopTest, StatusListsSessions) {
    CNfsMain nfsMain("x", 0);
    nfsMain.AddSessionInfo("s2", "/b");
    nfsMain.AddSessionInfo("s1", "/a");
    testing::internal::CaptureStdout();
    CConsoleUtilities::PrintStatus(&nfsMain);
    EXPECT_EQ("Server Status: Stopped\n" + kDashes + "Number of Mount Point: 0\n" + kDashes +
                  "Number of Session: 2\n session1 - s1 : /a\n session2 - s2 : /b\n" + kDashes +
                  "Number of mounted NFS datastore: 0\n" + kDashes,
              testing::internal::GetCapturedStdout());
}
