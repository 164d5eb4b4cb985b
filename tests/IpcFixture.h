// What the tests of the local control channel share: both ends of a connection without the
// product's code, a main object that tells what it was asked to do, and a log to read.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <functional>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <thread>
#include <utility>
#include <vector>

#include "FileLogger.h"
#include "NfsIpcServerMain.h"
#include "RuntimeParam.h"
#include "support/Files.h"
#include "Utilities.h"
#include "vectors/IpcVectors.h"

namespace ipctest {

using support::Bytes;
using support::Hex;
using support::Milliseconds;
using Texts = std::vector<std::string>;

inline const std::string kServerChannel = "/tmp/nfs-server";
inline constexpr int kAllLogBits = 0x3FF;

// ------------------------------------------------------------------------------------------------
// Messages
// ------------------------------------------------------------------------------------------------

inline void PutU32(Bytes& bytes, std::size_t offset, std::uint32_t value) {
    for (std::size_t i = 0; i < 4; ++i) {
        bytes.at(offset + i) = static_cast<std::uint8_t>(value >> (8 * i));
    }
}
inline std::uint32_t U32At(const Bytes& bytes, std::size_t offset) {
    return static_cast<std::uint32_t>(bytes.at(offset)) |
           static_cast<std::uint32_t>(bytes.at(offset + 1)) << 8 |
           static_cast<std::uint32_t>(bytes.at(offset + 2)) << 16 |
           static_cast<std::uint32_t>(bytes.at(offset + 3)) << 24;
}
inline std::string TextAt(const Bytes& bytes, std::size_t offset, std::size_t width) {
    const char* text = reinterpret_cast<const char*>(bytes.data()) + offset;
    return std::string(text, strnlen(text, std::min(width, bytes.size() - offset)));
}
// The message with another text in one field, which it may fill without a NUL.
inline Bytes WithText(Bytes message, std::size_t offset, std::size_t width, std::string_view text) {
    if (text.size() > width || offset + width > message.size()) {
        throw std::runtime_error("no room for a text");
    }
    std::memset(message.data() + offset, 0, width);
    std::memcpy(message.data() + offset, text.data(), text.size());
    return message;
}
inline Bytes WithU32(Bytes message, std::size_t offset, std::uint32_t value) {
    PutU32(message, offset, value);
    return message;
}

inline Bytes Header(std::uint32_t group, std::uint32_t type) {
    return WithU32(WithU32(ipcvectors::kReplyNone, 0, group), 4, type);
}
inline Bytes ReplyBool(bool value) {
    return value ? ipcvectors::kReplyTrue : ipcvectors::kReplyFalse;
}
inline Bytes ReplyInt(int value) {
    return WithU32(ipcvectors::kReplyInt, 16, static_cast<std::uint32_t>(value));
}
inline Bytes ReplyExpt(std::string_view text) {
    return WithText(ipcvectors::kReplyExpt, 16, 2048, text);
}
inline Bytes ReplyMsg(std::string_view text) {
    return WithText(ipcvectors::kReplyMsg, 16, 2048, text);
}

// "text (number)" of a system error.
inline std::string SystemText(int error) {
    return std::string(std::strerror(error)) + " (" + std::to_string(error) + ")";
}

// ------------------------------------------------------------------------------------------------
// The two ends
// ------------------------------------------------------------------------------------------------

inline sockaddr_un ChannelAddress(const std::string& channel) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (channel.size() >= sizeof address.sun_path) {
        throw std::runtime_error("channel too long: " + channel);
    }
    std::memcpy(address.sun_path, channel.data(), channel.size());
    return address;
}

// A connection to a channel.
class RawClient {
public:
    explicit RawClient(const std::string& channel = kServerChannel)
        : m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = ChannelAddress(channel);
        if (connect(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
            const int error = errno;
            close(m_fd);
            throw std::runtime_error("connect " + channel + ": " + std::strerror(error));
        }
    }
    ~RawClient() { Close(); }
    RawClient(const RawClient&) = delete;
    RawClient& operator=(const RawClient&) = delete;

