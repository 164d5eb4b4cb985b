#include "RpcProg.h"

#include "DataException.h"
#include "RuntimeParam.h"
#include "Utilities.h"

std::uint32_t CRpcProg::GetVersion() const { return ANY; }

std::uint32_t CRpcProg::GetMaxSupportProc() const { return ANY; }

int CRpcProg::GetResultOfException(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam,
                                   const LogArgu& logArgu) {
    const bool bLog = pRuntimeParam->IsLogError();
    try {
        throw;
    } catch (const CDataTruncatedExpt& e) {
        if (bLog) {
            pUtilities->LogError(pRuntimeParam, "[%s] %s", logArgu.pcName, e.what());
        }
        return PROG_RESULT_TRUNCATED;
    } catch (...) {
        if (bLog) {
            pUtilities->LogError(pRuntimeParam, "[%s] Unknown exception", logArgu.pcName);
        }
        return PROG_RESULT_GARBAGE;
    }
}
