// The protocol programs under test: a whole service in the test's own process, on the default ports
// of the test's namespace, whose log lines are kept; and single programs without a network.
#pragma once

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include <algorithm>
#include <cstring>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "InputStream.h"
#include "NfsMain.h"
#include "OutputStream.h"
#include "RecordingUtilities.h"
#include "RpcProg.h"
#include "RuntimeParam.h"
#include "support/Files.h"
#include "support/Nfs3Client.h"
#include "Utilities.h"

namespace nfstest {

using support::Bytes;
using support::Handle;
using support::Hex;
using support::XdrWriter;

// ------------------------------------------------------------------------------------------------
// Log lines
// ------------------------------------------------------------------------------------------------

inline constexpr int kAllLogBits = 0x3FF;

using Texts = std::vector<std::string>;

// Thread safety: as the base.
class LoggedUtilities : public RecordingUtilities {
public:
    using RecordingUtilities::LogError;
    using RecordingUtilities::LogInfo;
    using RecordingUtilities::LogRaw;
    void LogInfo(CRuntimeParam* pRuntimeParam, char* pcMessage) override {
        RunHook(pcMessage);
        RecordingUtilities::LogInfo(pRuntimeParam, pcMessage);
    }
    void LogError(CRuntimeParam* pRuntimeParam, char* pcMessage) override {
        RunHook(pcMessage);
        RecordingUtilities::LogError(pRuntimeParam, pcMessage);
    }

    // Runs something, just then, when an info or error line comes that contains the text.
    void At(const std::string& text, std::function<void()> hook) {
        const std::lock_guard<std::mutex> lock(m_hookMutex);
        m_hookText = text;
        m_hook = std::move(hook);
    }
    // A line that contains the text is answered with an exception that no program expects.
    void ThrowAt(const std::string& text) {
        At(text, [] { throw 7; });
    }

    static std::string KindOf(const LogLine& line) {
        return line.kind == LogKind::Info ? "info" : line.kind == LogKind::Error ? "error" : "raw";
    }
    // The lines that begin with a text, as "kind text".
    std::vector<std::string> From(const std::string& prefix) const {
        std::vector<std::string> found;
        for (const LogLine& line : Lines()) {
            if (line.text.starts_with(prefix)) {
                found.push_back(KindOf(line) + " " + line.text);
            }
        }
        return found;
    }
    bool Has(const std::string& kind, const std::string& text) const {
        const std::vector<LogLine> lines = Lines();
        return std::any_of(lines.begin(), lines.end(), [&](const LogLine& line) {
            return KindOf(line) == kind && line.text == text;
        });
    }

private:
    void RunHook(const char* text) {
        const std::lock_guard<std::mutex> lock(m_hookMutex);
        if (m_hook && std::strstr(text, m_hookText.c_str()) != nullptr) {
            m_hook();
        }
    }

