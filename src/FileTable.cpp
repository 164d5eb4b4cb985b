#include "FileTable.h"

#include <algorithm>
#include <cstring>
#include <iterator>

CFileTable::~CFileTable() { Clear(); }

void CFileTable::Clear() {
    m_vvTable.clear();
    m_vCache.clear();
    m_mRows.clear();
    m_mCachedRows.clear();
    m_mCacheTurn.clear();
    m_iNextTurn = 0;
    m_mLeftBehind.clear();
}

std::uint32_t CFileTable::GetIDByPath(const char* pcPath, bool bTaken) {
    FileItem* pItem = FindItemByPath(pcPath, bTaken);
    if (pItem == nullptr) {
        pItem = AddItem(pcPath);
    }
    return pItem != nullptr ? pItem->iID : FILE_ID_NONE;
}

bool CFileTable::GetPathByID(std::uint32_t iID, char* pcBuf, int iBufSize) {
    const FileItem* pItem = GetItemByID(iID);
    if (pItem == nullptr) {
        return false;
    }
    if (pcBuf == nullptr) {
        return true;
    }
    if (iBufSize <= 0 || pItem->sPath.size() >= static_cast<std::size_t>(iBufSize)) {
        return false;
    }
    std::memcpy(pcBuf, pItem->sPath.c_str(), pItem->sPath.size() + 1);
    return true;
}

bool CFileTable::UpdateItemPath(const char* pcOldPath, const char* pcNewPath, bool bTaken) {
    if (pcOldPath == nullptr || pcNewPath == nullptr) {
        return false;
    }
    FileItem* pItem = FindItemByPath(pcOldPath, bTaken);
    if (pItem == nullptr) {
        return false;
    }
    RemoveFromRows(*pItem);
    const auto itTurn = m_mCacheTurn.find(pItem->iID);  // the search has put it into the cache
    const auto itCached = m_mCachedRows.find(pItem->sPath);
    itCached->second.erase(itTurn->second);
    if (itCached->second.empty()) {
        m_mCachedRows.erase(itCached);
    }
    pItem->sPath = pcNewPath;
    m_mLeftBehind.erase(pItem->iID);  // renamed by its path, it means what lies there
    m_mRows[pItem->sPath].insert(pItem->iID);
    m_mCachedRows[pItem->sPath].emplace(itTurn->second, pItem->iID);
    return true;
}

void CFileTable::LeaveBehind(const char* pcOldPath, const char* pcNewPath, bool bFolder) {
    const std::string sOldFolder = std::string(pcOldPath) + '/';
    const auto isBelow = [&](const std::string& sPath) {
        return bFolder && sPath.starts_with(sOldFolder);
    };
    const auto newPlace = [&](const std::string& sPath) {
        return pcNewPath + sPath.substr(sOldFolder.size() - 1);
    };
    for (auto it = m_mLeftBehind.begin(); it != m_mLeftBehind.end();) {
        std::string& sPlace = it->second;
        if (sPlace == pcOldPath || isBelow(sPlace)) {
            sPlace = newPlace(sPlace);
        }
        it = sPlace == GetItemByID(it->first)->sPath ? m_mLeftBehind.erase(it) : std::next(it);
    }
    const auto leave = [&](const auto& rows) {
        for (const std::uint32_t iID : rows.second) {
            m_mLeftBehind.try_emplace(iID, newPlace(rows.first));
        }
    };
    if (const auto it = m_mRows.find(pcOldPath); it != m_mRows.end()) {
        leave(*it);
    }
    if (bFolder) {
        for (const auto& rows : m_mRows) {
            if (isBelow(rows.first)) {
                leave(rows);
            }
        }
    }
}

bool CFileTable::HasLeftBehind(const char* pcPath) const {
    if (m_mLeftBehind.empty() || pcPath == nullptr) {
        return false;
    }
    const auto it = m_mRows.find(pcPath);
    return it != m_mRows.end() &&
           std::any_of(it->second.begin(), it->second.end(),
                       [this](std::uint32_t iID) { return IsLeftBehind(iID); });
}

