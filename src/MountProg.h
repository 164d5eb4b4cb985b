// The MOUNT program 100005 (RFC 1813, appendix I): export names become root file handles.
#ifndef VELOCAST_MOUNTPROG_H
#define VELOCAST_MOUNTPROG_H

#include "Nfs3Types.h"
#include "RpcProg.h"

// Stateless: who has an export mounted is kept with the exports.  The version of a call is not
// checked; version 1 gets its own reply to MNT.
class CMountProg : public CRpcProg {
public:
    explicit CMountProg(CUtilities* pUtilities);

    int Process(CInputStream* pIn, COutputStream* pOut, ProcessParam* pParam) override;
    std::uint32_t GetMaxSupportProc() const override;

    int ProcedureNULL(CRpcCall& call);
    int ProcedureMNT(CRpcCall& call);
    int ProcedureUMNT(CRpcCall& call);
    int ProcedureNOIMP(CRpcCall& call);

    // Reads one XDR string.  False for a null target, and for a text of 4096 bytes or more, whose
    // bytes are left unread.  Throws CDataTruncatedExpt.
    static bool ReadPath(CRpcCall& call, COpaquePath* pPath);
};

#endif
