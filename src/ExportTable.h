// The exports, and which of them a path belongs to.
#ifndef VELOCAST_EXPORTTABLE_H
#define VELOCAST_EXPORTTABLE_H

#include <map>
#include <string>
#include <vector>

#include "LogRouter.h"
#include "RuntimeParam.h"

// One export.
struct MountInfo {
    std::string sLocalMountPath;  // canonical local directory
    std::string sExportName;      // what clients mount; the table's key
    std::string sIcpID;           // IPC ID of the controller that added it; empty: added locally
    std::string sRemoteIpAddr;    // client that has it mounted; empty: nobody
};

// Thread safety: none; the owner holds its own mutex around every call.
class CExportTable {
public:
    // Replaces an export of that name.
    void Add(MountInfo info);
    // What is not there is removed too.
    void RemoveByName(const std::string& sExportName);
    void RemoveByPath(const std::string& sLocalMountPath);
    void Clear() { m_MountInfos.clear(); }

    bool IsEmpty() const { return m_MountInfos.empty(); }
    bool HasPath(const std::string& sLocalMountPath) const;
    bool HasClient(const std::string& sRemoteIpAddr) const;
    // Borrowed until the table changes; null without one.
    MountInfo* FindByName(const std::string& sExportName);
    // The first export, in name order, whose directory is pcPath or lies above it; each comparison
    // is told with general logging.  Borrowed until the table changes; null without one.
    const MountInfo* FindByPath(CLogRouter* pLogRouter, CRuntimeParam* pRuntimeParam,
                                LogArgu* pLogArgu, const char* pcPath) const;
    // In name order, of those that a client has mounted or of all.
    std::vector<MountInfo> GetRows(bool bClientMountedOnly) const;

private:
    std::map<std::string, MountInfo> m_MountInfos;  // by export name
};

#endif