    std::mutex m_hookMutex;
    std::string m_hookText;        // guarded by m_hookMutex
    std::function<void()> m_hook;  // guarded by m_hookMutex
};

// ------------------------------------------------------------------------------------------------
// Expected bytes
// ------------------------------------------------------------------------------------------------

// The handle that carries a file ID: least significant byte first, then zeros.
inline Handle HandleOfId(std::uint32_t id, std::size_t size = 56) {
    Handle handle(size);
    for (std::size_t i = 0; i < 4 && i < size; ++i) {
        handle[i] = static_cast<std::uint8_t>(id >> (8 * i));
    }
    return handle;
}

inline std::uint32_t IdOfHandle(const Handle& handle) {
    return static_cast<std::uint32_t>(handle.at(0)) |
           static_cast<std::uint32_t>(handle.at(1)) << 8 |
           static_cast<std::uint32_t>(handle.at(2)) << 16 |
           static_cast<std::uint32_t>(handle.at(3)) << 24;
}

inline struct stat StatOf(const std::string& path) {
    struct stat data {};
    if (fstatat(AT_FDCWD, path.c_str(), &data, AT_SYMLINK_NOFOLLOW) != 0) {
        throw std::runtime_error("cannot stat " + path);
    }
    return data;
}

// fattr3 of what lies at a path, as the file system knows it.
inline Bytes AttributesOf(const std::string& path) {
    const struct stat data = StatOf(path);
    struct statvfs fs {};
    statvfs(path.c_str(), &fs);
    const std::uint32_t type = S_ISREG(data.st_mode)    ? 1
                               : S_ISDIR(data.st_mode)  ? 2
                               : S_ISLNK(data.st_mode)  ? 5
                               : S_ISSOCK(data.st_mode) ? 6
                                                        : 7;
    const auto device = static_cast<std::uint32_t>(data.st_dev);
    XdrWriter writer;
    writer.U32(type).U32(data.st_mode & 06777u).U32(static_cast<std::uint32_t>(data.st_nlink));
    writer.U32(data.st_uid).U32(data.st_gid);
    writer.U64(static_cast<std::uint64_t>(data.st_size));  // size
    writer.U64(static_cast<std::uint64_t>(data.st_size));  // used
    writer.U32((device & 0xFF00u) >> 8).U32(device & 0xFFFF00FFu);
    writer.U64(static_cast<std::uint32_t>(fs.f_fsid));
    writer.U64(static_cast<std::uint32_t>(data.st_ino));
    for (const time_t seconds : {data.st_atime, data.st_mtime, data.st_ctime}) {
        writer.U32(static_cast<std::uint32_t>(seconds)).U32(0);
    }
    return writer.Data();
}

inline Bytes Words(std::initializer_list<std::uint32_t> words) {
    XdrWriter writer;
    for (const std::uint32_t word : words) {
        writer.U32(word);
    }
    return writer.Data();
}

inline Bytes operator+(Bytes left, const Bytes& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

inline Bytes OpaqueOf(const Bytes& bytes) { return XdrWriter().Opaque(bytes).Data(); }
inline Bytes StringOf(std::string_view text) { return XdrWriter().String(text).Data(); }
inline Bytes HyperOf(std::uint64_t value) { return XdrWriter().U64(value).Data(); }

// sattr3 that sets nothing.
inline const Bytes kNoAttributes = Words({0, 0, 0, 0, 0, 0});
// wcc_data without images.
inline const Bytes kEmptyWcc = Words({0, 0});

// ------------------------------------------------------------------------------------------------
// A whole service
// ------------------------------------------------------------------------------------------------

class LoggedMain : public CNfsMain {
public:
    LoggedMain() { InitMemberVaribles("test", 0); }
    ~LoggedMain() override {
        StopServer();
        Terminate();
    }
    std::unique_ptr<CUtilities> CreateUtilities() override {
        return std::make_unique<LoggedUtilities>();
    }
    LoggedUtilities& Log() { return static_cast<LoggedUtilities&>(*GetUtils()); }
};

// A running service with the export "vm01", mounted over UDP by 127.0.0.1; the folder above the
// export belongs to the test as well.  One client over TCP.
class NfsServiceTest : public ::testing::Test {
protected:
    NfsServiceTest() {
        if (mkdir(root.c_str(), 0755) != 0) {
            throw std::runtime_error("cannot make " + root);
        }
    }

    virtual bool IsReadOnly() const { return false; }

    void SetUp() override {
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(service.Initial(reason)) << reason;
        ASSERT_TRUE(service.StartServer(0, 0, 1234, 5678, IsReadOnly(), reason)) << reason;
        ASSERT_TRUE(service.AddMountPoint(root.c_str(), "vm01", "controller-1", reason)) << reason;
        const support::MountResult mounted =
            support::MountClient(support::Transport::Udp).Mnt("vm01");
        ASSERT_EQ(support::MNT3_OK, mounted.status);
        rootHandle = mounted.handle;
        nfs.emplace();
    }

    // The log control of the running service; what was logged before is forgotten.
    void Log(int bits) {
        service.SetLogControl(bits);
        log.Forget();
    }

    // A version-3 call with arguments as they are.
    support::RpcReply Call(std::uint32_t procedure, const Bytes& arguments) {
        return nfs->Rpc().Call(support::kNfsProgram, 3, procedure, arguments);
    }

    std::string PathOf(const std::string& name) const { return root + "/" + name; }
    // Makes a file of the export, without NFS.
    std::string MakeFile(const std::string& name, std::string_view content = "") const {
        support::WriteFile(PathOf(name), content);
        return PathOf(name);
    }
    std::string MakeFolder(const std::string& name) const {
        if (mkdir(PathOf(name).c_str(), 0755) != 0) {
            throw std::runtime_error("cannot make " + PathOf(name));
        }
        return PathOf(name);
    }
    Handle Lookup(const std::string& name) {
        const support::LookupResult result = nfs->Lookup(rootHandle, name);
        if (result.status != 0) {
            throw std::runtime_error("no " + name + " in the export");
        }
        return result.handle;
    }
    // The handle of a file that is made.
    Handle NewFile(const std::string& name, std::string_view content = "") {
        MakeFile(name, content);
        return Lookup(name);
    }

    support::ScopedTempDir folder;
    const std::string root = folder / "vm01";
    LoggedMain service;
    LoggedUtilities& log = service.Log();
    Handle rootHandle;
    std::optional<support::Nfs3Client> nfs;
};

class ReadOnlyNfsServiceTest : public NfsServiceTest {
    bool IsReadOnly() const override { return true; }
};

// ------------------------------------------------------------------------------------------------
// A program without a network
// ------------------------------------------------------------------------------------------------

struct Outcome {
    int result;            // what Process returned
    Bytes reply;           // what it wrote
    std::uint32_t unread;  // bytes of the arguments that it left
};

class ProgramBench {
public:
    Outcome Run(CRpcProg& program, std::uint32_t procedure, const Bytes& arguments = {},
                std::uint32_t version = 3, const std::string& remoteAddress = "10.0.0.9") {
        CInputStream in;
        CRuntimeParam param(remoteAddress.c_str(), logControl);
        COutputStream out;
        if (!arguments.empty()) {
            std::memcpy(in.GetFreeBuffer(), arguments.data(), arguments.size());
        }
        in.AddFilledBufferSize(static_cast<std::uint32_t>(arguments.size()));
        ProcessParam call{version, procedure, remoteAddress, &param};
        const int result = program.Process(&in, &out, &call);
        return {result, Bytes(out.GetBuffer(), out.GetBuffer() + out.GetBufferIndex()),
                in.GetFilledBufferSize()};
    }

    LoggedUtilities utilities;
    LoggedUtilities& log = utilities;
    int logControl = 0;
};

}  // namespace nfstest
