// Datastores as they are told to a running program, at its console and by controllers, and their
// helper as the program runs it: a script beside a copy of the program.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "ConsoleFixture.h"
#include "DatastoreFixture.h"
#include "NfsIpcClientMain.h"
#include "RuntimeParam.h"
#include "support/Nfs3Client.h"

namespace {

using namespace console;
using datastore::RecordingHelper;
using datastore::Unmount;
using datastore::Words;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr int kLogAll = 1023;

// A folder with a copy of the program, which all tests of this process start from now on.
class ProgramCopy {
public:
    explicit ProgramCopy(const std::string& name = "bin") : m_original(ServerProgram()) {
        std::filesystem::create_directory(Folder(name));
        m_path = Folder(name) + "/server";
        std::filesystem::copy_file(m_original, m_path);
        setenv("VELOCAST_NFS", m_path.c_str(), 1);
    }
    ~ProgramCopy() { setenv("VELOCAST_NFS", m_original.c_str(), 1); }
    ProgramCopy(const ProgramCopy&) = delete;
    ProgramCopy& operator=(const ProgramCopy&) = delete;

    std::string Path() const { return m_path.substr(0, m_path.rfind('/')); }

private:
    std::string Folder(const std::string& name) const { return m_folder / name; }

    ScopedTempDir m_folder;
    std::string m_original;
    std::string m_path;
};

const std::string kStart = "Start cleanup mounted NFS datastores";
std::string UnmountLine(const std::string& moid, const std::string& host, const std::string& port) {
    return "Unmount NFS datastore with MOID \"" + moid + "\" on host \"" + host + ":" + port + "\"";
}
std::string Printed(const std::string& line, const std::string& kind = "info") {
    return "[" + kind + "] (cRun) " + line + "\n";
}

class DatastoresTest : public ::testing::Test {
protected:
    // Three datastores, not in order.
    static void AddThree(Server& server) {
        server.Console("debug");
        server.Console("addvsphereinfo ds-2 host2 443 root secret2");
        server.Console("addvsphereinfo ds-10 host10 8443 admin secret10");
        server.Console("addvsphereinfo DS-9 host9 80 user secret9 more words");
    }
    static std::vector<Words> UnmountThree() {
        return {Unmount("DS-9", "host9", "80", "user", "secret9"),
                Unmount("ds-10", "host10", "8443", "admin", "secret10"),
                Unmount("ds-2", "host2", "443", "root", "secret2")};
    }
    static std::string PrintedThree() {
        return Printed(kStart) + Printed(UnmountLine("DS-9", "host9", "80")) +
               Printed(UnmountLine("ds-10", "host10", "8443")) +
               Printed(UnmountLine("ds-2", "host2", "443"));
    }
    static std::string ListThree() {
        return " NFS datastore1 - DS-9 (host9:80)\n"
               " NFS datastore2 - ds-10 (host10:8443)\n"
               " NFS datastore3 - ds-2 (host2:443)\n";
    }