    // In one piece; false when the peer has gone.
    bool Send(const Bytes& message) const {
        return send(m_fd, message.data(), message.size(), MSG_NOSIGNAL) ==
               static_cast<ssize_t>(message.size());
    }
    // Everything up to the end of the connection; throws when that does not come.
    Bytes Receive(Milliseconds timeout = support::kPatience) const {
        Bytes all;
        for (;;) {
            pollfd ready{m_fd, POLLIN, 0};
            if (poll(&ready, 1, static_cast<int>(timeout.count())) <= 0) {
                throw std::runtime_error("no answer on a channel");
            }
            std::uint8_t buffer[8192];
            const ssize_t count = recv(m_fd, buffer, sizeof buffer, 0);
            if (count <= 0) {
                return all;
            }
            all.insert(all.end(), buffer, buffer + count);
        }
    }
    // Whether something, an end included, comes within the time.
    bool HasAnswer(Milliseconds timeout) const {
        pollfd ready{m_fd, POLLIN, 0};
        return poll(&ready, 1, static_cast<int>(timeout.count())) > 0;
    }
    void ShutdownWrite() const { shutdown(m_fd, SHUT_WR); }
    void Close() {
        if (m_fd != -1) {
            close(m_fd);
            m_fd = -1;
        }
    }
    int Fd() const { return m_fd; }

private:
    int m_fd;
};

// One message and what is answered.
inline Bytes Exchange(const Bytes& message, const std::string& channel = kServerChannel) {
    const RawClient client(channel);
    EXPECT_TRUE(client.Send(message));
    return client.Receive();
}

inline bool CanConnect(const std::string& channel) {
    try {
        const RawClient client(channel);
        return true;
    } catch (const std::runtime_error&) {
        return false;
    }
}

// Listens on a channel, keeps the messages that come and gives chosen answers; an empty answer ends
// the connection without one.
//
// Thread safety: the messages may be looked at, and the answer be changed, at any time.
class FakePeer {
public:
    using Answer = std::function<Bytes(const Bytes&)>;

    explicit FakePeer(
        const std::string& channel, Answer answer = [](const Bytes&) { return ReplyBool(true); })
        : m_channel(channel),
          m_answer(std::move(answer)),
          m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        const sockaddr_un address = ChannelAddress(channel);
        unlink(channel.c_str());
        if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
            listen(m_fd, 16) != 0) {
            throw std::runtime_error("listen " + channel + ": " + std::strerror(errno));
        }
        m_thread = std::thread([this] { Serve(); });
    }
    FakePeer(const std::string& channel, Bytes answer)
        : FakePeer(channel, [answer = std::move(answer)](const Bytes&) { return answer; }) {}
    ~FakePeer() { Stop(); }
    FakePeer(const FakePeer&) = delete;
    FakePeer& operator=(const FakePeer&) = delete;

    void Stop() {
        if (!m_thread.joinable()) {
            return;
        }
        m_stopped = true;
        shutdown(m_fd, SHUT_RDWR);
        m_thread.join();
        close(m_fd);
        unlink(m_channel.c_str());
    }

    void SetAnswer(Answer answer) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_answer = std::move(answer);
    }
    // The messages since the last call.
    std::vector<Bytes> Take() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_messages, {});
    }
    // The only message since the last call.
    Bytes TakeOne() {
        std::vector<Bytes> messages = Take();
        EXPECT_EQ(1u, messages.size());
        return messages.empty() ? Bytes() : messages.front();
    }
    std::size_t Count() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages.size();
    }

