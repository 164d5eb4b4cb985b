// What the files hold, so that every byte read or written can be checked. The content of a page of
// 4 KiB follows from one number, its stamp: the page's number in its file and how often it has been
// written.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace bench {

inline constexpr std::size_t kPage = 4096;

inline std::uint64_t StampOf(std::uint64_t page, std::uint64_t generation) {
    return page << 24 | (generation & 0xFFFFFF);
}

void FillPage(std::uint8_t* to, std::uint64_t stamp);
// The stamp alone, for every page that arrives.
bool HasStamp(const std::uint8_t* page, std::uint64_t stamp);
// All bytes; dearer.
bool IsPage(const std::uint8_t* page, std::uint64_t stamp);

// What a file should hold. A call's expectation is taken, and a write entered, when the call is
// sent: calls of one connection are executed in the order in which they are sent, and no two
// connections share a file that is written.
class FileModel {
public:
    // A file whose pages are as stamped in it now.
    explicit FileModel(std::string path);
    // A file that is put together from pages of another one.
    FileModel(std::string path, std::vector<std::uint64_t> stamps)
        : m_path(std::move(path)), m_stamps(std::move(stamps)) {}

    std::uint64_t Pages() const { return m_stamps.size(); }
    std::uint64_t Stamp(std::uint64_t page) const { return m_stamps[page]; }
    // The stamp of the page's next content.
    std::uint64_t Rewrite(std::uint64_t page);
    // Reads the whole file and throws when a page is not what it should be.
    void Verify() const;

private:
    std::string m_path;
    std::vector<std::uint64_t> m_stamps;
};

// ------------------------------------------------------------------------------------------------
// The files of a subject
// ------------------------------------------------------------------------------------------------

inline constexpr std::size_t kReadPages = 32768;  // 128 MiB
inline constexpr std::size_t kWritePages = 8192;  // 32 MiB, one such file a connection
inline constexpr int kWriteFiles = 4;
inline constexpr int kNames = 64;       // names in the deep folder, and plain files
inline constexpr int kListed = 2000;    // names in the listed folder
inline constexpr int kNameLength = 20;  // of a listed name
// Where bench.py keeps a subject, the export is four levels deep and this folder six.
inline const std::string kDeepFolder = "level-5/level-6";

std::string ReadFileName();
std::string WriteFileName(int connection);
std::string PlainName(int index);
std::string ListedName(int index);

void WriteStamped(const std::string& path, std::size_t pages);
void MakeFolders(const std::string& path);
void MakeEmptyFile(const std::string& path);
// Makes folder/export with all of the above and folder/heard.
void PrepareFolder(const std::string& folder);

}  // namespace bench
