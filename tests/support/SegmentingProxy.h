// A proxy that cuts what it forwards, as a network does that carries no more at a time.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace support {

// Forwards TCP connections to a port of this machine, in both directions, each piece with a send of
// its own. Ends all connections when it is destroyed.
class SegmentingProxy {
public:
    // The size of the next piece, at least 1. Called by many threads, but never at the same time.
    using NextSize = std::function<std::size_t()>;

    // Listens on a free port; throws when it cannot.
    SegmentingProxy(int targetPort, NextSize nextSize);
    ~SegmentingProxy();
    SegmentingProxy(const SegmentingProxy&) = delete;
    SegmentingProxy& operator=(const SegmentingProxy&) = delete;

    int Port() const { return m_port; }
    // Pieces sent so far.
    std::uint64_t Pieces() const { return m_pieces; }

private:
    void Accept();
    void Forward(int from, int to);
    std::size_t Size();

    const int m_targetPort;
    std::mutex m_mutex;
    NextSize m_nextSize;  // guarded by m_mutex
    std::atomic<std::uint64_t> m_pieces{0};
    int m_listener = -1;
    int m_port = 0;
    std::vector<int> m_fds;              // of the accept thread until that has ended
    std::vector<std::thread> m_threads;  // the same
    std::thread m_acceptor;
};

}  // namespace support
