// The messages of the local control channel as they stand on the wire: numbers and structures.
//
// A message is one structure below, in the host's byte order (little-endian).  64-bit fields lie on
// 4-byte boundaries, a bool is one byte, texts are fixed-width and NUL-terminated by the sender.
// What is done with a message stands in IpcRequests.h and IpcCallbacks.h.
#ifndef VELOCAST_IPCMESSAGES_H
#define VELOCAST_IPCMESSAGES_H

#include <bit>
#include <cstddef>
#include <cstdint>

#include "Utilities.h"
#include "Version.h"

static_assert(std::endian::native == std::endian::little);
static_assert(sizeof(bool) == 1);

// =================================================================================================
// Numbers
// =================================================================================================

enum IPC_GROUP : std::int32_t {
    IPC_GROUP_NONE = 0,
    IPC_GROUP_REPLY = 1,
    IPC_GROUP_REQUEST = 2,
    IPC_GROUP_CALLBACK = 3,
    IPC_GROUP_COUNT = 4,
};

enum IPC_REPLY_TYPE : std::int32_t {
    IPC_REPLY_TYPE_NONE = 0,
    IPC_REPLY_TYPE_BOOL = 1,
    IPC_REPLY_TYPE_LONG = 2,
    IPC_REPLY_TYPE_INT = 3,
    IPC_REPLY_TYPE_EXPT = 4,  // an error text
    IPC_REPLY_TYPE_MSG = 5,   // a result text
    IPC_REPLY_TYPE_COUNT = 6,
};

enum IPC_CALLBACK_TYPE : std::int32_t {
    IPC_CALLBACK_TYPE_NONE = 0,
    IPC_CALLBACK_TYPE_MESSAGE = 1,
    IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR = 2,
    IPC_CALLBACK_TYPE_REMOVE_RD_FILE = 3,
    IPC_CALLBACK_TYPE_RENAME_RD_FILE = 4,
    IPC_CALLBACK_TYPE_WRITE_RD_FILE = 5,
    IPC_CALLBACK_TYPE_COUNT = 6,
};

// The kind of a forwarded log line.
enum IPC_MESSAGE_TYPE : std::int32_t {
    IPC_MESSAGE_TYPE_NONE = 0,
    IPC_MESSAGE_TYPE_INFO = 1,
    IPC_MESSAGE_TYPE_ERROR = 2,
    IPC_MESSAGE_TYPE_RAW = 3,
    IPC_MESSAGE_TYPE_COUNT = 4,
};

enum IPC_REQUEST_TYPE : std::int32_t {
    IPC_REQUEST_TYPE_NONE = 0,
    IPC_REQUEST_TYPE_GET_VERSION = 1,
    IPC_REQUEST_TYPE_GET_DESCRIPTION = 2,
    IPC_REQUEST_TYPE_IS_SERVER_RUNNING = 3,
    IPC_REQUEST_TYPE_START = 4,
    IPC_REQUEST_TYPE_ADD_MOUNT_POINT = 5,
    IPC_REQUEST_TYPE_REMOVE_MOUNT_POINT = 6,
    IPC_REQUEST_TYPE_ADD_SESSION = 7,
    IPC_REQUEST_TYPE_REMOVE_SESSION = 8,
    IPC_REQUEST_TYPE_IS_SESSION_EXIST = 9,
    IPC_REQUEST_TYPE_OPEN_RD_FILE = 10,
    IPC_REQUEST_TYPE_CLOSE_RD_FILE = 11,
    IPC_REQUEST_TYPE_CLOSE_ALL_RD_FILE = 12,
    IPC_REQUEST_TYPE_ADD_RD_FILE_SEG = 13,
    IPC_REQUEST_TYPE_EXPORT_RD_FILE = 14,
    IPC_REQUEST_TYPE_EXPORT_RD_FILE_INFO = 15,
    IPC_REQUEST_TYPE_CLOSE_FILE = 16,
    IPC_REQUEST_TYPE_CLOSE_ALL_FILE = 17,
    IPC_REQUEST_TYPE_SET_LOG_CTRL = 18,
    IPC_REQUEST_TYPE_GET_MOUNT_INFO = 19,
    IPC_REQUEST_TYPE_GET_SESSION_INFO = 20,
    IPC_REQUEST_TYPE_RUN_TEST_MODE = 21,
    IPC_REQUEST_TYPE_AUTO_SHUTDOWN = 22,
    IPC_REQUEST_TYPE_GET_SERVER_STATUS = 23,
    IPC_REQUEST_TYPE_SET_DEBUG_ACTION_ENABLED = 24,
    IPC_REQUEST_TYPE_GET_VSPHERE_INFO = 25,
    IPC_REQUEST_TYPE_ADD_VSPHERE_INFO = 26,
    IPC_REQUEST_TYPE_REMOVE_VSPHERE_INFO = 27,
    IPC_REQUEST_TYPE_COUNT = 28,
};

