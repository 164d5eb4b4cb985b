// What the tests of redirected files share: a service object whose controller gives chosen answers,
// and reads that notice every byte written beside the caller's buffer.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <functional>
#include <mutex>
#include <ostream>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "RecordingUtilities.h"
#include "RedirectedFile.h"
#include "RuntimeParam.h"
#include "support/Files.h"
#include "Utilities.h"

namespace redirtest {

inline constexpr std::int64_t kMiB = 1 << 20;
inline constexpr std::int64_t kGiB = 1 << 30;

// Answers the four notifications with a chosen value and keeps them as texts.
//
// Thread safety: all operations.
class ControlledUtilities : public RecordingUtilities {
public:
    int LogUpdateRedirectedFileAttributes(CRuntimeParam* param, const char* path, bool hasSize,
                                          unsigned long long size, bool hasAccessTime,
                                          unsigned long accessTime, bool hasModifiedTime,
                                          unsigned long modifiedTime) override {
        return Answer(std::string("attributes (") + param->GetID() + ") " + path + " size=" +
                      Optional(hasSize, size) + " atime=" + Optional(hasAccessTime, accessTime) +
                      " mtime=" + Optional(hasModifiedTime, modifiedTime));
    }
    int LogRemoveRedirectedFile(CRuntimeParam* param, const char* path) override {
        return Answer(std::string("remove (") + param->GetID() + ") " + path);
    }
    int LogRenameRedirectedFile(CRuntimeParam* param, const char* from, const char* to) override {
        return Answer(std::string("rename (") + param->GetID() + ") " + from + " -> " + to);
    }
    int LogWriteRedirectedFile(CRuntimeParam* param, const char* path, unsigned long long seek,
                               int seekType, unsigned int length) override {
        return Answer(std::string("write (") + param->GetID() + ") " + path +
                      " seek=" + std::to_string(seek) + " type=" + std::to_string(seekType) +
                      " length=" + std::to_string(length));
    }

    void SetAnswer(int answer) { m_answer = answer; }
    // Runs inside every notification, before it is answered.
    void SetHook(std::function<void()> hook) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_hook = std::move(hook);
    }
    // The notifications since the last call.
    std::vector<std::string> TakeNotifications() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_notifications, {});
    }

private:
    static std::string Optional(bool present, unsigned long long value) {
        return present ? std::to_string(value) : "none";
    }
    int Answer(std::string notification) {
        std::function<void()> hook;
        {
            const std::lock_guard<std::mutex> lock(m_mutex);
            m_notifications.push_back(std::move(notification));
            hook = m_hook;
        }
        if (hook) {
            hook();
        }
        return m_answer;
    }

    std::atomic<int> m_answer{0};
    std::mutex m_mutex;
    std::vector<std::string> m_notifications;  // guarded by m_mutex
    std::function<void()> m_hook;              // guarded by m_mutex
};

// What one read gave.
struct Got {
    int count = 0;
    bool eof = false;
    std::string data;  // the first `count` bytes of the buffer

    bool operator==(const Got&) const = default;
};
inline std::ostream& operator<<(std::ostream& out, const Got& got) {
    return out << got.count << (got.eof ? " eof" : "") << " \"" << got.data.substr(0, 100) << '"';
}

// Calls a read of `length` bytes into a buffer between two guards, which must not change.
template <typename ReadCall>
Got GuardedRead(unsigned int length, ReadCall call) {
    constexpr std::size_t kGuard = 64;
    std::string buffer(length + 2 * kGuard, '\xEE');
    Got got;
    got.count = call(buffer.data() + kGuard, &got.eof);
    const std::string guard(kGuard, '\xEE');
    EXPECT_EQ(guard, buffer.substr(0, kGuard)) << "written before the buffer";
    EXPECT_EQ(guard, buffer.substr(kGuard + length)) << "written behind the buffer";
    EXPECT_LE(got.count, static_cast<int>(length));
    if (got.count > 0) {
        got.data = buffer.substr(kGuard, static_cast<std::size_t>(got.count));
    }
    return got;
}

inline std::string Zeros(std::size_t count) { return std::string(count, '\0'); }

inline std::int64_t SizeOf(const std::string& path) {
    struct stat data {};
    if (stat(path.c_str(), &data) != 0) {
        throw std::runtime_error("stat " + path);
    }
    return data.st_size;
}

// The whole records of an info file from an offset on.
inline std::vector<Segment> RecordsOf(const std::string& path, std::size_t from = 0) {
    const std::string content = support::ReadFile(path);
    std::vector<Segment> records;
    for (std::size_t i = from; i + SegmentRecord::SIZE <= content.size();
         i += SegmentRecord::SIZE) {
        records.push_back(
            SegmentRecord::Decode(reinterpret_cast<const unsigned char*>(content.data() + i)));
    }
    return records;
}

class RedirectedFixture : public testing::Test {
protected:
    ~RedirectedFixture() override {
        LogArgu argu{"Test.End"};
        utilities.Reset(&param, &argu);
    }

    std::string Make(const std::string& name, std::string_view content = "") {
        support::WriteFile(dir / name, content);
        return dir / name;
    }
    // A sparse file of a size.
    std::string MakeSparse(const std::string& name, std::int64_t size) {
        const std::string path = Make(name);
        if (truncate(path.c_str(), size) != 0) {
            throw std::runtime_error("truncate " + path);
        }
        return path;
    }
    // Makes the test's folder an export, so that files in it are opened for writing.
    void ExportFolder() {
        LogArgu argu{"Test.Export"};
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(utilities.AddMountInfo(&param, &argu, dir.Path().c_str(), "vm01", "", reason))
            << reason;
    }

    // The log lines of this category only, from now on.
    void Log(int bits) {
        param.SetLogControl(bits);
        utilities.Forget();
    }

    support::ScopedTempDir dir;
    ControlledUtilities utilities;
    CRuntimeParam param{"vm01", 0};
};

}  // namespace redirtest
