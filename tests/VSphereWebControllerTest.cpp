// The table of datastores and the runs of the helper that unmounts them, in this process.
// ctest-labels: threaded
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "DatastoreFixture.h"
#include "RecordingUtilities.h"
#include "RuntimeParam.h"
#include "support/Faults.h"
#include "support/Files.h"
#include "VSphereWebController.h"

namespace faults = support::faults;

namespace {

using datastore::RecordingHelper;
using datastore::Unmount;
using datastore::Words;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using ::testing::Not;

constexpr int kLogAll = 1023;

class DatastoreCaseTest : public ::testing::Test {
protected:
    DatastoreCaseTest() {
        faults::SetExecutable(m_folder / "program");
        faults::OnSpawn([this](const char* path, char* const* arguments) {
            EXPECT_STREQ("/bin/sh", path);
            EXPECT_STREQ("-c", arguments[1]);
            EXPECT_EQ(nullptr, arguments[3]);
            {
                const std::lock_guard<std::mutex> lock(m_mutex);
                m_commands.emplace_back(arguments[2]);
            }
            if (m_beforeCommand) {
                m_beforeCommand();
            }
        });
    }

    std::vector<std::string> Commands() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_commands;
    }

    // The command line for the helper of the folder.
    std::string Command(const std::string& rest) const {
        return '"' + (m_folder / "dsPurgeToolFbdX86") + "\" " + rest;
    }

    support::ScopedTempDir m_folder;
    RecordingHelper m_helper{m_folder.Path()};
    RecordingUtilities m_utilities;
    CRuntimeParam m_param{"vm01", 0};
    std::function<void()> m_beforeCommand;  // called before each command is run

private:
    mutable std::mutex m_mutex;
    std::vector<std::string> m_commands;  // guarded by m_mutex
    faults::Guard m_guard;                // last: what is called above uses the others
};

// ------------------------------------------------------------------------------------------------
// The helper's command line
// ------------------------------------------------------------------------------------------------

class VSphereWebControllerTest : public DatastoreCaseTest {
protected:
    CVSphereWebController m_controller{&m_utilities, &m_param};
};

TEST_F(VSphereWebControllerTest, CommandIsThisTextToTheLetter) {
    m_controller.RemoveSession("ds-1", "host1", "443", "root", "secret");
    EXPECT_THAT(Commands(), ElementsAre(Command("-host host1 -port 443 -user root -pwd secret"
                                                " -method removeDatastore -argu ds-1")));
    EXPECT_THAT(m_helper.Calls(), ElementsAre(Unmount("ds-1", "host1", "443", "root", "secret")));
}

TEST_F(VSphereWebControllerTest, OnlyTheHelpersPathIsQuoted) {
    const std::string folder = m_folder / "a folder  with blanks";
    ASSERT_TRUE(std::filesystem::create_directory(folder));
    const RecordingHelper helper(folder);
    faults::SetExecutable(folder + "/program");
    m_controller.RemoveSession("ds-1 more", "h ost", "4 43", "u ser", "p wd");
    EXPECT_THAT(helper.Calls(), ElementsAre(Words{"-host", "h", "ost", "-port", "4", "43", "-user",
                                                  "u", "ser", "-pwd", "p", "wd", "-method",
                                                  "removeDatastore", "-argu", "ds-1", "more"}));
}

TEST_F(VSphereWebControllerTest, ShellSeesTheValuesAsTheyAre) {
    const std::string mark = m_folder / "mark";
    m_controller.RemoveSession("ds-$((6*7))", "'ho  st'", "$(echo 443)", "\"\"", "x`echo y`");
    m_controller.RemoveSession("ds-2", "h", "1", "u", ("w;touch " + mark + ";:").c_str());
    EXPECT_THAT(m_helper.Calls(),
                ElementsAre(Unmount("ds-42", "ho  st", "443", "", "xy"),
                            Words({"-host", "h", "-port", "1", "-user", "u", "-pwd", "w"})));
    EXPECT_TRUE(support::FileExists(mark));
}

TEST_F(VSphereWebControllerTest, EmptyValuesLeaveTheirPlacesEmpty) {
    m_controller.RemoveSession("", "", "", "", "");
    EXPECT_THAT(Commands(),
                ElementsAre(Command("-host  -port  -user  -pwd  -method removeDatastore -argu ")));
}

