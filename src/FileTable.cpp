#include "FileTable.h"

#include <cstring>

CFileTable::~CFileTable() { Clear(); }

void CFileTable::Clear() {
    m_vvTable.clear();
    m_vCache.clear();
    m_mRows.clear();
    m_mCachedRows.clear();
    m_mCacheTurn.clear();
    m_iNextTurn = 0;
}

std::uint32_t CFileTable::GetIDByPath(const char* pcPath) {
    FileItem* pItem = FindItemByPath(pcPath);
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

bool CFileTable::UpdateItemPath(const char* pcOldPath, const char* pcNewPath) {
    if (pcOldPath == nullptr || pcNewPath == nullptr) {
        return false;
    }
    FileItem* pItem = FindItemByPath(pcOldPath);
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
    m_mRows[pItem->sPath].insert(pItem->iID);
    m_mCachedRows[pItem->sPath].emplace(itTurn->second, pItem->iID);
    return true;
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

FileItem* CFileTable::FindItemByPath(const char* pcPath) {
    if (pcPath == nullptr) {
        return nullptr;
    }
    const std::string sPath(pcPath);
    const auto itCached = m_mCachedRows.find(sPath);
    if (itCached != m_mCachedRows.end()) {
        return GetItemByID(itCached->second.begin()->second);
    }
    const auto itRows = m_mRows.find(sPath);
    if (itRows == m_mRows.end()) {
        return nullptr;
    }
    FileItem* pItem = GetItemByID(*itRows->second.begin());
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