private:
    void Serve() {
        while (!m_stopped) {
            const int fd = accept(m_fd, nullptr, nullptr);
            if (fd == -1) {
                continue;
            }
            Bytes message(8192);
            const ssize_t count = recv(fd, message.data(), message.size(), 0);
            if (count > 0) {
                message.resize(static_cast<std::size_t>(count));
                Answer answer;
                {
                    const std::lock_guard<std::mutex> lock(m_mutex);
                    answer = m_answer;
                }
                const Bytes reply = answer(message);
                {
                    const std::lock_guard<std::mutex> lock(m_mutex);
                    m_messages.push_back(message);
                }
                if (!reply.empty()) {
                    send(fd, reply.data(), reply.size(), MSG_NOSIGNAL);
                }
            }
            close(fd);
        }
    }

    const std::string m_channel;
    mutable std::mutex m_mutex;
    Answer m_answer;                // guarded by m_mutex
    std::vector<Bytes> m_messages;  // guarded by m_mutex
    std::atomic<bool> m_stopped{false};
    const int m_fd;
    std::thread m_thread;
};

// ------------------------------------------------------------------------------------------------
// Logs
// ------------------------------------------------------------------------------------------------

// A log file, and its lines without their times: "[info] text", "[error] text", " raw text".
class LogFile {
public:
    explicit LogFile(const std::string& path) : m_path(path), m_logger(path.c_str()) {
        if (!m_logger.Open(0)) {
            throw std::runtime_error("cannot log to " + path);
        }
    }
    CFileLogger* Logger() { return &m_logger; }
    Texts Lines() const {
        constexpr std::size_t kTime = sizeof("[2026/11/21 04:11:49]") - 1;
        Texts lines;
        std::istringstream input(support::ReadFile(m_path).substr(m_seen));
        for (std::string line; std::getline(input, line);) {
            lines.push_back(line.size() < kTime ? line : line.substr(kTime));
        }
        return lines;
    }
    bool Has(const std::string& line) const {
        const Texts lines = Lines();
        return std::find(lines.begin(), lines.end(), line) != lines.end();
    }
    std::ptrdiff_t Count(const std::string& line) const {
        const Texts lines = Lines();
        return std::count(lines.begin(), lines.end(), line);
    }
    // What was logged before is no longer seen.
    void Clear() { m_seen = support::ReadFile(m_path).size(); }

private:
    const std::string m_path;
    std::size_t m_seen = 0;
    CFileLogger m_logger;
};

// ------------------------------------------------------------------------------------------------
// A main object that does nothing but tell
// ------------------------------------------------------------------------------------------------

// Keeps every operation as a text and answers with chosen values.
//
// Thread safety: the calls may be looked at, and the answers be set, at any time.
class RecordingMain : public CNfsIpcServerMain {
public:
    explicit RecordingMain(int logControl = 0) : CNfsIpcServerMain("sv", logControl) {}
    // The serving thread calls operations of this class.
    ~RecordingMain() override { CloseIpcServerThread(); }

