#include "RpcProg.h"

#include "DataException.h"
#include "RuntimeParam.h"
#include "Utilities.h"

std::uint32_t CRpcProg::GetVersion() const { return ANY; }

std::uint32_t CRpcProg::GetMaxSupportProc() const { return ANY; }

int CRpcProg::GetResultOfException(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam,
                                   const char* pcLabel) {
    const bool bLog = pRuntimeParam->IsLogError();
    try {
        throw;
    } catch (const CDataTruncatedExpt& e) {
        if (bLog) {
            pUtilities->LogError(pRuntimeParam, "[%s] %s", pcLabel, e.what());
        }
        return PROG_RESULT_TRUNCATED;
    } catch (...) {
        if (bLog) {
            pUtilities->LogError(pRuntimeParam, "[%s] Unknown exception", pcLabel);
        }
        return PROG_RESULT_GARBAGE;
    }
}
