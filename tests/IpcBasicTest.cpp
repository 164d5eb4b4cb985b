// The messages of the local channel: layouts, builders and tracing.

#include "IpcBasic.h"

#include <gtest/gtest.h>

#include <climits>
#include <type_traits>

#include "IpcFixture.h"

using namespace ipctest;

namespace {

// What a builder makes of a buffer full of 0xEE.
IpcDataBuf Built(void (*build)(IpcDataBuf*, int), int type) {
    IpcDataBuf buffer;
    std::memset(&buffer, 0xEE, sizeof buffer);
    build(&buffer, type);
    return buffer;
}

Bytes Front(const IpcDataBuf& buffer, std::size_t size) {
    return Bytes(buffer.cBuf, buffer.cBuf + size);
}

// The header and the length are the type's; nothing behind the header is touched.
void ExpectBuilt(const IpcDataBuf& buffer, const Bytes& vector, int type) {
    EXPECT_EQ(static_cast<std::int32_t>(vector.size()), buffer.lDataLen) << "type " << type;
    EXPECT_EQ(Hex(Bytes(vector.begin(), vector.begin() + 16)), Hex(Front(buffer, 16)))
        << "type " << type;
    for (std::size_t i = 16; i < sizeof buffer.cBuf; ++i) {
        ASSERT_EQ('\xEE', buffer.cBuf[i]) << "type " << type << ", byte " << i;
    }
}

template <typename Message>
Bytes BytesOf(const Message& message) {
    IpcDataBuf buffer{};
    buffer.Put(message);
    return Front(buffer, sizeof(Message));
}

template <typename Message>
Message Begin(void (*build)(IpcDataBuf*, int), int type) {
    IpcDataBuf buffer{};
    build(&buffer, type);
    EXPECT_EQ(static_cast<std::int32_t>(sizeof(Message)), buffer.lDataLen) << "type " << type;
    return buffer.Get<Message>();
}

#define EXPECT_BYTES(vector, message) EXPECT_EQ(Hex(vector), Hex(BytesOf(message)))

}  // namespace

// ================================================================================================
// Numbers
// ================================================================================================

TEST(IpcBasicTest, GroupsAndTypesHaveTheirNumbers) {
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4}),
              (std::vector<int>{IPC_GROUP_NONE, IPC_GROUP_REPLY, IPC_GROUP_REQUEST,
                                IPC_GROUP_CALLBACK, IPC_GROUP_COUNT}));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6}),
              (std::vector<int>{IPC_REPLY_TYPE_NONE, IPC_REPLY_TYPE_BOOL, IPC_REPLY_TYPE_LONG,
                                IPC_REPLY_TYPE_INT, IPC_REPLY_TYPE_EXPT, IPC_REPLY_TYPE_MSG,
                                IPC_REPLY_TYPE_COUNT}));
    EXPECT_EQ((std::vector<int>{0, 1, 2, 3, 4, 5, 6}),
              (std::vector<int>{IPC_CALLBACK_TYPE_NONE, IPC_CALLBACK_TYPE_MESSAGE,
                                IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR,
                                IPC_CALLBACK_TYPE_REMOVE_RD_FILE, IPC_CALLBACK_TYPE_RENAME_RD_FILE,
                                IPC_CALLBACK_TYPE_WRITE_RD_FILE, IPC_CALLBACK_TYPE_COUNT}));
    EXPECT_EQ(
        (std::vector<int>{0, 1, 2, 3, 4}),
        (std::vector<int>{IPC_MESSAGE_TYPE_NONE, IPC_MESSAGE_TYPE_INFO, IPC_MESSAGE_TYPE_ERROR,
                          IPC_MESSAGE_TYPE_RAW, IPC_MESSAGE_TYPE_COUNT}));
    EXPECT_EQ(28, IPC_REQUEST_TYPE_COUNT);
    EXPECT_EQ(28u, ipcvectors::kRequests.size()) << "a vector for every request";
}

TEST(IpcBasicTest, ABufferHoldsFourKilobytesAndItsLengthBehindThem) {
    EXPECT_EQ(4096u, sizeof(IpcDataBuf::cBuf));
    EXPECT_EQ(4096u, offsetof(IpcDataBuf, lDataLen));
    EXPECT_EQ(4100u, sizeof(IpcDataBuf));
    EXPECT_EQ(0u, offsetof(IpcDataInst, request));
    EXPECT_EQ(4100u, offsetof(IpcDataInst, reply));
}

// ================================================================================================
// Builders
// ================================================================================================

