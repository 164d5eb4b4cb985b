#include "Engine.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <thread>

#include "Echo.h"

namespace bench {

namespace {

constexpr std::size_t kBufferSize = 1 << 20;
constexpr std::uint32_t kLastFragment = 0x80000000;
constexpr std::size_t kResultsAt = 28;  // of a reply with its mark, verifier empty
constexpr int kPatienceSeconds = 30;    // TCP: a reply that has not come by then never comes
constexpr int kResendMilliseconds = 300;

}  // namespace

double Measured::Percentile(double part) const {
    if (latencies.empty()) {
        return 0;
    }
    const auto last = static_cast<double>(latencies.size() - 1);
    return latencies[static_cast<std::size_t>(part * last)];
}

Runner::Runner(std::unique_ptr<Workload> workload, Shape shape, Transport transport)
    : m_workload(std::move(workload)), m_shape(shape), m_transport(transport) {
    m_connections.resize(shape.connections);
    try {
        Connect();
    } catch (...) {
        Disconnect();
        throw;
    }
}

Runner::~Runner() { Disconnect(); }

void Runner::Connect() {
    m_threads = Threads(Server().pid);
    const InNetworkOf network(Server().pid);
    m_epoll = epoll_create1(EPOLL_CLOEXEC);
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<std::uint16_t>(Server().Port()));
    peer.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    for (std::uint32_t i = 0; i < m_shape.connections; ++i) {
        Connection& connection = m_connections[i];
        connection.in.resize(kBufferSize);
        connection.slots.resize(m_shape.depth);
        connection.sent.resize(m_shape.depth);
        for (std::uint32_t slot = 0; slot < m_shape.depth; ++slot) {
            connection.slots[slot].connection = i;
            connection.slots[slot].index = slot;
        }
        connection.fd =
            socket(AF_INET, (m_transport.udp ? SOCK_DGRAM : SOCK_STREAM) | SOCK_CLOEXEC, 0);
        if (connection.fd < 0 ||
            connect(connection.fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
            FailErrno("connect to " + Server().name);
        }
        const timeval patience{kPatienceSeconds, 0};
        setsockopt(connection.fd, SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof patience);
        setsockopt(connection.fd, SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof patience);
        const int on = 1;
        setsockopt(connection.fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        epoll_event event{};
        event.events = EPOLLIN;
        event.data.u32 = i;
        epoll_ctl(m_epoll, EPOLL_CTL_ADD, connection.fd, &event);
    }
}

void Runner::Disconnect() {
    for (Connection& connection : m_connections) {
        if (connection.fd >= 0) {
            close(connection.fd);
        }
    }
    if (m_epoll >= 0) {
        close(m_epoll);
    }
    if (!m_transport.udp && Server().IsNfs()) {
        WaitForThreads(Server().pid, m_threads);
    }
}

// ------------------------------------------------------------------------------------------------
// Sending
// ------------------------------------------------------------------------------------------------

bool Runner::MayStart() {
    if (m_end) {
        return Clock::now() < *m_end;
    }
    if (m_toStart == 0) {
        return false;
    }
    --m_toStart;
    return true;
}

void Runner::Start(Connection& connection, Slot& slot, Clock::time_point now) {
    slot.busy = true;
    slot.began = now;
    ++m_busy;
    Append(connection, slot);
}

void Runner::Append(Connection& connection, Slot& slot) {
    slot.call = m_workload->Next(slot);
    slot.xid = slot.connection << 24 | slot.index << 16 | (++m_sequence & 0xFFFF);
    const Plan& plan = m_workload->GetPlan();
    const Bytes& record = plan.records[slot.call.record];
    const std::size_t start = connection.out.size();
    connection.out.insert(connection.out.end(), record.begin(), record.end());
    std::uint8_t* at = connection.out.data() + start;
    const Call& call = slot.call;
    const std::size_t dataSize = call.pages * kPage;

    Store32(at + 4, slot.xid);
    if (call.wordAt != 0) {
        Store64(at + call.wordAt, call.word);
    }
    if (call.textAt != 0) {
        std::uint32_t number = call.text;
        for (std::size_t digit = kDigits; digit > 0; --digit, number /= 10) {
            at[call.textAt + digit - 1] = static_cast<std::uint8_t>('0' + number % 10);
        }
    }
    if (call.io == Io::Write) {
        for (std::uint32_t i = 0; i < call.pages; ++i) {
            FillPage(at + record.size() - dataSize + i * kPage,
                     call.file->Rewrite(call.firstPage + i));
        }
    } else if (call.io == Io::Read) {
        for (std::uint32_t i = 0; i < call.pages; ++i) {
            slot.expected[i] = call.file->Stamp(call.firstPage + i);
        }
    }
    if (!Server().IsNfs()) {
        EchoCall echo;
        echo.replySize = plan.replySizes[call.record];
        if (Server().kind == Subject::Kind::EchoIo) {
            echo.io = call.io;
            echo.fileIndex = call.fileIndex;
            echo.count = static_cast<std::uint32_t>(dataSize);
            echo.offset = call.firstPage * kPage;
        }
        PutEchoCall(at, echo);
    }
    connection.ends.push_back(connection.out.size());
    if (m_transport.udp) {
        connection.sent[slot.index].assign(at + 4, at + record.size());
    }
    ++m_measured.calls;
}

void Runner::Flush(Connection& connection) {
    std::size_t from = 0;
    const auto sendTo = [&](std::size_t end) {
        while (from < end) {
            const ssize_t count =
                send(connection.fd, connection.out.data() + from, end - from, MSG_NOSIGNAL);
            if (count < 0) {
                FailErrno("send to " + Server().name);
            }
            from += static_cast<std::size_t>(count);
        }
    };
    if (m_transport.udp) {
        for (const std::size_t end : connection.ends) {
            from += 4;  // no mark
            sendTo(end);
        }
    } else if (m_transport.pieces != 0) {
        for (const std::size_t end : connection.ends) {
            while (from < end) {
                sendTo(std::min(end, from + m_transport.pieces));
                if (m_transport.gapMicros != 0 && from < end) {
                    std::this_thread::sleep_for(std::chrono::microseconds(m_transport.gapMicros));
                }
            }
        }
    } else {
        sendTo(connection.out.size());
    }
    connection.out.clear();
    connection.ends.clear();
}

void Runner::SendAgain() {
    for (Connection& connection : m_connections) {
        for (const Slot& slot : connection.slots) {
            if (slot.busy) {
                const Bytes& call = connection.sent[slot.index];
                send(connection.fd, call.data(), call.size(), MSG_NOSIGNAL);
                ++m_measured.resent;
            }
        }
    }
}

// ------------------------------------------------------------------------------------------------
// Receiving
// ------------------------------------------------------------------------------------------------

bool Runner::Finished(Slot& slot, const std::uint8_t* reply, std::size_t size) {
    Plan& plan = m_workload->GetPlan();
    if (Server().IsNfs()) {
        // REPLY, MSG_ACCEPTED, two words of verifier, SUCCESS
        Check(size >= kResultsAt && Load32(reply + 8) == 1 && Load32(reply + 12) == 0 &&
                  Load32(reply + 24) == 0,
              "a call was refused");
        // The first reply is taken for all: a listing's last one is shorter.
        if (plan.replySizes[slot.call.record] == 0) {
            plan.replySizes[slot.call.record] = static_cast<std::uint32_t>(size);
        }
        return m_workload->Results(slot, reply + kResultsAt, size - kResultsAt);
    }
    Check(size == plan.replySizes[slot.call.record], "an echo of another size");
    if (Server().kind == Subject::Kind::EchoIo && slot.call.io == Io::Read) {
        for (std::uint32_t i = 0; i < slot.call.pages; ++i) {
            Check(HasStamp(reply + size - (slot.call.pages - i) * kPage, slot.expected[i]),
                  "wrong data echoed");
        }
    }
    return m_workload->Echoed(slot);
}

void Runner::TakeReply(Connection& connection, const std::uint8_t* reply, std::size_t size,
                       Clock::time_point now) {
    Check(size >= 8, "a reply without an xid");
    const std::uint32_t xid = Load32(reply + 4);
    const std::uint32_t index = xid >> 16 & 0xFF;
    const bool ours = index < connection.slots.size() && connection.slots[index].xid == xid &&
                      connection.slots[index].busy;
    if (!ours && m_transport.udp) {
        return;  // to a call that was sent again
    }
    Check(ours, "a reply to no call");
    Slot& slot = connection.slots[index];
    if (!Finished(slot, reply, size)) {
        Append(connection, slot);
        return;
    }
    const auto micros = std::chrono::duration<float, std::micro>(now - slot.began).count();
    slot.busy = false;
    --m_busy;
    ++m_measured.operations;
    ++m_measured.perConnection[slot.connection];
    float& longest = m_measured.longest[slot.connection];
    longest = std::max(longest, micros);
    m_measured.latencies.push_back(micros);
    if (MayStart()) {
        Start(connection, slot, now);
    }
}

void Runner::Receive(Connection& connection) {
    // A datagram stands where a record's content would.
    const std::size_t offset = m_transport.udp ? 4 : 0;
    const ssize_t count = recv(connection.fd, connection.in.data() + connection.filled + offset,
                               connection.in.size() - connection.filled - offset, 0);
    if (count <= 0) {
        if (count < 0 && m_transport.udp && errno == EAGAIN) {
            SendAgain();
            return;
        }
        if (count == 0) {
            errno = ECONNRESET;
        }
        FailErrno("no reply from " + Server().name);
    }
    const Clock::time_point now = Clock::now();
    if (m_transport.udp) {
        TakeReply(connection, connection.in.data(), static_cast<std::size_t>(count) + 4, now);
        Flush(connection);
        return;
    }
    connection.filled += static_cast<std::size_t>(count);
    std::size_t at = 0;
    while (connection.filled - at >= 4) {
        const std::uint32_t mark = Load32(connection.in.data() + at);
        const std::size_t size = 4 + (mark & ~kLastFragment);
        Check((mark & kLastFragment) != 0 && size <= connection.in.size(), "not a reply's mark");
        if (connection.filled - at < size) {
            break;
        }
        TakeReply(connection, connection.in.data() + at, size, now);
        at += size;
    }
    std::memmove(connection.in.data(), connection.in.data() + at, connection.filled - at);
    connection.filled -= at;
    Flush(connection);
}

Measured Runner::Run() {
    m_measured = {};
    m_measured.perConnection.resize(m_connections.size());
    m_measured.longest.resize(m_connections.size());
    const double cpu = CpuSeconds(Server().pid);
    const Clock::time_point begin = Clock::now();
    for (Connection& connection : m_connections) {
        for (Slot& slot : connection.slots) {
            if (MayStart()) {
                Start(connection, slot, Clock::now());
            }
        }
        Flush(connection);
    }
    std::array<epoll_event, 16> events{};
    while (m_busy != 0) {
        if (m_connections.size() == 1 && !m_transport.udp) {
            Receive(m_connections[0]);  // one system call less than by way of epoll
            continue;
        }
        const int patience = m_transport.udp ? kResendMilliseconds : kPatienceSeconds * 1000;
        const int count =
            epoll_wait(m_epoll, events.data(), static_cast<int>(events.size()), patience);
        if (count == 0) {
            Check(m_transport.udp && m_measured.resent < 1000, "no reply");
            SendAgain();
        }
        for (int i = 0; i < count; ++i) {
            Receive(m_connections[events[static_cast<std::size_t>(i)].data.u32]);
        }
    }
    m_measured.seconds = SecondsSince(begin);
    m_measured.serverCpu = CpuSeconds(Server().pid) - cpu;
    std::sort(m_measured.latencies.begin(), m_measured.latencies.end());
    return std::move(m_measured);
}

void Runner::LearnReplySizes() {
    const std::vector<std::uint32_t>& sizes = m_workload->GetPlan().replySizes;
    const auto unknown = [&] { return std::find(sizes.begin(), sizes.end(), 0U) != sizes.end(); };
    for (int i = 0; i < 1000 && unknown(); ++i) {
        RunCount(std::uint64_t{m_shape.connections} * m_shape.depth * 2);
    }
    Check(!unknown(), "a call of the plan is never sent");
}

Measured Runner::RunFor(double seconds) {
    m_end = Clock::now() +
            std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds));
    return Run();
}

Measured Runner::RunCount(std::uint64_t operations) {
    m_end.reset();
    m_toStart = operations;
    return Run();
}

std::unique_ptr<Runner> MakeRunner(const std::string& workload, const Subject& subject, Shape shape,
                                   Transport transport, const Plan* plan) {
    std::unique_ptr<Workload> work = MakeWorkload(workload, subject, shape);
    if (plan != nullptr) {
        work->GetPlan() = *plan;
    } else {
        Session session(subject);
        work->Prepare(session);
        session.Release();
    }
    work->Open();
    return std::make_unique<Runner>(std::move(work), shape, transport);
}

}  // namespace bench