// =================================================================================================
// Sizes
// =================================================================================================

inline constexpr std::size_t IPC_MESSAGE_SIZE = 4096;  // no message is larger
inline constexpr std::size_t IPC_ID_SIZE = 256;
inline constexpr std::size_t IPC_PATH_SIZE = 1024;
inline constexpr std::size_t IPC_TEXT_SIZE = STATUS_SIZE;  // operations write into a reply's text
inline constexpr std::size_t IPC_TEST_PATH_SIZE = 3072;
inline constexpr std::size_t IPC_CHANNEL_SIZE = 255;      // a channel name, its NUL included
inline constexpr const char* IPC_SERVER_NAME = "server";  // names the channel of a server process

// =================================================================================================
// Header and replies
// =================================================================================================

// 4-byte boundaries for 64-bit fields, on every platform.
#pragma pack(push, 4)

struct Ipc_Header {
    std::int32_t iGroup;  // 0  IPC_GROUP
    std::int32_t iType;   // 4  a type of that group
    char cVersion[8];     // 8  PRODUCT_VERSION, padded with NULs
};
static_assert(sizeof(Ipc_Header) == 16);

struct IpcReply_Bool {
    Ipc_Header header;
    bool bVal;  // 16
};
static_assert(sizeof(IpcReply_Bool) == 20 && offsetof(IpcReply_Bool, bVal) == 16);

struct IpcReply_Long {
    Ipc_Header header;
    std::int32_t lVal;  // 16
};
static_assert(sizeof(IpcReply_Long) == 20 && offsetof(IpcReply_Long, lVal) == 16);

struct IpcReply_Int {
    Ipc_Header header;
    std::int32_t iVal;  // 16
};
static_assert(sizeof(IpcReply_Int) == 20 && offsetof(IpcReply_Int, iVal) == 16);

struct IpcReply_Message {
    Ipc_Header header;
    char cMsg[IPC_TEXT_SIZE];  // 16
};
static_assert(sizeof(IpcReply_Message) == 2064 && offsetof(IpcReply_Message, cMsg) == 16);

// =================================================================================================
// Requests
// =================================================================================================

struct IpcRequest_Start {
    Ipc_Header header;
    std::int32_t iMountPort;  // 16
    std::int32_t iNfsPort;    // 20
    std::uint32_t iUId;       // 24
    std::uint32_t iGId;       // 28
    bool bReadOnly;           // 32
};
static_assert(sizeof(IpcRequest_Start) == 36 && offsetof(IpcRequest_Start, iMountPort) == 16 &&
              offsetof(IpcRequest_Start, iNfsPort) == 20 &&
              offsetof(IpcRequest_Start, iUId) == 24 && offsetof(IpcRequest_Start, iGId) == 28 &&
              offsetof(IpcRequest_Start, bReadOnly) == 32);

