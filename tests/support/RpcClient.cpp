#include "support/RpcClient.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

namespace support {

namespace {

constexpr std::uint32_t kLastFragment = 0x80000000;

using Deadline = std::chrono::steady_clock::time_point;

Deadline After(Milliseconds timeout) { return std::chrono::steady_clock::now() + timeout; }

Milliseconds Left(Deadline deadline) {
    const auto left = std::chrono::ceil<Milliseconds>(deadline - std::chrono::steady_clock::now());
    return std::max(left, Milliseconds(0));
}

// Every client of a test program numbers its calls in a range of its own, so that a reply that
// reaches the wrong client is seen.
std::uint32_t FirstXid() {
    static std::atomic<std::uint32_t> clients{0};
    return 0x10000000 + (++clients << 16);
}

void WriteAuth(XdrWriter& writer, const OpaqueAuth& auth) {
    writer.U32(auth.flavor).Opaque(auth.body);
}

}  // namespace

OpaqueAuth AuthSys(std::uint32_t uid, std::uint32_t gid, const std::vector<std::uint32_t>& gids,
                   const std::string& machine) {
    XdrWriter body;
    body.U32(0).String(machine).U32(uid).U32(gid);  // stamp 0: any value of the caller's
    body.U32(static_cast<std::uint32_t>(gids.size()));
    for (const std::uint32_t other : gids) {
        body.U32(other);
    }
    return {1, body.Data()};
}

RpcReply ParseReply(const Bytes& message) {
    XdrReader reader(message);
    RpcReply reply;
    reply.xid = reader.U32();
    reply.messageType = reader.U32();
    reply.replyStat = reader.U32();
    reply.verifierFlavor = reader.U32();
    reply.verifierLength = reader.U32();
    reply.acceptStat = reader.U32();
    reply.body = reader.Raw(reader.Remaining());
    reply.raw = message;
    return reply;
}

Bytes BuildCall(std::uint32_t xid, std::uint32_t program, std::uint32_t version,
                std::uint32_t procedure, const Bytes& arguments, const OpaqueAuth& credential,
                const OpaqueAuth& verifier) {
    XdrWriter call;
    call.U32(xid).U32(0).U32(2);  // CALL, RPC version 2
    call.U32(program).U32(version).U32(procedure);
    WriteAuth(call, credential);
    WriteAuth(call, verifier);
    call.Raw(arguments);
    return call.Data();
}

Bytes WithRecordMark(const Bytes& message) {
    XdrWriter record;
    record.U32(kLastFragment | static_cast<std::uint32_t>(message.size())).Raw(message);
    return record.Data();
}

RpcClient::RpcClient(Transport transport, int port, const std::string& address)
    : m_transport(transport), m_nextXid(FirstXid()) {
    sockaddr_in peer{};
    peer.sin_family = AF_INET;
    peer.sin_port = htons(static_cast<std::uint16_t>(port));
    if (inet_pton(AF_INET, address.c_str(), &peer.sin_addr) != 1) {
        throw std::runtime_error("no IPv4 address: " + address);
    }
    m_fd =
        socket(AF_INET, (transport == Transport::Tcp ? SOCK_STREAM : SOCK_DGRAM) | SOCK_CLOEXEC, 0);
    if (m_fd < 0 || connect(m_fd, reinterpret_cast<const sockaddr*>(&peer), sizeof peer) != 0) {
        const std::string reason = std::strerror(errno);
        Close();
        throw std::runtime_error("connect to port " + std::to_string(port) + ": " + reason);
    }
    if (transport == Transport::Tcp) {
        const int on = 1;
        setsockopt(m_fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    }
}

RpcClient::~RpcClient() { Close(); }

RpcClient::RpcClient(RpcClient&& other) noexcept
    : m_transport(other.m_transport),
      m_fd(std::exchange(other.m_fd, -1)),
      m_nextXid(other.m_nextXid),
      m_credential(std::move(other.m_credential)),
      m_verifier(std::move(other.m_verifier)),
      m_retransmission(other.m_retransmission),
      m_received(std::move(other.m_received)) {}

RpcReply RpcClient::Call(std::uint32_t program, std::uint32_t version, std::uint32_t procedure,
                         const Bytes& arguments, Milliseconds timeout) {
    std::optional<RpcReply> reply = TryCall(program, version, procedure, arguments, timeout);
    if (!reply) {
        throw std::runtime_error("no reply to procedure " + std::to_string(procedure) +
                                 " of program " + std::to_string(program));
    }
    return *std::move(reply);
}

std::optional<RpcReply> RpcClient::TryCall(std::uint32_t program, std::uint32_t version,
                                           std::uint32_t procedure, const Bytes& arguments,
                                           Milliseconds timeout) {
    const Deadline deadline = After(timeout);
    const std::uint32_t xid = m_nextXid++;
    const Bytes call =
        BuildCall(xid, program, version, procedure, arguments, m_credential, m_verifier);
    do {
        SendMessage(call);
        const Deadline next =
            m_retransmission.count() > 0 ? std::min(deadline, After(m_retransmission)) : deadline;
        std::optional<RpcReply> reply;
        do {
            reply = TryReceiveReply(Left(next));
            if (reply && reply->xid == xid) {
                return reply;
            }
        } while (reply);
    } while (std::chrono::steady_clock::now() < deadline);
    return std::nullopt;
}

std::uint32_t RpcClient::SendCall(std::uint32_t program, std::uint32_t version,
                                  std::uint32_t procedure, const Bytes& arguments) {
    const std::uint32_t xid = m_nextXid++;
    SendMessage(BuildCall(xid, program, version, procedure, arguments, m_credential, m_verifier));
    return xid;
}

void RpcClient::SendMessage(const Bytes& call) {
    SendRaw(m_transport == Transport::Tcp ? WithRecordMark(call) : call);
}

RpcReply RpcClient::ReceiveReply(Milliseconds timeout) {
    std::optional<RpcReply> reply = TryReceiveReply(timeout);
    if (!reply) {
        throw std::runtime_error("no reply in time");
    }
    return *std::move(reply);
}

std::optional<RpcReply> RpcClient::TryReceiveReply(Milliseconds timeout) {
    const Deadline deadline = After(timeout);
    if (m_transport == Transport::Udp) {
        const Bytes datagram = ReceiveRaw(65536, timeout);
        return datagram.empty() ? std::nullopt : std::optional(ParseReply(datagram));
    }
    // Bytes stay in m_received until a record is complete, so a later call can go on.
    const auto have = [this, deadline](std::size_t wanted) {
        while (m_received.size() < wanted) {
            const Bytes more = ReceiveRaw(wanted - m_received.size(), Left(deadline));
            if (more.empty()) {
                return false;
            }
            m_received.insert(m_received.end(), more.begin(), more.end());
        }
        return true;
    };
    Bytes message;
    std::size_t at = 0;  // start of the current fragment's mark
    std::uint32_t mark = 0;
    do {
        if (!have(at + 4)) {
            return std::nullopt;
        }
        const auto first = m_received.begin() + static_cast<std::ptrdiff_t>(at);
        mark = XdrReader(Bytes(first, first + 4)).U32();
        const std::size_t length = mark & ~kLastFragment;
        if (!have(at + 4 + length)) {
            return std::nullopt;
        }
        const auto body = m_received.begin() + static_cast<std::ptrdiff_t>(at + 4);
        message.insert(message.end(), body, body + static_cast<std::ptrdiff_t>(length));
        at += 4 + length;
    } while ((mark & kLastFragment) == 0);

    RpcReply reply = ParseReply(message);
    reply.recordMark = mark;
    reply.raw = std::exchange(m_received, {});
    return reply;
}

void RpcClient::SendRaw(const Bytes& bytes) {
    if (!TrySendRaw(bytes, kPatience)) {
        throw std::runtime_error("peer takes no bytes: " + std::string(std::strerror(errno)));
    }
}

bool RpcClient::TrySendRaw(const Bytes& bytes, Milliseconds timeout) {
    const Deadline deadline = After(timeout);
    std::size_t sent = 0;
    do {
        const ssize_t count =
            send(m_fd, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL | MSG_DONTWAIT);
        if (count >= 0) {
            sent += static_cast<std::size_t>(count);
        } else if (errno != EAGAIN && errno != EINTR) {
            return false;
        } else if (!WaitReady(POLLOUT, Left(deadline))) {
            return false;
        }
    } while (sent < bytes.size());
    return true;
}

Bytes RpcClient::ReceiveRaw(std::size_t most, Milliseconds timeout) {
    if (!WaitReady(POLLIN, timeout)) {
        return {};
    }
    Bytes bytes(most);
    const ssize_t count = recv(m_fd, bytes.data(), bytes.size(), 0);
    bytes.resize(count > 0 ? static_cast<std::size_t>(count) : 0);
    return bytes;
}

bool RpcClient::PeerClosed(Milliseconds timeout) {
    const Deadline deadline = After(timeout);
    while (WaitReady(POLLIN, Left(deadline))) {
        if (ReceiveRaw(65536, Milliseconds(0)).empty()) {
            return true;
        }
    }
    return false;
}

void RpcClient::ShutdownWrite() { shutdown(m_fd, SHUT_WR); }

void RpcClient::Close() {
    if (m_fd >= 0) {
        close(m_fd);
        m_fd = -1;
    }
}

int RpcClient::LocalPort() const {
    sockaddr_in own{};
    socklen_t size = sizeof own;
    getsockname(m_fd, reinterpret_cast<sockaddr*>(&own), &size);
    return ntohs(own.sin_port);
}

bool RpcClient::WaitReady(short events, Milliseconds timeout) const {
    pollfd entry{m_fd, events, 0};
    int result = 0;
    const Deadline deadline = After(timeout);
    do {
        result = poll(&entry, 1, static_cast<int>(Left(deadline).count()));
    } while (result < 0 && errno == EINTR);
    return result > 0;
}

}  // namespace support
