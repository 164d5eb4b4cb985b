// One call of an RPC program, as its procedure sees it.
#ifndef VELOCAST_RPCCALL_H
#define VELOCAST_RPCCALL_H

#include <cstdarg>
#include <cstdint>
#include <string>

#include "RuntimeParam.h"
#include "Utilities.h"

class CInputStream;
class COutputStream;

// One call, handed to the program; all pointers are borrowed for its duration.
struct ProcessParam {
    std::uint32_t iVersion;        // program version of the call
    std::uint32_t iProc;           // procedure number of the call
    std::string sRemoteAddr;       // dotted IPv4 address of the caller
    CRuntimeParam* pRuntimeParam;  // the RPC server's; the program may set its ID and IPC ID
};

// Carries the procedure's label, the context of the call and its two streams.
//
// A log line's format begins with "[%s]", for which GetLabel() is the argument: so every text
// stands in the code as it is read in a log, and the compiler checks all of it.
class CRpcCall {
public:
    // pcLabel is a string literal; the pointers are borrowed and never null.
    CRpcCall(CUtilities* pUtilities, const char* pcLabel, CInputStream* pIn, COutputStream* pOut,
             ProcessParam* pParam)
        : m_pUtilities(pUtilities),
          m_LogArgu{pcLabel},
          m_pIn(pIn),
          m_pOut(pOut),
          m_pParam(pParam) {}
    CRpcCall(const CRpcCall&) = delete;
    CRpcCall& operator=(const CRpcCall&) = delete;

    // === Context ===

    CUtilities* GetUtilities() const { return m_pUtilities; }
    CRuntimeParam* GetRuntimeParam() const { return m_pParam->pRuntimeParam; }
    // The label, as the service object takes it and as a format does.
    LogArgu* GetLogArgu() { return &m_LogArgu; }
    const char* GetLabel() const { return m_LogArgu.pcName; }
    std::uint32_t GetVersion() const { return m_pParam->iVersion; }
    const std::string& GetRemoteAddr() const { return m_pParam->sRemoteAddr; }
    // Arguments and results.
    CInputStream* GetIn() const { return m_pIn; }
    COutputStream* GetOut() const { return m_pOut; }

    // === Log lines ===

    // For LogInfo and LogError: whatever the log control.
    static constexpr int LOG_ALWAYS = 0;

    // "[label]", when names of procedures are logged.
    void LogName() {
        if (GetRuntimeParam()->IsLogProcFuncName()) {
            LogInfo(LOG_ALWAYS, "[%s]", GetLabel());
        }
    }
    // Arguments and results, when these are logged.
    bool IsTraced() const { return GetRuntimeParam()->IsLogProcFuncArgu(); }
    void Trace(const char* pcFmt, ...) VELOCAST_PRINTF(2, 3);
    // When the log control has one of the bits of iControl (LOG_CONTROL_...).
    void LogInfo(int iControl, const char* pcFmt, ...) VELOCAST_PRINTF(3, 4);
    void LogError(int iControl, const char* pcFmt, ...) VELOCAST_PRINTF(3, 4);

private:
    enum class Kind { INFO, ERROR };

    bool IsLogged(int iControl) const {
        return iControl == LOG_ALWAYS || GetRuntimeParam()->IsLogEnabled(iControl);
    }
    // One line, cut to STATUS_SIZE bytes.
    void Deliver(Kind kind, const char* pcFmt, std::va_list vaArgs) VELOCAST_PRINTF(3, 0);

    CUtilities* m_pUtilities;
    LogArgu m_LogArgu;
    CInputStream* m_pIn;
    COutputStream* m_pOut;
    ProcessParam* m_pParam;
};

#endif