struct IpcRequest_AddMountPoint {
    Ipc_Header header;
    char cLocalMountFolder[IPC_PATH_SIZE];  // 16
    char cExportName[IPC_ID_SIZE];          // 1040
    char cIpcID[IPC_ID_SIZE];               // 1296
};
static_assert(sizeof(IpcRequest_AddMountPoint) == 1552 &&
              offsetof(IpcRequest_AddMountPoint, cLocalMountFolder) == 16 &&
              offsetof(IpcRequest_AddMountPoint, cExportName) == 1040 &&
              offsetof(IpcRequest_AddMountPoint, cIpcID) == 1296);

struct IpcRequest_RemoveMountPoint {
    Ipc_Header header;
    char cLocalMountFolder[IPC_PATH_SIZE];  // 16
};
static_assert(sizeof(IpcRequest_RemoveMountPoint) == 1040);

struct IpcRequest_AddSession {
    Ipc_Header header;
    char cSessionID[IPC_ID_SIZE];           // 16
    char cLocalMountFolder[IPC_PATH_SIZE];  // 272
};
static_assert(sizeof(IpcRequest_AddSession) == 1296 &&
              offsetof(IpcRequest_AddSession, cSessionID) == 16 &&
              offsetof(IpcRequest_AddSession, cLocalMountFolder) == 272);

struct IpcRequest_RemoveSession {
    Ipc_Header header;
    char cSessionID[IPC_ID_SIZE];  // 16
};
static_assert(sizeof(IpcRequest_RemoveSession) == 272);

struct IpcRequest_IsSessionExists {
    Ipc_Header header;
    char cSessionID[IPC_ID_SIZE];  // 16
};
static_assert(sizeof(IpcRequest_IsSessionExists) == 272);

struct IpcRequest_OpenRedirectedFile {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];               // 16
    std::int64_t iSize;                      // 1040  bytes
    bool bCreateInfoFile;                    // 1048
    std::int32_t iInfoFileSegmentSizeMB;     // 1052
    std::int32_t iInfoFileCheckPointSizeMB;  // 1056
};
static_assert(sizeof(IpcRequest_OpenRedirectedFile) == 1060 &&
              offsetof(IpcRequest_OpenRedirectedFile, iSize) == 1040 &&
              offsetof(IpcRequest_OpenRedirectedFile, bCreateInfoFile) == 1048 &&
              offsetof(IpcRequest_OpenRedirectedFile, iInfoFileSegmentSizeMB) == 1052 &&
              offsetof(IpcRequest_OpenRedirectedFile, iInfoFileCheckPointSizeMB) == 1056);

struct IpcRequest_CloseRedirectedFile {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];  // 16
};
static_assert(sizeof(IpcRequest_CloseRedirectedFile) == 1040);

struct IpcRequest_CloseAllRedirectedFiles {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];  // 16
};
static_assert(sizeof(IpcRequest_CloseAllRedirectedFiles) == 1040);

struct IpcRequest_AddRedirectedFileSegment {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];     // 16
    char cSrcPath[IPC_PATH_SIZE];  // 1040
    std::int64_t iSrcFileOffset;   // 2064  bytes
    std::int64_t iOffset;          // 2072  bytes
    std::int64_t iLength;          // 2080  bytes
};
static_assert(sizeof(IpcRequest_AddRedirectedFileSegment) == 2088 &&
              offsetof(IpcRequest_AddRedirectedFileSegment, cSrcPath) == 1040 &&
              offsetof(IpcRequest_AddRedirectedFileSegment, iSrcFileOffset) == 2064 &&
              offsetof(IpcRequest_AddRedirectedFileSegment, iOffset) == 2072 &&
              offsetof(IpcRequest_AddRedirectedFileSegment, iLength) == 2080);

struct IpcRequest_ExportRedirectedFile {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];        // 16
    char cExportPath[IPC_PATH_SIZE];  // 1040
};
static_assert(sizeof(IpcRequest_ExportRedirectedFile) == 2064 &&
              offsetof(IpcRequest_ExportRedirectedFile, cExportPath) == 1040);