TEST_F(VSphereWebControllerTest, NothingHappensWhenAnyArgumentIsNull) {
    for (std::size_t i = 0; i < 5; ++i) {
        std::array<const char*, 5> arguments{"ds-1", "host1", "443", "root", "secret"};
        arguments[i] = nullptr;
        m_controller.RemoveSession(arguments[0], arguments[1], arguments[2], arguments[3],
                                   arguments[4]);
    }
    EXPECT_THAT(Commands(), IsEmpty());
    EXPECT_THAT(m_utilities.Lines(), IsEmpty());
}

TEST_F(VSphereWebControllerTest, HelperLiesBesideTheExecutable) {
    // The kernel's mark of an executable that was replaced is behind the last slash as well.
    for (const auto& [executable, helper] :
         {std::pair{"/program", "\"/dsPurgeToolFbdX86\" "},
          std::pair{"/nowhere/x.y/program", "\"/nowhere/x.y/dsPurgeToolFbdX86\" "},
          std::pair{"/nowhere/program (deleted)", "\"/nowhere/dsPurgeToolFbdX86\" "}}) {
        faults::SetExecutable(executable);
        m_controller.RemoveSession("d", "h", "1", "u", "w");
        EXPECT_EQ(0u, Commands().back().find(helper)) << Commands().back();
    }
}

TEST_F(VSphereWebControllerTest, WithoutTheExecutablesPathTheSearchPathCounts) {
    faults::SetExecutable("");
    const std::string path = std::getenv("PATH");
    setenv("PATH", (m_folder.Path() + ":" + path).c_str(), 1);
    m_controller.RemoveSession("ds-1", "host1", "443", "root", "secret");
    setenv("PATH", path.c_str(), 1);
    EXPECT_THAT(Commands(),
                ElementsAre("\"dsPurgeToolFbdX86\" -host host1 -port 443 -user root -pwd secret"
                            " -method removeDatastore -argu ds-1"));
    EXPECT_THAT(m_helper.Calls(), ElementsAre(Unmount("ds-1", "host1", "443", "root", "secret")));
}

TEST_F(VSphereWebControllerTest, HelperStartsWithDefaultSignalsAndASessionOfItsOwn) {
    const std::string status = m_folder / "status";
    const RecordingHelper helper(m_folder.Path(),
                                 "cat /proc/self/status /proc/self/stat >'" + status + "'");
    sigset_t blocked;
    sigset_t saved;
    sigfillset(&blocked);
    ASSERT_EQ(0, pthread_sigmask(SIG_SETMASK, &blocked, &saved));
    const std::vector<int> ignored{SIGPIPE, SIGHUP, SIGTTIN, SIGTTOU, SIGUSR1, SIGTERM};
    for (const int number : ignored) {
        signal(number, SIG_IGN);
    }
    m_controller.RemoveSession("ds-1", "host1", "443", "root", "secret");
    for (const int number : ignored) {
        signal(number, SIG_DFL);
    }
    pthread_sigmask(SIG_SETMASK, &saved, nullptr);
    const std::string text = support::ReadFile(status);
    EXPECT_EQ(0u, datastore::SignalSet(text, "SigBlk"));
    EXPECT_EQ(0u, datastore::SignalSet(text, "SigIgn"));
    // Number (name) state parent group session terminal: its own session has none.
    EXPECT_THAT(text,
                ::testing::ContainsRegex("\n([0-9]+) \\([^)]*\\) [A-Z] [0-9]+ [0-9]+ [0-9]+ 0 "));
}

TEST_F(VSphereWebControllerTest, MissingHelperIsNoError) {
    ASSERT_TRUE(std::filesystem::remove(m_folder / "dsPurgeToolFbdX86"));
    m_controller.RemoveSession("ds-1", "host1", "443", "root", "secret");
    EXPECT_EQ(1u, Commands().size());
    EXPECT_THAT(m_utilities.Lines(), IsEmpty());
}

// Each value in turn is made as long as it takes.
TEST_F(VSphereWebControllerTest, CommandOf1023BytesRunsAndOneOf1024DoesNot) {
    const std::size_t fixed =
        Command("-host  -port  -user  -pwd  -method removeDatastore -argu ").size();
    for (std::size_t i = 0; i < 5; ++i) {
        std::array<std::string, 5> values{"m", "h", "1", "u", "w"};
        values[i] = std::string(1023 - fixed - 4, 'x');
        const auto run = [&] {
            m_controller.RemoveSession(values[0].c_str(), values[1].c_str(), values[2].c_str(),
                                       values[3].c_str(), values[4].c_str());
        };
        run();
        ASSERT_EQ(i + 1, Commands().size());
        EXPECT_EQ(1023u, Commands().back().size());
        EXPECT_EQ(Unmount(values[0], values[1], values[2], values[3], values[4]),
                  m_helper.Calls().back());
        EXPECT_THAT(m_utilities.Lines(), IsEmpty());

        values[i] += 'x';
        run();
        values[i] += std::string(5000, 'x');
        run();
        EXPECT_EQ(i + 1, Commands().size());
        EXPECT_EQ(2u, m_utilities.Errors().size());
        EXPECT_EQ(2u, m_utilities.Lines().size());
        m_utilities.Forget();
    }
    EXPECT_EQ(5u, m_helper.Calls().size());
}

