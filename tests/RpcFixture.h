// What the tests of the sockets and of the RPC server share: listeners and programs that do what a
// test tells them, and a connection on which every send of one side is one receive of the other.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <filesystem>
#include <functional>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "DataException.h"
#include "RpcProg.h"
#include "RuntimeParam.h"
#include "Socket.h"
#include "support/Files.h"
#include "support/RpcClient.h"
#include "support/Xdr.h"

inline sockaddr_in MakeAddress(const char* text, int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    if (inet_pton(AF_INET, text, &address.sin_addr) != 1) {
        throw std::runtime_error(std::string("no IPv4 address: ") + text);
    }
    return address;
}

inline bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

// Threads of this process. A sanitizer may start one of its own with the first thread; it is there
// from the first count on.
inline std::size_t ThreadCount() {
    static const bool started = [] {
        pid_t id = 0;
        std::thread([&id] { id = gettid(); }).join();
        const std::string task = "/proc/self/task/" + std::to_string(id);
        return support::WaitFor([&] { return !std::filesystem::exists(task); });
    }();
    if (!started) {
        throw std::runtime_error("a joined thread does not go away");
    }
    const std::filesystem::directory_iterator tasks("/proc/self/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

inline support::Bytes Concat(std::initializer_list<support::Bytes> parts) {
    support::Bytes all;
    for (const support::Bytes& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

// Passes what sockets received on to an action and counts the rounds. An action that takes the
// bytes and sends nothing serves where none is given.
//
// Thread safety: rounds may run on many threads at once, as far as the action allows it.
class ListenerSpy : public ISocketListener {
public:
    using Action = std::function<void(CSocket*)>;

    ListenerSpy() = default;
    explicit ListenerSpy(Action action) : m_action(std::move(action)) {}
    explicit ListenerSpy(ISocketListener* next)
        : m_action([next](CSocket* socket) { next->SocketReceived(socket); }) {}

    void SocketReceived(CSocket* socket) override {
        if (m_action) {
            m_action(socket);
        } else {
            TakeAll(socket);
        }
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_sockets.push_back(socket);
    }

    // The sockets of the rounds that have ended, in this order.
    std::vector<CSocket*> Sockets() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_sockets;
    }
    std::size_t Rounds() const { return Sockets().size(); }
    [[nodiscard]] bool WaitForRounds(std::size_t count) const {
        return support::WaitFor([&] { return Rounds() >= count; });
    }

    // Everything unread of a socket, consumed.
    static support::Bytes TakeAll(CSocket* socket) {
        CInputStream* in = socket->GetInputStream();
        support::Bytes bytes(in->GetFilledBufferSize());
        in->Read(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
        return bytes;
    }

private:
    Action m_action;
    mutable std::mutex m_mutex;
    std::vector<CSocket*> m_sockets;  // guarded by m_mutex
};

// Sends back whatever comes.
inline void Echo(CSocket* socket) {
    const support::Bytes bytes = ListenerSpy::TakeAll(socket);
    socket->GetOutputStream()->Write(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    socket->Send();
}

// The peer of a TCP-type socket over a pair of local sockets that keep message boundaries: one Send
// here is one receive there, and each send there is one message here.
class PacketConnection {
public:
    static constexpr const char* ADDRESS = "192.0.2.7";
    static constexpr int PORT = 700;

    // The listener must outlive this object.
    PacketConnection(unsigned long program, ISocketListener* listener)
        : m_spy(listener), m_socket(SOCKET_TYPE_TCP, program) {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, fds) != 0) {
            throw std::runtime_error("no socket pair");
        }
        m_fd = fds[0];
        const sockaddr_in address = MakeAddress(ADDRESS, PORT);
        m_socket.Open(fds[1], &m_spy, &address);
    }
    ~PacketConnection() { close(m_fd); }
    PacketConnection(const PacketConnection&) = delete;
    PacketConnection& operator=(const PacketConnection&) = delete;

    // Returns when the other side has done all it does about these bytes.
    void Send(const support::Bytes& bytes) {
        const std::size_t rounds = m_spy.Rounds();
        if (write(m_fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
            !m_spy.WaitForRounds(rounds + 1)) {
            throw std::runtime_error("the socket does not receive");
        }
    }
    // The next message that has come; nothing when none has.
    std::optional<support::Bytes> Receive() {
        support::Bytes bytes(256 * 1024);  // more than such a socket carries
        const ssize_t count = recv(m_fd, bytes.data(), bytes.size(), MSG_DONTWAIT);
        if (count <= 0) {
            return std::nullopt;
        }
        bytes.resize(static_cast<std::size_t>(count));
        return bytes;
    }
    // All messages that have come.
    std::vector<support::Bytes> ReceiveAll() {
        std::vector<support::Bytes> messages;
        while (std::optional<support::Bytes> message = Receive()) {
            messages.push_back(*std::move(message));
        }
        return messages;
    }
    bool HasMessage() const {
        pollfd entry{m_fd, POLLIN, 0};
        return poll(&entry, 1, 0) > 0;
    }
    CSocket& Socket() { return m_socket; }

private:
    ListenerSpy m_spy;
    CSocket m_socket;
    int m_fd = -1;
};

// One call as a program saw it.
struct SeenCall {
    std::uint32_t version;
    std::uint32_t procedure;
    std::string address;
    std::string id;
    std::string ipcId;
};

// A program that notes its calls and does what the test says; at first, procedure 1 takes a word
// and answers the next number, and every other procedure takes and answers nothing.
//
// Thread safety: a handler that is changed holds from the next call on.
class ScriptedProg : public CRpcProg {
public:
    using Handler = std::function<int(CInputStream&, COutputStream&, ProcessParam&)>;

    static constexpr std::uint32_t NEXT_NUMBER = 1;

    explicit ScriptedProg(CUtilities* utilities, std::uint32_t version = 3,
                          std::uint32_t procedures = 10)
        : CRpcProg(utilities), m_version(version), m_procedures(procedures) {}

    void OnCall(Handler handler) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_handler = std::move(handler);
    }

    int Process(CInputStream* in, COutputStream* out, ProcessParam* param) override {
        Handler handler;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            handler = m_handler;
            m_calls.push_back({param->iVersion, param->iProc, param->sRemoteAddr,
                               param->pRuntimeParam->GetID(), param->pRuntimeParam->GetIpcID()});
        }
        return handler ? handler(*in, *out, *param) : AnswerNextNumber(*in, *out, *param);
    }
    std::uint32_t GetVersion() const override { return m_version; }
    std::uint32_t GetMaxSupportProc() const override { return m_procedures; }

    std::vector<SeenCall> Calls() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }

    static int AnswerNextNumber(CInputStream& in, COutputStream& out, const ProcessParam& param) {
        if (param.iProc != NEXT_NUMBER) {
            return PROG_RESULT_DONE;
        }
        std::uint32_t number = 0;
        try {
            in.Read(&number);
        } catch (const CDataTruncatedExpt&) {
            return PROG_RESULT_TRUNCATED;
        }
        out.Write(number + 1);
        return PROG_RESULT_DONE;
    }

private:
    const std::uint32_t m_version;
    const std::uint32_t m_procedures;
    mutable std::mutex m_mutex;
    Handler m_handler;              // guarded by m_mutex
    std::vector<SeenCall> m_calls;  // guarded by m_mutex
};
