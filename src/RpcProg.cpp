#include "RpcProg.h"

#include "DataException.h"
#include "RuntimeParam.h"
#include "Utilities.h"

std::uint32_t CRpcProg::GetVersion() { return ANY; }

std::uint32_t CRpcProg::GetMaxSupportProc() { return ANY; }

int CRpcProg::GetResultOfException(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam,
                                   const LogArgu& logArgu) {
    const auto log = [&](const char* pcText) {
        if (pRuntimeParam->IsLogError()) {
            pUtilities->LogError(pRuntimeParam, "[%s] %s", logArgu.pcName, pcText);
        }
    };
    try {
        throw;
    } catch (const CDataTruncatedExpt& e) {
        log(e.what());
        return PROG_RESULT_TRUNCATED;
    } catch (...) {
        log("Unknown exception");
        return PROG_RESULT_GARBAGE;
    }
}