TEST_F(VSphereWebControllerTest, CommandThatIsTooLongIsNamedByItsDatastore) {
    m_controller.RemoveSession("ds-1", "host1", "443", "root", std::string(1024, 'w').c_str());
    ASSERT_EQ(1u, m_utilities.Lines().size());
    const LogLine line = m_utilities.Lines()[0];
    EXPECT_EQ(LogKind::Error, line.kind);
    EXPECT_EQ("vm01", line.id);
    EXPECT_EQ("Fail to unmount NFS datastore with MOID \"ds-1\". Reason=Command is too long",
              line.text);
}

// Waits until a thread of this process sleeps in the kernel, or has ended.
bool WaitUntilAsleep(const std::atomic<pid_t>& thread, const std::atomic<bool>& done) {
    return support::WaitFor([&] {
        if (done) {
            return true;
        }
        if (thread == 0) {
            return false;
        }
        const std::string stat =
            support::ReadFile("/proc/self/task/" + std::to_string(thread) + "/stat");
        return stat.at(stat.rfind(')') + 2) == 'S';
    });
}

// A thread that tells its number before it does something, and when it has done it.
class Doing {
public:
    explicit Doing(std::function<void()> action)
        : m_thread([this, action = std::move(action)] {
              m_number = static_cast<pid_t>(syscall(SYS_gettid));
              action();
              m_done = true;
          }) {}
    ~Doing() { m_thread.join(); }
    Doing(const Doing&) = delete;
    Doing& operator=(const Doing&) = delete;

    // True when it sleeps before the end of what it does.
    bool Waits() const { return WaitUntilAsleep(m_number, m_done) && !m_done; }
    bool Done() const { return m_done; }

private:
    std::atomic<pid_t> m_number{0};
    std::atomic<bool> m_done{false};
    std::thread m_thread;  // last: it uses the others
};

TEST_F(VSphereWebControllerTest, OneHelperRunsAtATime) {
    std::unique_ptr<Doing> second;
    bool first = true;
    m_beforeCommand = [&] {
        if (std::exchange(first, false)) {
            second = std::make_unique<Doing>(
                [this] { m_controller.RemoveSession("ds-2", "h", "1", "u", "w"); });
            EXPECT_TRUE(second->Waits());
            EXPECT_EQ(1u, Commands().size());
        }
    };
    m_controller.RemoveSession("ds-1", "h", "1", "u", "w");
    second.reset();
    EXPECT_THAT(m_helper.Calls(), ElementsAre(Unmount("ds-1", "h", "1", "u", "w"),
                                              Unmount("ds-2", "h", "1", "u", "w")));
}

// ------------------------------------------------------------------------------------------------
// The table
// ------------------------------------------------------------------------------------------------

class VSphereInfosTest : public DatastoreCaseTest {
protected:
    void Add(const std::string& moid, const std::string& password = "secret") {
        m_utilities.AddVSphereInfo(moid.c_str(), ("host-" + moid).c_str(), "443", "root",
                                   password.c_str());
    }
    static Words UnmountOf(const std::string& moid, const std::string& password = "secret") {
        return Unmount(moid, "host-" + moid, "443", "root", password);
    }
    int Count() { return m_utilities.GetVSphereInfo(&m_param, false); }
    void CleanUp() { m_utilities.RemoveAllVSphereInfoWithWebCtrl(&m_param); }
    static std::string Line(const std::string& moid) {
        return "Unmount NFS datastore with MOID \"" + moid + "\" on host \"host-" + moid + ":443\"";
    }
};

const char* const kStart = "Start cleanup mounted NFS datastores";

TEST_F(VSphereInfosTest, TableIsEmptyAtFirst) {
    EXPECT_EQ(0, m_utilities.GetVSphereInfo(&m_param, true));
    EXPECT_THAT(m_utilities.Lines(), IsEmpty());
}

