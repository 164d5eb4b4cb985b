#include "NfsProg.h"

#include "Nfs3Prog.h"

CNfsProg::CNfsProg(CUtilities* pUtilities) : CRpcProg(pUtilities) {}

CNfsProg::~CNfsProg() = default;

int CNfsProg::Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) {
    if (pParam->iVersion != 3) {
        return PROG_RESULT_NOIMP;
    }
    if (m_pNfs3Prog == nullptr) {
        m_pNfs3Prog = std::make_unique<CNfs3Prog>(m_pUtilities);
        m_pNfs3Prog->SetUserID(m_iUId, m_iGId);
        m_pNfs3Prog->SetReadOnly(m_bReadOnly);
    }
    return m_pNfs3Prog->Process(pIn, pOut, pParam);
}

std::uint32_t CNfsProg::GetVersion() const {
    return m_pNfs3Prog != nullptr ? m_pNfs3Prog->GetVersion() : CRpcProg::GetVersion();
}

std::uint32_t CNfsProg::GetMaxSupportProc() const {
    return m_pNfs3Prog != nullptr ? m_pNfs3Prog->GetMaxSupportProc()
                                  : CRpcProg::GetMaxSupportProc();
}

void CNfsProg::SetUserID(unsigned int uid, unsigned int gid) {
    m_iUId = uid;
    m_iGId = gid;
    if (m_pNfs3Prog != nullptr) {
        m_pNfs3Prog->SetUserID(uid, gid);
    }
}

void CNfsProg::SetReadOnly(bool bReadOnly) {
    m_bReadOnly = bReadOnly;
    if (m_pNfs3Prog != nullptr) {
        m_pNfs3Prog->SetReadOnly(bReadOnly);
    }
}
