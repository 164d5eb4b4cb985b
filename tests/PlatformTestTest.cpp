// The test of a host's file system, run in this process on small file systems made for it. Somebody
// who interferes between two steps, or a system call that fails, makes each step fail once.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <filesystem>
#include <functional>
#include <string>
#include <vector>

#include "PlatformReport.h"
#include "RecordingUtilities.h"
#include "RuntimeParam.h"
#include "support/Faults.h"
#include "support/Files.h"

namespace faults = support::faults;

// The moment in the report.
namespace {

using namespace platform;
using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr int kLogAll = 1023;

const std::string kRefused = "Cannot start platrorm test. Error=";
const std::string kIoError = "Input/output error (5)";  // as faults::Fail(..., EIO) is told

// Does something right after a chosen line of the report.
class ScriptedUtilities : public RecordingUtilities {
public:
    using CUtilities::LogInfo;
    void LogInfo(CRuntimeParam* pRuntimeParam, char* pcMessage) override {
        RecordingUtilities::LogInfo(pRuntimeParam, pcMessage);
        for (Step& step : m_steps) {
            if (std::string_view(pcMessage).starts_with(step.prefix) && --step.nth == 0) {
                step.action();
            }
        }
    }
    // After the nth line (from 1) that begins with a text.
    void After(const std::string& prefix, int nth, std::function<void()> action) {
        m_steps.push_back({prefix, nth, std::move(action)});
    }

private:
    struct Step {
        std::string prefix;
        int nth;
        std::function<void()> action;
    };
    std::vector<Step> m_steps;
};

// What the tests do to the file that is being tested.
void MakeFolder(const std::string& path) { ASSERT_EQ(0, mkdir(path.c_str(), 0755)) << path; }
void Remove(const std::string& path) { ASSERT_EQ(0, remove(path.c_str())) << path; }
void Truncate(const std::string& path, off_t size) {
    ASSERT_EQ(0, truncate(path.c_str(), size)) << path;
}
void Overwrite(const std::string& path, off_t position, const std::string& data) {
    const int fd = open(path.c_str(), O_WRONLY);
    ASSERT_EQ(static_cast<ssize_t>(data.size()), pwrite(fd, data.data(), data.size(), position));
    ASSERT_EQ(0, close(fd));
}
struct stat StatOf(const std::string& path) {
    struct stat data {};
    EXPECT_EQ(0, stat(path.c_str(), &data)) << path;
    return data;
}
// The descriptor of this process that is open on a path.
int DescriptorOf(const std::string& path) {
    for (const int fd : support::OpenFds()) {
        if (support::DescriptorTarget(fd) == path) {
            return fd;
        }
    }
    ADD_FAILURE() << path << " is not open";
    return -1;
}
// Lets the descriptor that is open on a path be open on a device, where every position is 0,
// nothing can be read, and everything that is written is taken.
void ExchangeForNullDevice(const std::string& path) {
    const int device = open("/dev/null", O_RDWR | O_CLOEXEC);
    ASSERT_NE(-1, device);
    ASSERT_NE(-1, dup2(device, DescriptorOf(path)));
    ASSERT_EQ(0, close(device));
}

class PlatformTest : public ::testing::Test {
protected:
    PlatformTest() {
        static constexpr struct timeval kNow { kNowMs / 1000, kNowMs % 1000 * 1000 + 999 };
        faults::SetTimeOfDay(&kNow);
    }

    // Runs the test and returns its report.
    Lines Run(long long size, const std::string& directory) {
        const std::vector<int> before = support::OpenFds();
        m_utilities.RunTestMode(&m_param, directory.c_str(), size);
        EXPECT_EQ(before, support::OpenFds());
        Lines lines;
        for (const std::string& line : m_utilities.Infos()) {
            if (!line.starts_with("[Utilities.RunTestMode]")) {
                lines.push_back(line);
            }
        }
        m_utilities.Forget();
        return lines;
    }
    Lines Run(long long size = 5000) { return Run(size, m_fs.Path()); }

    // The report of a run on 5000 bytes in which only the given steps fail.
    std::string Expected(const std::vector<Failure>& failures) const {
        return Text(With(Report(m_fs.Path(), CaseOf(5000)), failures));
    }
    // The same when the file is created by the step that enlarges it.
    std::string ExpectedWithLateFile(const std::vector<Failure>& failures) const {
        return Text(With(Report(m_fs.Path(), CaseOf(5000), Attributes(), "81ED"), failures));
    }

    bool LeftNothing() const { return std::filesystem::is_empty(m_fs.Path()); }

