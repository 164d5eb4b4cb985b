// The table that gives every path a small number, the file ID, and turns file IDs back into paths.
#ifndef VELOCAST_FILETABLE_H
#define VELOCAST_FILETABLE_H

#include <cstdint>
#include <map>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

// No row.
inline constexpr std::uint32_t FILE_ID_NONE = 0xFFFFFFFF;

struct FileItem {
    std::string sPath;  // canonical local path, compared byte by byte
    std::uint32_t iID;  // bucket index times 1024 plus row index
};

// Rows are appended, never removed singly; IDs start at 0 and have no gaps.
//
// A path may stand in several rows after renames.  Which row a search finds is defined by a walk:
// first the recently found rows, oldest first, then all rows in order.  Indexes give the same
// answer without the walk.
//
// A rename of a folder leaves the rows below it behind, under their old paths.  Such a row means an
// object that lies elsewhere now: once another object lies at the old path (bTaken), a search for
// it passes over the row, so that no client that still holds the row's ID can mistake the two.  The
// row counts again when its object is renamed back.
//
// Thread safety: none; the owner holds its own mutex around every call.
// Invariants: m_mRows holds every row's ID under its path; m_mCachedRows and m_mCacheTurn hold
// exactly the IDs of m_vCache, and no ID is in the cache twice (a cached row is found there).
class CFileTable {
public:
    CFileTable() = default;
    ~CFileTable();
    CFileTable(const CFileTable&) = delete;
    CFileTable& operator=(const CFileTable&) = delete;

    // Empties the table; the next ID is 0 again.
    void Clear();

    // The ID of the path, which gets a row if it has none; FILE_ID_NONE for a null path.
    std::uint32_t GetIDByPath(const char* pcPath, bool bTaken = false);
    // Copies the path of a row with its NUL into pcBuf of iBufSize bytes.  False without such a row
    // or when the path does not fit; a null buffer only asks whether the row exists.
    bool GetPathByID(std::uint32_t iID, char* pcBuf, int iBufSize);
    // Renames the one row that a search for the old path finds; rows below a directory keep theirs.
    bool UpdateItemPath(const char* pcOldPath, const char* pcNewPath, bool bTaken = false);

    // The object at pcOldPath (bFolder: with all that lies below it) is at pcNewPath now: rows that
    // still have the old paths are left behind, and those left behind before follow their objects.
    // For a folder this looks at every row.
    void LeaveBehind(const char* pcOldPath, const char* pcNewPath, bool bFolder);
    bool IsLeftBehind(std::uint32_t iID) const { return m_mLeftBehind.count(iID) != 0; }
    // Whether a row of this path is left behind.
    bool HasLeftBehind(const char* pcPath) const;

    // Rows stay where they are until Clear.  Null for a null path.
    FileItem* AddItem(const char* pcPath);
    FileItem* FindItemByPath(const char* pcPath, bool bTaken = false);
    FileItem* GetItemByID(std::uint32_t iID);
    static bool IsMatchItem(const FileItem* pItem, const char* pcPath, int iPathLen);

private:
    static constexpr std::uint32_t ROWS_PER_BUCKET = 1024;  // an ID is bucket << 10 | row
    static constexpr std::size_t MAX_CACHE = 1023;          // more than that sheds the oldest tenth

    void AddToCache(const FileItem& item);
    void RemoveFromRows(const FileItem& item);

    std::vector<std::vector<FileItem>> m_vvTable;
    std::vector<std::uint32_t> m_vCache;  // IDs of rows found by a full walk, oldest first

    std::unordered_map<std::string, std::set<std::uint32_t>> m_mRows;
    std::unordered_map<std::string, std::map<std::uint64_t, std::uint32_t>> m_mCachedRows;
    std::unordered_map<std::uint32_t, std::uint64_t> m_mCacheTurn;  // ID to its turn in the cache
    std::uint64_t m_iNextTurn = 0;
    std::map<std::uint32_t, std::string> m_mLeftBehind;  // ID to where its object lies now
};

#endif
