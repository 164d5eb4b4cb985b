// Every message of the local control channel as the bytes that travel: one line per field, in
// hexadecimal, filled with zeros to the field's width.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Files.h"

namespace ipcvectors {

using support::Bytes;

struct Field {
    const char* hex;
    std::size_t width = 0;  // 0: as wide as the bytes given
};

inline std::uint8_t HexDigit(char c) {
    return static_cast<std::uint8_t>(c <= '9' ? c - '0' : c - 'a' + 10);
}

inline Bytes Message(std::initializer_list<Field> fields) {
    Bytes bytes;
    for (const Field& field : fields) {
        const std::size_t end = bytes.size() + field.width;
        for (const char* p = field.hex; *p != '\0';) {
            if (*p == ' ') {
                ++p;
                continue;
            }
            bytes.push_back(static_cast<std::uint8_t>(HexDigit(p[0]) << 4 | HexDigit(p[1])));
            p += 2;
        }
        if (field.width != 0) {
            if (bytes.size() > end) {
                throw std::runtime_error(std::string("field too wide: ") + field.hex);
            }
            bytes.resize(end);
        }
    }
    return bytes;
}

// ------------------------------------------------------------------------------------------------
// Replies
// ------------------------------------------------------------------------------------------------

inline const Bytes kReplyNone = Message({
    {"01 00 00 00"},              // 0  iGroup
    {"00 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion "1.2"
});
inline const Bytes kReplyTrue = Message({
    {"01 00 00 00"},              // 0  iGroup
    {"01 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"01 00 00 00"},              // 16 bVal true, padding
});
inline const Bytes kReplyFalse = Message({
    {"01 00 00 00"},              // 0  iGroup
    {"01 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"00 00 00 00"},              // 16 bVal false, padding
});
inline const Bytes kReplyLong = Message({
    {"01 00 00 00"},              // 0  iGroup
    {"02 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"fe ff ff ff"},              // 16 lVal -2
});
inline const Bytes kReplyInt = Message({
    {"01 00 00 00"},              // 0  iGroup
    {"03 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"40 e2 01 00"},              // 16 iVal 123456
});
inline const Bytes kReplyExpt = Message({
    {"01 00 00 00"},              // 0  iGroup
    {"04 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"6e 6f", 2048},              // 16 cMsg "no"
});
inline const Bytes kReplyMsg = Message({
    {"01 00 00 00"},              // 0  iGroup
    {"05 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"31 2e 32", 2048},           // 16 cMsg "1.2"
});

// ------------------------------------------------------------------------------------------------
// Requests
// ------------------------------------------------------------------------------------------------

inline const Bytes kGetVersion = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"01 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
});
inline const Bytes kGetDescription = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"02 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
});
inline const Bytes kIsServerRunning = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"03 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
});
inline const Bytes kStart = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"04 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"57 04 00 00"},              // 16 iMountPort 1111
    {"ae 08 00 00"},              // 20 iNfsPort 2222
    {"01 00 00 80"},              // 24 iUId 2147483649
    {"2e 16 00 00"},              // 28 iGId 5678
    {"01 00 00 00"},              // 32 bReadOnly true, padding
});
inline const Bytes kAddMountPoint = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"05 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"2f 74 6d 70 2f 65", 1024},  // 16 cLocalMountFolder "/tmp/e"
    {"76 6d 31", 256},            // 1040 cExportName "vm1"
    {"63 74 6c", 256},            // 1296 cIpcID "ctl"
});
inline const Bytes kRemoveMountPoint = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"06 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"2f 74 6d 70 2f 65", 1024},  // 16 cLocalMountFolder "/tmp/e"
});
inline const Bytes kAddSession = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"07 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"73 31", 256},               // 16 cSessionID "s1"
    {"2f 74 6d 70 2f 65", 1024},  // 272 cLocalMountFolder "/tmp/e"
});
inline const Bytes kRemoveSession = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"08 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"73 31", 256},               // 16 cSessionID "s1"
});
inline const Bytes kIsSessionExists = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"09 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"73 31", 256},               // 16 cSessionID "s1"
});
inline const Bytes kOpenRedirectedFile = Message({
    {"02 00 00 00"},                    // 0  iGroup
    {"0a 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 16 cPath "/tmp/e/f"
    {"89 67 45 23 01 00 00 00"},        // 1040 iSize 4886718345
    {"01 00 00 00"},                    // 1048 bCreateInfoFile true, padding
    {"07 00 00 00"},                    // 1052 iInfoFileSegmentSizeMB 7
    {"09 00 00 00"},                    // 1056 iInfoFileCheckPointSizeMB 9
});
inline const Bytes kCloseRedirectedFile = Message({
    {"02 00 00 00"},                    // 0  iGroup
    {"0b 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 16 cPath "/tmp/e/f"
});
inline const Bytes kCloseAllRedirectedFiles = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"0c 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"2f 74 6d 70 2f 65", 1024},  // 16 cPath "/tmp/e"
});
inline const Bytes kAddRedirectedFileSegment = Message({
    {"02 00 00 00"},                    // 0  iGroup
    {"0d 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 16 cPath "/tmp/e/f"
    {"2f 74 6d 70 2f 73", 1024},        // 1040 cSrcPath "/tmp/s"
    {"02 00 00 00 01 00 00 00"},        // 2064 iSrcFileOffset 4294967298
    {"03 00 00 00 02 00 00 00"},        // 2072 iOffset 8589934595
    {"fc ff ff ff ff ff ff ff"},        // 2080 iLength -4
});
inline const Bytes kExportRedirectedFile = Message({
    {"02 00 00 00"},                    // 0  iGroup
    {"0e 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 16 cPath "/tmp/e/f"
    {"2f 74 6d 70 2f 78", 1024},        // 1040 cExportPath "/tmp/x"
});
inline const Bytes kExportRedirectedFileInfo = Message({
    {"02 00 00 00"},                    // 0  iGroup
    {"0f 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 16 cPath "/tmp/e/f"
    {"2f 74 6d 70 2f 78", 1024},        // 1040 cExportPath "/tmp/x"
    {"01 00 00 00"},                    // 2064 bMergeRange true, padding
});
inline const Bytes kCloseFile = Message({
    {"02 00 00 00"},                    // 0  iGroup
    {"10 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 16 cPath "/tmp/e/f"
});
inline const Bytes kCloseAllFiles = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"11 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"2f 74 6d 70 2f 65", 1024},  // 16 cPath "/tmp/e"
});
inline const Bytes kSetLogControl = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"12 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"02 01 00 00"},              // 16 iLogControl 258
});
inline const Bytes kGetMountInfo = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"13 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"63 74 6c", 256},            // 16 cIpcID "ctl"
    {"00"},                       // 272 bClientMountedOnly false
    {"01 00 00"},                 // 273 bPrintDetails true, padding
});
inline const Bytes kGetSessionInfo = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"14 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"63 74 6c", 256},            // 16 cIpcID "ctl"
    {"01 00 00 00"},              // 272 bPrintDetails true, padding
});
inline const Bytes kRunTestMode = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"15 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"63 74 6c", 256},            // 16 cIpcID "ctl"
    {"2f 74 6d 70 2f 64", 3072},  // 272 cDirPath "/tmp/d"
    {"05 00 00 00 01 00 00 00"},  // 3344 iFileSize 4294967301
});
inline const Bytes kAutoShutdown = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"16 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
});
inline const Bytes kGetServerStatus = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"17 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
});
inline const Bytes kSetDebugAction = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"18 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"01 00 00 00"},              // 16 bVal true, padding
});
inline const Bytes kGetVSphereInfo = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"19 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"63 74 6c", 256},            // 16 cIpcID "ctl"
    {"01 00 00 00"},              // 272 bPrintDetails true, padding
});
inline const Bytes kAddVSphereInfo = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"1a 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"64 73 31", 256},            // 16 cDatastoreMoid "ds1"
    {"68 31", 256},               // 272 cHost "h1"
    {"34 34 33", 256},            // 528 cPort "443"
    {"75 31", 256},               // 784 cUser "u1"
    {"70 31", 256},               // 1040 cPwd "p1"
});
inline const Bytes kRemoveVSphereInfo = Message({
    {"02 00 00 00"},              // 0  iGroup
    {"1b 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"64 73 31", 256},            // 16 cDatastoreMoid "ds1"
});

// By type; index 0 is what an unknown type is built as.
inline const std::vector<Bytes> kRequests{
    Message({
        {"02 00 00 00"},              // 0  iGroup
        {"00 00 00 00"},              // 4  iType
        {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    }),
    kGetVersion,
    kGetDescription,
    kIsServerRunning,
    kStart,
    kAddMountPoint,
    kRemoveMountPoint,
    kAddSession,
    kRemoveSession,
    kIsSessionExists,
    kOpenRedirectedFile,
    kCloseRedirectedFile,
    kCloseAllRedirectedFiles,
    kAddRedirectedFileSegment,
    kExportRedirectedFile,
    kExportRedirectedFileInfo,
    kCloseFile,
    kCloseAllFiles,
    kSetLogControl,
    kGetMountInfo,
    kGetSessionInfo,
    kRunTestMode,
    kAutoShutdown,
    kGetServerStatus,
    kSetDebugAction,
    kGetVSphereInfo,
    kAddVSphereInfo,
    kRemoveVSphereInfo,
};

// ------------------------------------------------------------------------------------------------
// Callbacks
// ------------------------------------------------------------------------------------------------

inline const Bytes kLogMessage = Message({
    {"03 00 00 00"},              // 0  iGroup
    {"01 00 00 00"},              // 4  iType
    {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    {"73 76", 256},               // 16 cID "sv"
    {"68 65 79", 2048},           // 272 cMsg "hey"
    {"03 00 00 00"},              // 2320 iType: a raw line
});
inline const Bytes kSetAttributes = Message({
    {"03 00 00 00"},                    // 0  iGroup
    {"02 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"73 76", 256},                     // 16 cID "sv"
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 272 cPath "/tmp/e/f"
    {"01 00 00 00"},                    // 1296 bSize true, padding
    {"ff ee dd cc bb aa 99 88"},        // 1300 iSize 9843086184167632639
    {"00 00 00 00"},                    // 1308 bAccessTime false, padding
    {"01 00 00 00"},                    // 1312 lAccessTimeSec 1
    {"01 00 00 00"},                    // 1316 bLastModifiedTime true, padding
    {"02 00 00 f0"},                    // 1320 lLastModifiedTimeSec 4026531842
});
inline const Bytes kRemoveFile = Message({
    {"03 00 00 00"},                    // 0  iGroup
    {"03 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"73 76", 256},                     // 16 cID "sv"
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 272 cPath "/tmp/e/f"
});
inline const Bytes kRenameFile = Message({
    {"03 00 00 00"},                    // 0  iGroup
    {"04 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"73 76", 256},                     // 16 cID "sv"
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 272 cPathFm "/tmp/e/f"
    {"2f 74 6d 70 2f 65 2f 67", 1024},  // 1296 cPathTo "/tmp/e/g"
});
inline const Bytes kWriteFile = Message({
    {"03 00 00 00"},                    // 0  iGroup
    {"05 00 00 00"},                    // 4  iType
    {"31 2e 32 00 00 00 00 00"},        // 8  cVersion
    {"73 76", 256},                     // 16 cID "sv"
    {"2f 74 6d 70 2f 65 2f 66", 1024},  // 272 cPath "/tmp/e/f"
    {"01 00 00 00 00 00 00 80"},        // 1296 iSeek 9223372036854775809
    {"01 00 00 00"},                    // 1304 iSeekType 1
    {"03 00 00 f0"},                    // 1308 iLen 4026531843
});

// By type; index 0 is what an unknown type is built as.
inline const std::vector<Bytes> kCallbacks{
    Message({
        {"03 00 00 00"},              // 0  iGroup
        {"00 00 00 00"},              // 4  iType
        {"31 2e 32 00 00 00 00 00"},  // 8  cVersion
    }),
    kLogMessage,
    kSetAttributes,
    kRemoveFile,
    kRenameFile,
    kWriteFile,
};

}  // namespace ipcvectors
