// The load generator. Every command prints lines of JSON; bench.py runs them all.
//
//     bench_load prepare FOLDER                    make the files of a subject
//     bench_load echo FOLDER                       serve as the bare echo server
//     bench_load load WORKLOAD [OPTION...] SUBJECT...
//     bench_load ipc [OPTION...] SUBJECT...        requests on the local control channel
//     bench_load grow WHAT LEVEL,... [OPTION...] SUBJECT
//     bench_load life PROGRAM                      from exec to the first answer, and `quit`
//
// A subject is NAME:nfs|echo|echoio:PID:FOLDER. Subjects take turns, in every round in another
// order; an echo subject sends what the first server's calls are in size and place.
//
// Options:
//     --connections N, --depth N   connections, calls in flight on each
//     --rounds N, --seconds S      rounds, and how long each lasts
//     --operations N               of a round, instead of a time
//     --udp
//     --pieces N,...               calls go out in `send`s of so many bytes, each in turn; 0: whole
//     --gap MICROSECONDS           between the pieces of a call, so that each is received alone
//     --garbage BYTES              each round once more while another connection, which has sent so
//                                  many bytes of garbage, sends 500 a second

#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <iostream>
#include <limits>
#include <map>
#include <mutex>
#include <sstream>
#include <thread>

#include "Echo.h"
#include "Engine.h"
#include "Growth.h"
#include "Json.h"

namespace bench {

namespace {

struct Options {
    Shape shape;
    int rounds = 5;
    double seconds = 0.3;
    std::uint64_t operations = 0;
    bool udp = false;
    std::vector<std::size_t> pieces{0};
    int gapMicros = 0;
    std::size_t garbage = 0;
    std::vector<std::string> words;  // that are no options
    std::vector<Subject> subjects;
};

std::vector<std::uint64_t> Numbers(const std::string& list) {
    std::vector<std::uint64_t> numbers;
    std::istringstream words(list);
    for (std::string word; std::getline(words, word, ',');) {
        numbers.push_back(std::stoull(word));
    }
    return numbers;
}

// The first `words` arguments are words, the others options and subjects.
Options Parse(const std::vector<std::string>& arguments, std::size_t words) {
    Options options;
    for (std::size_t i = 0; i < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        const auto value = [&] {
            Check(i + 1 < arguments.size(), argument + " needs a value");
            return arguments[++i];
        };
        if (options.words.size() < words) {
            options.words.push_back(argument);
        } else if (argument == "--connections") {
            options.shape.connections = static_cast<std::uint32_t>(std::stoul(value()));
        } else if (argument == "--depth") {
            options.shape.depth = static_cast<std::uint32_t>(std::stoul(value()));
        } else if (argument == "--rounds") {
            options.rounds = std::stoi(value());
        } else if (argument == "--seconds") {
            options.seconds = std::stod(value());
        } else if (argument == "--operations") {
            options.operations = std::stoull(value());
        } else if (argument == "--udp") {
            options.udp = true;
        } else if (argument == "--pieces") {
            options.pieces = Numbers(value());
        } else if (argument == "--gap") {
            options.gapMicros = std::stoi(value());
        } else if (argument == "--garbage") {
            options.garbage = std::stoull(value());
        } else {
            options.subjects.push_back(ParseSubject(argument));
        }
    }
    Check(options.words.size() == words && !options.subjects.empty(), "arguments are missing");
    // The server has ten connections, and one may be that of the garbage.
    Check(options.shape.connections >= 1 && options.shape.connections <= 9 &&
              options.shape.depth >= 1 && options.shape.depth <= 64 && options.rounds > 0 &&
              !options.pieces.empty(),
          "an option is out of range");
    return options;
}

// A connection that sends what is no call. Its bytes wait in the server's buffer, of a mebibyte,
// and are searched with everything that comes behind them. One connection to the end, for a slot of
// the server keeps the bytes for the connection that has it next.
class Garbage {
public:
    Garbage(const Subject& subject, std::size_t bytes) {
        const InNetworkOf network(subject.pid);
        m_rpc = std::make_unique<support::RpcClient>(support::Transport::Tcp, kNfsPort);
        constexpr std::size_t kChunk = 65536;
        for (std::size_t sent = 0; sent < bytes; sent += kChunk) {
            Check(Send(std::min(kChunk, bytes - sent)), "the server takes no garbage");
        }
        std::this_thread::sleep_for(std::chrono::seconds(1));  // while it is searched
        m_thread = std::thread(&Garbage::Serve, this);
    }
    ~Garbage() {
        m_stop = true;
        m_thread.join();
    }
    Garbage(const Garbage&) = delete;
    Garbage& operator=(const Garbage&) = delete;

