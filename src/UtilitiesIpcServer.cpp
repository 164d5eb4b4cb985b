#include "UtilitiesIpcServer.h"

#include <string>

#include "IpcClient.h"
#include "IpcReport.h"

namespace {

// No controller bears the server's name, but anybody can claim it: this process's own channel must
// not be asked for an answer by the thread that would have to give it.
bool HasController(CRuntimeParam* pRuntimeParam) {
    const std::string sIpcID = pRuntimeParam->GetIpcID();
    return !sIpcID.empty() && sIpcID != IPC_SERVER_NAME;
}

// Starts a callback of the given structure, which the caller fills further.
template <typename Callback>
Callback BeginCallback(CIpcClient* pClient, int iType, CRuntimeParam* pRuntimeParam) {
    IpcDataBuf& request = pClient->GetDataInst()->request;
    CIpcBasic::InitialCallbackData(&request, iType);
    auto callback = request.Get<Callback>();
    SetIpcText(callback.cID, pRuntimeParam->GetID());
    return callback;
}

}  // namespace

void CUtilitiesIpcServer::GetIpcCallbackChannel(const char* pcIpcID, char* pcChannel) {
    MakeIpcChannel(pcIpcID, pcChannel);
}

void CUtilitiesIpcServer::RefuseWaits() { m_Waits.Refuse(); }

void CUtilitiesIpcServer::AllowWaits() { m_Waits.Allow(); }

bool CUtilitiesIpcServer::SendCallback(CRuntimeParam* pRuntimeParam, CIpcClient* pClient) {
    char cChannel[IPC_CHANNEL_SIZE];
    GetIpcCallbackChannel(pRuntimeParam->GetIpcID(), cChannel);
    return pClient->SendRequest(cChannel);
}

void CUtilitiesIpcServer::SendMessage(CRuntimeParam* pRuntimeParam, const char* pcMessage,
                                      int iType) {
    if (!HasController(pRuntimeParam)) {
        return;
    }
    auto* pReport = dynamic_cast<CIpcReport*>(pRuntimeParam);
    if (pReport == nullptr) {
        SendLine(pRuntimeParam, pcMessage, iType);
    } else if (!pReport->IsMute()) {
        pReport->Deliver([this, pReport, sMessage = std::string(pcMessage), iType] {
            pReport->Refresh();
            SendLine(pReport, sMessage.c_str(), iType);
        });
    }
}

void CUtilitiesIpcServer::SendLine(CRuntimeParam* pRuntimeParam, const char* pcMessage, int iType) {
    CIpcClient client(this, pRuntimeParam, &m_Waits);
    auto callback =
        BeginCallback<IpcCb_LogMessage>(&client, IPC_CALLBACK_TYPE_MESSAGE, pRuntimeParam);
    SetIpcText(callback.cMsg, pcMessage);
    callback.iType = iType;
    client.GetDataInst()->request.Put(callback);
    SendCallback(pRuntimeParam, &client);
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

int CUtilitiesIpcServer::LogUpdateRedirectedFileAttributes(
    CRuntimeParam* pRuntimeParam, const char* pcPath, bool bSize, unsigned long long iSize,
    bool bAccessTime, unsigned long lAccessTimeSec, bool bLastModifiedTime,
    unsigned long lLastModifiedTimeSec) {
    if (!HasController(pRuntimeParam)) {
        return CUtilities::LogUpdateRedirectedFileAttributes(
            pRuntimeParam, pcPath, bSize, iSize, bAccessTime, lAccessTimeSec, bLastModifiedTime,
            lLastModifiedTimeSec);
    }
    CIpcClient client(this, pRuntimeParam, &m_Waits);
    auto callback = BeginCallback<IpcCb_SetRedirectedFileAttributes>(
        &client, IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR, pRuntimeParam);
    SetIpcText(callback.cPath, pcPath);
    callback.bSize = bSize;
    callback.iSize = iSize;
    callback.bAccessTime = bAccessTime;
    callback.lAccessTimeSec = static_cast<std::uint32_t>(lAccessTimeSec);
    callback.bLastModifiedTime = bLastModifiedTime;
    callback.lLastModifiedTimeSec = static_cast<std::uint32_t>(lLastModifiedTimeSec);
    client.GetDataInst()->request.Put(callback);
    return SendCallback(pRuntimeParam, &client) ? client.GetIntReply() : -1;
}

int CUtilitiesIpcServer::LogRemoveRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath) {
    if (!HasController(pRuntimeParam)) {
        return CUtilities::LogRemoveRedirectedFile(pRuntimeParam, pcPath);
    }
    CIpcClient client(this, pRuntimeParam, &m_Waits);
    auto callback = BeginCallback<IpcCb_RemoveRedirectedFile>(
        &client, IPC_CALLBACK_TYPE_REMOVE_RD_FILE, pRuntimeParam);
    SetIpcText(callback.cPath, pcPath);
    client.GetDataInst()->request.Put(callback);
    return SendCallback(pRuntimeParam, &client) ? client.GetIntReply() : -1;
}

int CUtilitiesIpcServer::LogRenameRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPathFm,
                                                 const char* pcPathTo) {
    if (!HasController(pRuntimeParam)) {
        return CUtilities::LogRenameRedirectedFile(pRuntimeParam, pcPathFm, pcPathTo);
    }
    CIpcClient client(this, pRuntimeParam, &m_Waits);
    auto callback = BeginCallback<IpcCb_RenameRedirectedFile>(
        &client, IPC_CALLBACK_TYPE_RENAME_RD_FILE, pRuntimeParam);
    SetIpcText(callback.cPathFm, pcPathFm);
    SetIpcText(callback.cPathTo, pcPathTo);
    client.GetDataInst()->request.Put(callback);
    return SendCallback(pRuntimeParam, &client) ? client.GetIntReply() : -1;
}

int CUtilitiesIpcServer::LogWriteRedirectedFile(CRuntimeParam* pRuntimeParam, const char* pcPath,
                                                unsigned long long iSeek, int iSeekType,
                                                unsigned int iLen) {
    if (!HasController(pRuntimeParam)) {
        return CUtilities::LogWriteRedirectedFile(pRuntimeParam, pcPath, iSeek, iSeekType, iLen);
    }
    CIpcClient client(this, pRuntimeParam, &m_Waits);
    auto callback = BeginCallback<IpcCb_WriteRedirectedFile>(
        &client, IPC_CALLBACK_TYPE_WRITE_RD_FILE, pRuntimeParam);
    SetIpcText(callback.cPath, pcPath);
    callback.iSeek = iSeek;
    callback.iSeekType = iSeekType;
    callback.iLen = iLen;
    client.GetDataInst()->request.Put(callback);
    return SendCallback(pRuntimeParam, &client) ? client.GetIntReply() : -1;
}