TEST_F(VSphereInfosTest, ListingIsNumberedInByteOrder) {
    for (const char* moid : {"ds-2", "\xC3\xA9", "a", "ds-10", "B"}) {
        Add(moid);
    }
    m_param.SetIpcID("controller-1");
    EXPECT_EQ(5, m_utilities.GetVSphereInfo(&m_param, true));
    EXPECT_THAT(m_utilities.Raws(),
                ElementsAre(" NFS datastore1 - B (host-B:443)", " NFS datastore2 - a (host-a:443)",
                            " NFS datastore3 - ds-10 (host-ds-10:443)",
                            " NFS datastore4 - ds-2 (host-ds-2:443)",
                            " NFS datastore5 - \xC3\xA9 (host-\xC3\xA9:443)"));
    for (const LogLine& line : m_utilities.Lines()) {
        EXPECT_EQ(LogKind::Raw, line.kind) << line;
        EXPECT_EQ("vm01", line.id) << line;
        EXPECT_EQ("controller-1", line.ipcId) << line;
    }
}

TEST_F(VSphereInfosTest, CountAloneListsNothing) {
    Add("ds-1");
    EXPECT_EQ(1, Count());
    EXPECT_THAT(m_utilities.Lines(), IsEmpty());
}

TEST_F(VSphereInfosTest, SameDatastoreIsReplacedWithoutAWord) {
    m_utilities.AddVSphereInfo("ds-1", "old", "80", "olduser", "a long old password of many bytes");
    m_utilities.AddVSphereInfo("ds-1", "new", "443", "newuser", "short");
    EXPECT_THAT(m_utilities.Lines(), IsEmpty());
    EXPECT_EQ(1, m_utilities.GetVSphereInfo(&m_param, true));
    EXPECT_THAT(m_utilities.Raws(), ElementsAre(" NFS datastore1 - ds-1 (new:443)"));
    CleanUp();
    EXPECT_THAT(m_helper.Calls(), ElementsAre(Unmount("ds-1", "new", "443", "newuser", "short")));
}

TEST_F(VSphereInfosTest, RemovalForgetsOneAndRunsNothing) {
    Add("ds-1");
    Add("ds-2");
    m_utilities.RemoveVSphereInfo("ds-1");
    EXPECT_EQ(1, Count());
    m_utilities.RemoveVSphereInfo("ds-1");
    m_utilities.RemoveVSphereInfo("DS-2");
    m_utilities.RemoveVSphereInfo("ds");
    EXPECT_EQ(1, Count());
    m_utilities.RemoveVSphereInfo("ds-2");
    EXPECT_EQ(0, Count());
    EXPECT_THAT(Commands(), IsEmpty());
    EXPECT_THAT(m_utilities.Lines(), IsEmpty());
}

TEST_F(VSphereInfosTest, NullTextsAreEmptyOnes) {
    m_utilities.AddVSphereInfo(nullptr, nullptr, nullptr, nullptr, nullptr);
    EXPECT_EQ(1, m_utilities.GetVSphereInfo(&m_param, true));
    EXPECT_THAT(m_utilities.Raws(), ElementsAre(" NFS datastore1 -  (:)"));
    m_utilities.RemoveVSphereInfo(nullptr);
    EXPECT_EQ(0, Count());
}

TEST_F(VSphereInfosTest, CleanUpOfAnEmptyTableRunsAndLogsNothing) {
    m_param.SetLogControl(kLogAll);
    CleanUp();
    EXPECT_THAT(Commands(), IsEmpty());
    EXPECT_THAT(m_utilities.Lines(), IsEmpty());
}

TEST_F(VSphereInfosTest, CleanUpUnmountsInByteOrderAndForgetsEvenWhenTheHelperFails) {
    Add("ds-2");
    Add("a");
    Add("ds-10");
    CleanUp();
    EXPECT_THAT(m_utilities.Infos(), ElementsAre(kStart, Line("a"), Line("ds-10"), Line("ds-2")));
    EXPECT_EQ(4u, m_utilities.Lines().size());
    EXPECT_THAT(m_helper.Calls(),
                ElementsAre(UnmountOf("a"), UnmountOf("ds-10"), UnmountOf("ds-2")));
    EXPECT_EQ(0, Count());

    m_utilities.Forget();
    CleanUp();
    EXPECT_THAT(m_utilities.Lines(), IsEmpty());
    EXPECT_EQ(3u, m_helper.Calls().size());
}

TEST_F(VSphereInfosTest, LinesComeBeforeTheirRuns) {
    Add("ds-1");
    Add("ds-2");
    std::vector<std::size_t> lines;
    m_beforeCommand = [&] { lines.push_back(m_utilities.Lines().size()); };
    CleanUp();
    EXPECT_THAT(lines, ElementsAre(2u, 3u));
}

