// The runtime parameters of a request whose log lines go to the process that asked.
#ifndef VELOCAST_IPCREPORT_H
#define VELOCAST_IPCREPORT_H

#include <chrono>

#include "IpcWorker.h"
#include "RuntimeParam.h"

// Its lines, and in the end its answer, are delivered one after another on a thread of their own,
// which a requester that does not take them holds up alone.  The thread of the request waits for
// each delivery, so that with any other requester everything happens in the order in which it is
// told; but all in all no longer than its patience.
//
// Thread safety: as CRuntimeParam and CIpcWorker.
class CIpcReport : public CRuntimeParam {
public:
    // pOwner gives its identity and its log control; the exchanges of the deliveries belong to
    // pWaits.  Both borrowed.
    CIpcReport(const CRuntimeParam* pOwner, CIpcWaits* pWaits, std::chrono::milliseconds patience);

    // Takes over the owner's log control of this moment: a delivery may come long after the
    // request.
    void Refresh() { SetLogControl(m_pOwner->GetLogControl()); }

    // The lines are dropped from now on: what the requester gets is its answer.
    void Mute() { m_bMute = true; }
    bool IsMute() const { return m_bMute; }

    void Deliver(const CIpcWorker::Task& delivery);
    // Whether there was a delivery.
    bool IsUsed() const { return m_bUsed; }
    bool IsDone() const { return m_Worker.GetCount() == 0; }

private:
    std::chrono::steady_clock::duration m_Patience;  // what is left of it
    bool m_bUsed = false;
    bool m_bMute = false;
    const CRuntimeParam* m_pOwner;
    CIpcWaits* m_pWaits;
    CIpcWorker m_Worker;  // last: its tasks use the parameters
};

#endif
