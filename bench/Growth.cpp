#include "Growth.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <functional>
#include <map>
#include <numeric>
#include <thread>

#include "Engine.h"
#include "Json.h"

namespace bench {

namespace {

constexpr Shape kOne{1, 1};
constexpr Shape kEight{1, 8};
constexpr std::uint32_t kShortRead = 4096;
constexpr int kAllLogBits = 1023;
constexpr double kLongestListing = 30;  // seconds; a level that would take longer is left out

double Median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

std::string Number(const char* format, std::uint64_t number) {
    char text[64];
    // NOLINTNEXTLINE(clang-diagnostic-format-nonliteral)
    std::snprintf(text, sizeof text, format, static_cast<unsigned long long>(number));
    return text;
}

class Grower {
public:
    Grower(std::string what, const Growth& growth)
        : m_what(std::move(what)), m_growth(growth), m_control(growth.subject) {}

    void Paths();
    void Exports();
    void Sessions();
    void Descriptors();
    void Segments(bool infoFile);
    void Entries();
    void Connections();
    void Log();
    void Requests();

private:
    const Subject& Server() const { return m_growth.subject; }

    JsonLine Line(std::uint64_t level, const std::string& operation) const {
        JsonLine line("growth");
        line.Add("what", m_what).Add("level", level).Add("operation", operation);
        line.Add("subject", Server().name).Add("rss_kib", ResidentKiB(Server().pid));
        return line;
    }
    // Microseconds an operation, medians of the rounds: of the clock, and the server's CPU time,
    // which what else the machine does disturbs less.
    struct Cost {
        double micros;
        double cpu;
    };
    void Print(std::uint64_t level, const std::string& operation, const Cost& cost) const {
        Line(level, operation).Add("micros", cost.micros).Add("cpu_us", cost.cpu).Print();
    }
    // Resident bytes that each of `count` things has added since it was `before`, in KiB.
    double BytesOfEach(std::uint64_t count, std::size_t before) const {
        const double after = static_cast<double>(ResidentKiB(Server().pid));
        return (after - static_cast<double>(before)) * 1024 / static_cast<double>(count);
    }
    Cost Time(Runner& runner) const {
        runner.RunCount(2);
        std::vector<double> micros;
        std::vector<double> cpu;
        for (int i = 0; i < m_growth.rounds; ++i) {
            const Measured measured = runner.RunFor(m_growth.seconds);
            micros.push_back(measured.MicrosPerOperation());
            cpu.push_back(measured.CpuPerOperation());
        }
        return {Median(micros), Median(cpu)};
    }
    Cost Time(std::unique_ptr<Workload> workload) const {
        Runner runner(std::move(workload), kOne, {});
        return Time(runner);
    }
    Cost TimeNamed(const std::string& name) const {
        return Time(*MakeRunner(name, Server(), kOne, {}, nullptr));
    }
    // Of something else than calls.
    Cost TimeOf(std::uint64_t count, const std::function<void()>& work) const {
        const double cpu = CpuSeconds(Server().pid);
        const Clock::time_point begin = Clock::now();
        for (std::uint64_t i = 0; i < count; ++i) {
            work();
        }
        const auto times = static_cast<double>(count);
        return {SecondsSince(begin) * 1e6 / times, (CpuSeconds(Server().pid) - cpu) * 1e6 / times};
    }

