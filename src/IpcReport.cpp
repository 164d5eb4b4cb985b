#include "IpcReport.h"

#include "IpcWaits.h"

CIpcReport::CIpcReport(const CRuntimeParam* pOwner, CIpcWaits* pWaits,
                       std::chrono::milliseconds patience)
    : CRuntimeParam(pOwner->GetID(), pOwner->GetLogControl()),
      m_Patience(patience),
      m_pOwner(pOwner),
      m_pWaits(pWaits),
      m_Worker(pWaits) {}

void CIpcReport::Deliver(const CIpcWorker::Task& delivery) {
    m_bUsed = true;
    if (!m_Worker.Add(delivery)) {
        const CIpcWaits::ThreadScope scope(m_pWaits);
        delivery();
        return;
    }
    if (m_Patience.count() <= 0) {
        return;
    }
    const auto begin = std::chrono::steady_clock::now();
    m_Worker.WaitForAll(m_Patience);
    m_Patience -= std::chrono::steady_clock::now() - begin;
}
