#include "ExportTable.h"

#include <algorithm>
#include <string_view>
#include <utility>

#include "Paths.h"

namespace {

// Tells of the search at one export.
void LogCompare(CLogRouter* pLogRouter, CRuntimeParam* pRuntimeParam, LogArgu* pLogArgu,
                std::string_view sPath, const std::string& sLocalMountPath) {
    const CSlashedPath target(sPath);
    pLogRouter->LogInfo(pRuntimeParam, "[%s] Path scan: \"%s\" vs \"%s\"", pLogArgu->pcName,
                        target.Get(), sLocalMountPath.c_str());
    if (std::string_view(target.Get()).starts_with(sLocalMountPath)) {
        pLogRouter->LogInfo(pRuntimeParam, "[%s] Path compare: \"%s\" vs \"%s\"", pLogArgu->pcName,
                            target.Get(), CSlashedPath(sLocalMountPath).Get());
    }
}

}  // namespace

void CExportTable::Add(MountInfo info) {
    MountInfo& entry = m_MountInfos[info.sExportName];
    entry = std::move(info);
}

void CExportTable::RemoveByName(const std::string& sExportName) { m_MountInfos.erase(sExportName); }

void CExportTable::RemoveByPath(const std::string& sLocalMountPath) {
    const auto it = std::find_if(m_MountInfos.begin(), m_MountInfos.end(), [&](const auto& entry) {
        return entry.second.sLocalMountPath == sLocalMountPath;
    });
    if (it != m_MountInfos.end()) {
        m_MountInfos.erase(it);
    }
}

bool CExportTable::HasPath(const std::string& sLocalMountPath) const {
    return std::any_of(m_MountInfos.begin(), m_MountInfos.end(), [&](const auto& entry) {
        return entry.second.sLocalMountPath == sLocalMountPath;
    });
}

bool CExportTable::HasClient(const std::string& sRemoteIpAddr) const {
    return std::any_of(m_MountInfos.begin(), m_MountInfos.end(), [&](const auto& entry) {
        return entry.second.sRemoteIpAddr == sRemoteIpAddr;
    });
}

MountInfo* CExportTable::FindByName(const std::string& sExportName) {
    const auto it = m_MountInfos.find(sExportName);
    return it != m_MountInfos.end() ? &it->second : nullptr;
}

const MountInfo* CExportTable::FindByPath(CLogRouter* pLogRouter, CRuntimeParam* pRuntimeParam,
                                          LogArgu* pLogArgu, const char* pcPath) const {
    const std::string_view sPath(pcPath);
    const bool bLog = pRuntimeParam->IsLogGeneralInfo();
    for (const auto& [sName, info] : m_MountInfos) {
        if (bLog) {
            LogCompare(pLogRouter, pRuntimeParam, pLogArgu, sPath, info.sLocalMountPath);
        }
        if (IsBelow(sPath, info.sLocalMountPath)) {
            if (bLog) {
                pLogRouter->LogInfo(pRuntimeParam, "[%s] Path match", pLogArgu->pcName);
            }
            return &info;
        }
    }
    return nullptr;
}

std::vector<MountInfo> CExportTable::GetRows(bool bClientMountedOnly) const {
    std::vector<MountInfo> vRows;
    for (const auto& [sName, info] : m_MountInfos) {
        if (!bClientMountedOnly || !info.sRemoteIpAddr.empty()) {
            vRows.push_back(info);
        }
    }
    return vRows;
}