struct IpcRequest_ExportRedirectedFileInfo {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];        // 16
    char cExportPath[IPC_PATH_SIZE];  // 1040
    bool bMergeRange;                 // 2064
};
static_assert(sizeof(IpcRequest_ExportRedirectedFileInfo) == 2068 &&
              offsetof(IpcRequest_ExportRedirectedFileInfo, cExportPath) == 1040 &&
              offsetof(IpcRequest_ExportRedirectedFileInfo, bMergeRange) == 2064);

struct IpcRequest_CloseOpenedFile {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];  // 16
};
static_assert(sizeof(IpcRequest_CloseOpenedFile) == 1040);

struct IpcRequest_CloseAllOpenedFiles {
    Ipc_Header header;
    char cPath[IPC_PATH_SIZE];  // 16
};
static_assert(sizeof(IpcRequest_CloseAllOpenedFiles) == 1040);

struct IpcRequest_SetLogControl {
    Ipc_Header header;
    std::int32_t iLogControl;  // 16
};
static_assert(sizeof(IpcRequest_SetLogControl) == 20);

// cIpcID of this and the next requests: whose channel hears the lines that the request causes.
struct IpcRequest_GetMountInfo {
    Ipc_Header header;
    char cIpcID[IPC_ID_SIZE];  // 16
    bool bClientMountedOnly;   // 272
    bool bPrintDetails;        // 273
};
static_assert(sizeof(IpcRequest_GetMountInfo) == 276 &&
              offsetof(IpcRequest_GetMountInfo, bClientMountedOnly) == 272 &&
              offsetof(IpcRequest_GetMountInfo, bPrintDetails) == 273);

struct IpcRequest_GetSessionInfo {
    Ipc_Header header;
    char cIpcID[IPC_ID_SIZE];  // 16
    bool bPrintDetails;        // 272
};
static_assert(sizeof(IpcRequest_GetSessionInfo) == 276 &&
              offsetof(IpcRequest_GetSessionInfo, bPrintDetails) == 272);

struct IpcRequest_RunTestMode {
    Ipc_Header header;
    char cIpcID[IPC_ID_SIZE];           // 16
    char cDirPath[IPC_TEST_PATH_SIZE];  // 272
    std::int64_t iFileSize;             // 3344  bytes
};
static_assert(sizeof(IpcRequest_RunTestMode) == 3352 &&
              offsetof(IpcRequest_RunTestMode, cDirPath) == 272 &&
              offsetof(IpcRequest_RunTestMode, iFileSize) == 3344);

struct IpcRequest_SetBoolean {
    Ipc_Header header;
    bool bVal;  // 16
};
static_assert(sizeof(IpcRequest_SetBoolean) == 20 && offsetof(IpcRequest_SetBoolean, bVal) == 16);

struct IpcRequest_GetVSphereInfo {
    Ipc_Header header;
    char cIpcID[IPC_ID_SIZE];  // 16
    bool bPrintDetails;        // 272
};
static_assert(sizeof(IpcRequest_GetVSphereInfo) == 276 &&
              offsetof(IpcRequest_GetVSphereInfo, bPrintDetails) == 272);

struct IpcRequest_AddVSphereInfo {
    Ipc_Header header;
    char cDatastoreMoid[IPC_ID_SIZE];  // 16
    char cHost[IPC_ID_SIZE];           // 272
    char cPort[IPC_ID_SIZE];           // 528
    char cUser[IPC_ID_SIZE];           // 784
    char cPwd[IPC_ID_SIZE];            // 1040
};
static_assert(sizeof(IpcRequest_AddVSphereInfo) == 1296 &&
              offsetof(IpcRequest_AddVSphereInfo, cHost) == 272 &&
              offsetof(IpcRequest_AddVSphereInfo, cPort) == 528 &&
              offsetof(IpcRequest_AddVSphereInfo, cUser) == 784 &&
              offsetof(IpcRequest_AddVSphereInfo, cPwd) == 1040);