    ProgramCopy m_program;
    RecordingHelper m_helper{m_program.Path()};
};

// ------------------------------------------------------------------------------------------------
// When the helper runs
// ------------------------------------------------------------------------------------------------

TEST_F(DatastoresTest, AreUnmountedAtQuit) {
    for (const bool running : {true, false}) {
        const std::size_t before = m_helper.Calls().size();
        Server server({.start = running});
        AddThree(server);
        EXPECT_EQ("\n" + Status(running ? "Started" : "Stopped", 0, "", 3, ListThree()),
                  server.Console("status"));
        EXPECT_EQ(before, m_helper.Calls().size());
        const std::size_t from = server.Program().OutputSize();
        server.Stop();
        EXPECT_EQ("\nExit\n" + PrintedThree(), server.Output(from));
        std::vector<Words> calls = m_helper.Calls();
        calls.erase(calls.begin(), calls.begin() + static_cast<std::ptrdiff_t>(before));
        EXPECT_EQ(UnmountThree(), calls);
    }
}

TEST_F(DatastoresTest, AreUnmountedWhenAControllerShutsTheServerDown) {
    Server server({.mode = "svr"});
    AddThree(server);
    const std::size_t from = server.Program().OutputSize();
    EXPECT_EQ(ExitStatus::Code(0), RunConsole({"-shutdown"}).status);
    EXPECT_EQ(ExitStatus::Code(0), server.WaitForDeath());
    EXPECT_EQ("\nExit by request\n" + PrintedThree(), server.Output(from));
    EXPECT_EQ(UnmountThree(), m_helper.Calls());
}

TEST_F(DatastoresTest, AreUnmountedWhenASignalEndsTheServer) {
    Server server;
    AddThree(server);
    server.Stop(Server::StopBy::Terminate);
    EXPECT_EQ(UnmountThree(), m_helper.Calls());
}

TEST_F(DatastoresTest, AreUnmountedWhenAStartFails) {
    const PortHolder busy(Transport::Tcp, 2049);
    Server server({.start = false});
    AddThree(server);
    EXPECT_EQ(PrintedThree() + "Fail to start NFS. NFS daemon failed to open port 2049\n",
              server.Console("start"));
    EXPECT_EQ(UnmountThree(), m_helper.Calls());
    // They are forgotten: neither another failure nor the end unmounts them again.
    EXPECT_EQ("\n" + Status("Stopped"), server.Console("status"));
    EXPECT_EQ("Fail to start NFS. NFS daemon failed to open port 2049\n", server.Console("start"));
    const std::size_t from = server.Program().OutputSize();
    server.Stop();
    EXPECT_EQ("\nExit\n", server.Output(from));
    EXPECT_EQ(3u, m_helper.Calls().size());
}

TEST_F(DatastoresTest, AreUnmountedBeforeTheServiceStops) {
    const ScopedTempDir folder;
    // The listening sockets of the machine while the helper runs.
    const RecordingHelper helper(m_program.Path(), "cat /proc/net/tcp >'" + (folder / "tcp") + "'");
    Server server({.logControl = kLogAll,
                   .arguments = {"-logfile", folder / "log"},
                   .exports = {{"vm01", folder.Path()}}});
    server.Console("addvsphereinfo ds-1 host1 443 root secret");
    server.Stop();
    EXPECT_THAT(ReadFile(folder / "tcp"), HasSubstr(" 00000000:0801 00000000:0000 0A "));
    const std::vector<std::string> log = LogLines(folder / "log");
    const auto stop = std::find(log.begin(), log.end(), "[info] Stop NFS");
    ASSERT_LE(3, log.end() - stop);
    EXPECT_EQ("[info] " + kStart, stop[1]);
    EXPECT_EQ("[info] " + UnmountLine("ds-1", "host1", "443"), stop[2]);
}

TEST_F(DatastoresTest, NothingRunsOrIsLoggedWithoutAny) {
    Server server({.start = false});
    server.Console("debug");
    server.Console("addvsphereinfo ds-1 host1 443 root secret");
    server.Console("removevsphereinfo ds-1");
    const std::size_t from = server.Program().OutputSize();
    server.Stop();
    EXPECT_EQ("\nExit\n", server.Output(from));
    EXPECT_THAT(m_helper.Calls(), IsEmpty());
}

TEST_F(DatastoresTest, EndOfAControllerUnmountsNothing) {
    Server server({.mode = "svr"});
    AddThree(server);
    EXPECT_EQ(ExitStatus::Code(0), RunConsole({"-md", "cli"}, "quit\n").status);
    EXPECT_EQ(ExitStatus::Code(0), RunConsole({"-query"}).status);
    EXPECT_THAT(m_helper.Calls(), IsEmpty());
    server.Stop();
    EXPECT_EQ(3u, m_helper.Calls().size());
}

// ------------------------------------------------------------------------------------------------
// How it runs
// ------------------------------------------------------------------------------------------------

TEST(DatastoreHelperTest, ShellReplacesVariablesInTheFoldersName) {
    const ProgramCopy program("of $HOME");
    const RecordingHelper helper(program.Path());
    Server server({.start = false});
    server.Console("debug");
    server.Console("addvsphereinfo ds-1 host1 443 root secret");
    server.Stop();
    // The quotes are double ones: what the shell replaces inside them it replaces here too.
    EXPECT_THAT(helper.Calls(), IsEmpty());
    EXPECT_THAT(server.Output(), HasSubstr("not found"));
}

TEST(DatastoreHelperTest, FolderWithBlanksIsOneWord) {
    const ProgramCopy program("two  words");
    const RecordingHelper helper(program.Path());
    Server server({.start = false});
    server.Console("debug");
    server.Console("addvsphereinfo ds-1 host1 443 root secret");
    server.Stop();
    EXPECT_THAT(helper.Calls(), ElementsAre(Unmount("ds-1", "host1", "443", "root", "secret")));
}

TEST_F(DatastoresTest, ShellSeesThePasswordAsItIs) {
    Server server({.start = false});
    server.Console("debug");
    server.Console("addvsphereinfo ds-1 host1 443 root $((6*7))'a;b'");
    server.Stop();
    EXPECT_THAT(m_helper.Calls(), ElementsAre(Unmount("ds-1", "host1", "443", "root", "42a;b")));
}

TEST_F(DatastoresTest, MissingHelperStopsNothing) {
    std::filesystem::remove(m_program.Path() + "/dsPurgeToolFbdX86");
    Server server;
    AddThree(server);
    const std::size_t from = server.Program().OutputSize();
    server.Stop();
    // The shell's own words are all that tells of it.
    const std::string output = server.Output(from);
    EXPECT_THAT(output, HasSubstr(m_program.Path() + "/dsPurgeToolFbdX86: not found"));
    EXPECT_THAT(output, HasSubstr(Printed(UnmountLine("ds-2", "host2", "443"))));
    EXPECT_THAT(output, Not(HasSubstr("[erro]")));
}

// The program ignores some signals; the helper does not.
TEST_F(DatastoresTest, HelperStartsWithDefaultSignals) {
    const ScopedTempDir folder;
    const RecordingHelper helper(m_program.Path(),
                                 "cat /proc/self/status >'" + (folder / "status") + "'");
    Server server({.start = false});
    server.Console("debug");
    server.Console("addvsphereinfo ds-1 host1 443 root secret");
    server.Stop();
    const std::string status = ReadFile(folder / "status");
    EXPECT_EQ(0u, datastore::SignalSet(status, "SigIgn"));
    EXPECT_EQ(0u, datastore::SignalSet(status, "SigBlk"));
}

// A helper that stays behind must not keep the ports or the files of exports.
TEST_F(DatastoresTest, HelperInheritsNoSocketsOrFiles) {
    const ScopedTempDir folder;
    const RecordingHelper helper(m_program.Path(), "ls -l /proc/$$/fd >'" + (folder / "fds") + "'");
    WriteFile(folder / "file", "content");
    Server server({.arguments = {"-logfile", folder / "log"},
                   .mode = "svr",
                   .exports = {{"vm01", folder.Path()}}});
    const MountResult mounted = MountClient().Mnt("vm01");
    ASSERT_EQ(support::MNT3_OK, mounted.status);
    Nfs3Client client;
    ASSERT_EQ(support::MNT3_OK,
              client.Read(client.Lookup(mounted.handle, "file").handle, 0, 7).status);
    server.Console("addvsphereinfo ds-1 host1 443 root secret");
    server.Stop();
    const std::string descriptors = ReadFile(folder / "fds");
    EXPECT_THAT(descriptors, HasSubstr(" 0 -> "));
    EXPECT_THAT(descriptors, Not(HasSubstr("socket:"))) << descriptors;
    EXPECT_THAT(descriptors, Not(HasSubstr(folder / "file")));
    EXPECT_THAT(descriptors, Not(HasSubstr(folder / "log")));
}

// ------------------------------------------------------------------------------------------------
// From another process
// ------------------------------------------------------------------------------------------------

TEST_F(DatastoresTest, ControllerAddsListsAndRemovesThem) {
    Server server({.mode = "svr"});
    Server controller({.arguments = {"-id", "controller"}, .mode = "cli", .start = false});
    AddThree(controller);
    const std::size_t from = server.Program().OutputSize();
    EXPECT_EQ("\n" + Status("Started", 0, "", 3, ListThree()), controller.Console("status"));
    // Its own log has the lines as well.
    EXPECT_TRUE(server.Program().WaitForOutput("ds-2 (host2:443)\n", kPatience, from));
    EXPECT_EQ(ListThree(), server.Output(from));
    EXPECT_EQ("\n" + Status("Started", 0, "", 3, ListThree()), server.Console("status"));
    EXPECT_EQ("", controller.Console("removevsphereinfo ds-10"));
    EXPECT_EQ("", controller.Console("removevsphereinfo nobody"));
    controller.Stop();
    EXPECT_THAT(m_helper.Calls(), IsEmpty());
    server.Stop();
    EXPECT_THAT(m_helper.Calls(), ElementsAre(Unmount("DS-9", "host9", "80", "user", "secret9"),
                                              Unmount("ds-2", "host2", "443", "root", "secret2")));
}

TEST_F(DatastoresTest, ControllersFailedStartUnmountsThem) {
    const PortHolder busy(Transport::Udp, 1058);
    Server server({.mode = "svr", .start = false});
    Server controller({.arguments = {"-id", "controller"}, .mode = "cli", .start = false});
    AddThree(controller);
    EXPECT_EQ("Fail to start NFS. Mount daemon failed to open port 1058\n",
              controller.Console("start"));
    EXPECT_EQ(UnmountThree(), m_helper.Calls());
    EXPECT_EQ("\n" + Status("Stopped"), controller.Console("status"));
}

// A console splits at blanks; a controller need not.
TEST_F(DatastoresTest, PasswordWithBlanksAndShellCharactersReachesTheShellUnquoted) {
    const ScopedTempDir folder;
    Server server({.mode = "svr", .start = false});
    CNfsIpcClientMain controller("controller", 0);
    controller.AddVSphereInfo("ds-1", "host1", "443", "root", "two  words");
    controller.AddVSphereInfo("ds-2", "host2", "443", "root",
                              ("x; touch " + (folder / "mark") + ";:").c_str());
    server.Stop();
    EXPECT_THAT(
        m_helper.Calls(),
        ElementsAre(Words({"-host", "host1", "-port", "443", "-user", "root", "-pwd", "two",
                           "words", "-method", "removeDatastore", "-argu", "ds-1"}),
                    Words({"-host", "host2", "-port", "443", "-user", "root", "-pwd", "x"})));
    EXPECT_TRUE(FileExists(folder / "mark"));
}

TEST_F(DatastoresTest, CommandOf1024BytesIsNotRun) {
    const std::size_t fixed = ("\"" + m_program.Path() +
                               "/dsPurgeToolFbdX86\" -host  -port  -user  -pwd  -method "
                               "removeDatastore -argu ds-1")
                                  .size();
    const std::size_t rest = 1023 - fixed;
    const auto value = [](char c, std::size_t size) { return std::string(size, c); };
    Server server({.mode = "svr", .start = false});
    CNfsIpcClientMain controller("controller", 0);
    ASSERT_LT(rest - 750, 255u);
    for (const auto& [moid, more] : {std::pair{"ds-1", 0u}, std::pair{"ds-2", 1u}}) {
        controller.AddVSphereInfo(moid, value('h', 250).c_str(), value('p', 250).c_str(),
                                  value('u', 250).c_str(), value('w', rest - 750 + more).c_str());
    }
    const std::size_t from = server.Program().OutputSize();
    server.Stop();
    EXPECT_THAT(m_helper.Calls(), ElementsAre(Unmount("ds-1", value('h', 250), value('p', 250),
                                                      value('u', 250), value('w', rest - 750))));
    EXPECT_EQ("\nExit\n" + Printed(kStart) +
                  Printed(UnmountLine("ds-1", value('h', 250), value('p', 250))) +
                  Printed(UnmountLine("ds-2", value('h', 250), value('p', 250))) +
                  Printed("Fail to unmount NFS datastore with MOID \"ds-2\". Reason=Command is too "
                          "long",
                          "erro"),
              server.Output(from));
}

// One message each, written out byte by byte, and their replies.
TEST_F(DatastoresTest, MessagesAreLaidOutLikeThis) {
    Server server({.mode = "svr", .start = false});
    const auto exchange = [](char type, std::size_t size,
                             const std::vector<std::pair<std::size_t, std::string>>& fields) {
        std::string message(size, '\0');
        message[0] = 2;  // a request
        message[4] = type;
        message.replace(8, 3, "1.2");
        for (const auto& [at, bytes] : fields) {
            message.replace(at, bytes.size(), bytes);
        }
        const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strcpy(address.sun_path, "/tmp/nfs-server");
        EXPECT_EQ(0, connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address));
        EXPECT_EQ(static_cast<ssize_t>(size), send(fd, message.data(), size, MSG_NOSIGNAL));
        char reply[64] = {};
        EXPECT_EQ(20, recv(fd, reply, sizeof reply, 0));
        close(fd);
        return std::string(reply, 20);
    };
    const std::string header("\x01\0\0\0", 4);
    const std::string version("1.2\0\0\0\0\0", 8);
    const std::string yes = header + std::string("\x01\0\0\0", 4) + version + '\x01';
    const auto count = [&](char n) {
        return header + std::string("\x03\0\0\0", 4) + version + n + std::string(3, '\0');
    };

