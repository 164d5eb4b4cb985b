// What is written about one redirected file: its content and its listing.

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <future>
#include <optional>
#include <random>

#include "PlatformReport.h"
#include "RedirectedFileFixture.h"
#include "support/Faults.h"

namespace faults = support::faults;

using namespace redirtest;
using support::FileExists;
using support::OpenCount;
using support::PatternData;
using support::ReadFile;
using testing::ElementsAre;
using testing::IsEmpty;

// ------------------------------------------------------------------------------------------------
// Exporting the content
// ------------------------------------------------------------------------------------------------

TEST_F(ExportedRedirectedFileTest, ExportWritesTheContent) {
    const std::string data = PatternData(200'000);
    const std::string a = Make("a", data);
    const std::string target = Make("target");
    Open(200'000);
    ASSERT_TRUE(Add(a, 100'000, 0, 100'000));
    ASSERT_TRUE(Add(a, 0, 100'000, 100'000));
    file.Export(&param, target.c_str());
    EXPECT_TRUE(data.substr(100'000) + data.substr(0, 100'000) == ReadFile(target));
    EXPECT_EQ(0, OpenCount(target)) << "the descriptor is given back";
}

TEST_F(ExportedRedirectedFileTest, ExportLogsEveryStepOf65536Bytes) {
    const std::string a = Make("a", PatternData(100'000));
    const std::string target = Make("target");
    Open(100'000);
    ASSERT_TRUE(Add(a, 0, 0, 100'000));
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    const Lines lines = utilities.Infos();
    ASSERT_EQ(3u, lines.size());
    EXPECT_THAT(lines[0], testing::MatchesRegex("\\[RedirectedFile.Export\\] Content to file: " +
                                                target + " \\(fid=[0-9]+\\)"));
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:65536, w:65536", lines[1]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:34464, w:34464", lines[2]);
}

TEST_F(ExportedRedirectedFileTest, AFailedCloseOfATargetIsReported) {
    const std::string target = Make("target");
    Open(10);
    Log(LOG_CONTROL_ERROR);
    for (const bool listing : {false, true}) {
        faults::Fail(faults::Call::Close, EIO);
        if (listing) {
            file.ExportInfo(&param, target.c_str(), false);
        } else {
            file.Export(&param, target.c_str());
        }
        EXPECT_THAT(utilities.Errors(),
                    ElementsAre(testing::HasSubstr("OS close file \"" + target + "\". Error=")));
        utilities.Forget();
    }
}

TEST_F(ExportedRedirectedFileTest, ExportNeedsAnExistingTarget) {
    Open(100);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, (dir / "missing").c_str());
    EXPECT_THAT(utilities.Infos(),
                ElementsAre("[RedirectedFile.Export] Content to file error: " + (dir / "missing")));
    EXPECT_FALSE(FileExists(dir / "missing"));
    file.Export(&param, nullptr);
    EXPECT_EQ("[RedirectedFile.Export] Content to file error: ", utilities.Infos().back());
}

TEST_F(RedirectedFileTest, OutsideEveryExportTheTargetIsNotWritable) {
    const std::string target = Make("target", "kept");
    Open(100);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:100, w:-1", utilities.Infos().back());
    EXPECT_EQ("kept", ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ExportOverwritesAndDoesNotCut) {
    const std::string a = Make("a", "abc");
    const std::string target = Make("target", "0123456789");
    Open(3);
    ASSERT_TRUE(Add(a, 0, 0, 3));
    file.Export(&param, target.c_str());
    EXPECT_EQ("abc3456789", ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ExportIsWholeAlthoughAReaderHasReachedTheEnd) {
    const std::string a = Make("a", std::string(10, 'a'));
    const std::string target = Make("target");
    Open(100'000);
    ASSERT_TRUE(Add(a, 0, 50'000, 10));
    ASSERT_TRUE(Read(99'990, 10).eof);
    file.Export(&param, target.c_str());
    // The first step begins where nothing covers, so it is filled up as a tail.
    EXPECT_TRUE(Zeros(100'000) == ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ExportOfAFileOfSizeZeroWritesNothing) {
    const std::string target = Make("target");
    Open(0);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    EXPECT_EQ(0, SizeOf(target));
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:0, w:0", utilities.Infos().back());
}

TEST_F(ExportedRedirectedFileTest, ExportGoesOnBehindASourceThatEndsEarly) {
    const std::string data = PatternData(70'000);
    const std::string a = Make("a", data);
    const std::string target = Make("target");
    Open(200'000);
    ASSERT_TRUE(Add(a, 0, 0, 100'000));
    ASSERT_TRUE(Add(a, 0, 100'000, 100'000));
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    const Lines lines = utilities.Infos();
    ASSERT_EQ(5u, lines.size());
    // The second step moves what follows the gap up, the third ends inside the second segment.
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:65536, w:65536", lines[1]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:65536, w:65536", lines[2]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:131072, r:38928, w:38928", lines[3]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:170000, r:30000, w:30000", lines[4]);
    EXPECT_TRUE(data + data.substr(0, 61'072) + data.substr(31'072) + Zeros(30'000) ==
                ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ExportEndsWhereNothingComesAnyMore) {
    const std::string a = Make("a", std::string(70'000, 'a'));
    const std::string target = Make("target");
    Open(300'000);
    ASSERT_TRUE(Add(a, 0, 0, 300'000));
    file.Export(&param, target.c_str());
    EXPECT_TRUE(std::string(70'000, 'a') == ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ATailOfFourGibibytesIsExportedAsAWhole) {
    const std::string a = Make("a", std::string(100'000, 'a'));
    // Takes what it is given and fills no disk.
    const std::string target = dir / "target";
    std::filesystem::create_symlink("/dev/null", target);
    Open(4 * kGiB + 100'000);
    ASSERT_TRUE(Add(a, 0, 0, 100'000));
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.Export(&param, target.c_str());
    const Lines lines = utilities.Infos();
    ASSERT_EQ(1u + 65'536 + 2, lines.size());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:65536, w:65536", lines[2]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:4295032832, r:34464, w:34464", lines.back());
}

TEST_F(ExportedRedirectedFileTest, ATailBehindAShortSourceFillsTheTarget) {
    const std::string a = Make("a", std::string(100'000, 'a'));
    const std::string target = Make("target");
    Open(1'000'000);
    ASSERT_TRUE(Add(a, 0, 0, 120'000));
    file.Export(&param, target.c_str());
    EXPECT_TRUE(std::string(100'000, 'a') + Zeros(900'000) == ReadFile(target));
}

// ------------------------------------------------------------------------------------------------
// Exports that are to end
// ------------------------------------------------------------------------------------------------

// Has the exports stopped by one of their own lines.
class StoppingUtilities : public ControlledUtilities {
public:
    using ControlledUtilities::LogInfo;
    void LogInfo(CRuntimeParam* param, char* message) override {
        ControlledUtilities::LogInfo(param, message);
        if (!stopAt.empty() && std::string(message).find(stopAt) != std::string::npos) {
            Stop();
        }
    }
    void Stop() { m_stop.emplace(this); }
    void GoOn() { m_stop.reset(); }
    std::string stopAt;

private:
    std::optional<ExportStop> m_stop;
};

class StoppedExportTest : public ExportedRedirectedFileTest {
protected:
    void SetUp() override {
        LogArgu argu{"Test.Export"};
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(m_stopping.AddMountInfo(&param, &argu, dir.Path().c_str(), "vm01", "", reason))
            << reason;
    }
    ~StoppedExportTest() override {
        LogArgu argu{"Test.End"};
        m_stopping.Reset(&param, &argu);
    }
    // An export of 20 steps, all of it source; its lines.
    Lines Exported(const std::string& target) {
        CRedirectedFile one(&m_stopping);
        one.Open(&param, 20 * 65'536, 7, nullptr, 0, 0);
        const std::string source = MakeSparse("source", 20 * 65'536);
        EXPECT_TRUE(one.AddSegment(&param, source.c_str(), 0, 0, 20 * 65'536, nullptr));
        m_stopping.Forget();
        one.Export(&param, target.c_str());
        return m_stopping.Infos();
    }

    StoppingUtilities m_stopping;
};

TEST_F(StoppedExportTest, ARunningExportEndsAtItsNextStep) {
    for (const int bits : {0, static_cast<int>(LOG_CONTROL_FILE_ACCESS)}) {
        param.SetLogControl(bits | LOG_CONTROL_REDIRECT_FILE);
        const std::string target = Make("target");
        m_stopping.stopAt = "Write ox:131072,";
        const Lines lines = Exported(target);
        EXPECT_EQ(3 * 65'536, SizeOf(target)) << "with and without copies inside the kernel";
        EXPECT_EQ("[RedirectedFile.Export] Stopped ox:196608",
                  bits == 0 ? lines.back() : lines[lines.size() - 2]);
        EXPECT_EQ(0, OpenCount(target)) << "the descriptor is given back";
        m_stopping.stopAt.clear();
        m_stopping.GoOn();
    }
}

TEST_F(StoppedExportTest, WhileExportsAreStoppedNoneWrites) {
    const std::string target = Make("target");
    m_stopping.Stop();
    Exported(target);
    EXPECT_EQ(0, SizeOf(target));
    m_stopping.GoOn();
    Exported(target);
    EXPECT_EQ(20 * 65'536, SizeOf(target));
}

TEST_F(StoppedExportTest, AListingEndsAtItsNextLine) {
    CRedirectedFile one(&m_stopping);
    one.Open(&param, 100, 7, nullptr, 0, 0);
    for (const char* source : {"a", "a", "b", "b", "c"}) {
        ASSERT_TRUE(one.AddSegment(&param, source, 0, 0, 10, nullptr));
    }
    const auto listed = [&](bool merge, const std::string& stopAt) {
        const std::string target = Make("target");
        param.SetLogControl(LOG_CONTROL_FILE_ACCESS | LOG_CONTROL_REDIRECT_FILE);
        m_stopping.Forget();
        m_stopping.stopAt = stopAt;
        one.ExportInfo(&param, target.c_str(), merge);
        m_stopping.stopAt.clear();
        EXPECT_EQ(0, OpenCount(target)) << "the descriptor is given back";
        EXPECT_TRUE(m_stopping.Has("[RedirectedFile.ExportInfo] Stopped"));
        m_stopping.GoOn();
        return ReadFile(target);
    };
    EXPECT_EQ("Segment path=a, fox=0, ox=0, len=10\n", listed(false, "OS write file"));
    EXPECT_EQ("--> Merged Segment path=a, fox=0, ox=0, len=20\n", listed(true, "OS write file"))
        << "the run that was cut off is not listed";
    EXPECT_EQ("", listed(false, "Info to file:"));
    EXPECT_EQ("", listed(true, "Info to file:"));
}

TEST_F(StoppedExportTest, CheckpointsEndTheSameWay) {
    const std::string info = Make("info");
    CRedirectedFile one(&m_stopping);
    one.Open(&param, 5 * kMiB, 7, info.c_str(), 1, 1);
    ASSERT_TRUE(one.AddSegment(&param, nullptr, 0, 0, 5 * kMiB, nullptr));
    const std::string target = Make("target");
    param.SetLogControl(LOG_CONTROL_FILE_ACCESS);
    m_stopping.stopAt = "OS write file";
    one.ExportInfo(&param, target.c_str(), false);
    m_stopping.stopAt.clear();
    EXPECT_EQ("--> CheckPoint Segment fox=28, ox=1048576\n-------------------\n", ReadFile(target));
}

// ------------------------------------------------------------------------------------------------
// Pipes
// ------------------------------------------------------------------------------------------------

// With a pipe of the file system that nobody has opened.  Each operation runs on a thread of its
// own; one that hangs fails the test and is set free.
class PipeTest : public ExportedRedirectedFileTest {
protected:
    void SetUp() override { ASSERT_EQ(0, mkfifo(pipe.c_str(), 0600)); }
    template <typename Body>
    [[nodiscard]] bool Ends(Body body) {
        auto done = std::async(std::launch::async, body);
        if (done.wait_for(support::kPatience) == std::future_status::ready) {
            return true;
        }
        // Opening both ends lets an open go on, closing them ends a read, reading ends a write.
        const int both = open(pipe.c_str(), O_RDWR | O_NONBLOCK | O_CLOEXEC);
        char buffer[4096];
        while (done.wait_for(support::Milliseconds(10)) != std::future_status::ready) {
            while (read(both, buffer, sizeof buffer) > 0) {
            }
        }
        close(both);
        return false;
    }

    const std::string pipe = dir / "pipe";
};

TEST_F(PipeTest, AsASourceItReadsAsNothing) {
    const std::string a = Make("a", std::string(10, 'a'));
    for (const bool exported : {false, true}) {
        SCOPED_TRACE(exported ? "inside an export" : "outside every export");
        if (exported) {
            ExportFolder();
        }
        CRedirectedFile one(&utilities);
        one.Open(&param, 100, 7, nullptr, 0, 0);
        ASSERT_TRUE(one.AddSegment(&param, a.c_str(), 0, 0, 10, nullptr));
        ASSERT_TRUE(one.AddSegment(&param, pipe.c_str(), 0, 10, 10, nullptr));
        ASSERT_TRUE(one.AddSegment(&param, a.c_str(), 0, 20, 10, nullptr));
        Got across;
        Got inside;
        ASSERT_TRUE(Ends([&] {
            across = GuardedRead(100, [&](void* buffer, bool* eof) {
                return one.Read(&param, 0, buffer, 100, eof);
            });
            inside = GuardedRead(
                5, [&](void* buffer, bool* eof) { return one.Read(&param, 12, buffer, 5, eof); });
        }));
        EXPECT_EQ((Got{10, false, std::string(10, 'a')}), across);
        EXPECT_EQ((Got{0, false, ""}), inside);
    }
}

TEST_F(PipeTest, AnExportEndsAtASourceThatIsAPipe) {
    const std::string a = Make("a", std::string(10, 'a'));
    std::filesystem::create_directory(dir / "out");
    const std::string target = Make("out/target");
    LogArgu argu{"Test.Export"};
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(utilities.AddMountInfo(&param, &argu, (dir / "out").c_str(), "vm01", "", reason));
    Open(100);
    ASSERT_TRUE(Add(a, 0, 0, 10));
    ASSERT_TRUE(Add(pipe, 0, 10, 90));
    ASSERT_TRUE(Ends([&] { file.Export(&param, target.c_str()); }));
    EXPECT_EQ(std::string(10, 'a'), ReadFile(target));
}

TEST_F(PipeTest, AnExportToAPipeThatNobodyReadsEnds) {
    for (const bool exported : {false, true}) {
        SCOPED_TRACE(exported ? "inside an export" : "outside every export");
        if (exported) {
            ExportFolder();
        }
        CRedirectedFile one(&utilities);
        one.Open(&param, 3 * 65'536, 7, nullptr, 0, 0);
        Log(LOG_CONTROL_REDIRECT_FILE);
        ASSERT_TRUE(Ends([&] { one.Export(&param, pipe.c_str()); }));
        // As much as a pipe holds, and nothing more.
        const Lines lines = utilities.Infos();
        ASSERT_EQ(4u, lines.size());
        EXPECT_EQ(std::string("[RedirectedFile.Export] Write ox:0, r:65536, w:") +
                      (exported ? "65536" : "-1"),
                  lines[1]);
        EXPECT_EQ("[RedirectedFile.Export] Write ox:131072, r:65536, w:-1", lines[3]);
        ASSERT_TRUE(Ends([&] { one.ExportInfo(&param, pipe.c_str(), true); }));
        Log(0);
    }
}

TEST_F(PipeTest, AReaderOfAPipeGetsTheWholeExport) {
    ExportFolder();
    const std::string data = PatternData(1'000'000);
    const std::string a = Make("a", data);
    Open(1'000'000);
    ASSERT_TRUE(Add(a, 0, 0, 1'000'000));
    auto reader = std::async(std::launch::async, [&] {
        const int fd = open(pipe.c_str(), O_RDONLY | O_CLOEXEC);
        std::string got;
        char buffer[3000];
        for (ssize_t count = 1; count > 0 && got.size() < data.size();) {
            count = read(fd, buffer, sizeof buffer);
            got.append(buffer, static_cast<std::size_t>(std::max<ssize_t>(0, count)));
        }
        close(fd);
        return got;
    });
    // Its open waits for a writer.
    const int writer = open(pipe.c_str(), O_WRONLY | O_CLOEXEC);
    Log(LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_ERROR);
    file.Export(&param, pipe.c_str());
    close(writer);
    EXPECT_TRUE(data == reader.get());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:983040, r:16960, w:16960",
              utilities.Infos().back());
    EXPECT_THAT(utilities.Errors(), IsEmpty());
}

// The lines of the steps of an export, and what it left in its target.
struct Exported {
    Lines steps;
    std::string content;
    std::vector<off_t> positions;  // of the sources
    Got next;                      // what is read at a place that nothing covers

    bool operator==(const Exported&) const = default;
};

// Whether an export copies inside the system or reads and writes depends on whether the lines of
// file access, which tell of every read and write, are wanted: nothing else may differ.
class EitherWayTest : public ExportedRedirectedFileTest {
protected:
    struct Part {
        std::string source;  // empty: none
        std::int64_t from;
        std::int64_t offset;
        std::int64_t length;
    };

    Exported ExportWith(int logControl, const std::string& target, const std::string& infoFile,
                        std::int64_t size, const std::vector<Part>& parts) {
        CRedirectedFile one(&utilities);
        one.Open(&param, size, 7, infoFile.c_str(), 1, 1);
        std::vector<std::string> sources;
        for (const Part& part : parts) {
            one.AddSegment(&param, part.source.c_str(), part.from, part.offset, part.length,
                           nullptr);
            sources.push_back(part.source);
        }
        Log(logControl);
        one.Export(&param, target.c_str());
        Exported result;
        for (const std::string& line : utilities.Infos()) {
            if (line.find(" Write ox:") != std::string::npos) {
                result.steps.push_back(line);
            }
        }
        result.content = ReadFile(target);
        for (const std::string& source : sources) {
            result.positions.push_back(source.empty() || !FileExists(source) ? -2
                                                                             : PositionOf(source));
        }
        result.next = GuardedRead(64, [&](void* buffer, bool* eof) {
            return one.Read(&param, static_cast<std::uint64_t>(size) - 1, buffer, 64, eof);
        });
        one.Close(&param);
        Log(0);
        return result;
    }
    // The same export both ways, to a new target each.
    void ExpectTheSame(std::int64_t size, const std::vector<Part>& parts, bool infoFile) {
        const auto exported = [&](const std::string& name, int logControl) {
            return ExportWith(logControl, Make(name), infoFile ? Make(name + ".info") : "", size,
                              parts);
        };
        const Exported slow = exported("slow", LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
        const Exported fast = exported("fast", LOG_CONTROL_REDIRECT_FILE);
        EXPECT_EQ(slow.steps, fast.steps);
        EXPECT_TRUE(slow.content == fast.content);
        EXPECT_EQ(slow.positions, fast.positions);
        EXPECT_EQ(slow.next, fast.next);
    }
};

TEST_F(EitherWayTest, RandomFilesAreExportedAlike) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto below = [&random](std::int64_t limit) {
        return static_cast<std::int64_t>(random() % static_cast<std::uint64_t>(limit));
    };
    const std::array<std::string, 4> sources{Make("a", PatternData(1'000'000)),
                                             Make("b", PatternData(300'000)), "", dir / "missing"};
    for (int round = 0; round < 20; ++round) {
        const std::int64_t size = 1 + below(1'500'000);
        std::vector<Part> parts;
        for (std::int64_t i = below(8); i >= 0; --i) {
            parts.push_back({sources[static_cast<std::size_t>(below(4))], below(400'000),
                             below(4) == 0 ? 0 : below(size), below(1'000'000)});
        }
        SCOPED_TRACE("round " + Count(static_cast<std::size_t>(round)));
        ExpectTheSame(size, parts, round % 2 == 0);
    }
}

TEST_F(EitherWayTest, ATargetThatIsItsOwnSourceIsWrittenBehindWhatWasRead) {
    const std::string data = PatternData(300'000);
    const auto exported = [&](const std::string& name, int logControl) {
        const std::string both = Make(name, data);
        return ExportWith(logControl, both, "", 200'000, {{both, 0, 0, 200'000}});
    };
    const Exported slow = exported("slow", LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
    const Exported fast = exported("fast", LOG_CONTROL_REDIRECT_FILE);
    // Each step writes where it has just read to.
    std::string expected = data;
    for (std::size_t at = 0; at < 200'000; at += 65'536) {
        const std::size_t length = std::min<std::size_t>(65'536, 200'000 - at);
        expected.resize(std::max(expected.size(), at + 2 * length));
        expected.replace(at + length, length, std::string(expected, at, length));
    }
    EXPECT_TRUE(expected == slow.content);
    EXPECT_TRUE(expected == fast.content);
    EXPECT_EQ(slow.steps, fast.steps);
}

TEST_F(EitherWayTest, ATargetThatIsItsOwnSourceUnderAnotherNameIsReadBeforeItIsWritten) {
    const std::string data = PatternData(65'536);
    const std::string tail = Make("tail", std::string(65'536, 't'));
    const auto exported = [&](const std::string& name, int logControl) {
        const std::string both = Make(name, data);
        std::filesystem::create_hard_link(both, both + "2");
        return ExportWith(logControl, both, "", 196'618,
                          {{tail, 0, 0, 65'536},
                           {both + "2", 32'768, 65'536, 65'536},
                           {tail, 0, 131'082, 65'536}});
    };
    const Exported slow = exported("slow", LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
    const Exported fast = exported("fast", LOG_CONTROL_REDIRECT_FILE);
    ASSERT_LE(2u, fast.steps.size());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:65536, w:65536", fast.steps[1]);
    EXPECT_EQ(slow.steps, fast.steps);
    EXPECT_TRUE(slow.content == fast.content);
}

TEST_F(EitherWayTest, ATargetIsReadAsItWasBehindASourceThatEndsInsideTheStep) {
    const std::string shorter = Make("short", std::string(1000, 's'));
    const std::string data = PatternData(65'536);
    const auto exported = [&](const std::string& name, int logControl) {
        const std::string both = Make(name, data);
        // The target stands at 0 when its own first bytes are read.
        std::filesystem::create_hard_link(both, both + "2");
        return ExportWith(logControl, both, "", 131'072,
                          {{shorter, 0, 0, 65'536}, {both + "2", 0, 65'536, 65'536}});
    };
    const Exported slow = exported("slow", LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
    const Exported fast = exported("fast", LOG_CONTROL_REDIRECT_FILE);
    EXPECT_EQ(std::string(1000, 's') + data.substr(0, 64'536), fast.content.substr(0, 65'536));
    EXPECT_EQ(slow.steps, fast.steps);
    EXPECT_TRUE(slow.content == fast.content);
}

TEST_F(EitherWayTest, AFullFileSystemGetsWhatFits) {
    const std::string data = PatternData(300'000);
    const std::string a = Make("a", data);
    const auto exported = [&](int logControl) {
        // Room for one step and a part of the second.
        const platform::TmpFs fs("size=100k,nr_inodes=10");
        LogArgu argu{"Test.Export"};
        char reason[STATUS_SIZE] = "";
        EXPECT_TRUE(utilities.AddMountInfo(&param, &argu, fs.Path().c_str(), "full", "", reason))
            << reason;
        const std::string target = fs / "target";
        support::WriteFile(target, "");
        Exported result = ExportWith(logControl, target, "", 300'000, {{a, 0, 0, 300'000}});
        utilities.RemoveMountInfoByExportName("full");
        return result;
    };
    const Exported slow = exported(LOG_CONTROL_REDIRECT_FILE | LOG_CONTROL_FILE_ACCESS);
    const Exported fast = exported(LOG_CONTROL_REDIRECT_FILE);
    ASSERT_EQ(5u, fast.steps.size());
    EXPECT_EQ("[RedirectedFile.Export] Write ox:0, r:65536, w:65536", fast.steps[0]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:65536, r:65536, w:36864", fast.steps[1]);
    EXPECT_EQ("[RedirectedFile.Export] Write ox:131072, r:65536, w:-1", fast.steps[2]);
    EXPECT_EQ(slow.steps, fast.steps);
    EXPECT_TRUE(data.substr(0, 102'400) == fast.content);
    EXPECT_TRUE(slow.content == fast.content);
}

// ------------------------------------------------------------------------------------------------
// Exporting the listing
// ------------------------------------------------------------------------------------------------

TEST_F(ExportedRedirectedFileTest, TheListingNamesEverySegmentInOrder) {
    Open(100);
    ASSERT_TRUE(Add(dir / "a", 5, 0, 10));
    ASSERT_TRUE(Add("", 6, 40, 10));
    ASSERT_TRUE(Add(dir / "b", 7, 20, 1000));
    const std::string target = Make("target");
    file.ExportInfo(&param, target.c_str(), false);
    EXPECT_EQ("Segment path=" + (dir / "a") + ", fox=5, ox=0, len=10\n" +
                  "Segment path=Null, fox=6, ox=40, len=10\n" + "Segment path=" + (dir / "b") +
                  ", fox=7, ox=20, len=80\n",
              ReadFile(target));
    EXPECT_EQ(0, OpenCount(target));
}

TEST_F(ExportedRedirectedFileTest, TheListingBeginsWithTheSegmentOfOffsetZero) {
    Open(100);
    ASSERT_TRUE(Add("", 1, 50, 10));
    ASSERT_TRUE(Add("", 2, 0, 10));
    ASSERT_TRUE(Add("", 3, 20, 10));
    EXPECT_THAT(Info(), ElementsAre("Segment path=Null, fox=2, ox=0, len=10",
                                    "Segment path=Null, fox=3, ox=20, len=10"));
}

TEST_F(ExportedRedirectedFileTest, WithoutASegmentOfOffsetZeroNoneIsListed) {
    Open(100);
    ASSERT_TRUE(Add("", 1, 50, 10));
    EXPECT_THAT(Info(), IsEmpty());
}

TEST_F(ExportedRedirectedFileTest, TheListingOfAnInfoFileShowsItsRecords) {
    const std::string info = Make("info", PatternData(100));
    Open(kGiB, info);
    ASSERT_TRUE(Add(dir / "a", 0, 0, 33 * kMiB));
    EXPECT_THAT(Info(), ElementsAre("Segment path=" + (dir / "a") + ", fox=0, ox=0, len=33554432",
                                    "Segment path=" + (dir / "a") +
                                        ", fox=33554432, ox=33554432, len=1048576"));
}

TEST_F(ExportedRedirectedFileTest, MergedSegmentsOfOneSourceAreOneLine) {
    Open(100);
    ASSERT_TRUE(Add(dir / "a", 0, 0, 10));
    ASSERT_TRUE(Add(dir / "a", 50, 30, 20));  // no neighbour, neither here nor there
    ASSERT_TRUE(Add(dir / "a", 10, 10, 5));
    EXPECT_THAT(Info(true),
                ElementsAre("--> Merged Segment path=" + (dir / "a") + ", fox=0, ox=0, len=35"));
}

TEST_F(ExportedRedirectedFileTest, AnotherSourceBeginsAnotherMergedLine) {
    Open(100);
    ASSERT_TRUE(Add(dir / "a", 0, 0, 10));
    ASSERT_TRUE(Add("", 3, 10, 10));
    ASSERT_TRUE(Add("", 4, 20, 10));
    ASSERT_TRUE(Add(dir / "a", 30, 30, 10));
    EXPECT_THAT(Info(true),
                ElementsAre("--> Merged Segment path=" + (dir / "a") + ", fox=0, ox=0, len=10",
                            "--> Merged Segment path=Null, fox=3, ox=10, len=20",
                            "--> Merged Segment path=" + (dir / "a") + ", fox=30, ox=30, len=10"));
}

TEST_F(ExportedRedirectedFileTest, MergingAFirstRunWithoutSourceKeepsItsOffsets) {
    Open(100);
    ASSERT_TRUE(Add("", 3, 0, 10));
    ASSERT_TRUE(Add("", 4, 10, 10));
    EXPECT_THAT(Info(true), ElementsAre("--> Merged Segment path=Null, fox=3, ox=0, len=20"));
}

TEST_F(ExportedRedirectedFileTest, MergingNothingWritesOneLineOfZeros) {
    Open(100);
    EXPECT_THAT(Info(true), ElementsAre("--> Merged Segment path=Null, fox=0, ox=0, len=0"));
    ASSERT_TRUE(Add(dir / "a", 5, 50, 10));  // does not contain offset 0
    EXPECT_THAT(Info(true),
                ElementsAre("--> Merged Segment path=" + (dir / "a") + ", fox=0, ox=0, len=0"));
}

TEST_F(ExportedRedirectedFileTest, CheckpointsStandBeforeMergedLinesToo) {
    const std::string info = Make("info");
    Open(4 * kMiB, info, 1, 2);
    ASSERT_TRUE(Add("", 0, 0, 4 * kMiB));
    EXPECT_THAT(Info(true),
                ElementsAre("--> CheckPoint Segment fox=56, ox=2097152", "-------------------",
                            "--> Merged Segment path=Null, fox=0, ox=0, len=4194304"));
}

TEST_F(ExportedRedirectedFileTest, NumbersOfTheListingAreUnsigned) {
    Open(kMax);
    ASSERT_TRUE(Add("", -1, -1, 10));
    EXPECT_THAT(Info(), ElementsAre("Segment path=Null, fox=18446744073709551615, "
                                    "ox=18446744073709551615, len=10"));
}

TEST_F(ExportedRedirectedFileTest, AListingLargerThanTheBufferIsWhole) {
    Open(10'000);
    std::string expected;
    for (int i = 0; i < 5000; ++i) {
        ASSERT_TRUE(Add(dir / "a", i, i, 1));
        expected += "Segment path=" + (dir / "a") + ", fox=" + std::to_string(i) +
                    ", ox=" + std::to_string(i) + ", len=1\n";
    }
    ASSERT_GT(expected.size(), 3u * 65536);
    const std::string target = Make("target");
    file.ExportInfo(&param, target.c_str(), false);
    EXPECT_TRUE(expected == ReadFile(target));
}

TEST_F(ExportedRedirectedFileTest, ALineOfTheListingHolds65535Bytes) {
    const std::string fits(65'535 - std::strlen("Segment path=, fox=0, ox=0, len=5\n"), 'p');
    Open(100);
    ASSERT_TRUE(Add(fits, 0, 0, 5));
    ASSERT_TRUE(Add(fits + "q", 0, 5, 5));
    const std::string path = Make("listing");
    file.ExportInfo(&param, path.c_str(), false);
    EXPECT_TRUE("Segment path=" + fits + ", fox=0, ox=0, len=5\n" + "Segment path=" + fits +
                    "q, fox=0, ox=5, len=5" ==
                ReadFile(path));
}

TEST_F(ExportedRedirectedFileTest, WithTheLinesOfFileAccessEveryLineAndRecordIsWrittenAlone) {
    const std::string a = Make("a");
    const std::string info = Make("info");
    const auto writes = [&] {
        const Lines lines = utilities.Infos();
        return std::count_if(lines.begin(), lines.end(), [](const std::string& line) {
            return line.find("OS write file (") != std::string::npos;
        });
    };
    Open(100 * kMiB, info);
    Log(LOG_CONTROL_FILE_ACCESS);
    ASSERT_TRUE(Add(a, 0, 0, 100 * kMiB));
    EXPECT_EQ(4, writes());  // 32 MiB thrice, and 4 MiB
    const std::string listing = Make("listing");
    utilities.Forget();
    file.ExportInfo(&param, listing.c_str(), false);
    EXPECT_EQ(4, writes());
}

TEST_F(ExportedRedirectedFileTest, TheListingLogsItsTarget) {
    const std::string target = Make("target");
    Open(100);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.ExportInfo(&param, target.c_str(), false);
    EXPECT_THAT(utilities.Infos(),
                ElementsAre(testing::MatchesRegex("\\[RedirectedFile.ExportInfo\\] Info to file: " +
                                                  target + " \\(fid=[0-9]+\\)")));
}

TEST_F(ExportedRedirectedFileTest, TheListingNeedsAnExistingTarget) {
    Open(100);
    Log(LOG_CONTROL_REDIRECT_FILE);
    file.ExportInfo(&param, (dir / "missing").c_str(), false);
    EXPECT_THAT(utilities.Infos(), ElementsAre("[RedirectedFile.ExportInfo] Info to file error: " +
                                               (dir / "missing")));
    EXPECT_FALSE(FileExists(dir / "missing"));
}