TEST(IpcBasicTest, EveryRequestIsBuiltWithItsHeaderAndSize) {
    for (int type = 1; type < 28; ++type) {
        ExpectBuilt(Built(&CIpcBasic::InitialRequestData, type),
                    ipcvectors::kRequests[static_cast<std::size_t>(type)], type);
    }
}

TEST(IpcBasicTest, AnUnknownRequestIsABareHeaderOfTypeZero) {
    for (const int type : {0, 28, 29, -1, INT_MAX, INT_MIN}) {
        ExpectBuilt(Built(&CIpcBasic::InitialRequestData, type), ipcvectors::kRequests[0], type);
    }
}

TEST(IpcBasicTest, EveryReplyIsBuiltWithItsHeaderAndSize) {
    const Bytes vectors[] = {ipcvectors::kReplyTrue, ipcvectors::kReplyLong, ipcvectors::kReplyInt,
                             ipcvectors::kReplyExpt, ipcvectors::kReplyMsg};
    for (int type = 1; type < 6; ++type) {
        ExpectBuilt(Built(&CIpcBasic::InitialReplyData, type), vectors[type - 1], type);
    }
    EXPECT_EQ(2064u, ipcvectors::kReplyExpt.size());
    EXPECT_EQ(20u, ipcvectors::kReplyLong.size());
}

TEST(IpcBasicTest, AnUnknownReplyIsABareHeaderOfTypeZero) {
    for (const int type : {0, 6, 7, -1, INT_MAX, INT_MIN}) {
        ExpectBuilt(Built(&CIpcBasic::InitialReplyData, type), ipcvectors::kReplyNone, type);
    }
}

TEST(IpcBasicTest, EveryCallbackIsBuiltWithItsHeaderAndSize) {
    for (int type = 1; type < 6; ++type) {
        ExpectBuilt(Built(&CIpcBasic::InitialCallbackData, type),
                    ipcvectors::kCallbacks[static_cast<std::size_t>(type)], type);
    }
}

TEST(IpcBasicTest, AnUnknownCallbackIsABareHeaderOfTypeZero) {
    for (const int type : {0, 6, 7, -1, INT_MAX, INT_MIN}) {
        ExpectBuilt(Built(&CIpcBasic::InitialCallbackData, type), ipcvectors::kCallbacks[0], type);
    }
}

TEST(IpcBasicTest, TheSizesAreThoseOfTheProtocol) {
    const std::size_t requests[] = {16,   16,   16,   16,   36,   1552, 1040, 1296, 272, 272,
                                    1060, 1040, 1040, 2088, 2064, 2068, 1040, 1040, 20,  276,
                                    276,  3352, 16,   16,   20,   276,  1296, 272};
    for (std::size_t type = 0; type < 28; ++type) {
        EXPECT_EQ(requests[type], ipcvectors::kRequests[type].size()) << "request " << type;
    }
    const std::size_t callbacks[] = {16, 2324, 1324, 1296, 2320, 1312};
    for (std::size_t type = 0; type < 6; ++type) {
        EXPECT_EQ(callbacks[type], ipcvectors::kCallbacks[type].size()) << "callback " << type;
    }
}

// ================================================================================================
// Layouts: structures filled by name against the bytes
// ================================================================================================

TEST(IpcLayoutTest, Replies) {
    auto yes = Begin<IpcReply_Bool>(&CIpcBasic::InitialReplyData, IPC_REPLY_TYPE_BOOL);
    yes.bVal = true;
    EXPECT_BYTES(ipcvectors::kReplyTrue, yes);
    auto number = Begin<IpcReply_Long>(&CIpcBasic::InitialReplyData, IPC_REPLY_TYPE_LONG);
    number.lVal = -2;
    EXPECT_BYTES(ipcvectors::kReplyLong, number);
    auto count = Begin<IpcReply_Int>(&CIpcBasic::InitialReplyData, IPC_REPLY_TYPE_INT);
    count.iVal = 123456;
    EXPECT_BYTES(ipcvectors::kReplyInt, count);
    auto text = Begin<IpcReply_Message>(&CIpcBasic::InitialReplyData, IPC_REPLY_TYPE_EXPT);
    SetIpcText(text.cMsg, "no");
    EXPECT_BYTES(ipcvectors::kReplyExpt, text);
}