    EXPECT_EQ(count(0), exchange(25, 276, {}));
    EXPECT_EQ(
        yes, exchange(26, 1296,
                      {{16, "ds-1"}, {272, "host1"}, {528, "443"}, {784, "root"}, {1040, "secret"}})
                 .substr(0, 17));
    // Fields that are full, without an end of their own.
    EXPECT_EQ(yes, exchange(26, 1296,
                            {{16, std::string(256, 'm')},
                             {272, std::string(256, 'h')},
                             {528, "1"},
                             {784, "u"},
                             {1040, "w"}})
                       .substr(0, 17));
    const std::size_t from = server.Program().OutputSize();
    EXPECT_EQ(count(2), exchange(25, 276, {{272, "\x01"}}));
    ASSERT_TRUE(server.Program().WaitForOutput("m (", kPatience, from));
    const std::string listed = server.Output(from);
    EXPECT_TRUE(listed.starts_with(" NFS datastore1 - ds-1 (host1:443)\n NFS datastore2 - mmm"))
        << listed;
    EXPECT_THAT(listed, Not(HasSubstr("mh")));
    EXPECT_EQ(yes, exchange(27, 272, {{16, std::string(256, 'm')}}).substr(0, 17));
    EXPECT_EQ(yes, exchange(27, 272, {{16, "nobody"}}).substr(0, 17));
    EXPECT_EQ(count(1), exchange(25, 276, {}));
    server.Stop();
    EXPECT_THAT(m_helper.Calls(), ElementsAre(Unmount("ds-1", "host1", "443", "root", "secret")));
}

