// What is measured: a server process in a network of its own, or the bare echo server; and the ways
// to it that are not measured: set-up calls, the local control channel, what the kernel tells.
#pragma once

#include <sys/types.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "IpcBasic.h"
#include "support/Nfs3Client.h"

namespace bench {

using support::Bytes;
using support::Handle;

inline constexpr int kNfsPort = 2049;
inline constexpr int kEchoPort = 7007;
inline const std::string kExportName = "bench";
inline const std::string kHeardName = "heard";  // an export with a controller that hears of writes

struct Subject {
    enum class Kind { Nfs, Echo, EchoIo };  // EchoIo: echo that also reads or writes a file

    std::string name;
    Kind kind = Kind::Nfs;
    pid_t pid = 0;
    std::string folder;  // see PrepareFolder

    std::string Export() const { return folder + "/export"; }
    bool IsNfs() const { return kind == Kind::Nfs; }
    int Port() const { return IsNfs() ? kNfsPort : kEchoPort; }
};
// NAME:nfs|echo|echoio:PID:FOLDER
Subject ParseSubject(const std::string& text);

// While it lives, sockets of this thread are made in the network of a process.
class InNetworkOf {
public:
    explicit InNetworkOf(pid_t pid);
    ~InNetworkOf();
    InNetworkOf(const InNetworkOf&) = delete;
    InNetworkOf& operator=(const InNetworkOf&) = delete;

private:
    int m_own;
};

// CPU time that a process has used, all threads, in seconds.
double CpuSeconds(pid_t pid);
std::size_t ResidentKiB(pid_t pid);
// Waits, at most ten seconds, until a process has no more than this many threads: the server has
// seen that connections are closed, and their slots are free again.
void WaitForThreads(pid_t pid, std::size_t most);
std::size_t Threads(pid_t pid);

// The set-up side of a server: mounts the export and finds handles. The connection for calls is
// given back by Release, for the server has ten.
class Session {
public:
    explicit Session(const Subject& subject);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    const Subject& Server() const { return m_subject; }
    support::Nfs3Client& Nfs() { return *m_nfs; }
    // A path below the export; empty for the export itself.
    Handle Find(const std::string& path);
    // The root of another export, which stays mounted until the end.
    Handle Mount(const std::string& exportName);
    void Release();

private:
    Subject m_subject;
    std::unique_ptr<support::MountClient> m_mount;
    std::unique_ptr<support::Nfs3Client> m_nfs;
    std::vector<std::string> m_mounted;
    Handle m_root;
};

// The local control channel of a server, which has a /tmp of its own.
class Control {
public:
    explicit Control(const Subject& subject);

    // One exchange. Throws when none takes place.
    IpcDataBuf Exchange(const IpcDataBuf& request) const;
    // True when the operation answers "true"; an error text throws unless it is expected.
    bool Ask(const IpcDataBuf& request, const std::string& expected = {}) const;

    bool IsRunning() const;
    // Does nothing when the folder or the name is exported already.
    void AddExport(const std::string& folder, const std::string& name,
                   const std::string& controller = {}) const;
    void AddSession(const std::string& id, const std::string& folder) const;
    bool IsSession(const std::string& id) const;
    void SetLogControl(int bits) const;
    void OpenRedirected(const std::string& path, std::int64_t size, bool infoFile) const;
    void CloseRedirected(const std::string& path) const;
    void AddSegment(const std::string& path, const std::string& source, std::int64_t sourceOffset,
                    std::int64_t offset, std::int64_t length) const;

private:
    std::string m_channel;
};

// A controlling process's channel "bench" in the server's /tmp: answers every callback.
class CallbackListener {
public:
    explicit CallbackListener(const Subject& subject);
    ~CallbackListener();
    CallbackListener(const CallbackListener&) = delete;
    CallbackListener& operator=(const CallbackListener&) = delete;
    std::uint64_t Writes() const { return m_writes; }

private:
    void Serve();

    std::string m_channel;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint64_t> m_writes{0};
    std::thread m_thread;
};

}  // namespace bench