struct IpcRequest_RemoveVSphereInfo {
    Ipc_Header header;
    char cDatastoreMoid[IPC_ID_SIZE];  // 16
};
static_assert(sizeof(IpcRequest_RemoveVSphereInfo) == 272);

// =================================================================================================
// Callbacks
// =================================================================================================

// cID of every callback: the runtime identity that produced it.
struct IpcCb_LogMessage {
    Ipc_Header header;
    char cID[IPC_ID_SIZE];     // 16
    char cMsg[IPC_TEXT_SIZE];  // 272
    std::int32_t iType;        // 2320  IPC_MESSAGE_TYPE
};
static_assert(sizeof(IpcCb_LogMessage) == 2324 && offsetof(IpcCb_LogMessage, cID) == 16 &&
              offsetof(IpcCb_LogMessage, cMsg) == 272 && offsetof(IpcCb_LogMessage, iType) == 2320);

struct IpcCb_SetRedirectedFileAttributes {
    Ipc_Header header;
    char cID[IPC_ID_SIZE];               // 16
    char cPath[IPC_PATH_SIZE];           // 272
    bool bSize;                          // 1296  whether iSize counts
    std::uint64_t iSize;                 // 1300  bytes
    bool bAccessTime;                    // 1308
    std::uint32_t lAccessTimeSec;        // 1312  seconds
    bool bLastModifiedTime;              // 1316
    std::uint32_t lLastModifiedTimeSec;  // 1320  seconds
};
static_assert(sizeof(IpcCb_SetRedirectedFileAttributes) == 1324 &&
              offsetof(IpcCb_SetRedirectedFileAttributes, cPath) == 272 &&
              offsetof(IpcCb_SetRedirectedFileAttributes, bSize) == 1296 &&
              offsetof(IpcCb_SetRedirectedFileAttributes, iSize) == 1300 &&
              offsetof(IpcCb_SetRedirectedFileAttributes, bAccessTime) == 1308 &&
              offsetof(IpcCb_SetRedirectedFileAttributes, lAccessTimeSec) == 1312 &&
              offsetof(IpcCb_SetRedirectedFileAttributes, bLastModifiedTime) == 1316 &&
              offsetof(IpcCb_SetRedirectedFileAttributes, lLastModifiedTimeSec) == 1320);

struct IpcCb_RemoveRedirectedFile {
    Ipc_Header header;
    char cID[IPC_ID_SIZE];      // 16
    char cPath[IPC_PATH_SIZE];  // 272
};
static_assert(sizeof(IpcCb_RemoveRedirectedFile) == 1296 &&
              offsetof(IpcCb_RemoveRedirectedFile, cPath) == 272);

struct IpcCb_RenameRedirectedFile {
    Ipc_Header header;
    char cID[IPC_ID_SIZE];        // 16
    char cPathFm[IPC_PATH_SIZE];  // 272
    char cPathTo[IPC_PATH_SIZE];  // 1296
};
static_assert(sizeof(IpcCb_RenameRedirectedFile) == 2320 &&
              offsetof(IpcCb_RenameRedirectedFile, cPathFm) == 272 &&
              offsetof(IpcCb_RenameRedirectedFile, cPathTo) == 1296);

// Position and length only, never the bytes.
struct IpcCb_WriteRedirectedFile {
    Ipc_Header header;
    char cID[IPC_ID_SIZE];      // 16
    char cPath[IPC_PATH_SIZE];  // 272
    std::uint64_t iSeek;        // 1296  bytes
    std::int32_t iSeekType;     // 1304
    std::uint32_t iLen;         // 1308  bytes
};
static_assert(sizeof(IpcCb_WriteRedirectedFile) == 1312 &&
              offsetof(IpcCb_WriteRedirectedFile, iSeek) == 1296 &&
              offsetof(IpcCb_WriteRedirectedFile, iSeekType) == 1304 &&
              offsetof(IpcCb_WriteRedirectedFile, iLen) == 1308);

#pragma pack(pop)

#endif
