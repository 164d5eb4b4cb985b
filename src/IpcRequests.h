// The requests of the local channel: one entry each.
//
// From its entry a request gets its size and header, what the client fills in, the operation that
// the server calls with it, and the reply.  A type of IPC_REQUEST_TYPE without an entry does not
// compile.
#ifndef VELOCAST_IPCREQUESTS_H
#define VELOCAST_IPCREQUESTS_H

#include "IpcEntry.h"
#include "NfsMain.h"

template <IPC_REQUEST_TYPE TYPE>
struct IpcRequest;

// =================================================================================================
// The service
// =================================================================================================

template <>
struct IpcRequest<IPC_REQUEST_TYPE_GET_VERSION>
    : IpcEntry<Ipc_Header, IpcAnswer::Text, &CNfsMain::GetVersion> {
    static constexpr IpcTurn TURN = IpcTurn::Urgent;
};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_GET_DESCRIPTION>
    : IpcEntry<Ipc_Header, IpcAnswer::Text, &CNfsMain::GetDescription> {
    static constexpr IpcTurn TURN = IpcTurn::Urgent;
};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_IS_SERVER_RUNNING>
    : IpcEntry<Ipc_Header, IpcAnswer::Bool, &CNfsMain::IsServerRunning> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_START>
    : IpcEntry<IpcRequest_Start, IpcAnswer::Result, &CNfsMain::StartServer,
               &IpcRequest_Start::iMountPort, &IpcRequest_Start::iNfsPort, &IpcRequest_Start::iUId,
               &IpcRequest_Start::iGId, &IpcRequest_Start::bReadOnly> {};

// =================================================================================================
// Exports and sessions
// =================================================================================================

template <>
struct IpcRequest<IPC_REQUEST_TYPE_ADD_MOUNT_POINT>
    : IpcEntry<IpcRequest_AddMountPoint, IpcAnswer::Result,
               IpcOverload<const char*, const char*, const char*, char*>(&CNfsMain::AddMountPoint),
               &IpcRequest_AddMountPoint::cLocalMountFolder, &IpcRequest_AddMountPoint::cExportName,
               &IpcRequest_AddMountPoint::cIpcID> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_REMOVE_MOUNT_POINT>
    : IpcEntry<IpcRequest_RemoveMountPoint, IpcAnswer::True, &CNfsMain::RemoveMountPoint,
               &IpcRequest_RemoveMountPoint::cLocalMountFolder> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_ADD_SESSION>
    : IpcEntry<IpcRequest_AddSession, IpcAnswer::True, &CNfsMain::AddSessionInfo,
               &IpcRequest_AddSession::cSessionID, &IpcRequest_AddSession::cLocalMountFolder> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_REMOVE_SESSION>
    : IpcEntry<IpcRequest_RemoveSession, IpcAnswer::True, &CNfsMain::RemoveSessionInfo,
               &IpcRequest_RemoveSession::cSessionID> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_IS_SESSION_EXIST>
    : IpcEntry<IpcRequest_IsSessionExists, IpcAnswer::Bool, &CNfsMain::IsSessionExists,
               &IpcRequest_IsSessionExists::cSessionID> {};

// =================================================================================================
// Redirected files and cached descriptors
// =================================================================================================

template <>
struct IpcRequest<IPC_REQUEST_TYPE_OPEN_RD_FILE>
    : IpcEntry<IpcRequest_OpenRedirectedFile, IpcAnswer::True, &CNfsMain::OpenRedirectedFile,
               &IpcRequest_OpenRedirectedFile::cPath, &IpcRequest_OpenRedirectedFile::iSize,
               &IpcRequest_OpenRedirectedFile::bCreateInfoFile,
               &IpcRequest_OpenRedirectedFile::iInfoFileSegmentSizeMB,
               &IpcRequest_OpenRedirectedFile::iInfoFileCheckPointSizeMB> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_CLOSE_RD_FILE>
    : IpcEntry<IpcRequest_CloseRedirectedFile, IpcAnswer::True, &CNfsMain::CloseRedirectedFile,
               &IpcRequest_CloseRedirectedFile::cPath> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_CLOSE_ALL_RD_FILE>
    : IpcEntry<IpcRequest_CloseAllRedirectedFiles, IpcAnswer::True,
               &CNfsMain::CloseAllRedirectedFiles, &IpcRequest_CloseAllRedirectedFiles::cPath> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_ADD_RD_FILE_SEG>
    : IpcEntry<IpcRequest_AddRedirectedFileSegment, IpcAnswer::Result,
               &CNfsMain::AddRedirectedFileSegment, &IpcRequest_AddRedirectedFileSegment::cPath,
               &IpcRequest_AddRedirectedFileSegment::cSrcPath,
               &IpcRequest_AddRedirectedFileSegment::iSrcFileOffset,
               &IpcRequest_AddRedirectedFileSegment::iOffset,
               &IpcRequest_AddRedirectedFileSegment::iLength> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_EXPORT_RD_FILE>
    : IpcEntry<IpcRequest_ExportRedirectedFile, IpcAnswer::True, &CNfsMain::ExportRedirectedFile,
               &IpcRequest_ExportRedirectedFile::cPath,
               &IpcRequest_ExportRedirectedFile::cExportPath> {
    static constexpr IpcTurn TURN = IpcTurn::Export;
};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_EXPORT_RD_FILE_INFO>
    : IpcEntry<IpcRequest_ExportRedirectedFileInfo, IpcAnswer::True,
               &CNfsMain::ExportRedirectedFileInfo, &IpcRequest_ExportRedirectedFileInfo::cPath,
               &IpcRequest_ExportRedirectedFileInfo::cExportPath,
               &IpcRequest_ExportRedirectedFileInfo::bMergeRange> {
    static constexpr IpcTurn TURN = IpcTurn::Export;
};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_CLOSE_FILE>
    : IpcEntry<IpcRequest_CloseOpenedFile, IpcAnswer::True, &CNfsMain::CloseCachedFileHandle,
               &IpcRequest_CloseOpenedFile::cPath> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_CLOSE_ALL_FILE>
    : IpcEntry<IpcRequest_CloseAllOpenedFiles, IpcAnswer::True,
               &CNfsMain::CloseAllCachedFileHandles, &IpcRequest_CloseAllOpenedFiles::cPath> {};

