// The callbacks of the local channel, which a server process sends to a controlling process: one
// entry each, as those of IpcRequests.h.
#ifndef VELOCAST_IPCCALLBACKS_H
#define VELOCAST_IPCCALLBACKS_H

#include "IpcEntry.h"

// Logs a line of another process under its identity; iType is an IPC_MESSAGE_TYPE.
inline void LogIpcLine(CUtilities* pUtilities, const char* pcID, char* pcMessage, int iType) {
    switch (iType) {
        case IPC_MESSAGE_TYPE_ERROR:
            pUtilities->LogError(pcID, pcMessage);
            break;
        case IPC_MESSAGE_TYPE_RAW:
            pUtilities->LogRaw(pcID, pcMessage);
            break;
        default:
            pUtilities->LogInfo(pcID, pcMessage);
            break;
    }
}

template <IPC_CALLBACK_TYPE TYPE>
struct IpcCallback;

template <>
struct IpcCallback<IPC_CALLBACK_TYPE_MESSAGE>
    : IpcEntry<IpcCb_LogMessage, IpcAnswer::True, &LogIpcLine, &IpcCb_LogMessage::cID,
               &IpcCb_LogMessage::cMsg, &IpcCb_LogMessage::iType> {};

template <>
struct IpcCallback<IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR>
    : IpcEntry<IpcCb_SetRedirectedFileAttributes, IpcAnswer::Int,
               IpcOverload<const char*, const char*, bool, unsigned long long, bool, unsigned long,
                           bool, unsigned long>(&CUtilities::LogUpdateRedirectedFileAttributes),
               &IpcCb_SetRedirectedFileAttributes::cID, &IpcCb_SetRedirectedFileAttributes::cPath,
               &IpcCb_SetRedirectedFileAttributes::bSize, &IpcCb_SetRedirectedFileAttributes::iSize,
               &IpcCb_SetRedirectedFileAttributes::bAccessTime,
               &IpcCb_SetRedirectedFileAttributes::lAccessTimeSec,
               &IpcCb_SetRedirectedFileAttributes::bLastModifiedTime,
               &IpcCb_SetRedirectedFileAttributes::lLastModifiedTimeSec> {};

template <>
struct IpcCallback<IPC_CALLBACK_TYPE_REMOVE_RD_FILE>
    : IpcEntry<IpcCb_RemoveRedirectedFile, IpcAnswer::Int,
               IpcOverload<const char*, const char*>(&CUtilities::LogRemoveRedirectedFile),
               &IpcCb_RemoveRedirectedFile::cID, &IpcCb_RemoveRedirectedFile::cPath> {};

template <>
struct IpcCallback<IPC_CALLBACK_TYPE_RENAME_RD_FILE>
    : IpcEntry<IpcCb_RenameRedirectedFile, IpcAnswer::Int,
               IpcOverload<const char*, const char*, const char*>(
                   &CUtilities::LogRenameRedirectedFile),
               &IpcCb_RenameRedirectedFile::cID, &IpcCb_RenameRedirectedFile::cPathFm,
               &IpcCb_RenameRedirectedFile::cPathTo> {};

template <>
struct IpcCallback<IPC_CALLBACK_TYPE_WRITE_RD_FILE>
    : IpcEntry<IpcCb_WriteRedirectedFile, IpcAnswer::Int,
               IpcOverload<const char*, const char*, unsigned long long, int, unsigned int>(
                   &CUtilities::LogWriteRedirectedFile),
               &IpcCb_WriteRedirectedFile::cID, &IpcCb_WriteRedirectedFile::cPath,
               &IpcCb_WriteRedirectedFile::iSeek, &IpcCb_WriteRedirectedFile::iSeekType,
               &IpcCb_WriteRedirectedFile::iLen> {};

#endif
