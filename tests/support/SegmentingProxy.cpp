#include "support/SegmentingProxy.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <utility>

namespace support {

namespace {

sockaddr_in Loopback(int port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    return address;
}

void SendAtOnce(int fd) {
    const int on = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

}  // namespace

SegmentingProxy::SegmentingProxy(int targetPort, NextSize nextSize)
    : m_targetPort(targetPort),
      m_nextSize(std::move(nextSize)),
      m_listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_in address = Loopback(0);
    socklen_t size = sizeof address;
    if (bind(m_listener, reinterpret_cast<const sockaddr*>(&address), size) != 0 ||
        listen(m_listener, 10) != 0 ||
        getsockname(m_listener, reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        throw std::runtime_error(std::string("no port for a proxy: ") + std::strerror(errno));
    }
    m_port = ntohs(address.sin_port);
    m_acceptor = std::thread([this] { Accept(); });
}

SegmentingProxy::~SegmentingProxy() {
    shutdown(m_listener, SHUT_RDWR);
    m_acceptor.join();
    for (const int fd : m_fds) {
        shutdown(fd, SHUT_RDWR);
    }
    for (std::thread& thread : m_threads) {
        thread.join();
    }
    for (const int fd : m_fds) {
        close(fd);
    }
    close(m_listener);
}

void SegmentingProxy::Accept() {
    for (;;) {
        const int client = accept4(m_listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (client == -1) {
            return;
        }
        const int server = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
        const sockaddr_in address = Loopback(m_targetPort);
        m_fds.insert(m_fds.end(), {client, server});
        if (connect(server, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            shutdown(client, SHUT_RDWR);
            continue;
        }
        SendAtOnce(client);
        SendAtOnce(server);
        m_threads.emplace_back([this, client, server] { Forward(client, server); });
        m_threads.emplace_back([this, client, server] { Forward(server, client); });
    }
}

void SegmentingProxy::Forward(int from, int to) {
    std::vector<char> buffer(256 * 1024);
    ssize_t count = 0;
    while ((count = recv(from, buffer.data(), buffer.size(), 0)) > 0) {
        const auto end = static_cast<std::size_t>(count);
        for (std::size_t at = 0; at < end;) {
            const ssize_t sent =
                send(to, buffer.data() + at, std::min(Size(), end - at), MSG_NOSIGNAL);
            if (sent <= 0) {
                shutdown(from, SHUT_RDWR);
                return;
            }
            at += static_cast<std::size_t>(sent);
            ++m_pieces;
        }
    }
    shutdown(to, SHUT_WR);
}

std::size_t SegmentingProxy::Size() {
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_nextSize();
}

}  // namespace support