// =================================================================================================
// Log control, listings and the test of a file system
// =================================================================================================

template <>
struct IpcRequest<IPC_REQUEST_TYPE_SET_LOG_CTRL>
    : IpcEntry<IpcRequest_SetLogControl, IpcAnswer::True, &CNfsMain::SetLogControl,
               &IpcRequest_SetLogControl::iLogControl> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_GET_MOUNT_INFO>
    : IpcListingEntry<IpcRequest_GetMountInfo, IpcAnswer::Int,
                      IpcOverload<CRuntimeParam*, bool, bool>(&CNfsMain::GetMountInfo),
                      &IpcRequest_GetMountInfo::bClientMountedOnly,
                      &IpcRequest_GetMountInfo::bPrintDetails> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_GET_SESSION_INFO>
    : IpcListingEntry<IpcRequest_GetSessionInfo, IpcAnswer::Int,
                      IpcOverload<CRuntimeParam*, bool>(&CNfsMain::GetSessionInfo),
                      &IpcRequest_GetSessionInfo::bPrintDetails> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_RUN_TEST_MODE>
    : IpcListingEntry<IpcRequest_RunTestMode, IpcAnswer::True,
                      IpcOverload<CRuntimeParam*, const char*, long long>(&CNfsMain::RunTestMode),
                      &IpcRequest_RunTestMode::cDirPath, &IpcRequest_RunTestMode::iFileSize> {};

// =================================================================================================
// Shutdown, status and debug actions
// =================================================================================================

template <>
struct IpcRequest<IPC_REQUEST_TYPE_AUTO_SHUTDOWN>
    : IpcEntry<Ipc_Header, IpcAnswer::Bool, &CNfsMain::IsAutoShutdownEnabled> {
    static constexpr IpcTurn TURN = IpcTurn::Urgent;
};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_GET_SERVER_STATUS>
    : IpcEntry<Ipc_Header, IpcAnswer::Int, &CNfsMain::GetServerStatus> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED>
    : IpcEntry<IpcRequest_SetBoolean, IpcAnswer::True, &CNfsMain::SetDebugActionEnabled,
               &IpcRequest_SetBoolean::bVal> {};

// =================================================================================================
// Datastores
// =================================================================================================

template <>
struct IpcRequest<IPC_REQUEST_TYPE_GET_VSPHERE_INFO>
    : IpcListingEntry<IpcRequest_GetVSphereInfo, IpcAnswer::Int,
                      IpcOverload<CRuntimeParam*, bool>(&CNfsMain::GetVSphereInfo),
                      &IpcRequest_GetVSphereInfo::bPrintDetails> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_ADD_VSPHERE_INFO>
    : IpcEntry<IpcRequest_AddVSphereInfo, IpcAnswer::True, &CNfsMain::AddVSphereInfo,
               &IpcRequest_AddVSphereInfo::cDatastoreMoid, &IpcRequest_AddVSphereInfo::cHost,
               &IpcRequest_AddVSphereInfo::cPort, &IpcRequest_AddVSphereInfo::cUser,
               &IpcRequest_AddVSphereInfo::cPwd> {};

template <>
struct IpcRequest<IPC_REQUEST_TYPE_REMOVE_VSPHERE_INFO>
    : IpcEntry<IpcRequest_RemoveVSphereInfo, IpcAnswer::True, &CNfsMain::RemoveVSphereInfo,
               &IpcRequest_RemoveVSphereInfo::cDatastoreMoid> {};

#endif
