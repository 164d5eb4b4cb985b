// A file of the descriptor cache while one operation of a redirected file uses it.
#ifndef VELOCAST_USEDFILE_H
#define VELOCAST_USEDFILE_H

#include <cstdint>
#include <mutex>

#include "Utilities.h"

// What every step of one operation needs; borrowed, never null.
struct FileContext {
    CUtilities* pUtilities;
    CRuntimeParam* pRuntimeParam;
    LogArgu* pLogArgu;
};

// An info file, a source or the target of an export; or none, which reads as zeros.  The descriptor
// stays open while this lives, also when its path leaves the cache.
//
// Thread safety: other operations use the same descriptor, and so its position.  Who positions and
// then transfers holds Lock() around both; ReadAt, MoveTo and CopyFrom lock by themselves.
class CUsedFile {
public:
    CUsedFile() = default;
    // Asks the cache for the path, which may be null or empty: none, as when the open fails.
    CUsedFile(const FileContext& context, const char* pcPath, bool bAlwaysReadWrite);

    bool IsOpen() const { return m_File.iFile != -1; }
    int GetDescriptor() const { return m_File.iFile; }
    // REQUIRES: IsOpen.
    bool IsRegularFile() const { return m_File.pUse->IsRegularFile(); }
    // The cache may close the descriptor from now on.
    void Release() { m_File = {}; }

    // Nothing is locked of none.
    [[nodiscard]] std::unique_lock<std::mutex> Lock() const;

    // As those of the file access layer, but none reads as zeros and can be anywhere.
    // REQUIRES: Lock() held.
    int OS_FileRead(const FileContext& context, void* pvBuf, unsigned int iLen) const;
    std::int64_t OS_FileSeek(const FileContext& context, std::int64_t iSeek, int iSeekType) const;
    int OS_FileWrite(const FileContext& context, const void* pvBuf, unsigned int iLen) const;

    // Without a line for the log, and REQUIRES: IsOpen.

    // Bytes read (pread(2)), the position stays; 0 or less also for what has to be positioned and
    // read one by one.
    int ReadAt(std::int64_t iPos, void* pvBuf, unsigned int iLen) const;
    void MoveTo(std::int64_t iPos) const;
    // Copies to the position of this file, which moves on, inside the kernel
    // (copy_file_range(2)).  False when the bytes are not copied as a whole; then nothing has
    // changed but what lies behind that position.
    bool CopyFrom(const CUsedFile& source, std::int64_t iSourcePos, unsigned int iLen) const;

private:
    CachedFile m_File;
};

#endif