TEST(IpcLayoutTest, OpenRedirectedFileHasItsSizeRightBehindThePath) {
    auto request = Begin<IpcRequest_OpenRedirectedFile>(&CIpcBasic::InitialRequestData,
                                                        IPC_REQUEST_TYPE_OPEN_RD_FILE);
    SetIpcText(request.cPath, "/tmp/e/f");
    request.iSize = 4886718345;
    request.bCreateInfoFile = true;
    request.iInfoFileSegmentSizeMB = 7;
    request.iInfoFileCheckPointSizeMB = 9;
    EXPECT_BYTES(ipcvectors::kOpenRedirectedFile, request);
    EXPECT_EQ(1040u, offsetof(IpcRequest_OpenRedirectedFile, iSize));
    EXPECT_EQ(1052u, offsetof(IpcRequest_OpenRedirectedFile, iInfoFileSegmentSizeMB));
}

TEST(IpcLayoutTest, StructuresOfMoreThanOneField) {
    auto start = Begin<IpcRequest_Start>(&CIpcBasic::InitialRequestData, IPC_REQUEST_TYPE_START);
    start.iMountPort = 1111;
    start.iNfsPort = 2222;
    start.iUId = 2147483649u;
    start.iGId = 5678;
    start.bReadOnly = true;
    EXPECT_BYTES(ipcvectors::kStart, start);

    auto mount = Begin<IpcRequest_AddMountPoint>(&CIpcBasic::InitialRequestData,
                                                 IPC_REQUEST_TYPE_ADD_MOUNT_POINT);
    SetIpcText(mount.cLocalMountFolder, "/tmp/e");
    SetIpcText(mount.cExportName, "vm1");
    SetIpcText(mount.cIpcID, "ctl");
    EXPECT_BYTES(ipcvectors::kAddMountPoint, mount);

    auto segment = Begin<IpcRequest_AddRedirectedFileSegment>(&CIpcBasic::InitialRequestData,
                                                              IPC_REQUEST_TYPE_ADD_RD_FILE_SEG);
    SetIpcText(segment.cPath, "/tmp/e/f");
    SetIpcText(segment.cSrcPath, "/tmp/s");
    segment.iSrcFileOffset = 4294967298;
    segment.iOffset = 8589934595;
    segment.iLength = -4;
    EXPECT_BYTES(ipcvectors::kAddRedirectedFileSegment, segment);

    auto listing = Begin<IpcRequest_GetMountInfo>(&CIpcBasic::InitialRequestData,
                                                  IPC_REQUEST_TYPE_GET_MOUNT_INFO);
    SetIpcText(listing.cIpcID, "ctl");
    listing.bPrintDetails = true;
    EXPECT_BYTES(ipcvectors::kGetMountInfo, listing);

    auto test = Begin<IpcRequest_RunTestMode>(&CIpcBasic::InitialRequestData,
                                              IPC_REQUEST_TYPE_RUN_TEST_MODE);
    SetIpcText(test.cIpcID, "ctl");
    SetIpcText(test.cDirPath, "/tmp/d");
    test.iFileSize = 4294967301;
    EXPECT_BYTES(ipcvectors::kRunTestMode, test);
}

TEST(IpcLayoutTest, SixtyFourBitFieldsOfCallbacksLieOnFourByteBoundaries) {
    auto attributes = Begin<IpcCb_SetRedirectedFileAttributes>(&CIpcBasic::InitialCallbackData,
                                                               IPC_CALLBACK_TYPE_SET_RD_FILE_ATTR);
    SetIpcText(attributes.cID, "sv");
    SetIpcText(attributes.cPath, "/tmp/e/f");
    attributes.bSize = true;
    attributes.iSize = 0x8899aabbccddeeffULL;
    attributes.lAccessTimeSec = 1;
    attributes.bLastModifiedTime = true;
    attributes.lLastModifiedTimeSec = 0xf0000002u;
    EXPECT_BYTES(ipcvectors::kSetAttributes, attributes);
    EXPECT_EQ(1300u, offsetof(IpcCb_SetRedirectedFileAttributes, iSize));
    EXPECT_EQ(4u, alignof(IpcCb_SetRedirectedFileAttributes));
    EXPECT_EQ(4u, alignof(IpcRequest_OpenRedirectedFile));
}

// ================================================================================================
// Texts in fields
// ================================================================================================

TEST(IpcTextTest, AFieldIsFilledUpWithNuls) {
    char field[8];
    std::memset(field, 'x', sizeof field);
    EXPECT_TRUE(SetIpcText(field, "abc"));
    EXPECT_EQ(std::string("abc\0\0\0\0\0", 8), std::string(field, 8));
    EXPECT_TRUE(SetIpcText(field, nullptr));
    EXPECT_EQ(std::string(8, '\0'), std::string(field, 8));
}