FileItem* CFileTable::AddItem(const char* pcPath) {
    if (pcPath == nullptr) {
        return nullptr;
    }
    if (m_vvTable.empty() || m_vvTable.back().size() >= ROWS_PER_BUCKET) {
        m_vvTable.emplace_back().reserve(ROWS_PER_BUCKET);  // rows keep their place
    }
    std::vector<FileItem>& vBucket = m_vvTable.back();
    const auto iID = static_cast<std::uint32_t>(m_vvTable.size() - 1) * ROWS_PER_BUCKET +
                     static_cast<std::uint32_t>(vBucket.size());
    FileItem& item = vBucket.emplace_back(FileItem{pcPath, iID});
    m_mRows[item.sPath].insert(iID);
    return &item;
}

bool CFileTable::IsMatchItem(const FileItem* pItem, const char* pcPath, int iPathLen) {
    if (pItem == nullptr || pcPath == nullptr || iPathLen < 0 ||
        pItem->sPath.size() != static_cast<std::size_t>(iPathLen)) {
        return false;
    }
    return pItem->sPath.compare(0, std::string::npos, pcPath, pItem->sPath.size()) == 0;
}

FileItem* CFileTable::FindItemByPath(const char* pcPath, bool bTaken) {
    if (pcPath == nullptr) {
        return nullptr;
    }
    const std::string sPath(pcPath);
    const auto isMeant = [&](std::uint32_t iID) { return !bTaken || !IsLeftBehind(iID); };
    const auto itCached = m_mCachedRows.find(sPath);
    if (itCached != m_mCachedRows.end()) {
        for (const auto& [iTurn, iID] : itCached->second) {
            if (isMeant(iID)) {
                return GetItemByID(iID);
            }
        }
    }
    const auto itRows = m_mRows.find(sPath);
    if (itRows == m_mRows.end()) {
        return nullptr;
    }
    const auto itID = std::find_if(itRows->second.begin(), itRows->second.end(), isMeant);
    if (itID == itRows->second.end()) {
        return nullptr;
    }
    FileItem* pItem = GetItemByID(*itID);
    AddToCache(*pItem);
    return pItem;
}

FileItem* CFileTable::GetItemByID(std::uint32_t iID) {
    const std::size_t iBucket = iID / ROWS_PER_BUCKET;
    const std::size_t iRow = iID % ROWS_PER_BUCKET;
    if (iBucket >= m_vvTable.size() || iRow >= m_vvTable[iBucket].size()) {
        return nullptr;
    }
    return &m_vvTable[iBucket][iRow];
}

void CFileTable::AddToCache(const FileItem& item) {
    if (m_vCache.size() > MAX_CACHE) {
        const auto itEnd = m_vCache.begin() + static_cast<std::ptrdiff_t>(m_vCache.size() / 10);
        for (auto it = m_vCache.begin(); it != itEnd; ++it) {
            const auto itTurn = m_mCacheTurn.find(*it);
            const auto itCached = m_mCachedRows.find(GetItemByID(*it)->sPath);
            itCached->second.erase(itTurn->second);
            if (itCached->second.empty()) {
                m_mCachedRows.erase(itCached);
            }
            m_mCacheTurn.erase(itTurn);
        }
        m_vCache.erase(m_vCache.begin(), itEnd);
    }
    m_vCache.push_back(item.iID);
    m_mCacheTurn[item.iID] = m_iNextTurn;
    m_mCachedRows[item.sPath].emplace(m_iNextTurn, item.iID);
    ++m_iNextTurn;
}

void CFileTable::RemoveFromRows(const FileItem& item) {
    const auto it = m_mRows.find(item.sPath);
    it->second.erase(item.iID);
    if (it->second.empty()) {
        m_mRows.erase(it);
    }
}
