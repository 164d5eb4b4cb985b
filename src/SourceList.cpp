#include "SourceList.h"

#include <cstddef>

std::int32_t CSourceList::Register(const char* pcPath) {
    const auto [it, bNew] =
        m_mSourceIndex.try_emplace(pcPath, static_cast<std::int32_t>(m_vSource.size()));
    if (bNew) {
        m_vSource.emplace_back(pcPath);
    }
    return it->second;
}

void CSourceList::Clear() {
    m_vSource.clear();
    m_mSourceIndex.clear();
}

const std::string* CSourceList::Get(std::int32_t iSource) const {
    const auto i = static_cast<std::size_t>(iSource);
    return iSource >= 0 && i < m_vSource.size() ? &m_vSource[i] : nullptr;
}

const char* CSourceList::GetText(std::int32_t iSource) const {
    const std::string* psSource = Get(iSource);
    return psSource != nullptr ? psSource->c_str() : "Null";
}