TEST(IpcTextTest, ATextThatFillsItsFieldIsCutForItsNul) {
    char field[4];
    EXPECT_TRUE(SetIpcText(field, "abc"));
    EXPECT_FALSE(SetIpcText(field, "abcd"));
    EXPECT_STREQ("abc", field);
    EXPECT_FALSE(SetIpcText(field, std::string(9999, 'z').c_str()));
    EXPECT_STREQ("zzz", field);
}

TEST(IpcTextTest, AFieldWithoutNulIsReadUpToItsEnd) {
    struct {
        char field[4] = {'a', 'b', 'c', 'd'};
        char behind[4] = {'X', 'X', 'X', 'X'};
    } message;
    EXPECT_EQ("abcd", GetIpcText(message.field));
    message.field[1] = '\0';
    EXPECT_EQ("a", GetIpcText(message.field));
}

TEST(IpcTextTest, AChannelIsAPrefixAndAName) {
    char channel[IPC_CHANNEL_SIZE];
    MakeIpcChannel("server", channel);
    EXPECT_STREQ("/tmp/nfs-server", channel);
    MakeIpcChannel(std::string(999, 'n').c_str(), channel);
    EXPECT_EQ(std::string("/tmp/nfs-") + std::string(245, 'n'), channel);
}

// ================================================================================================
// Tracing
// ================================================================================================

namespace {

class IpcTraceTest : public testing::Test {
protected:
    IpcTraceTest() { utilities.SetFileLogger(log.Logger()); }

    // The lines for one message.
    Texts Trace(const Bytes& message, int logControl = LOG_CONTROL_IPC) {
        log.Clear();
        CRuntimeParam param("me", logControl);
        CIpcBasic basic(&utilities, &param);
        IpcDataBuf buffer{};
        std::memcpy(buffer.cBuf, message.data(), message.size());
        buffer.lDataLen = static_cast<std::int32_t>(message.size());
        LogArgu argu{"Some.Label"};
        basic.PrintData(&argu, &buffer);
        return log.Lines();
    }

    support::ScopedTempDir dir;
    LogFile log{dir / "log"};
    CUtilities utilities;
};

}  // namespace

TEST_F(IpcTraceTest, TellsTheGroupOfAMessage) {
    EXPECT_EQ(Texts{"[info] [Some.Label] Request action group (type = 4, ver = 1.2, dataLen = 36)"},
              Trace(ipcvectors::kStart));
    EXPECT_EQ(Texts{"[info] [Some.Label] Reply action group (type = 1, ver = 1.2, dataLen = 20)"},
              Trace(ipcvectors::kReplyTrue));
    EXPECT_EQ(
        Texts{"[info] [Some.Label] Callback action group (type = 5, ver = 1.2, dataLen = 1312)"},
        Trace(ipcvectors::kWriteFile));
    EXPECT_EQ(Texts{"[info] [Some.Label] Unknown action group: -1 (type = 7, ver = 1.2, dataLen "
                    "= 16)"},
              Trace(Header(0xFFFFFFFF, 7)));
    EXPECT_EQ(
        Texts{"[info] [Some.Label] Unknown action group: 0 (type = 0, ver = 1.2, dataLen = 16)"},
        Trace(Header(0, 0)));
}

TEST_F(IpcTraceTest, ReadsNoFurtherThanTheVersionField) {
    EXPECT_EQ(Texts{"[info] [Some.Label] Request action group (type = 4, ver = 12345678, dataLen "
                    "= 36)"},
              Trace(WithText(ipcvectors::kStart, 8, 8, "12345678")));
}

TEST_F(IpcTraceTest, NeedsItsOwnLogBit) {
    EXPECT_EQ(Texts{}, Trace(ipcvectors::kStart, kAllLogBits & ~LOG_CONTROL_IPC));
}

TEST_F(IpcTraceTest, LinesAreLoggedUnderTheOwnersIdentityAndCutToFit) {
    CUtilities plain;
    CRuntimeParam param("me", 0);
    CIpcBasic basic(&plain, &param);
    testing::internal::CaptureStdout();
    basic.LogInfo("%d and %s", 7, "seven");
    basic.LogError("%s", std::string(5000, 'e').c_str());
    char text[] = "as it is: %s";
    basic.LogInfo(text);
    basic.LogError(text);
    EXPECT_EQ("[info] (me) 7 and seven\n[erro] (me) " + std::string(2047, 'e') +
                  "\n[info] (me) as it is: %s\n[erro] (me) as it is: %s\n",
              testing::internal::GetCapturedStdout());
}
