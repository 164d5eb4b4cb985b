// The service object of a server process that controllers drive: sends what concerns a controller's
// work to that controller's channel.
#ifndef VELOCAST_UTILITIESIPCSERVER_H
#define VELOCAST_UTILITIESIPCSERVER_H

#include "IpcMessages.h"
#include "IpcWaits.h"
#include "Utilities.h"

class CIpcClient;

// The IPC identity of the runtime parameters names the controller; empty means that there is none.
//
// Thread safety: as CUtilities; every message goes over a connection of its own.
class CUtilitiesIpcServer : public CUtilities {
public:
    using CUtilities::LogError;
    using CUtilities::LogInfo;
    using CUtilities::LogRaw;
    using CUtilities::LogRemoveRedirectedFile;
    using CUtilities::LogRenameRedirectedFile;
    using CUtilities::LogUpdateRedirectedFileAttributes;
    using CUtilities::LogWriteRedirectedFile;

    // Log here first, then send the line, or give it to the report that the parameters are; whether
    // it arrived does not matter.
    void LogInfo(CRuntimeParam* pRuntimeParam, char* pcMessage) override;
    void LogError(CRuntimeParam* pRuntimeParam, char* pcMessage) override;
    void LogRaw(CRuntimeParam* pRuntimeParam, char* pcMessage) override;

    // The controller's answer, -1 when the exchange failed; without a controller, what the base
    // answers.
    int LogUpdateRedirectedFileAttributes(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                          bool bSize, unsigned long long iSize, bool bAccessTime,
                                          unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                          unsigned long lLastModifiedTimeSec) override;
    int LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) override;
    int LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFm,
                                const char* pcPathTo) override;
    int LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                               unsigned long long iSeek, int iSeekType, unsigned int iLen) override;

    void RefuseWaits() override;
    void AllowWaits() override;

    // The channel of an identity, in IPC_CHANNEL_SIZE bytes.
    virtual void GetIpcCallbackChannel(const char* pcIpcID, char* pcChannel);

private:
    // A log line, to the controller if there is one.
    void SendMessage(CRuntimeParam* pRuntimeParam, const char* pcMessage, int iType);
    // A notification of a redirected file: the controller's answer, or that of the base.
    template <IPC_CALLBACK_TYPE TYPE, typename... Arguments>
    int Notify(CRuntimeParam* pRuntimeParam, const Arguments&... arguments);
    // Sends the callback, whose fields behind cID are the arguments, to the controller; false when
    // no answer came.
    template <IPC_CALLBACK_TYPE TYPE, typename... Arguments>
    bool SendCallback(CIpcClient* pClient, CRuntimeParam* pRuntimeParam,
                      const Arguments&... arguments);

    CIpcWaits m_Waits;
};

#endif
