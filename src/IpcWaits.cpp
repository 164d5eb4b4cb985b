#include "IpcWaits.h"

namespace {

thread_local CIpcWaits* t_pWaits = nullptr;  // in place of those of an exchange; null: none

}  // namespace

void CIpcWaits::Refuse() {
    ++m_iRefusals;
    ++m_iEnds;  // an exchange that looks only after Allow is ended all the same
}

void CIpcWaits::Allow() { --m_iRefusals; }

CIpcWaits::ThreadScope::ThreadScope(CIpcWaits* pWaits) : m_pOuter(t_pWaits) { t_pWaits = pWaits; }

CIpcWaits::ThreadScope::~ThreadScope() { t_pWaits = m_pOuter; }

CIpcWait::CIpcWait(const CIpcWaits* pWaits)
    : m_pWaits(t_pWaits != nullptr ? t_pWaits : pWaits),
      m_iEnds(m_pWaits != nullptr ? m_pWaits->m_iEnds.load() : 0) {}

bool CIpcWait::IsEnded() const {
    return m_pWaits != nullptr && (m_pWaits->m_iRefusals > 0 || m_pWaits->m_iEnds != m_iEnds);
}
