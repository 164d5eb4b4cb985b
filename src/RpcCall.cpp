#include "RpcCall.h"

#include <cstdio>

void CRpcCall::Trace(const char* pcFmt, ...) {
    if (!IsTraced()) {
        return;
    }
    std::va_list vaArgs;
    va_start(vaArgs, pcFmt);
    Deliver(Kind::INFO, pcFmt, vaArgs);
    va_end(vaArgs);
}

void CRpcCall::LogInfo(int iControl, const char* pcFmt, ...) {
    if (!IsLogged(iControl)) {
        return;
    }
    std::va_list vaArgs;
    va_start(vaArgs, pcFmt);
    Deliver(Kind::INFO, pcFmt, vaArgs);
    va_end(vaArgs);
}

void CRpcCall::LogError(int iControl, const char* pcFmt, ...) {
    if (!IsLogged(iControl)) {
        return;
    }
    std::va_list vaArgs;
    va_start(vaArgs, pcFmt);
    Deliver(Kind::ERROR, pcFmt, vaArgs);
    va_end(vaArgs);
}

void CRpcCall::Deliver(Kind kind, const char* pcFmt, std::va_list vaArgs) {
    char cMessage[STATUS_SIZE];
    std::vsnprintf(cMessage, sizeof(cMessage), pcFmt, vaArgs);
    if (kind == Kind::ERROR) {
        m_pUtilities->LogError(GetRuntimeParam(), cMessage);
    } else {
        m_pUtilities->LogInfo(GetRuntimeParam(), cMessage);
    }
}
