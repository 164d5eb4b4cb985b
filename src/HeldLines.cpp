#include "HeldLines.h"

#include <new>

thread_local CHeldLines* CHeldLines::t_pHeldLines = nullptr;

CHeldLines::CHeldLines(CLogRouter* pLogRouter)
    : m_pLogRouter(pLogRouter), m_bOutermost(t_pHeldLines == nullptr) {
    if (m_bOutermost) {
        t_pHeldLines = this;
    }
}

CHeldLines::~CHeldLines() {
    if (!m_bOutermost) {
        return;
    }
    t_pHeldLines = nullptr;
    for (Line& line : m_vLines) {
        try {
            m_pLogRouter->Send(line.kind, line.pRuntimeParam, line.sMessage.data());
        } catch (const std::bad_alloc&) {
            // Without memory there is no line.
        }
    }
}

bool CHeldLines::Hold(CLogRouter* pLogRouter, LineKind kind, CRuntimeParam* pRuntimeParam,
                      const char* pcMessage) {
    CHeldLines* pHeldLines = t_pHeldLines;
    if (pHeldLines == nullptr || pHeldLines->m_pLogRouter != pLogRouter) {
        return false;
    }
    try {
        pHeldLines->m_vLines.push_back({kind, pRuntimeParam, pcMessage});
    } catch (const std::bad_alloc&) {
        // Without memory there is no line; the operation goes on.
    }
    return true;
}
