// The report of the platform test as text, and file systems of known size to run it on.
#pragma once

#include <sys/mount.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Files.h"

namespace platform {

using Lines = std::vector<std::string>;

// What one pass of writing and reading does.
struct Pass {
    long long position;
    long long length;
};

// A file size and what the two passes do with it.
struct Case {
    long long size;
    Pass first;
    Pass second;
};

inline const std::vector<Case> kCases{
    {1, {0, 0}, {0, 0}},
    {100, {0, 99}, {0, 99}},
    {2047, {0, 2046}, {0, 2046}},
    {2048, {0, 2047}, {0, 2048}},
    {2049, {0, 2048}, {1, 2048}},
    {5000, {0, 2048}, {2952, 2048}},
    {1048576, {0, 2048}, {1046528, 2048}},
};

inline const Case& CaseOf(long long size) {
    return *std::find_if(kCases.begin(), kCases.end(),
                         [size](const Case& c) { return c.size == size; });
}

// Mounted on a folder of its own while it lives; empty, with its root as the only file.
class TmpFs {
public:
    explicit TmpFs(const std::string& options = "size=64m,nr_inodes=1000") {
        if (mount("tmpfs", m_folder.Path().c_str(), "tmpfs", 0, options.c_str()) != 0) {
            throw std::runtime_error(std::string("mount tmpfs: ") + std::strerror(errno));
        }
    }
    ~TmpFs() { umount2(m_folder.Path().c_str(), MNT_DETACH); }
    TmpFs(const TmpFs&) = delete;
    TmpFs& operator=(const TmpFs&) = delete;

    const std::string& Path() const { return m_folder.Path(); }
    std::string operator/(const std::string& name) const { return m_folder / name; }
    void MakeReadOnly() const {
        if (mount(nullptr, Path().c_str(), nullptr, MS_REMOUNT | MS_BIND | MS_RDONLY, nullptr) !=
            0) {
            throw std::runtime_error(std::string("remount: ") + std::strerror(errno));
        }
    }

private:
    support::ScopedTempDir m_folder;
};

// The moment that reports are made to show.
inline constexpr long long kNowMs = 1700000000123;

// The lines about a file system; those of an empty TmpFs of the default size unless told otherwise.
inline Lines Attributes(const std::string& total = "64.0MB", const std::string& free = "64.0MB",
                        const std::string& slots = "1000(3E8)",
                        const std::string& freeSlots = "999(3E7)") {
    return {
        "Current time (in milliseconds)          : 1700000000123",
        "Maximum File Size                       : 2.0TB",
        "Total Disk Space                        : " + total,
        "Free Disk Space                         : " + free,
        "Free Disk Space To Caller               : " + free,
        "Total File Slots                        : " + slots,
        "Free File Slots                         : " + freeSlots,
        "Free File Slots To Caller               : " + freeSlots,
    };
}

inline Lines Head(const std::string& testDirectory, const Lines& attributes = Attributes()) {
    Lines lines{
        "=============================== START TEST ===============================",
        " >> Directory : \"" + testDirectory + "\"",
        " >> File      : \"" + testDirectory + "/test.bak\"",
        "",
        "------------------------ ATTRIBUTES of file system -----------------------",
    };
    lines.insert(lines.end(), attributes.begin(), attributes.end());
    lines.push_back("");
    lines.push_back("-------------------------------- FILE IO ---------------------------------");
    return lines;
}

inline const std::string kEnd =
    "================================ END TEST ================================";

// The report of a run in which every step works. The mode is the one that the file is created with,
// its type included.
inline Lines Report(const std::string& directory, const Case& test,
                    const Lines& attributes = Attributes(), const std::string& fileMode = "81A4") {
    const std::string folder = directory + (directory.ends_with('/') ? "_test" : "/_test");
    const std::string file = '"' + folder + "/test.bak\"";
    const std::string second = '"' + folder + "/test.bak2\"";
    Lines lines = Head(folder, attributes);
    const auto ok = [&lines](const std::string& step) { lines.push_back("[ OK ] " + step + "."); };
    ok("Create directory \"" + folder + "\"");
    ok("Create file " + file);
    ok("Close file " + file);
    for (const auto& [prefix, size] :
         {std::pair{"Enlarge file ", test.size + 1024}, std::pair{"Shrink file ", test.size}}) {
        ok(prefix + file + " size to " + std::to_string(size));
        ok("Open file " + file);
        ok("Verify file size");
        ok("Close file " + file);
    }
    ok("Open file " + file);
    for (const Pass& pass : {test.first, test.second}) {
        ok("File seek to position " + std::to_string(pass.position));
        ok("Write data with length " + std::to_string(pass.length));
        ok("Move pointer to position " + std::to_string(pass.position));
        ok("Read data with length " + std::to_string(pass.length));
        ok("Verify data with size " + std::to_string(pass.length));
    }
    ok("Get file stat from file " + file);
    for (const std::string& mode : {std::string("8124"), fileMode}) {
        ok("Set file mode " + mode + " to file " + file);
        ok("Get file mode from file " + file);
        ok("Verify file mode " + mode + " from file " + file);
    }
    ok("Close file " + file);
    ok("Rename file from " + file + " to " + second);
    ok("Remove file " + second);
    ok("Remove directory \"" + folder + "\"");
    lines.push_back(kEnd);
    return lines;
}

// A step that fails: the nth (from 1) whose description begins with a text.
struct Failure {
    std::string step;
    int nth;
    std::string reason;
};

// A report in which some steps fail.
inline Lines With(Lines report, const std::vector<Failure>& failures) {
    for (const Failure& failure : failures) {
        int left = failure.nth;
        const auto line = std::find_if(report.begin(), report.end(), [&](const std::string& text) {
            return text.substr(std::min<std::size_t>(7, text.size())).starts_with(failure.step) &&
                   --left == 0;
        });
        if (line == report.end()) {
            throw std::logic_error("no step " + failure.step);
        }
        *line = "[FAIL] " + line->substr(7) + " Error=" + failure.reason;
    }
    return report;
}

inline std::string Text(const Lines& lines) {
    std::string text;
    for (const std::string& line : lines) {
        text += line + '\n';
    }
    return text;
}

}  // namespace platform
