#include "Echo.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <thread>
#include <vector>

#include "Pattern.h"
#include "Wire.h"

namespace bench {

namespace {

constexpr std::size_t kBufferSize = 1 << 20;
constexpr std::uint32_t kLastFragment = 0x80000000;

EchoCall GetEchoCall(const std::uint8_t* record) {
    EchoCall call;
    call.replySize = Load32(record + 8);
    call.io = static_cast<Io>(Load32(record + 12));
    call.fileIndex = Load32(record + 16);
    call.count = Load32(record + 20);
    call.offset = Load64(record + 24);
    return call;
}

class EchoServer {
public:
    explicit EchoServer(const std::string& folder) {
        m_files.push_back(open((folder + "/export/" + ReadFileName()).c_str(), O_RDONLY));
        for (int i = 0; i < kWriteFiles; ++i) {
            m_files.push_back(open((folder + "/export/" + WriteFileName(i)).c_str(), O_RDWR));
        }
        for (const int file : m_files) {
            Check(file >= 0, folder + ": a file is missing");
        }
    }

    [[noreturn]] void Serve() {
        const int server = Bound(SOCK_STREAM);
        const int datagrams = Bound(SOCK_DGRAM);
        Check(listen(server, 64) == 0, "cannot listen");
        std::thread(&EchoServer::ServeDatagrams, this, datagrams).detach();
        std::puts("ready");
        std::fflush(stdout);
        for (;;) {
            const int connection = accept4(server, nullptr, nullptr, SOCK_CLOEXEC);
            if (connection >= 0) {
                std::thread(&EchoServer::ServeConnection, this, connection).detach();
            }
        }
    }

private:
    static int Bound(int type) {
        const int fd = socket(AF_INET, type | SOCK_CLOEXEC, 0);
        const int on = 1;
        setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof on);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(kEchoPort);
        if (bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            FailErrno("echo port");
        }
        return fd;
    }

    // The reply's size, with its mark; 0 when the call is not ours.
    std::size_t Answer(const std::uint8_t* record, std::size_t size, std::uint8_t* reply) const {
        const EchoCall call = GetEchoCall(record);
        const bool valid = call.replySize >= 8 && call.replySize <= kBufferSize &&
                           call.fileIndex < m_files.size() && call.count < size + kBufferSize;
        if (!valid) {
            return 0;
        }
        const int file = m_files[call.fileIndex];
        const auto offset = static_cast<off_t>(call.offset);
        const auto done = static_cast<ssize_t>(call.count);
        if (call.io == Io::Read &&
            (call.count > call.replySize ||
             pread(file, reply + call.replySize - call.count, call.count, offset) != done)) {
            return 0;
        }
        if (call.io == Io::Write && (call.count > size || pwrite(file, record + size - call.count,
                                                                 call.count, offset) != done)) {
            return 0;
        }
        Store32(reply, kLastFragment | (call.replySize - 4));
        std::memcpy(reply + 4, record + 4, 4);  // xid
        return call.replySize;
    }

    void ServeConnection(int fd) const {
        const int on = 1;
        setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
        std::vector<std::uint8_t> in(kBufferSize);
        std::vector<std::uint8_t> out(kBufferSize);
        std::size_t filled = 0;
        for (bool alive = true; alive;) {
            const ssize_t count = recv(fd, in.data() + filled, in.size() - filled, 0);
            if (count <= 0) {
                break;
            }
            filled += static_cast<std::size_t>(count);
            std::size_t at = 0;
            while (alive && filled - at >= 4) {
                const std::size_t size = 4 + (Load32(in.data() + at) & ~kLastFragment);
                if (size > in.size() || size < kEchoCallSize) {
                    alive = false;
                } else if (filled - at < size) {
                    break;
                } else {
                    const std::size_t reply = Answer(in.data() + at, size, out.data());
                    alive = reply != 0 && send(fd, out.data(), reply, MSG_NOSIGNAL) ==
                                              static_cast<ssize_t>(reply);
                    at += size;
                }
            }
            std::memmove(in.data(), in.data() + at, filled - at);
            filled -= at;
        }
        close(fd);
    }

    void ServeDatagrams(int fd) const {
        std::vector<std::uint8_t> in(kBufferSize);
        std::vector<std::uint8_t> out(kBufferSize);
        for (;;) {
            sockaddr_in peer{};
            socklen_t size = sizeof peer;
            // A datagram has no mark, so it stands where a record's would end.
            const ssize_t count = recvfrom(fd, in.data() + 4, in.size() - 4, 0,
                                           reinterpret_cast<sockaddr*>(&peer), &size);
            const std::size_t call = 4 + static_cast<std::size_t>(count > 0 ? count : 0);
            const std::size_t reply =
                call < kEchoCallSize ? 0 : Answer(in.data(), call, out.data());
            if (reply != 0) {
                sendto(fd, out.data() + 4, reply - 4, MSG_NOSIGNAL,
                       reinterpret_cast<const sockaddr*>(&peer), size);
            }
        }
    }

    std::vector<int> m_files;
};

}  // namespace

void PutEchoCall(std::uint8_t* record, const EchoCall& call) {
    Store32(record + 8, call.replySize);
    Store32(record + 12, static_cast<std::uint32_t>(call.io));
    Store32(record + 16, call.fileIndex);
    Store32(record + 20, call.count);
    Store64(record + 24, call.offset);
}

void ServeEcho(const std::string& folder) { EchoServer(folder).Serve(); }

}  // namespace bench
