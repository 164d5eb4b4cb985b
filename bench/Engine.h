// Drives a workload over its connections and tells how long it took.
#pragma once

#include <sys/epoll.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Workload.h"

namespace bench {

struct Transport {
    bool udp = false;
    std::size_t pieces = 0;  // TCP: each call goes out in `send`s of this many bytes; 0: no limit
    int gapMicros = 0;       // pause behind each piece but a call's last
};

// What one run of a subject gave. Times are seconds, latencies microseconds from before the `send`
// of an operation's first call to after the `recv` that completed its last reply.
struct Measured {
    std::uint64_t operations = 0;
    std::uint64_t calls = 0;
    std::uint64_t resent = 0;  // UDP
    double seconds = 0;
    double serverCpu = 0;
    std::vector<float> latencies;              // sorted
    std::vector<std::uint64_t> perConnection;  // operations
    std::vector<float> longest;                // latency, of each connection

    double Rate() const { return static_cast<double>(operations) / seconds; }
    double MicrosPerOperation() const { return seconds * 1e6 / static_cast<double>(operations); }
    double CpuPerOperation() const { return serverCpu * 1e6 / static_cast<double>(operations); }
    double Percentile(double part) const;
};

// A subject's connections, open from the construction to the end.
//
// Thread safety: used by one thread, which alone serves all connections.
class Runner {
public:
    // The workload's plan is ready.
    Runner(std::unique_ptr<Workload> workload, Shape shape, Transport transport);
    ~Runner();
    Runner(const Runner&) = delete;
    Runner& operator=(const Runner&) = delete;

    // Keeps every slot busy until the time is over, or until so many operations have been started,
    // and then waits for the replies that are missing.
    Measured RunFor(double seconds);
    Measured RunCount(std::uint64_t operations);

    // Runs until each call of the plan has had a reply: the echo server must know their sizes.
    void LearnReplySizes();
    // For the next runs; see Transport.
    void SetPieces(std::size_t pieces) { m_transport.pieces = pieces; }
    Workload& Work() { return *m_workload; }
    const Subject& Server() const { return m_workload->Server(); }

private:
    struct Connection {
        int fd = -1;
        Bytes in;
        std::size_t filled = 0;
        Bytes out;
        std::vector<std::size_t> ends;  // of the calls in `out`
        std::vector<Slot> slots;
        std::vector<Bytes> sent;  // UDP: each slot's call, to be sent again
    };

    void Connect();
    void Disconnect();
    bool MayStart();
    void Start(Connection& connection, Slot& slot, Clock::time_point now);
    void Append(Connection& connection, Slot& slot);
    void Flush(Connection& connection);
    // Receives once and handles what has come.
    void Receive(Connection& connection);
    void TakeReply(Connection& connection, const std::uint8_t* reply, std::size_t size,
                   Clock::time_point now);
    bool Finished(Slot& slot, const std::uint8_t* reply, std::size_t size);
    void SendAgain();
    Measured Run();

    std::unique_ptr<Workload> m_workload;
    Shape m_shape;
    Transport m_transport;
    std::vector<Connection> m_connections;
    int m_epoll = -1;
    std::size_t m_threads = 0;  // of the server before the connections were made
    std::uint32_t m_sequence = 0;

    // Of the current run.
    Measured m_measured;
    std::uint64_t m_busy = 0;
    std::uint64_t m_toStart = 0;
    std::optional<Clock::time_point> m_end;
};

// A runner whose plan is that of a server's workload.
std::unique_ptr<Runner> MakeRunner(const std::string& workload, const Subject& subject, Shape shape,
                                   Transport transport, const Plan* plan);

}  // namespace bench
