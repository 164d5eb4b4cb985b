// Front of the NFS program: makes the version-3 implementation with the first version-3 call.
#ifndef VELOCAST_NFSPROG_H
#define VELOCAST_NFSPROG_H

#include <memory>

#include "RpcProg.h"

class CNfs3Prog;

class CNfsProg : public CRpcProg {
public:
    explicit CNfsProg(CUtilities* pUtilities);
    ~CNfsProg() override;

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override;
    // Both accept anything until the version-3 program exists.
    std::uint32_t GetVersion() const override;
    std::uint32_t GetMaxSupportProc() const override;

    // Stored, and passed on to the version-3 program once it exists.
    void SetUserID(unsigned int uid, unsigned int gid);
    void SetReadOnly(bool bReadOnly);

private:
    unsigned int m_iUId = 0;
    unsigned int m_iGId = 0;
    bool m_bReadOnly = false;
    std::unique_ptr<CNfs3Prog> m_pNfs3Prog;
};

#endif
