#include "IpcBasic.h"

#include <cstdarg>
#include <cstdio>
#include <iterator>

namespace {

constexpr char IPC_VERSION[8] = "1.2";

// Sizes by type; index 0 is a bare header.
constexpr std::size_t REQUEST_SIZES[] = {
    sizeof(Ipc_Header),
    sizeof(Ipc_Header),  // GET_VERSION
    sizeof(Ipc_Header),  // GET_DESCRIPTION
    sizeof(Ipc_Header),  // IS_SERVER_RUNNING
    sizeof(IpcRequest_Start),
    sizeof(IpcRequest_AddMountPoint),
    sizeof(IpcRequest_RemoveMountPoint),
    sizeof(IpcRequest_AddSession),
    sizeof(IpcRequest_RemoveSession),
    sizeof(IpcRequest_IsSessionExists),
    sizeof(IpcRequest_OpenRedirectedFile),
    sizeof(IpcRequest_CloseRedirectedFile),
    sizeof(IpcRequest_CloseAllRedirectedFiles),
    sizeof(IpcRequest_AddRedirectedFileSegment),
    sizeof(IpcRequest_ExportRedirectedFile),
    sizeof(IpcRequest_ExportRedirectedFileInfo),
    sizeof(IpcRequest_CloseOpenedFile),
    sizeof(IpcRequest_CloseAllOpenedFiles),
    sizeof(IpcRequest_SetLogControl),
    sizeof(IpcRequest_GetMountInfo),
    sizeof(IpcRequest_GetSessionInfo),
    sizeof(IpcRequest_RunTestMode),
    sizeof(Ipc_Header),  // AUTO_SHUTDOWN
    sizeof(Ipc_Header),  // GET_SERVER_STATUS
    sizeof(IpcRequest_SetBoolean),
    sizeof(IpcRequest_GetVSphereInfo),
    sizeof(IpcRequest_AddVSphereInfo),
    sizeof(IpcRequest_RemoveVSphereInfo),
};
static_assert(std::size(REQUEST_SIZES) == IPC_REQUEST_TYPE_COUNT);

constexpr std::size_t REPLY_SIZES[] = {
    sizeof(Ipc_Header),   sizeof(IpcReply_Bool),    sizeof(IpcReply_Long),
    sizeof(IpcReply_Int), sizeof(IpcReply_Message), sizeof(IpcReply_Message),
};
static_assert(std::size(REPLY_SIZES) == IPC_REPLY_TYPE_COUNT);

constexpr std::size_t CALLBACK_SIZES[] = {
    sizeof(Ipc_Header),
    sizeof(IpcCb_LogMessage),
    sizeof(IpcCb_SetRedirectedFileAttributes),
    sizeof(IpcCb_RemoveRedirectedFile),
    sizeof(IpcCb_RenameRedirectedFile),
    sizeof(IpcCb_WriteRedirectedFile),
};
static_assert(std::size(CALLBACK_SIZES) == IPC_CALLBACK_TYPE_COUNT);

template <std::size_t N>
int KnownType(const std::size_t (&)[N], int iType) {
    return iType > 0 && iType < static_cast<int>(N) ? iType : 0;
}

}  // namespace

void MakeIpcChannel(const char* pcName, char* pcChannel) {
    std::snprintf(pcChannel, IPC_CHANNEL_SIZE, "%s%s%s%s", "/tmp/", "nfs-", pcName, "");
}

CIpcBasic::CIpcBasic(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam) {}

void CIpcBasic::InitialData(IpcDataBuf* pData, IPC_GROUP iGroup, int iType, std::size_t iSize) {
    Ipc_Header header{iGroup, iType, {}};
    std::memcpy(header.cVersion, IPC_VERSION, sizeof(header.cVersion));
    pData->Put(header);
    pData->lDataLen = static_cast<std::int32_t>(iSize);
}

void CIpcBasic::InitialRequestData(IpcDataBuf* pData, int iType) {
    const int iKnown = KnownType(REQUEST_SIZES, iType);
    InitialData(pData, IPC_GROUP_REQUEST, iKnown, REQUEST_SIZES[iKnown]);
}

void CIpcBasic::InitialReplyData(IpcDataBuf* pData, int iType) {
    const int iKnown = KnownType(REPLY_SIZES, iType);
    InitialData(pData, IPC_GROUP_REPLY, iKnown, REPLY_SIZES[iKnown]);
}

void CIpcBasic::InitialCallbackData(IpcDataBuf* pData, int iType) {
    const int iKnown = KnownType(CALLBACK_SIZES, iType);
    InitialData(pData, IPC_GROUP_CALLBACK, iKnown, CALLBACK_SIZES[iKnown]);
}

bool CIpcBasic::Fail(char* pcError, const char* pcFmt, int iError) {
    char cReason[STATUS_SIZE] = "";
    CUtilities::GetLastErrorText(cReason, iError);
    CUtilities::SetStatus(pcError, pcFmt, cReason);
    return false;
}

void CIpcBasic::PrintData(LogArgu* pLogArgu, const IpcDataBuf* pData) {
    if (!m_pRuntimeParam->IsLogIpc()) {
        return;
    }
    const auto header = pData->Get<Ipc_Header>();
    const std::string sVersion = GetIpcText(header.cVersion);
    const auto lDataLen = static_cast<unsigned long>(pData->lDataLen);
    switch (header.iGroup) {
        case IPC_GROUP_REQUEST:
            LogInfo("[%s] Request action group (type = %d, ver = %s, dataLen = %lu)",
                    pLogArgu->pcName, header.iType, sVersion.c_str(), lDataLen);
            break;
        case IPC_GROUP_REPLY:
            LogInfo("[%s] Reply action group (type = %d, ver = %s, dataLen = %lu)",
                    pLogArgu->pcName, header.iType, sVersion.c_str(), lDataLen);
            break;
        case IPC_GROUP_CALLBACK:
            LogInfo("[%s] Callback action group (type = %d, ver = %s, dataLen = %lu)",
                    pLogArgu->pcName, header.iType, sVersion.c_str(), lDataLen);
            break;
        default:
            LogInfo("[%s] Unknown action group: %d (type = %d, ver = %s, dataLen = %lu)",
                    pLogArgu->pcName, header.iGroup, header.iType, sVersion.c_str(), lDataLen);
            break;
    }
}

void CIpcBasic::LogInfo(const char* pcFmt, ...) {
    char cMessage[STATUS_SIZE];
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    std::vsnprintf(cMessage, sizeof(cMessage), pcFmt, vaArgs);
    va_end(vaArgs);
    LogInfo(cMessage);
}

void CIpcBasic::LogError(const char* pcFmt, ...) {
    char cMessage[STATUS_SIZE];
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    std::vsnprintf(cMessage, sizeof(cMessage), pcFmt, vaArgs);
    va_end(vaArgs);
    LogError(cMessage);
}

// Not through the operations that a variant replaces: telling a controller of the message that
// tells it of a line would never end.

void CIpcBasic::LogInfo(char* pcMessage) {
    m_pUtilities->LogInfo(m_pRuntimeParam->GetID(), pcMessage);
}

void CIpcBasic::LogError(char* pcMessage) {
    m_pUtilities->LogError(m_pRuntimeParam->GetID(), pcMessage);
}
