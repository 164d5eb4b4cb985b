#include "Pattern.h"

#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>

#include "Wire.h"

namespace bench {

namespace {

constexpr std::size_t kBasePages = 256;

// Random pages, built once; a page of a file is one of them behind its stamp.
const std::uint8_t* BasePage(std::uint64_t stamp) {
    static const std::vector<std::uint8_t> base = [] {
        std::vector<std::uint8_t> bytes(kBasePages * kPage);
        Sequence sequence(1);
        for (std::size_t at = 0; at < bytes.size(); at += 8) {
            Store64(bytes.data() + at, sequence.Next());
        }
        return bytes;
    }();
    return base.data() + (stamp >> 24) % kBasePages * kPage;
}

// A descriptor that is closed at the end.
class File {
public:
    File(const std::string& path, int flags) : m_fd(open(path.c_str(), flags | O_CLOEXEC, 0644)) {
        if (m_fd < 0) {
            FailErrno(path);
        }
    }
    ~File() { close(m_fd); }
    File(const File&) = delete;
    File& operator=(const File&) = delete;
    int Fd() const { return m_fd; }

private:
    int m_fd;
};

std::string Numbered(const char* format, int number) {
    char text[64];
    // NOLINTNEXTLINE(clang-diagnostic-format-nonliteral)
    std::snprintf(text, sizeof text, format, number);
    return text;
}

}  // namespace

void FailErrno(const std::string& what) {
    throw std::system_error(errno, std::generic_category(), what);
}

void FillPage(std::uint8_t* to, std::uint64_t stamp) {
    std::memcpy(to, BasePage(stamp), kPage);
    Store64(to, stamp);
}

bool HasStamp(const std::uint8_t* page, std::uint64_t stamp) { return Load64(page) == stamp; }

bool IsPage(const std::uint8_t* page, std::uint64_t stamp) {
    return HasStamp(page, stamp) && std::memcmp(page + 8, BasePage(stamp) + 8, kPage - 8) == 0;
}

FileModel::FileModel(std::string path) : m_path(std::move(path)) {
    const File file(m_path, O_RDONLY);
    std::uint8_t stamp[8];
    for (std::uint64_t page = 0;; ++page) {
        const ssize_t count = pread(file.Fd(), stamp, 8, static_cast<off_t>(page * kPage));
        if (count == 0) {
            break;
        }
        Check(count == 8 && Load64(stamp) >> 24 == page, m_path + ": not a file of this benchmark");
        m_stamps.push_back(Load64(stamp));
    }
}

std::uint64_t FileModel::Rewrite(std::uint64_t page) {
    m_stamps[page] = StampOf(page, (m_stamps[page] & 0xFFFFFF) + 1);
    return m_stamps[page];
}

void FileModel::Verify() const {
    const File file(m_path, O_RDONLY);
    std::vector<std::uint8_t> bytes(kBasePages * kPage);
    for (std::uint64_t page = 0; page < Pages();) {
        const ssize_t count =
            pread(file.Fd(), bytes.data(), bytes.size(), static_cast<off_t>(page * kPage));
        Check(count > 0 && count % static_cast<ssize_t>(kPage) == 0, m_path + ": too short");
        for (ssize_t at = 0; at < count; at += static_cast<ssize_t>(kPage), ++page) {
            Check(IsPage(bytes.data() + at, m_stamps[page]),
                  m_path + ": page " + std::to_string(page) + " is not what was written");
        }
    }
}

std::string ReadFileName() { return "read.img"; }
std::string WriteFileName(int connection) { return Numbered("write-%d.img", connection); }
std::string PlainName(int index) { return Numbered("plain-%02d", index); }
std::string ListedName(int index) { return Numbered("listed-name-%08d", index); }

void WriteStamped(const std::string& path, std::size_t pages) {
    const File file(path, O_WRONLY | O_CREAT | O_TRUNC);
    std::array<std::uint8_t, kPage> page{};
    for (std::size_t i = 0; i < pages; ++i) {
        FillPage(page.data(), StampOf(i, 0));
        if (write(file.Fd(), page.data(), kPage) != static_cast<ssize_t>(kPage)) {
            FailErrno(path);
        }
    }
}

void MakeFolders(const std::string& path) { std::filesystem::create_directories(path); }

void MakeEmptyFile(const std::string& path) { const File file(path, O_WRONLY | O_CREAT); }

void PrepareFolder(const std::string& folder) {
    const std::string root = folder + "/export/";
    MakeFolders(root + kDeepFolder);
    for (const char* name : {"listed", "scratch", "known", "rd"}) {
        MakeFolders(root + name);
    }
    MakeFolders(folder + "/heard");
    WriteStamped(root + ReadFileName(), kReadPages);
    for (int i = 0; i < kWriteFiles; ++i) {
        WriteStamped(root + WriteFileName(i), kWritePages);
    }
    for (int i = 0; i < kNames; ++i) {
        MakeEmptyFile(root + PlainName(i));
        MakeEmptyFile(root + kDeepFolder + "/" + PlainName(i));
    }
    for (int i = 0; i < kListed; ++i) {
        MakeEmptyFile(root + "listed/" + ListedName(i));
    }
}

}  // namespace bench
