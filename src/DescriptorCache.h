// The descriptors that stay open between requests.
#ifndef VELOCAST_DESCRIPTORCACHE_H
#define VELOCAST_DESCRIPTORCACHE_H

#include <sys/types.h>

#include <map>
#include <memory>
#include <mutex>
#include <string>

#include "Descriptor.h"
#include "RuntimeParam.h"

class CUtilities;

// One cached descriptor and its users: the last of them, of which the cache is one, closes it.  The
// mutex makes a positioning and the transfer after it one step.
class CDescriptorUse {
public:
    // The descriptor is open.
    explicit CDescriptorUse(CDescriptor descriptor);
    CDescriptorUse(const CDescriptorUse&) = delete;
    CDescriptorUse& operator=(const CDescriptorUse&) = delete;

    // Both are regular files, and not one and the same under two paths.
    bool IsOtherRegularFile(const CDescriptorUse& other) const;
    bool IsRegularFile() const { return m_bRegular; }
    // For the one user that is left: gives the descriptor up without closing it.
    [[nodiscard]] int Release() { return m_Descriptor.Release(); }

    std::mutex m_hMutex;

private:
    CDescriptor m_Descriptor;
    bool m_bRegular = false;
    dev_t m_iDevice = 0;
    ino_t m_iNode = 0;
};

// One entry of the cache.
struct OpenedFileInfo {
    int iFile = -1;                        // -1: the open failed
    std::string sTimeKey;                  // last access; empty before the first use
    std::string sPath;                     // as given by the caller
    std::shared_ptr<CDescriptorUse> pUse;  // null when iFile is -1
};

// A cached descriptor in use: stays open while this lives.
struct CachedFile {
    // For a positioning and the transfer after it.  Without a descriptor nothing is locked.
    [[nodiscard]] std::unique_lock<std::mutex> Lock() const {
        return pUse != nullptr ? std::unique_lock<std::mutex>(pUse->m_hMutex)
                               : std::unique_lock<std::mutex>();
    }

    int iFile = -1;
    std::shared_ptr<CDescriptorUse> pUse;
};

// Paths to descriptors.  Entries are ordered by their last access, in seconds; the oldest tenth is
// shed when there are more than 1023, or when the process has too many open files.
//
// A path that could not be opened has an entry too: the next request tries it again, and shedding
// forgets it.
//
// Thread safety: none; the owner holds its own mutex around every call.
// Invariants: every time key of the last-access list stands in an entry, unless two entries got the
// same one: then the entry that got it last has it.
class CDescriptorCache {
public:
    // Borrowed: it makes the system calls, finds the export of a path and logs.
    explicit CDescriptorCache(CUtilities* pUtilities) : m_pUtilities(pUtilities) {}
    // Closes nothing: who wants that calls CloseAll first.
    ~CDescriptorCache();
    CDescriptorCache(const CDescriptorCache&) = delete;
    CDescriptorCache& operator=(const CDescriptorCache&) = delete;

    // The descriptor of a path (not empty), opened when it is not cached.
    CachedFile Use(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                   bool bAlwaysReadWrite);
    void Close(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);
    // The folder itself and everything below it.
    void CloseBelow(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath);
    // Closes what is open under a path at which another file lies now, or none; with bBelow also
    // what is open below it.  An entry that could not be opened stays: it is tried again anyway.
    void CloseOutdated(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                       bool bBelow);
    void CloseAll(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu);
    // Closes the least recently used tenth, or everything when there are fewer than ten.
    void CloseExceeded(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu);

private:
    using Entries = std::map<std::string, OpenedFileInfo>;

    CDescriptor Open(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, const char* pcPath,
                     bool bAlwaysReadWrite);
    // Makes the entry the one of the last access.
    void Touch(OpenedFileInfo* pInfo);
    // Gives up the share of the cache in a descriptor, and forgets the entry.
    Entries::iterator Erase(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, Entries::iterator it);
    void CloseEntry(CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu, OpenedFileInfo* pInfo);

    CUtilities* m_pUtilities;
    Entries m_OpenedFileHandles;                                    // path to descriptor
    std::map<std::string, std::string> m_OpenedFileLastAccessList;  // time key to path
};

#endif