    void SetActive(bool active) { m_active = active; }

private:
    bool Send(std::size_t count) {
        Bytes bytes(count);
        for (std::uint8_t& byte : bytes) {
            byte = static_cast<std::uint8_t>(m_sequence.Next() >> 56);
        }
        return m_rpc->TrySendRaw(bytes, support::kPatience);
    }
    void Serve() {
        while (!m_stop) {
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
            if (m_active && !Send(1)) {
                return;
            }
        }
    }

    Sequence m_sequence{3};
    std::unique_ptr<support::RpcClient> m_rpc;
    std::atomic<bool> m_active{false};
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
};

void Print(const std::string& workload, const Options& options, const Subject& subject,
           std::size_t pieces, bool garbage, int round, const Measured& measured) {
    JsonLine line("load");
    line.Add("workload", workload);
    line.Add("connections", options.shape.connections).Add("depth", options.shape.depth);
    line.Add("udp", options.udp).Add("pieces", pieces).Add("garbage", garbage);
    line.Add("subject", subject.name).Add("round", round);
    line.Add("operations", measured.operations).Add("calls", measured.calls);
    line.Add("seconds", measured.seconds).Add("rate", measured.Rate());
    line.Add("p50", measured.Percentile(0.5)).Add("p90", measured.Percentile(0.9));
    line.Add("p99", measured.Percentile(0.99)).Add("p999", measured.Percentile(0.999));
    line.Add("max", measured.Percentile(1));
    line.Add("server_cpu_us", measured.CpuPerOperation());
    line.Add("per_connection", measured.perConnection).Add("longest", measured.longest);
    line.Add("resent", measured.resent).Add("rss_kib", ResidentKiB(subject.pid));
    line.Print();
}

void Load(const std::vector<std::string>& arguments) {
    const Options options = Parse(arguments, 1);
    const std::string& workload = options.words[0];
    const Transport transport{options.udp, 0, options.gapMicros};
    std::vector<std::unique_ptr<Runner>> runners;
    std::map<std::string, std::unique_ptr<Garbage>> garbage;  // by subject
    const Plan* plan = nullptr;
    for (const Subject& subject : options.subjects) {
        Check(subject.IsNfs() || plan != nullptr, "an echo subject stands behind a server");
        runners.push_back(MakeRunner(workload, subject, options.shape, transport,
                                     subject.IsNfs() ? nullptr : plan));
        if (subject.IsNfs() && options.operations == 0) {
            runners.back()->LearnReplySizes();
            runners.back()->RunFor(options.seconds / 3);  // warm
        }
        if (plan == nullptr) {
            plan = &runners.front()->Work().GetPlan();
        }
    }
    for (int round = 0; round < options.rounds; ++round) {
        for (std::size_t turn = 0; turn < runners.size(); ++turn) {
            Runner& runner = *runners[(turn + static_cast<std::size_t>(round)) % runners.size()];
            for (const std::size_t pieces : options.pieces) {
                runner.SetPieces(pieces);
                const Measured measured = options.operations != 0
                                              ? runner.RunCount(options.operations)
                                              : runner.RunFor(options.seconds);
                Print(workload, options, runner.Server(), pieces, false, round, measured);
            }
            if (options.garbage != 0 && runner.Server().IsNfs()) {
                runner.SetPieces(0);
                std::unique_ptr<Garbage>& sender = garbage[runner.Server().name];
                if (sender == nullptr) {
                    sender = std::make_unique<Garbage>(runner.Server(), options.garbage);
                }
                sender->SetActive(true);
                const Measured measured = runner.RunFor(options.seconds);
                sender->SetActive(false);
                Print(workload, options, runner.Server(), 0, true, round, measured);
            }
        }
    }
    for (const std::unique_ptr<Runner>& runner : runners) {
        runner->Work().Verify();
    }
}

// Each worker makes one exchange after the other; connections times depth of them.
void Ipc(const std::vector<std::string>& arguments) {
    const Options options = Parse(arguments, 0);
    const std::size_t workers = std::size_t{options.shape.connections} * options.shape.depth;
    for (int round = 0; round < options.rounds; ++round) {
        for (const Subject& subject : options.subjects) {
            const Control control(subject);
            const double cpu = CpuSeconds(subject.pid);
            const Clock::time_point begin = Clock::now();
            std::mutex mutex;
            Measured measured;
            std::exception_ptr failure;
            std::atomic<std::uint64_t> left = options.operations != 0
                                                  ? options.operations
                                                  : std::numeric_limits<std::uint64_t>::max() / 2;
            const double seconds = options.operations != 0 ? 1e9 : options.seconds;
            const auto work = [&] {
                std::vector<float> latencies;
                try {
                    while (SecondsSince(begin) < seconds && static_cast<std::int64_t>(left--) > 0) {
                        const Clock::time_point sent = Clock::now();
                        Check(control.IsRunning(), "the server does not run");
                        latencies.push_back(static_cast<float>(SecondsSince(sent) * 1e6));
                    }
                } catch (...) {
                    const std::lock_guard lock(mutex);
                    failure = std::current_exception();
                }
                const std::lock_guard lock(mutex);
                measured.latencies.insert(measured.latencies.end(), latencies.begin(),
                                          latencies.end());
                measured.perConnection.push_back(latencies.size());
            };
            std::vector<std::thread> threads;
            for (std::size_t i = 0; i < workers; ++i) {
                threads.emplace_back(work);
            }
            for (std::thread& thread : threads) {
                thread.join();
            }
            if (failure) {
                std::rethrow_exception(failure);
            }
            measured.seconds = SecondsSince(begin);
            measured.serverCpu = CpuSeconds(subject.pid) - cpu;
            measured.operations = measured.calls = measured.latencies.size();
            std::sort(measured.latencies.begin(), measured.latencies.end());
            Print("ipc", options, subject, 0, false, round, measured);
        }
    }
}

void Grow(const std::vector<std::string>& arguments) {
    const Options options = Parse(arguments, 2);
    Check(options.subjects.size() == 1, "one subject grows");
    MeasureGrowth(options.words[0], {options.subjects[0], Numbers(options.words[1]), options.rounds,
                                     options.seconds});
}

int Main(const std::vector<std::string>& arguments) {
    signal(SIGPIPE, SIG_IGN);
    // Ends with whoever started it, the echo server too.
    prctl(PR_SET_PDEATHSIG, SIGKILL);
    const std::string command = arguments.empty() ? "" : arguments[0];
    const std::vector<std::string> rest(arguments.begin() + (arguments.empty() ? 0 : 1),
                                        arguments.end());
    if (command == "load") {
        Load(rest);
    } else if (command == "ipc") {
        Ipc(rest);
    } else if (command == "grow") {
        Grow(rest);
    } else if (command == "prepare" && rest.size() == 1) {
        PrepareFolder(rest[0]);
    } else if (command == "echo" && rest.size() == 1) {
        ServeEcho(rest[0]);
    } else if (command == "life" && rest.size() == 1) {
        MeasureLife(rest[0]);
    } else {
        std::cerr << "usage: bench_load prepare|echo|load|ipc|grow|life ... (see BenchLoad.cpp)\n";
        return 2;
    }
    return 0;
}

}  // namespace

}  // namespace bench

int main(int argc, char** argv) {
    try {
        return bench::Main({argv + 1, argv + argc});
    } catch (const std::exception& failure) {
        std::cerr << "bench_load: " << failure.what() << '\n';
        return 1;
    }
}
