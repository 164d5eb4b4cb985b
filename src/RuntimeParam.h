// Context of one piece of work: who it is done for, and which log categories are on.
#ifndef VELOCAST_RUNTIMEPARAM_H
#define VELOCAST_RUNTIMEPARAM_H

#include <atomic>
#include <string>

// Names the operation in progress; printed as the leading "[%s]" of most log lines.
// pcName is a string literal ("Nfs3Prog.ProcedureREAD") and is never freed.
struct LogArgu {
    const char* pcName;
};

// Log categories, one bit each of a log control.
inline constexpr int LOG_CONTROL_ERROR = 0x001;
inline constexpr int LOG_CONTROL_GENERAL_INFO = 0x002;
inline constexpr int LOG_CONTROL_RPC = 0x004;
inline constexpr int LOG_CONTROL_PROC_FUNC_NAME = 0x008;
inline constexpr int LOG_CONTROL_PROC_FUNC_ARGU = 0x010;
inline constexpr int LOG_CONTROL_REDIRECT_FILE = 0x020;
inline constexpr int LOG_CONTROL_IPC = 0x040;
inline constexpr int LOG_CONTROL_IPC_STATE = 0x080;
inline constexpr int LOG_CONTROL_FILE_ACCESS = 0x100;
inline constexpr int LOG_CONTROL_PORTMAP = 0x200;

// Thread safety: the log control may be changed by one thread while others test it.  The two
// identities are written only before the object is shared, or under the lock of the component
// that owns the object (the RPC server's instance: under the RPC server's mutex).
class CRuntimeParam {
public:
    // pcID may be null and then counts as the empty text.  The IPC ID starts empty.
    CRuntimeParam(const char* pcID, int iLogControl);
    virtual ~CRuntimeParam() = default;
    CRuntimeParam(const CRuntimeParam&) = delete;
    CRuntimeParam& operator=(const CRuntimeParam&) = delete;

    // The identity that tags log lines.  Never null; good until the next SetID.
    const char* GetID() const { return m_sID.c_str(); }
    void SetID(const char* pcID);

    // The identity whose callback channel hears of this work; empty means nobody else does.
    const char* GetIpcID() const { return m_sIpcID.c_str(); }
    void SetIpcID(const char* pcIpcID);

    // The whole mask, neither validated nor masked.
    int GetLogControl() const { return m_iLogControl; }
    void SetLogControl(int iLogControl) { m_iLogControl = iLogControl; }

    // True when the mask and the log control share a bit, compared as a signed number: bit 31
    // alone never counts.
    bool IsLogEnabled(int iMask) const { return (m_iLogControl & iMask) > 0; }

    bool IsLogError() const { return IsLogEnabled(LOG_CONTROL_ERROR); }
    bool IsLogGeneralInfo() const { return IsLogEnabled(LOG_CONTROL_GENERAL_INFO); }
    bool IsLogRpc() const { return IsLogEnabled(LOG_CONTROL_RPC); }
    bool IsLogProcFuncName() const { return IsLogEnabled(LOG_CONTROL_PROC_FUNC_NAME); }
    bool IsLogProcFuncArgu() const { return IsLogEnabled(LOG_CONTROL_PROC_FUNC_ARGU); }
    bool IsLogRedirectFile() const { return IsLogEnabled(LOG_CONTROL_REDIRECT_FILE); }
    bool IsLogIpc() const { return IsLogEnabled(LOG_CONTROL_IPC); }
    bool IsLogIpcState() const { return IsLogEnabled(LOG_CONTROL_IPC_STATE); }
    bool IsLogFileAccess() const { return IsLogEnabled(LOG_CONTROL_FILE_ACCESS); }
    bool IsLogPortmap() const { return IsLogEnabled(LOG_CONTROL_PORTMAP); }

private:
    std::string m_sID;
    std::string m_sIpcID;
    std::atomic<int> m_iLogControl;
};

#endif