// A service object whose host does something whenever it is told a line.
class HostedUtilities : public RecordingUtilities {
public:
    using RecordingUtilities::LogInfo;
    void LogInfo(CRuntimeParam* pRuntimeParam, char* pcMessage) override {
        RecordingUtilities::LogInfo(pRuntimeParam, pcMessage);
        onLine();
    }
    std::function<void()> onLine;
};

TEST_F(DatastoreCaseTest, WhoeverTakesALineOfACleanUpMayAskForTheTable) {
    HostedUtilities utilities;
    for (const char* moid : {"ds-1", "ds-2"}) {
        utilities.AddVSphereInfo(moid, "h", "1", "u", "w");
    }
    std::vector<int> own;
    std::vector<int> others;
    utilities.onLine = [&] {
        own.push_back(utilities.GetVSphereInfo(&m_param, false));
        if (own.size() == 2) {
            // The line waits for another thread, as for one that holds a monitor of the host.
            std::thread([&] { others.push_back(utilities.GetVSphereInfo(&m_param, true)); }).join();
        }
    };
    utilities.RemoveAllVSphereInfoWithWebCtrl(&m_param);
    EXPECT_THAT(own, ElementsAre(2, 1, 0)) << "a datastore being unmounted is no longer counted";
    EXPECT_THAT(others, ElementsAre(1));
    EXPECT_EQ(2u, Commands().size());
}

TEST_F(VSphereInfosTest, AListingWaitsForTheWholeCleanUp) {
    Add("ds-1");
    Add("ds-2");
    Add("ds-3");
    std::atomic<int> count{-1};
    std::unique_ptr<Doing> listing;
    m_beforeCommand = [&] {
        if (listing == nullptr) {
            listing = std::make_unique<Doing>([&] { count = Count(); });
            EXPECT_TRUE(listing->Waits());
        }
        EXPECT_FALSE(listing->Done());
    };
    CleanUp();
    listing.reset();
    EXPECT_EQ(0, count);
}

TEST_F(VSphereInfosTest, DatastoreWhoseCommandIsTooLongIsForgottenAsWell) {
    Add("ds-1");
    Add("ds-2", std::string(1000, 'w'));
    Add("ds-3");
    CleanUp();
    EXPECT_THAT(m_utilities.Texts(),
                ElementsAre(kStart, Line("ds-1"), Line("ds-2"),
                            "Fail to unmount NFS datastore with MOID \"ds-2\". Reason=Command is "
                            "too long",
                            Line("ds-3")));
    EXPECT_THAT(m_helper.Calls(), ElementsAre(UnmountOf("ds-1"), UnmountOf("ds-3")));
    EXPECT_EQ(0, Count());
}

TEST_F(VSphereInfosTest, PasswordIsNeverLogged) {
    m_param.SetLogControl(kLogAll);
    Add("ds-1", "very-secret");
    Add("ds-2", "very-secret" + std::string(1000, 'w'));
    m_utilities.GetVSphereInfo(&m_param, true);
    CleanUp();
    EXPECT_EQ(6u, m_utilities.Lines().size());
    for (const LogLine& line : m_utilities.Lines()) {
        EXPECT_THAT(line.text, Not(HasSubstr("very-secret")));
    }
}

TEST_F(VSphereInfosTest, EverybodyWaitsForTheCleanUp) {
    Add("ds-1");
    Add("ds-2");
    std::vector<std::unique_ptr<Doing>> others;
    std::atomic<int> counted{-1};
    m_beforeCommand = [&] {
        if (others.empty()) {
            others.push_back(std::make_unique<Doing>([this] { Add("ds-0"); }));
            others.push_back(std::make_unique<Doing>([&] {
                CRuntimeParam param("other", 0);
                counted = m_utilities.GetVSphereInfo(&param, false);
            }));
            others.push_back(
                std::make_unique<Doing>([this] { m_utilities.RemoveVSphereInfo("x"); }));
        }
        // Also while the second helper runs.
        for (const auto& other : others) {
            EXPECT_TRUE(other->Waits());
        }
    };
    CleanUp();
    others.clear();  // waits for them
    EXPECT_EQ(2u, Commands().size());
    EXPECT_GE(1, counted);  // neither of the two that were cleaned up
    EXPECT_EQ(1, Count());
    m_utilities.GetVSphereInfo(&m_param, true);
    EXPECT_THAT(m_utilities.Raws(), ElementsAre(" NFS datastore1 - ds-0 (host-ds-0:443)"));
}

}  // namespace
