#include "IpcBasic.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <utility>

#include "IpcCallbacks.h"
#include "IpcRequests.h"

namespace {

// A channel is the socket file <folder><prefix><name><suffix>; it has no suffix.
constexpr const char* CHANNEL_FOLDER = "/tmp/";
constexpr const char* CHANNEL_PREFIX = "nfs-";
constexpr const char* CHANNEL_SUFFIX = "";

// Sizes by type, from the entries; index 0 is the bare header of an unknown type.
template <std::size_t... TYPES>
constexpr auto MakeRequestSizes(std::index_sequence<TYPES...>) {
    return std::array{
        sizeof(Ipc_Header),
        IpcRequest<static_cast<IPC_REQUEST_TYPE>(IPC_REQUEST_TYPE_NONE + 1 + TYPES)>::SIZE...};
}

template <std::size_t... TYPES>
constexpr auto MakeCallbackSizes(std::index_sequence<TYPES...>) {
    return std::array{
        sizeof(Ipc_Header),
        IpcCallback<static_cast<IPC_CALLBACK_TYPE>(IPC_CALLBACK_TYPE_NONE + 1 + TYPES)>::SIZE...};
}

constexpr auto REQUEST_SIZES =
    MakeRequestSizes(std::make_index_sequence<IPC_REQUEST_TYPE_COUNT - 1>());
constexpr auto CALLBACK_SIZES =
    MakeCallbackSizes(std::make_index_sequence<IPC_CALLBACK_TYPE_COUNT - 1>());
constexpr std::array REPLY_SIZES = {
    sizeof(Ipc_Header),   sizeof(IpcReply_Bool),    sizeof(IpcReply_Long),
    sizeof(IpcReply_Int), sizeof(IpcReply_Message), sizeof(IpcReply_Message),
};
static_assert(REPLY_SIZES.size() == IPC_REPLY_TYPE_COUNT);

// Writes the header of a group and sets the length that the group's sizes give.
template <std::size_t COUNT>
void InitialData(IpcDataBuf* pData, IPC_GROUP iGroup, int iType,
                 const std::array<std::size_t, COUNT>& sizes) {
    const int iKnown = iType > 0 && iType < static_cast<int>(COUNT) ? iType : 0;
    Ipc_Header header{iGroup, iKnown, {}};
    SetIpcText(header.cVersion, PRODUCT_VERSION);
    pData->Put(header);
    pData->lDataLen = static_cast<std::int32_t>(sizes[static_cast<std::size_t>(iKnown)]);
}

}  // namespace

void MakeIpcChannel(const char* pcName, char* pcChannel) {
    std::snprintf(pcChannel, IPC_CHANNEL_SIZE, "%s%s%s%s", CHANNEL_FOLDER, CHANNEL_PREFIX, pcName,
                  CHANNEL_SUFFIX);
}

CIpcBasic::CIpcBasic(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam) {}

void CIpcBasic::InitialRequestData(IpcDataBuf* pData, int iType) {
    InitialData(pData, IPC_GROUP_REQUEST, iType, REQUEST_SIZES);
}

void CIpcBasic::InitialReplyData(IpcDataBuf* pData, int iType) {
    InitialData(pData, IPC_GROUP_REPLY, iType, REPLY_SIZES);
}

void CIpcBasic::InitialCallbackData(IpcDataBuf* pData, int iType) {
    InitialData(pData, IPC_GROUP_CALLBACK, iType, CALLBACK_SIZES);
}

bool CIpcBasic::Fail(char* pcError, const char* pcFmt, ...) {
    if (pcError != nullptr) {
        va_list vaArgs;
        va_start(vaArgs, pcFmt);
        std::vsnprintf(pcError, STATUS_SIZE, pcFmt, vaArgs);
        va_end(vaArgs);
    }
    return false;
}

bool CIpcBasic::LogFailure(const char* pcName, const char* pcError) {
    if (m_pRuntimeParam->IsLogError()) {
        LogError("[%s] %s", pcName, pcError);
    }
    return false;
}

void CIpcBasic::LogState(const char* pcFmt, ...) {
    if (!m_pRuntimeParam->IsLogIpcState()) {
        return;
    }
    char cMessage[STATUS_SIZE];
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    std::vsnprintf(cMessage, sizeof(cMessage), pcFmt, vaArgs);
    va_end(vaArgs);
    LogInfo(cMessage);
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