    std::atomic<bool> boolResult{true};
    std::atomic<int> intResult{123456};
    // Written where an operation takes an error buffer.
    void SetStatus(std::string status) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_status = std::move(status);
    }
    // Runs inside every operation.
    void SetHook(std::function<void()> hook) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_hook = std::move(hook);
    }

    Texts TakeCalls() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_calls, {});
    }
    std::size_t CallCount() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls.size();
    }

    bool StartServer(int mountPort, int nfsPort, unsigned int uid, unsigned int gid, bool readOnly,
                     char* pcStatus) override {
        Record("StartServer", mountPort, nfsPort, uid, gid, readOnly);
        return Result(pcStatus);
    }
    void GetVersion(char* text) const override {
        Record("GetVersion");
        std::snprintf(text, VERSION_SIZE, "1.2");
    }
    void GetDescription(char* text) const override {
        Record("GetDescription");
        std::snprintf(text, VERSION_SIZE, "words");
    }
    bool IsServerRunning() const override {
        Record("IsServerRunning");
        return boolResult;
    }
    void RemoveMountPoint(const char* path) override { Record("RemoveMountPoint", path); }
    void AddSessionInfo(const char* id, const char* path) override {
        Record("AddSessionInfo", id, path);
    }
    void RemoveSessionInfo(const char* id) override { Record("RemoveSessionInfo", id); }
    bool IsSessionExists(const char* id) override {
        Record("IsSessionExists", id);
        return boolResult;
    }
    void OpenRedirectedFile(const char* path, long long size, bool createInfoFile, int segmentMB,
                            int checkPointMB) override {
        Record("OpenRedirectedFile", path, size, createInfoFile, segmentMB, checkPointMB);
    }
    void CloseRedirectedFile(const char* path) override { Record("CloseRedirectedFile", path); }
    void CloseAllRedirectedFiles(const char* path) override {
        Record("CloseAllRedirectedFiles", path);
    }
    bool AddRedirectedFileSegment(const char* path, const char* source, long long sourceOffset,
                                  long long offset, long long length, char* pcStatus) override {
        Record("AddRedirectedFileSegment", path, source, sourceOffset, offset, length);
        return Result(pcStatus);
    }
    void ExportRedirectedFile(const char* path, const char* exportPath) override {
        Record("ExportRedirectedFile", path, exportPath);
    }
    void ExportRedirectedFileInfo(const char* path, const char* exportPath, bool merge) override {
        Record("ExportRedirectedFileInfo", path, exportPath, merge);
    }
    void CloseCachedFileHandle(const char* path) override { Record("CloseCachedFileHandle", path); }
    void CloseAllCachedFileHandles(const char* path) override {
        Record("CloseAllCachedFileHandles", path);
    }
    void SetLogControl(int bits) override { Record("SetLogControl", bits); }
    int GetMountInfo(CRuntimeParam* param, bool mountedOnly, bool details) override {
        Record("GetMountInfo", Tell(param), mountedOnly, details);
        return intResult;
    }
    int GetSessionInfo(CRuntimeParam* param, bool details) override {
        Record("GetSessionInfo", Tell(param), details);
        return intResult;
    }
    void RunTestMode(CRuntimeParam* param, const char* path, long long size) override {
        Record("RunTestMode", Tell(param), path, size);
    }
    bool RequestAutoShutdown() override {
        Record("RequestAutoShutdown");
        return CNfsMain::RequestAutoShutdown();
    }
    int GetServerStatus() const override {
        Record("GetServerStatus");
        return intResult;
    }
    bool SetDebugActionEnabled(bool enable) override {
        Record("SetDebugActionEnabled", enable);
        return boolResult;
    }
    int GetVSphereInfo(CRuntimeParam* param, bool details) override {
        Record("GetVSphereInfo", Tell(param), details);
        return intResult;
    }
    void AddVSphereInfo(const char* moid, const char* host, const char* port, const char* user,
                        const char* password) override {
        Record("AddVSphereInfo", moid, host, port, user, password);
    }
    void RemoveVSphereInfo(const char* moid) override { Record("RemoveVSphereInfo", moid); }

private:
    // Identity, IPC identity and log control of runtime parameters.
    static std::string Tell(const CRuntimeParam* param) {
        return std::string(param->GetID()) + "/" + param->GetIpcID() + "/" +
               std::to_string(param->GetLogControl());
    }
    template <typename... Args>
    void Record(const char* name, const Args&... args) const {
        std::ostringstream call;
        call << std::boolalpha << name;
        ((call << '|' << args), ...);
        std::function<void()> hook;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_calls.push_back(call.str());
            hook = m_hook;
        }
        if (hook) {
            hook();
        }
    }
    bool Result(char* pcStatus) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_status.empty()) {
            CUtilities::SetStatus(pcStatus, "%s", m_status.c_str());
        }
        return boolResult;
    }

    mutable std::mutex m_mutex;
    mutable Texts m_calls;         // guarded by m_mutex
    std::string m_status;          // guarded by m_mutex
    std::function<void()> m_hook;  // guarded by m_mutex
};

// A main object whose channel is open. The log control may be set at any time.
template <typename Main>
void StartController(Main& main) {
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(main.StartRemoteController(reason)) << reason;
}

}  // namespace ipctest