// ------------------------------------------------------------------------------------------------
// The password
// ------------------------------------------------------------------------------------------------

TEST_F(DatastoresTest, PasswordIsNeitherLoggedNorListed) {
    const ScopedTempDir folder;
    for (const bool file : {false, true}) {
        std::vector<std::string> arguments;
        if (file) {
            arguments = {"-logfile", folder / "log"};
        }
        Server server({.logControl = kLogAll, .arguments = arguments, .mode = "svr"});
        Server controller({.logControl = kLogAll,
                           .arguments = {"-id", "controller"},
                           .mode = "cli",
                           .start = false});
        AddThree(controller);
        server.Console("addvsphereinfo ds-11 host11 443 root secret11");
        server.Console("status");
        EXPECT_THAT(controller.Console("status"), HasSubstr(" NFS datastore1 - DS-9 (host9:80)"));
        EXPECT_EQ(ExitStatus::Code(0), RunConsole({"-query", "-log", "1023"}).status);
        controller.Stop();
        server.Stop();
        EXPECT_THAT(server.Output(), Not(HasSubstr("secret")));
        EXPECT_THAT(controller.Output(), Not(HasSubstr("secret")));
    }
    EXPECT_THAT(ReadFile(folder / "log"), HasSubstr(UnmountLine("ds-11", "host11", "443")));
    EXPECT_THAT(ReadFile(folder / "log"), Not(HasSubstr("secret")));
    EXPECT_EQ(8u, m_helper.Calls().size());
}