    faults::Guard m_guard;
    TmpFs m_fs;
    const std::string m_folder = m_fs / "_test";
    const std::string m_file = m_folder + "/test.bak";
    const std::string m_second = m_folder + "/test.bak2";
    CRuntimeParam m_param{"vm01", 0};
    ScriptedUtilities m_utilities;
};

// ------------------------------------------------------------------------------------------------
// The whole report
// ------------------------------------------------------------------------------------------------

TEST_F(PlatformTest, ReportIsThisTextToTheLetter) {
    const std::string d = m_fs.Path();
    EXPECT_EQ(
        "=============================== START TEST ===============================\n"
        " >> Directory : \"" +
            d +
            "/_test\"\n"
            " >> File      : \"" +
            d +
            "/_test/test.bak\"\n"
            "\n"
            "------------------------ ATTRIBUTES of file system -----------------------\n"
            "Current time (in milliseconds)          : 1700000000123\n"
            "Maximum File Size                       : 2.0TB\n"
            "Total Disk Space                        : 64.0MB\n"
            "Free Disk Space                         : 64.0MB\n"
            "Free Disk Space To Caller               : 64.0MB\n"
            "Total File Slots                        : 1000(3E8)\n"
            "Free File Slots                         : 999(3E7)\n"
            "Free File Slots To Caller               : 999(3E7)\n"
            "\n"
            "-------------------------------- FILE IO ---------------------------------\n"
            "[ OK ] Create directory \"" +
            d +
            "/_test\".\n"
            "[ OK ] Create file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Close file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Enlarge file \"" +
            d +
            "/_test/test.bak\" size to 6024.\n"
            "[ OK ] Open file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Verify file size.\n"
            "[ OK ] Close file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Shrink file \"" +
            d +
            "/_test/test.bak\" size to 5000.\n"
            "[ OK ] Open file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Verify file size.\n"
            "[ OK ] Close file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Open file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] File seek to position 0.\n"
            "[ OK ] Write data with length 2048.\n"
            "[ OK ] Move pointer to position 0.\n"
            "[ OK ] Read data with length 2048.\n"
            "[ OK ] Verify data with size 2048.\n"
            "[ OK ] File seek to position 2952.\n"
            "[ OK ] Write data with length 2048.\n"
            "[ OK ] Move pointer to position 2952.\n"
            "[ OK ] Read data with length 2048.\n"
            "[ OK ] Verify data with size 2048.\n"
            "[ OK ] Get file stat from file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Set file mode 8124 to file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Get file mode from file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Verify file mode 8124 from file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Set file mode 81A4 to file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Get file mode from file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Verify file mode 81A4 from file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Close file \"" +
            d +
            "/_test/test.bak\".\n"
            "[ OK ] Rename file from \"" +
            d + "/_test/test.bak\" to \"" + d +
            "/_test/test.bak2\".\n"
            "[ OK ] Remove file \"" +
            d +
            "/_test/test.bak2\".\n"
            "[ OK ] Remove directory \"" +
            d +
            "/_test\".\n"
            "================================ END TEST ================================\n",
        Text(Run(5000)));
    EXPECT_TRUE(LeftNothing());
}

class PlatformTestOfSize : public PlatformTest, public ::testing::WithParamInterface<Case> {};

TEST_P(PlatformTestOfSize, ReportIsExact) {
    EXPECT_EQ(Text(Report(m_fs.Path(), GetParam())), Text(Run(GetParam().size)));
    EXPECT_TRUE(LeftNothing());
}

TEST_P(PlatformTestOfSize, FileHoldsOnesWhereTheReportSaysThatItWrote) {
    const Case& test = GetParam();
    std::string expected(static_cast<std::size_t>(test.size), '\0');
    const auto fill = [&expected](const Pass& pass) {
        expected.replace(static_cast<std::size_t>(pass.position),
                         static_cast<std::size_t>(pass.length),
                         static_cast<std::size_t>(pass.length), '\x01');
        return expected;
    };
    const std::string afterFirst = fill(test.first);
    const std::string afterSecond = fill(test.second);
    int seen = 0;
    for (const auto& [nth, content] : {std::pair{1, afterFirst}, std::pair{2, afterSecond}}) {
        m_utilities.After("[ OK ] Write data", nth, [&, content = content] {
            ++seen;
            EXPECT_TRUE(content == support::ReadFile(m_file)) << "pass " << seen;
        });
    }
    Run(test.size);
    EXPECT_EQ(2, seen);
}

INSTANTIATE_TEST_SUITE_P(Sizes, PlatformTestOfSize, ::testing::ValuesIn(kCases),
                         [](const auto& info) { return std::to_string(info.param.size); });

TEST_F(PlatformTest, EveryOkLineStandsForSomethingDone) {
    int seen = 0;
    const auto after = [&](const std::string& prefix, int nth, std::function<bool()> holds) {
        m_utilities.After("[ OK ] " + prefix, nth, [&seen, prefix, holds = std::move(holds)] {
            ++seen;
            EXPECT_TRUE(holds()) << prefix;
        });
    };
    after("Create directory", 1, [&] { return StatOf(m_folder).st_mode == (S_IFDIR | 0755); });
    after("Create file", 1, [&] { return StatOf(m_file).st_mode == (S_IFREG | 0644); });
    after("Close file", 1, [&] { return StatOf(m_file).st_size == 0; });
    after("Enlarge file", 1, [&] { return StatOf(m_file).st_size == 6024; });
    after("Shrink file", 1, [&] { return StatOf(m_file).st_size == 5000; });
    after("Set file mode", 1, [&] { return StatOf(m_file).st_mode == (S_IFREG | 0444); });
    after("Set file mode", 2, [&] { return StatOf(m_file).st_mode == (S_IFREG | 0644); });
    after("Rename file", 1,
          [&] { return !support::FileExists(m_file) && StatOf(m_second).st_size == 5000; });
    after("Remove file", 1, [&] { return std::filesystem::is_empty(m_folder); });
    after("Remove directory", 1, [&] { return !support::FileExists(m_folder); });
    Run();
    EXPECT_EQ(10, seen);
}

TEST_F(PlatformTest, ReportIsWrittenUnderTheCallersIdentitiesAtLogControlZero) {
    m_param.SetIpcID("controller-1");
    m_utilities.RunTestMode(&m_param, m_fs.Path().c_str(), 100);
    const std::vector<LogLine> lines = m_utilities.Lines();
    EXPECT_EQ(Report(m_fs.Path(), CaseOf(100)).size(), lines.size());
    for (const LogLine& line : lines) {
        EXPECT_EQ(LogKind::Info, line.kind) << line;
        EXPECT_EQ("vm01", line.id) << line;
        EXPECT_EQ("controller-1", line.ipcId) << line;
    }
}

TEST_F(PlatformTest, LowLevelLinesBelongToTheTest) {
    m_param.SetLogControl(kLogAll);
    m_utilities.RunTestMode(&m_param, m_fs.Path().c_str(), 100);
    EXPECT_EQ(1u, m_utilities.Count("[Utilities.RunTestMode] Get canonical path successfully: " +
                                    m_fs.Path()));
    EXPECT_EQ(1u, m_utilities.Count("[Utilities.RunTestMode] OS create folder \"" + m_folder +
                                    "\" (mode = 493)"));
    EXPECT_EQ(1u, m_utilities.Count("[Utilities.RunTestMode] OS rename file from \"" + m_file +
                                    "\" to \"" + m_second + "\""));
    EXPECT_THAT(m_utilities.Errors(), IsEmpty());
}

TEST_F(PlatformTest, ErrorLinesOfTheFileLayerComeBesideTheReport) {
    m_param.SetLogControl(LOG_CONTROL_ERROR);
    m_utilities.After("[ OK ] Close file", 1, [&] { Remove(m_file); });
    m_utilities.After("[ OK ] Close file", 1, [&] { MakeFolder(m_file); });
    m_utilities.RunTestMode(&m_param, m_fs.Path().c_str(), 100);
    EXPECT_THAT(m_utilities.Errors(), Contains("[Utilities.RunTestMode] OS open file \"" + m_file +
                                               "\". Error=Is a directory (21)"));
}

TEST_F(PlatformTest, RunsAgainRightAfterwards) {
    EXPECT_EQ(Text(Report(m_fs.Path(), CaseOf(2049))), Text(Run(2049)));
    EXPECT_EQ(Text(Report(m_fs.Path(), CaseOf(2049))), Text(Run(2049)));
}

TEST_F(PlatformTest, LeavesWhatElseLiesInTheDirectory) {
    support::WriteFile(m_fs / "test.bak", "mine");
    support::WriteFile(m_fs / "_test2", "mine too");
    Run();
    EXPECT_EQ("mine", support::ReadFile(m_fs / "test.bak"));
    EXPECT_EQ("mine too", support::ReadFile(m_fs / "_test2"));
}

// A size beyond what a file can have must not overflow on the way to the file system.
TEST_F(PlatformTest, LargestSizeOnlyMakesStepsFail) {
    const Lines lines = Run(LLONG_MAX);
    EXPECT_THAT(lines, Contains("[FAIL] Enlarge file \"" + m_file +
                                "\" size to -9223372036854774785. Error=Invalid argument (22)"));
    EXPECT_EQ(kEnd, lines.back());
    EXPECT_TRUE(LeftNothing());
}

// ------------------------------------------------------------------------------------------------
// The directory
// ------------------------------------------------------------------------------------------------

TEST_F(PlatformTest, NothingHappensWithoutRuntimeParameters) {
    m_utilities.RunTestMode(nullptr, m_fs.Path().c_str(), 100);
    m_utilities.RunTestMode(nullptr, nullptr, 0);
    EXPECT_THAT(m_utilities.Lines(), IsEmpty());
    EXPECT_TRUE(LeftNothing());
}

TEST_F(PlatformTest, NullDirectoryIsRefused) {
    m_utilities.RunTestMode(&m_param, nullptr, 100);
    m_utilities.RunTestMode(&m_param, nullptr, 0);  // looked at before the size
    EXPECT_THAT(m_utilities.Infos(), ElementsAre(kRefused + "Target directory is NULL",
                                                 kRefused + "Target directory is NULL"));
    EXPECT_EQ(2u, m_utilities.Lines().size());
}

TEST_F(PlatformTest, SizeOfZeroOrLessIsRefused) {
    for (const long long size : {0LL, -1LL, -5000LL, LLONG_MIN}) {
        EXPECT_THAT(Run(size), ElementsAre(kRefused + "File size is ZERO")) << size;
    }
    // Looked at before the directory.
    EXPECT_THAT(Run(0, m_fs / "missing"), ElementsAre(kRefused + "File size is ZERO"));
    EXPECT_TRUE(LeftNothing());
}

TEST_F(PlatformTest, MissingDirectoryIsRefused) {
    const std::string missing = m_fs / "missing";
    EXPECT_THAT(Run(100, missing),
                ElementsAre(kRefused + "Target directory \"" + missing + "\" not exist"));
    EXPECT_THAT(Run(100, ""), ElementsAre(kRefused + "Target directory \"\" not exist"));
    EXPECT_FALSE(support::FileExists(missing));
}

TEST_F(PlatformTest, LeftOversOfAnInterruptedRunAreRefusedAndKept) {
    MakeFolder(m_folder);
    support::WriteFile(m_file, "left");
    EXPECT_THAT(Run(), ElementsAre(kRefused + "Test directory \"" + m_folder + "\" already exist"));
    EXPECT_EQ("left", support::ReadFile(m_file));
}

TEST_F(PlatformTest, FileInPlaceOfTheTestDirectoryIsRefusedAsWell) {
    support::WriteFile(m_folder, "a file");
    EXPECT_THAT(Run(), ElementsAre(kRefused + "Test directory \"" + m_folder + "\" already exist"));
    EXPECT_EQ("a file", support::ReadFile(m_folder));
}

TEST_F(PlatformTest, DirectoryIsResolvedFirst) {
    const std::string real = m_fs / "real";
    MakeFolder(real);
    ASSERT_EQ(0, symlink("real", (m_fs / "link").c_str()));
    const Lines expected =
        Report(real, CaseOf(100), Attributes("64.0MB", "64.0MB", "1000(3E8)", "997(3E5)"));
    EXPECT_EQ(Text(expected), Text(Run(100, m_fs / "link/../real/./")));
    EXPECT_EQ(Text(expected), Text(Run(100, m_fs / "link")));
    MakeFolder(real + "/_test");
    EXPECT_THAT(Run(100, m_fs / "link"),
                ElementsAre(kRefused + "Test directory \"" + real + "/_test\" already exist"));
}

// A directory that ends with a slash gets no second one. Only the root does, once resolved, so the
// run stands in a process whose root is the file system of the test.
TEST_F(PlatformTest, RootDirectoryGetsNoSecondSlash) {
    EXPECT_EXIT(
        {
            if (chroot(m_fs.Path().c_str()) != 0 || chdir("/") != 0) {
                _exit(2);
            }
            m_utilities.RunTestMode(&m_param, "/", 2048);
            const std::string report = Text(m_utilities.Infos());
            const bool same = report == Text(Report("/", CaseOf(2048)));
            dprintf(STDERR_FILENO, "%s", report.c_str());
            _exit(same ? 0 : 1);
        },
        ::testing::ExitedWithCode(0), " >> Directory : \"/_test\"");
}

// What every step says when there is no folder to work in.
Lines ReportWithoutFolder(const std::string& directory, const Lines& attributes,
                          const std::string& folderReason, const std::string& reason,
                          const std::string& folderRemovalReason) {
    const std::string file = '"' + directory + "/_test/test.bak\"";
    const std::string closed = "Bad file descriptor";
    std::vector<Failure> failures{
        {"Create directory", 1, folderReason},
        {"Create file", 1, reason},
        {"Close file", 1, closed},
        {"Enlarge file", 1, reason},
        {"Open file", 1, "Set file size failed"},
        {"Verify file size", 1, "Open file failed"},
        {"Close file", 2, "Open file failed"},
        {"Shrink file", 1, reason},
        {"Open file", 2, "Set file size failed"},
        {"Verify file size", 2, "Open file failed"},
        {"Close file", 3, "Open file failed"},
        {"Open file", 3, reason},
        {"Get file stat", 1, reason},
        {"Set file mode 8124", 1, reason},
        {"Get file mode", 1, "Set file mode failed"},
        {"Verify file mode 8124", 1, "Get file mode failed"},
        {"Set file mode 0 ", 1, reason},
        {"Get file mode", 2, "Set file mode failed"},
        {"Verify file mode 0 ", 1, "Get file mode failed"},
        {"Close file", 4, closed},
        {"Rename file", 1, reason},
        {"Remove file", 1, reason},
        {"Remove directory", 1, folderRemovalReason},
    };
    for (const int pass : {1, 2}) {
        failures.push_back({"File seek", pass, closed});
        failures.push_back({"Write data", pass, "File seek failed"});
        failures.push_back({"Move pointer", pass, "File write failed"});
        failures.push_back({"Read data", pass, "File seek failed"});
        failures.push_back({"Verify data", pass, "File read failed"});
    }
    // The mode that is brought back is that of no file.
    return With(Report(directory, CaseOf(5000), attributes, "0"), failures);
}

TEST_F(PlatformTest, ReadOnlyDirectoryFailsStepByStep) {
    m_fs.MakeReadOnly();
    EXPECT_EQ(
        Text(ReportWithoutFolder(m_fs.Path(), Attributes(), "Read-only file system (30)",
                                 "No such file or directory (2)", "Read-only file system (30)")),
        Text(Run()));
}

TEST_F(PlatformTest, DirectoryThatIsAFileFailsStepByStep) {
    const std::string file = m_fs / "file";
    support::WriteFile(file, "");
    EXPECT_EQ(Text(ReportWithoutFolder(
                  file, Attributes("64.0MB", "64.0MB", "1000(3E8)", "998(3E6)"),
                  "Not a directory (20)", "Not a directory (20)", "Not a directory (20)")),
              Text(Run(5000, file)));
    EXPECT_EQ("", support::ReadFile(file));
}

TEST_F(PlatformTest, FileSystemWithoutAFreeSlotFailsStepByStep) {
    const TmpFs fs("size=64m,nr_inodes=1");
    EXPECT_EQ(
        Text(ReportWithoutFolder(fs.Path(), Attributes("64.0MB", "64.0MB", "1(1)", "0(0)"),
                                 "No space left on device (28)", "No such file or directory (2)",
                                 "No such file or directory (2)")),
        Text(Run(5000, fs.Path())));
}

TEST_F(PlatformTest, FullFileSystemFailsWhereItWrites) {
    const TmpFs fs("size=4096,nr_inodes=10");
    support::WriteFile(fs / "filler", std::string(4096, 'x'));
    const Lines report =
        Report(fs.Path(), CaseOf(5000), Attributes("4.0KB", "0.0B", "10(A)", "8(8)"));
    std::vector<Failure> failures;
    for (const int pass : {1, 2}) {
        failures.push_back({"Write data", pass, "No space left on device (28)"});
        failures.push_back({"Move pointer", pass, "File write failed"});
        failures.push_back({"Read data", pass, "File seek failed"});
        failures.push_back({"Verify data", pass, "File read failed"});
    }
    EXPECT_EQ(Text(With(report, failures)), Text(Run(5000, fs.Path())));
    EXPECT_FALSE(support::FileExists(fs / "_test"));
}

TEST_F(PlatformTest, ShortWriteIsReportedWithItsLength) {
    // One page: the second pass begins in it and ends beyond.
    const TmpFs fs("size=4096,nr_inodes=10");
    const Lines report =
        Report(fs.Path(), CaseOf(5000), Attributes("4.0KB", "4.0KB", "10(A)", "9(9)"));
    EXPECT_EQ(Text(With(report, {{"Write data", 2, "Data lenght not match (write length = 1144)"},
                                 {"Move pointer", 2, "File write failed"},
                                 {"Read data", 2, "File seek failed"},
                                 {"Verify data", 2, "File read failed"}})),
              Text(Run(5000, fs.Path())));
    EXPECT_FALSE(support::FileExists(fs / "_test"));
}

// ------------------------------------------------------------------------------------------------
// Each step fails once, and the test goes on
// ------------------------------------------------------------------------------------------------

TEST_F(PlatformTest, DirectoryThatIsThereAlreadyCannotBeCreated) {
    m_utilities.After("-------------------------------- FILE IO", 1, [&] { MakeFolder(m_folder); });
    EXPECT_EQ(Expected({{"Create directory", 1, "File exists (17)"}}), Text(Run()));
    EXPECT_TRUE(LeftNothing());
}

TEST_F(PlatformTest, DirectoryThatVanishesAtOnceIsNotCreated) {
    m_param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    m_utilities.After("[Utilities.RunTestMode] OS create folder", 1, [&] { Remove(m_folder); });
    m_utilities.After("[FAIL] Create directory", 1, [&] { MakeFolder(m_folder); });
    EXPECT_EQ(Expected({{"Create directory", 1, "Directory not exist"}}), Text(Run()));
}

TEST_F(PlatformTest, FailedCreationLeavesNothingToClose) {
    m_utilities.After("[ OK ] Create directory", 1, [] { faults::Fail(faults::Call::Open, EIO); });
    EXPECT_EQ(ExpectedWithLateFile(
                  {{"Create file", 1, kIoError}, {"Close file", 1, "Bad file descriptor"}}),
              Text(Run()));
}

TEST_F(PlatformTest, FileThatVanishesAtOnceIsNotCreated) {
    m_param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    m_utilities.After("[Utilities.RunTestMode] OS create file", 1, [&] { Remove(m_file); });
    EXPECT_EQ(ExpectedWithLateFile({{"Create file", 1, "File not exist"}}), Text(Run()));
}

TEST_F(PlatformTest, FailedClosingIsReportedOnly) {
    // Before the first and the last closing of the file.
    for (const auto& [line, nth] :
         {std::pair{"[ OK ] Create file", 1}, std::pair{"[ OK ] Verify file mode 81A4", 4}}) {
        m_utilities.After(line, 1, [&] {
            const int fd = DescriptorOf(m_file);
            ASSERT_EQ(0, close(fd));
            faults::Fail(faults::Call::Close, EIO);
        });
        EXPECT_EQ(Expected({{"Close file", nth, kIoError}}), Text(Run()));
    }
}

class PlatformTestOfResizing : public PlatformTest, public ::testing::WithParamInterface<int> {
protected:
    // Does something before the file size is changed for the nth time.
    void BeforeResizing(std::function<void()> action) {
        m_utilities.After("[ OK ] Close file", GetParam(), std::move(action));
    }
    std::string Step() const { return GetParam() == 1 ? "Enlarge file" : "Shrink file"; }
    void AfterResizing(std::function<void()> action) {
        m_utilities.After("[ OK ] " + Step(), 1, std::move(action));
    }
};

TEST_P(PlatformTestOfResizing, FailureSkipsItsVerification) {
    BeforeResizing([] { faults::Fail(faults::Call::Fstat, EIO); });
    const int nth = GetParam();
    EXPECT_EQ(Expected({{Step(), 1, kIoError},
                        {"Open file", nth, "Set file size failed"},
                        {"Verify file size", nth, "Open file failed"},
                        {"Close file", nth + 1, "Open file failed"}}),
              // A file that was not enlarged, or not shrunk, changes nothing of the passes.
              Text(Run()));
}

TEST_P(PlatformTestOfResizing, FileThatCannotBeOpenedIsNotVerified) {
    AfterResizing([] { faults::Fail(faults::Call::Open, EIO); });
    const int nth = GetParam();
    EXPECT_EQ(Expected({{"Open file", nth, kIoError},
                        {"Verify file size", nth, "Open file failed"},
                        {"Close file", nth + 1, "Open file failed"}}),
              Text(Run()));
}

TEST_P(PlatformTestOfResizing, OpeningIsNotTriedASecondTime) {
    AfterResizing([] { faults::Fail(faults::Call::Open, EMFILE); });
    const int nth = GetParam();
    EXPECT_EQ(Expected({{"Open file", nth, "Too many open files (24)"},
                        {"Verify file size", nth, "Open file failed"},
                        {"Close file", nth + 1, "Open file failed"}}),
              Text(Run()));
}

TEST_P(PlatformTestOfResizing, EndThatCannotBeFoundIsReported) {
    m_utilities.After("[ OK ] Open file", GetParam(),
                      [] { faults::Fail(faults::Call::Lseek, EIO); });
    EXPECT_EQ(Expected({{"Verify file size", GetParam(), kIoError}}), Text(Run()));
}

TEST_P(PlatformTestOfResizing, AnotherSizeIsReportedWithTheSize) {
    AfterResizing([this] { Truncate(m_file, 4999); });
    EXPECT_EQ(Expected({{"Verify file size", GetParam(), "Size not match (current size = 4999)"}}),
              Text(Run()));
}

TEST_P(PlatformTestOfResizing, FailedClosingIsReportedOnly) {
    m_utilities.After("[ OK ] Verify file size", GetParam(), [this] {
        ASSERT_EQ(0, close(DescriptorOf(m_file)));
        faults::Fail(faults::Call::Close, EIO);
    });
    EXPECT_EQ(Expected({{"Close file", GetParam() + 1, kIoError}}), Text(Run()));
}

INSTANTIATE_TEST_SUITE_P(Steps, PlatformTestOfResizing, ::testing::Values(1, 2),
                         [](const auto& info) { return info.param == 1 ? "Enlarge" : "Shrink"; });

TEST_F(PlatformTest, FileThatCannotBeOpenedIsNeitherWrittenNorRead) {
    for (const auto& [error, reason] :
         {std::pair{EIO, kIoError}, std::pair{EMFILE, std::string("Too many open files (24)")}}) {
        m_utilities.After("[ OK ] Close file", 3,
                          [error = error] { faults::Fail(faults::Call::Open, error); });
        std::vector<Failure> failures{{"Open file", 3, reason},
                                      {"Close file", 4, "Bad file descriptor"}};
        for (const int pass : {1, 2}) {
            failures.push_back({"File seek", pass, "Bad file descriptor"});
            failures.push_back({"Write data", pass, "File seek failed"});
            failures.push_back({"Move pointer", pass, "File write failed"});
            failures.push_back({"Read data", pass, "File seek failed"});
            failures.push_back({"Verify data", pass, "File read failed"});
        }
        EXPECT_EQ(Expected(failures), Text(Run()));
    }
}

class PlatformTestOfPass : public PlatformTest, public ::testing::WithParamInterface<int> {
protected:
    int Pass() const { return GetParam(); }
    // The line after which the pass begins.
    void BeforePass(std::function<void()> action) {
        if (Pass() == 1) {
            m_utilities.After("[ OK ] Open file", 3, std::move(action));
        } else {
            m_utilities.After("[ OK ] Verify data", 1, std::move(action));
        }
    }
    void After(const std::string& step, std::function<void()> action) {
        m_utilities.After("[ OK ] " + step, Pass(), std::move(action));
    }
    static void FailNext(faults::Call call) { faults::Fail(call, EIO); }
};

TEST_P(PlatformTestOfPass, FailedSeekSkipsTheRest) {
    BeforePass([] { FailNext(faults::Call::Lseek); });
    EXPECT_EQ(Expected({{"File seek", Pass(), kIoError},
                        {"Write data", Pass(), "File seek failed"},
                        {"Move pointer", Pass(), "File write failed"},
                        {"Read data", Pass(), "File seek failed"},
                        {"Verify data", Pass(), "File read failed"}}),
              Text(Run()));
}

TEST_P(PlatformTestOfPass, FailedWriteSkipsTheRest) {
    After("File seek", [] { FailNext(faults::Call::Write); });
    EXPECT_EQ(Expected({{"Write data", Pass(), kIoError},
                        {"Move pointer", Pass(), "File write failed"},
                        {"Read data", Pass(), "File seek failed"},
                        {"Verify data", Pass(), "File read failed"}}),
              Text(Run()));
}

TEST_P(PlatformTestOfPass, FailedMoveSkipsTheRest) {
    After("Write data", [] { FailNext(faults::Call::Lseek); });
    EXPECT_EQ(Expected({{"Move pointer", Pass(), kIoError},
                        {"Read data", Pass(), "File seek failed"},
                        {"Verify data", Pass(), "File read failed"}}),
              Text(Run()));
}

TEST_P(PlatformTestOfPass, FailedReadSkipsTheComparison) {
    After("Move pointer", [] { FailNext(faults::Call::Read); });
    EXPECT_EQ(
        Expected({{"Read data", Pass(), kIoError}, {"Verify data", Pass(), "File read failed"}}),
        Text(Run()));
}

TEST_P(PlatformTestOfPass, ShortReadIsReportedWithItsLength) {
    const off_t position = Pass() == 1 ? 0 : 2952;
    After("Move pointer", [=, this] { Truncate(m_file, position + 2047); });
    m_utilities.After("[FAIL] Verify data", 1, [this] { Truncate(m_file, 5000); });
    EXPECT_EQ(Expected({{"Read data", Pass(), "Data lenght not match (read length = 2047)"},
                        {"Verify data", Pass(), "File read failed"}}),
              Text(Run()));
}

TEST_P(PlatformTestOfPass, OneOtherByteIsADifference) {
    const off_t position = Pass() == 1 ? 0 : 2952;
    for (const off_t at : {0, 1024, 2047}) {
        ScriptedUtilities utilities;
        utilities.After("[ OK ] Move pointer", Pass(),
                        [=, this] { Overwrite(m_file, position + at, "\x02"); });
        utilities.RunTestMode(&m_param, m_fs.Path().c_str(), 5000);
        EXPECT_EQ(Expected({{"Verify data", Pass(), "Data content not match"}}),
                  Text(utilities.Infos()))
            << at;
    }
}

// A zero byte must not end the comparison.
TEST_P(PlatformTestOfPass, ZeroByteIsADifference) {
    const off_t position = Pass() == 1 ? 0 : 2952;
    After("Move pointer", [=, this] { Overwrite(m_file, position + 7, std::string(1, '\0')); });
    EXPECT_EQ(Expected({{"Verify data", Pass(), "Data content not match"}}), Text(Run()));
}

INSTANTIATE_TEST_SUITE_P(Passes, PlatformTestOfPass, ::testing::Values(1, 2), [](const auto& info) {
    return info.param == 1 ? "AtTheStart" : "AtTheEnd";
});

TEST_F(PlatformTest, AnotherPositionIsReportedWithThePosition) {
    // Before the seek of the second pass.
    m_utilities.After("[ OK ] Verify data", 1, [&] { ExchangeForNullDevice(m_file); });
    EXPECT_EQ(Expected({{"File seek", 2, "Position not match (current pos = 0)"},
                        {"Write data", 2, "File seek failed"},
                        {"Move pointer", 2, "File write failed"},
                        {"Read data", 2, "File seek failed"},
                        {"Verify data", 2, "File read failed"}}),
              Text(Run()));
}

TEST_F(PlatformTest, AnotherPositionBeforeReadingIsReportedWithThePosition) {
    m_utilities.After("[ OK ] Write data", 2, [&] { ExchangeForNullDevice(m_file); });
    EXPECT_EQ(Expected({{"Move pointer", 2, "Position not match (current pos = 0)"},
                        {"Read data", 2, "File seek failed"},
                        {"Verify data", 2, "File read failed"}}),
              Text(Run()));
}

TEST_F(PlatformTest, WithoutAModeTheModeThatIsBroughtBackIsNone) {
    m_utilities.After("[ OK ] Verify data", 2, [&] { Remove(m_file); });
    // Somebody puts it back for the modes.
    m_utilities.After("[FAIL] Get file stat", 1, [&] { support::WriteFile(m_file, ""); });
    const Lines expected =
        With(Report(m_fs.Path(), CaseOf(5000), Attributes(), "0"),
             {{"Get file stat", 1, "No such file or directory (2)"},
              {"Verify file mode 0 ", 1, "File mode not match (current file mode = 8000)"}});
    EXPECT_EQ(Text(expected), Text(Run()));
}

TEST_F(PlatformTest, ModeThatCannotBeSetIsNotVerified) {
    m_utilities.After("[ OK ] Get file stat", 1, [&] { Remove(m_file); });
    m_utilities.After("[FAIL] Verify file mode", 1, [&] { support::WriteFile(m_file, ""); });
    EXPECT_EQ(Expected({{"Set file mode 8124", 1, "No such file or directory (2)"},
                        {"Get file mode", 1, "Set file mode failed"},
                        {"Verify file mode 8124", 1, "Get file mode failed"}}),
              Text(Run()));
}

TEST_F(PlatformTest, ModeThatCannotBeReadIsNotVerified) {
    m_utilities.After("[ OK ] Set file mode 81A4", 1, [&] { Remove(m_file); });
    m_utilities.After("[FAIL] Get file mode", 1, [&] { support::WriteFile(m_file, ""); });
    EXPECT_EQ(Expected({{"Get file mode", 2, "No such file or directory (2)"},
                        {"Verify file mode 81A4", 1, "Get file mode failed"}}),
              Text(Run()));
}

TEST_F(PlatformTest, AnotherModeIsReportedWithTheModeAndTheType) {
    m_utilities.After("[ OK ] Set file mode 8124", 1,
                      [&] { ASSERT_EQ(0, chmod(m_file.c_str(), 0600)); });
    EXPECT_EQ(
        Expected({{"Verify file mode 8124", 1, "File mode not match (current file mode = 8180)"}}),
        Text(Run()));
}

// Same permission bits, another type: a folder in place of the file.
TEST_F(PlatformTest, TypeBelongsToTheModeThatIsCompared) {
    m_utilities.After("[ OK ] Set file mode 8124", 1, [&] {
        Remove(m_file);
        ASSERT_EQ(0, mkdir(m_file.c_str(), 0444));
    });
    m_utilities.After("[FAIL] Verify file mode", 1, [&] {
        Remove(m_file);
        support::WriteFile(m_file, "");
    });
    EXPECT_EQ(
        Expected({{"Verify file mode 8124", 1, "File mode not match (current file mode = 4124)"}}),
        Text(Run()));
}

TEST_F(PlatformTest, FailedRenameLeavesTheCleanUpToTakeTheFileAway) {
    m_utilities.After("[ OK ] Close file", 4, [&] { MakeFolder(m_second); });
    EXPECT_EQ(Expected({{"Rename file", 1, "Is a directory (21)"},
                        {"Remove directory", 1, "Directory not empty (39)"}}),
              Text(Run()));
    EXPECT_TRUE(LeftNothing());
}

TEST_F(PlatformTest, FailedRemovalsAreMadeUpForByTheCleanUp) {
    // A file that something is mounted on cannot be removed.
    support::ScopedTempDir other;
    support::WriteFile(other / "file", "");
    m_utilities.After("[ OK ] Rename file", 1, [&] {
        ASSERT_EQ(0, mount((other / "file").c_str(), m_second.c_str(), nullptr, MS_BIND, nullptr));
    });
    m_utilities.After("[FAIL] Remove directory", 1,
                      [&] { ASSERT_EQ(0, umount(m_second.c_str())); });
    EXPECT_EQ(Expected({{"Remove file", 1, "Device or resource busy (16)"},
                        {"Remove directory", 1, "Directory not empty (39)"}}),
              Text(Run()));
    EXPECT_TRUE(LeftNothing());
}

TEST_F(PlatformTest, DirectoryThatComesBackAtOnceIsNotRemoved) {
    m_param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    m_utilities.After("[Utilities.RunTestMode] OS remove folder", 1, [&] { MakeFolder(m_folder); });
    EXPECT_EQ(Expected({{"Remove directory", 1, "Directory still exist"}}), Text(Run()));
    EXPECT_TRUE(LeftNothing());
}

TEST_F(PlatformTest, CleanUpThatFailsIsNotReported) {
    m_utilities.After("[ OK ] Remove file", 1,
                      [&] { support::WriteFile(m_folder + "/foreign", "x"); });
    EXPECT_EQ(Expected({{"Remove directory", 1, "Directory not empty (39)"}}), Text(Run()));
    EXPECT_EQ("x", support::ReadFile(m_folder + "/foreign"));
    // What is left stands in the way of the next run.
    EXPECT_THAT(Run(), ElementsAre(kRefused + "Test directory \"" + m_folder + "\" already exist"));
}

}  // namespace
