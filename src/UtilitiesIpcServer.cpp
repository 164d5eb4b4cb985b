#include "UtilitiesIpcServer.h"

#include <functional>
#include <string>

#include "IpcCallbacks.h"
#include "IpcClient.h"
#include "IpcReport.h"

namespace {

// No controller bears the server's name, but anybody can claim it: this process's own channel must
// not be asked for an answer by the thread that would have to give it.
bool HasController(CRuntimeParam* pRuntimeParam) {
    const std::string sIpcID = pRuntimeParam->GetIpcID();
    return !sIpcID.empty() && sIpcID != IPC_SERVER_NAME;
}

}  // namespace

void CUtilitiesIpcServer::GetIpcCallbackChannel(const char* pcIpcID, char* pcChannel) {
    MakeIpcChannel(pcIpcID, pcChannel);
}

void CUtilitiesIpcServer::RefuseWaits() { m_Waits.Refuse(); }

void CUtilitiesIpcServer::AllowWaits() { m_Waits.Allow(); }

template <IPC_CALLBACK_TYPE TYPE, typename... Arguments>
bool CUtilitiesIpcServer::SendCallback(CIpcClient* pClient, CRuntimeParam* pRuntimeParam,
                                       const Arguments&... arguments) {
    using Callback = IpcCallback<TYPE>;
    IpcDataBuf& request = pClient->GetDataInst()->request;
    CIpcBasic::InitialCallbackData(&request, TYPE);
    auto message = request.Get<typename Callback::Structure>();
    Callback::Fill(&message, pRuntimeParam->GetID(), arguments...);  // what is too long is cut
    request.Put(message);
    char cChannel[IPC_CHANNEL_SIZE];
    GetIpcCallbackChannel(pRuntimeParam->GetIpcID(), cChannel);
    return pClient->SendRequest(cChannel);
}

// =================================================================================================
// Log lines
// =================================================================================================

void CUtilitiesIpcServer::SendMessage(CRuntimeParam* pRuntimeParam, const char* pcMessage,
                                      int iType) {
    if (!HasController(pRuntimeParam)) {
        return;
    }
    const auto sendLine = [this, iType](CRuntimeParam* pParam, const char* pcLine) {
        CIpcClient client(this, pParam, &m_Waits);
        SendCallback<IPC_CALLBACK_TYPE_MESSAGE>(&client, pParam, pcLine, iType);
    };
    auto* pReport = dynamic_cast<CIpcReport*>(pRuntimeParam);
    if (pReport == nullptr) {
        sendLine(pRuntimeParam, pcMessage);
    } else if (!pReport->IsMute()) {
        pReport->Deliver([sendLine, pReport, sMessage = std::string(pcMessage)] {
            pReport->Refresh();
            sendLine(pReport, sMessage.c_str());
        });
    }
}

void CUtilitiesIpcServer::LogInfo(CRuntimeParam* pRuntimeParam, char* pcMessage) {
    CUtilities::LogInfo(pRuntimeParam, pcMessage);
    SendMessage(pRuntimeParam, pcMessage, IPC_MESSAGE_TYPE_INFO);
}

void CUtilitiesIpcServer::LogError(CRuntimeParam* pRuntimeParam, char* pcMessage) {
    CUtilities::LogError(pRuntimeParam, pcMessage);
    SendMessage(pRuntimeParam, pcMessage, IPC_MESSAGE_TYPE_ERROR);
}

void CUtilitiesIpcServer::LogRaw(CRuntimeParam* pRuntimeParam, char* pcMessage) {
    CUtilities::LogRaw(pRuntimeParam, pcMessage);
    SendMessage(pRuntimeParam, pcMessage, IPC_MESSAGE_TYPE_RAW);
}

// =================================================================================================
// Notifications of redirected files
// =================================================================================================

template <IPC_CALLBACK_TYPE TYPE, typename... Arguments>
int CUtilitiesIpcServer::Notify(CRuntimeParam* pRuntimeParam, const Arguments&... arguments) {
    if (!HasController(pRuntimeParam)) {
        return std::invoke(IpcCallback<TYPE>::OPERATION, this, pRuntimeParam->GetID(),
                           arguments...);
    }
    CIpcClient client(this, pRuntimeParam, &m_Waits);
    return SendCallback<TYPE>(&client, pRuntimeParam, arguments...) ? client.GetIntReply() : -1;
}

int CUtilitiesIpcServer::LogUpdateRedirectedFileAttributes(
    CRuntimeParam* pRuntimeParam, const char* pcPath, bool bSize, unsigned long long iSize,
    bool bAccessTime, unsigned long lAccessTimeSec, bool bLastModifiedTime,
    unsigned long lLastModifiedTimeSec) {
    return Notify<IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR>(pRuntimeParam, pcPath, bSize, iSize,
                                                      bAccessTime, lAccessTimeSec,
                                                      bLastModifiedTime, lLastModifiedTimeSec);
}

int CUtilitiesIpcServer::LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    return Notify<IPC_CALLBACK_TYPE_REMOVE_RD_FILE>(pRuntimeParam, pcPath);
}

int CUtilitiesIpcServer::LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFm,
                                                 const char* pcPathTo) {
    return Notify<IPC_CALLBACK_TYPE_RENAME_RD_FILE>(pRuntimeParam, pcPathFm, pcPathTo);
}

int CUtilitiesIpcServer::LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                unsigned long long iSeek, int iSeekType,
                                                unsigned int iLen) {
    return Notify<IPC_CALLBACK_TYPE_WRITE_RD_FILE>(pRuntimeParam, pcPath, iSeek, iSeekType, iLen);
}