    std::string m_what;
    Growth m_growth;
    Control m_control;
};

// Paths become known when a handle is given for them. The time is that of 64 paths spread over all
// of them, so that the kernel's own caches see the same work at every level.
void Grower::Paths() {
    constexpr std::uint64_t kFolderSize = 1000;
    constexpr std::uint64_t kProbes = 64;
    const auto folderOf = [](std::uint64_t number) {
        return "known/" + Number("%06llu", number / kFolderSize);
    };
    const auto nameOf = [](std::uint64_t number) { return Number("f%07llu", number); };
    std::vector<Handle> folders;
    std::uint64_t known = 0;
    for (const std::uint64_t level : m_growth.levels) {
        for (std::uint64_t i = known; i < level; ++i) {
            if (i % kFolderSize == 0) {
                MakeFolders(Server().Export() + "/" + folderOf(i));
            }
            MakeEmptyFile(Server().Export() + "/" + folderOf(i) + "/" + nameOf(i));
        }
        std::vector<Name> names;
        std::vector<Handle> handles;
        {
            Session session(Server());
            while (folders.size() * kFolderSize < level) {
                folders.push_back(session.Find(folderOf(folders.size() * kFolderSize)));
            }
            session.Release();
        }
        const std::size_t before = ResidentKiB(Server().pid);
        {
            Runner runner(MakeKnown(Server(), kEight, folders, known), kEight, {});
            runner.RunCount(level - known);
        }
        const double bytes = BytesOfEach(level - known, before);
        {
            Session session(Server());
            for (std::uint64_t i = 0; i < std::min(kProbes, level); ++i) {
                const std::uint64_t number = i * level / kProbes % level;
                const Handle folder = folders[number / kFolderSize];
                const support::LookupResult found = session.Nfs().Lookup(folder, nameOf(number));
                Check(found.status == 0, "a known path is gone");
                handles.push_back(found.handle);
                names.push_back({folder, nameOf(number)});
            }
            session.Release();
        }
        const std::string text = Server().Export() + "/" + folderOf(0) + "/" + nameOf(0);
        Line(level, "memory of a path").Add("bytes", bytes).Add("text_bytes", text.size()).Print();
        Print(level, "getattr", Time(MakeGetAttr(Server(), kOne, handles)));
        Print(level, "lookup", Time(MakeLookup(Server(), kOne, names)));
        Print(level, "read4k", TimeNamed("read4k"));
        known = level;
    }
}

void Grower::Exports() {
    std::uint64_t exported = 1;  // the one that everything is in
    for (const std::uint64_t level : m_growth.levels) {
        const std::size_t before = ResidentKiB(Server().pid);
        if (const std::uint64_t added = level - exported; added > 0) {
            const Cost cost = TimeOf(added, [&] {
                // Before the one that is asked for, also in the order of names.
                const std::string name = Number("a%05llu", exported++);
                const std::string folder = Server().folder + "/exports/" + name;
                MakeFolders(folder);
                m_control.AddExport(folder, name);
            });
            Line(level, "memory of an export").Add("bytes", BytesOfEach(added, before)).Print();
            Print(level, "add an export", cost);
        }
        Print(level, "getattr", TimeNamed("getattr"));
        Print(level, "lookup", TimeNamed("lookup"));
        Print(level, "read4k", TimeNamed("read4k"));
    }
}

void Grower::Sessions() {
    std::uint64_t open = 0;
    for (const std::uint64_t level : m_growth.levels) {
        for (; open < level; ++open) {
            m_control.AddSession(Number("session-%llu", open), Server().Export());
        }
        Print(level, "getattr", TimeNamed("getattr"));
        const std::string last = Number("session-%llu", level - 1);
        constexpr std::uint64_t kAsked = 2000;
        Print(level, "ask for a session",
              TimeOf(kAsked, [&] { Check(m_control.IsSession(last), "a session is gone"); }));
    }
}

// A file that was read stays open. `first` reads the one that has been open longest, `any` all.
void Grower::Descriptors() {
    MakeFolders(Server().Export() + "/open");
    std::vector<Handle> handles;
    for (const std::uint64_t level : m_growth.levels) {
        Session session(Server());
        while (handles.size() < level) {
            const std::string name = "open/" + Number("o%05llu", handles.size());
            WriteStamped(Server().Export() + "/" + name, 1);
            handles.push_back(session.Find(name));
            Check(session.Nfs().Read(handles.back(), 0, kShortRead).status == 0, "cannot read");
        }
        session.Release();
        Print(level, "read4k of the first",
              Time(MakeRead(Server(), kOne, {handles[0]}, kShortRead, kShortRead)));
        Print(level, "read4k of any",
              Time(MakeRead(Server(), kOne, handles, kShortRead, kShortRead)));
    }
}

void Grower::Segments(bool infoFile) {
    constexpr std::int64_t kLength = 65536;
    constexpr std::int64_t kSources = kReadPages * static_cast<std::int64_t>(kPage) / kLength;
    const std::string name = infoFile ? "rd/grown-info.img" : "rd/grown-memory.img";
    const std::string path = Server().Export() + "/" + name;
    const std::string source = Server().Export() + "/" + ReadFileName();
    MakeEmptyFile(path);
    const auto last = static_cast<std::int64_t>(m_growth.levels.back());
    m_control.OpenRedirected(path, last * kLength, infoFile);
    Session session(Server());
    const Handle handle = session.Find(name);
    session.Release();
    std::int64_t added = 0;
    for (const std::uint64_t level : m_growth.levels) {
        const std::size_t before = ResidentKiB(Server().pid);
        const std::uint64_t count = level - static_cast<std::uint64_t>(added);
        const Cost cost = TimeOf(count, [&] {
            // Never next to what stands next to it in the source: neighbours would be joined.
            m_control.AddSegment(path, source, added * 757 % kSources * kLength, added * kLength,
                                 kLength);
            ++added;
        });
        Print(level, "add a segment", cost);
        Line(level, "memory of a segment").Add("bytes", BytesOfEach(count, before)).Print();
        const std::uint64_t size = level * kLength;
        Print(level, "read4k", Time(MakeRead(Server(), kOne, {handle}, size, kShortRead)));
        Print(level, "read64k", Time(MakeRead(Server(), kOne, {handle}, size, kLength)));
    }
    m_control.CloseRedirected(path);
}

void Grower::Entries() {
    std::map<bool, double> longest;  // seconds of the last level, of READDIRPLUS or READDIR
    double lastLevel = 0;
    for (const std::uint64_t level : m_growth.levels) {
        const std::string folder = "entries-" + std::to_string(level);
        MakeFolders(Server().Export() + "/" + folder);
        std::vector<std::string> names;
        for (std::uint64_t i = 0; i < level; ++i) {
            names.push_back(Number("listed-name-%08llu", i));
            MakeEmptyFile(Server().Export() + "/" + folder + "/" + names.back());
        }
        Session session(Server());
        const Handle handle = session.Find(folder);
        session.Release();
        for (const bool plus : {false, true}) {
            const std::string operation = plus ? "readdirplus" : "readdir";
            // A listing whose cost is quadratic would not end.
            const double ratio = lastLevel == 0 ? 0 : static_cast<double>(level) / lastLevel;
            const double expected = longest[plus] * ratio * ratio;
            if (expected > kLongestListing) {
                longest[plus] = expected;
                Line(level, operation).Add("left_out_seconds", expected).Print();
                continue;
            }
            Runner runner(MakeListing(Server(), kOne, handle, plus, names), kOne, {});
            std::vector<double> micros;
            std::vector<double> cpu;
            for (int i = 0; i < m_growth.rounds && (i == 0 || micros.back() < 3e6); ++i) {
                const Measured measured = runner.RunFor(m_growth.seconds / 10);
                micros.push_back(measured.MicrosPerOperation());
                cpu.push_back(measured.CpuPerOperation());
            }
            longest[plus] = Median(micros) * 1e-6;
            Print(level, operation, {Median(micros), Median(cpu)});
        }
        lastLevel = static_cast<double>(level);
    }
}

void Grower::Connections() {
    for (const std::uint64_t level : m_growth.levels) {
        const Shape shape{static_cast<std::uint32_t>(level), 1};
        const std::unique_ptr<Runner> runner = MakeRunner("getattr", Server(), shape, {}, nullptr);
        runner->RunFor(m_growth.seconds / 3);
        const Measured measured = runner->RunFor(m_growth.seconds * m_growth.rounds);
        Line(level, "getattr")
            .Add("micros", measured.MicrosPerOperation())
            .Add("cpu_us", measured.CpuPerOperation())
            .Add("p50", measured.Percentile(0.5))
            .Add("p99", measured.Percentile(0.99))
            .Add("max", measured.Percentile(1))
            .Add("per_connection", measured.perConnection)
            .Print();
    }
}

void Grower::Log() {
    for (const std::string workload : {"null", "getattr", "read64k", "write16k"}) {
        for (const int bits : {0, kAllLogBits}) {
            m_control.SetLogControl(bits);
            Print(static_cast<std::uint64_t>(bits), workload, TimeNamed(workload));
        }
        m_control.SetLogControl(0);
    }
}

// Resident memory after so many requests of a mix, each level counted from the start.
void Grower::Requests() {
    const std::unique_ptr<Runner> runner = MakeRunner("vmmix", Server(), kEight, {}, nullptr);
    std::uint64_t sent = 0;
    for (const std::uint64_t level : m_growth.levels) {
        const Measured measured = runner->RunCount(level - sent);
        sent = level;
        Print(level, "vmmix", {measured.MicrosPerOperation(), measured.CpuPerOperation()});
    }
    runner->Work().Verify();
}

}  // namespace

void MeasureGrowth(const std::string& what, const Growth& growth) {
    Check(!growth.levels.empty() && std::is_sorted(growth.levels.begin(), growth.levels.end()) &&
              growth.levels.front() > 0,
          "levels ascend from one");
    Grower grower(what, growth);
    const std::map<std::string, std::function<void()>> measurements = {
        {"paths", [&] { grower.Paths(); }},
        {"exports", [&] { grower.Exports(); }},
        {"sessions", [&] { grower.Sessions(); }},
        {"descriptors", [&] { grower.Descriptors(); }},
        {"segments-memory", [&] { grower.Segments(false); }},
        {"segments-info", [&] { grower.Segments(true); }},
        {"entries", [&] { grower.Entries(); }},
        {"connections", [&] { grower.Connections(); }},
        {"log", [&] { grower.Log(); }},
        {"requests", [&] { grower.Requests(); }},
    };
    const auto found = measurements.find(what);
    Check(found != measurements.end(), "no such growth: " + what);
    found->second();
}

void MeasureLife(const std::string& program) {
    constexpr int kIdle = 9;
    constexpr double kLongest = 20;  // seconds
    std::array<int, 2> input{};
    if (pipe2(input.data(), O_CLOEXEC) != 0) {
        FailErrno("pipe");
    }
    const Clock::time_point begin = Clock::now();
    const pid_t pid = fork();
    if (pid == 0) {
        const int null = open("/dev/null", O_WRONLY);
        dup2(input[0], STDIN_FILENO);
        dup2(null, STDOUT_FILENO);
        dup2(null, STDERR_FILENO);
        execl(program.c_str(), program.c_str(), "-md", "int", static_cast<char*>(nullptr));
        _exit(127);
    }
    Check(pid > 0, "cannot fork");
    close(input[0]);
    const auto enter = [&](const std::string& commands) {
        if (write(input[1], commands.data(), commands.size()) !=
            static_cast<ssize_t>(commands.size())) {
            FailErrno("console");
        }
    };
    enter("debug\nstart\n");
    std::unique_ptr<support::Nfs3Client> client;
    while (client == nullptr) {
        try {
            client = std::make_unique<support::Nfs3Client>();
        } catch (const std::exception&) {
            Check(SecondsSince(begin) < kLongest, "the server does not start");
            std::this_thread::sleep_for(std::chrono::microseconds(200));
        }
    }
    Check(client->Null().acceptStat == support::kSuccess, "no answer");
    const double start = SecondsSince(begin);
    const std::size_t idle = ResidentKiB(pid);
    std::vector<support::RpcClient> others;
    for (int i = 0; i < kIdle; ++i) {
        others.emplace_back(support::Transport::Tcp, kNfsPort);
    }
    // Once it has answered, the server has accepted all that came before.
    Check(others.back().Call(support::kNfsProgram, 3, 0).acceptStat == support::kSuccess,
          "no answer");
    const Clock::time_point quit = Clock::now();
    enter("quit\n");
    int status = 0;
    waitpid(pid, &status, 0);
    JsonLine("life")
        .Add("first_answer_ms", start * 1e3)
        .Add("quit_ms", SecondsSince(quit) * 1e3)
        .Add("idle_connections", kIdle + 1)
        .Add("exit_status", status)
        .Add("rss_kib", idle)
        .Print();
    close(input[1]);
}

}  // namespace bench