// Sanitizers keep memory that was given back.
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)

// How often a text stands in the writable memory of a process. Prints where.
std::size_t CountInMemory(pid_t pid, const std::string& text) {
    std::istringstream maps(ReadFile("/proc/" + std::to_string(pid) + "/maps"));
    std::ifstream memory("/proc/" + std::to_string(pid) + "/mem", std::ios::binary);
    std::size_t count = 0;
    for (std::string line; std::getline(maps, line);) {
        unsigned long from = 0;
        unsigned long to = 0;
        char writable = 0;
        if (std::sscanf(line.c_str(), "%lx-%lx %*c%c", &from, &to, &writable) != 3 ||
            writable != 'w') {
            continue;
        }
        std::string content(to - from, '\0');
        memory.clear();
        memory.seekg(static_cast<std::streamoff>(from));
        memory.read(content.data(), static_cast<std::streamsize>(content.size()));
        content.resize(static_cast<std::size_t>(memory.gcount()));
        for (std::size_t at = content.find(text); at != std::string::npos;
             at = content.find(text, at + 1)) {
            std::printf("%s at %lx\n", line.c_str(), from + at);
            ++count;
        }
    }
    return count;
}

TEST_F(DatastoresTest, PasswordIsInTheServersMemoryOnceAndGoneWithItsDatastore) {
    Server server({.logControl = kLogAll, .mode = "svr", .start = false});
    CNfsIpcClientMain controller("controller", 0);
    // A short text lies inside a string object, a longer one in memory of its own.
    for (const std::string& password : {"pw-" + std::to_string(getpid()),
                                        std::to_string(getpid()) + "-a-password-of-many-bytes"}) {
        EXPECT_EQ(0u, CountInMemory(server.Pid(), password));
        controller.AddVSphereInfo("ds-1", "host1", "443", "root", password.c_str());
        EXPECT_EQ(1u, CountInMemory(server.Pid(), password));
        controller.AddVSphereInfo("ds-1", "host1", "443", "root", "another one");
        EXPECT_EQ(0u, CountInMemory(server.Pid(), password));
        controller.AddVSphereInfo("ds-1", "host1", "443", "root", password.c_str());
        controller.RemoveVSphereInfo("ds-1");
        EXPECT_EQ(0u, CountInMemory(server.Pid(), password));

        // A clean-up has put it into a command.
        const PortHolder busy(Transport::Tcp, 2049);
        controller.AddVSphereInfo("ds-1", "host1", "443", "root", password.c_str());
        char reason[STATUS_SIZE] = "";
        EXPECT_FALSE(controller.StartServer(0, 0, 0, 0, false, reason));
        EXPECT_EQ(password, m_helper.Calls().back().at(7));
        EXPECT_EQ(0u, CountInMemory(server.Pid(), password));
    }
}
#endif

}  // namespace
