// ctest-labels: threaded
#include "RuntimeParam.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <climits>
#include <type_traits>

#include "FileLogger.h"
#include "NfsMain.h"
#include "RecordingUtilities.h"
#include "support/Files.h"
#include "support/Nfs3Client.h"

using testing::Contains;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace {

struct Category {
    const char* name;
    int value;
    bool (CRuntimeParam::*test)() const;
};

// Every category of log output and the bit that switches it on.
constexpr Category CATEGORIES[] = {
    {"Error", 1, &CRuntimeParam::IsLogError},
    {"GeneralInfo", 2, &CRuntimeParam::IsLogGeneralInfo},
    {"Rpc", 4, &CRuntimeParam::IsLogRpc},
    {"ProcFuncName", 8, &CRuntimeParam::IsLogProcFuncName},
    {"ProcFuncArgu", 16, &CRuntimeParam::IsLogProcFuncArgu},
    {"RedirectFile", 32, &CRuntimeParam::IsLogRedirectFile},
    {"Ipc", 64, &CRuntimeParam::IsLogIpc},
    {"IpcState", 128, &CRuntimeParam::IsLogIpcState},
    {"FileAccess", 256, &CRuntimeParam::IsLogFileAccess},
    {"Portmap", 512, &CRuntimeParam::IsLogPortmap},
};

class LogCategoryTest : public testing::TestWithParam<Category> {
protected:
    static bool Enabled(int logControl) {
        const CRuntimeParam param("", logControl);
        return (param.*GetParam().test)();
    }
};

}  // namespace

TEST_P(LogCategoryTest, ItsBitAloneSwitchesItOn) { EXPECT_TRUE(Enabled(GetParam().value)); }

TEST_P(LogCategoryTest, NoOtherBitSwitchesItOn) { EXPECT_FALSE(Enabled(~GetParam().value)); }

TEST_P(LogCategoryTest, ControlZeroSilencesIt) { EXPECT_FALSE(Enabled(0)); }

TEST_P(LogCategoryTest, Control1023SwitchesItOn) { EXPECT_TRUE(Enabled(1023)); }

TEST_P(LogCategoryTest, ControlOneShowsErrorsOnly) {
    EXPECT_EQ(Enabled(1), std::string(GetParam().name) == "Error");
}

TEST_P(LogCategoryTest, BitsAboveTheLastCategoryMeanNothing) { EXPECT_FALSE(Enabled(~1023)); }

TEST_P(LogCategoryTest, BitThirtyOneAloneSwitchesNothingOn) { EXPECT_FALSE(Enabled(INT_MIN)); }

TEST_P(LogCategoryTest, BitThirtyOneDoesNotHideItsBit) {
    EXPECT_TRUE(Enabled(INT_MIN | GetParam().value));
}

INSTANTIATE_TEST_SUITE_P(All, LogCategoryTest, testing::ValuesIn(CATEGORIES),
                         [](const auto& info) { return std::string(info.param.name); });

TEST(RuntimeParamTest, StoresTheIdItIsGiven) {
    char id[] = "vm01";
    const CRuntimeParam param(id, 0);
    id[0] = 'X';  // a copy is kept, not the caller's pointer
    EXPECT_STREQ(param.GetID(), "vm01");
}

TEST(RuntimeParamTest, IpcIdIsEmptyUnlessSet) {
    CRuntimeParam param("vm01", 0);
    EXPECT_STREQ(param.GetIpcID(), "");
    char id[] = "controller";
    param.SetIpcID(id);
    id[0] = 'X';
    EXPECT_STREQ(param.GetIpcID(), "controller");
    EXPECT_STREQ(param.GetID(), "vm01");
}

TEST(RuntimeParamTest, NullIdsBecomeEmptyTexts) {
    CRuntimeParam param(nullptr, 0);
    EXPECT_STREQ(param.GetID(), "");

    param.SetID("vm01");
    param.SetIpcID("controller");
    param.SetID(nullptr);
    EXPECT_STREQ(param.GetID(), "");
    EXPECT_STREQ(param.GetIpcID(), "controller");
    param.SetIpcID(nullptr);
    EXPECT_STREQ(param.GetIpcID(), "");
}

TEST(RuntimeParamTest, LogControlIsReplacedWholeAndNeitherCheckedNorMasked) {
    CRuntimeParam param("", 7);
    for (const int control : {0, 1, 1023, 1024, INT_MAX, INT_MIN, -1}) {
        param.SetLogControl(control);
        EXPECT_EQ(param.GetLogControl(), control);
    }
    EXPECT_EQ(CRuntimeParam("", -2).GetLogControl(), -2);
}

TEST(RuntimeParamTest, EmptyMaskIsNeverEnabled) {
    for (const int control : {0, 1, 1023, INT_MAX, INT_MIN, -1}) {
        EXPECT_FALSE(CRuntimeParam("", control).IsLogEnabled(0)) << control;
    }
}

TEST(RuntimeParamTest, MaskAndControlAreComparedAsASignedNumber) {
    // Bit 31 in both makes the common bits negative, whatever else they share.
    EXPECT_FALSE(CRuntimeParam("", -1).IsLogEnabled(INT_MIN));
    EXPECT_FALSE(CRuntimeParam("", -1).IsLogEnabled(INT_MIN | 1));
    EXPECT_FALSE(CRuntimeParam("", -1).IsLogEnabled(-1));
    // In one of them it falls away.
    EXPECT_TRUE(CRuntimeParam("", -1).IsLogEnabled(1));
    EXPECT_TRUE(CRuntimeParam("", 1).IsLogEnabled(-1));
    EXPECT_TRUE(CRuntimeParam("", -1).IsLogEnabled(INT_MAX));
}

TEST(RuntimeParamTest, AMaskOfSeveralBitsNeedsOnlyOneOfThem) {
    EXPECT_TRUE(CRuntimeParam("", 4).IsLogEnabled(1 | 4));
    EXPECT_FALSE(CRuntimeParam("", 8).IsLogEnabled(1 | 4));
}

TEST(RuntimeParamTest, IsABaseOfItsOwnWithAVirtualDestructor) {
    static_assert(std::has_virtual_destructor_v<CRuntimeParam>);
    struct Derived : CRuntimeParam {
        explicit Derived(bool* gone) : CRuntimeParam("", 0), m_gone(gone) {}
        ~Derived() override { *m_gone = true; }
        bool* m_gone;
    };
    bool gone = false;
    std::unique_ptr<CRuntimeParam> param = std::make_unique<Derived>(&gone);
    param.reset();
    EXPECT_TRUE(gone);
}

TEST(LogArguTest, IsAPlainRecordOfOneLabel) {
    static_assert(std::is_aggregate_v<LogArgu> && std::is_trivially_copyable_v<LogArgu>);
    static_assert(sizeof(LogArgu) == sizeof(const char*));
    EXPECT_STREQ(LogArgu{"RpcServer.Process"}.pcName, "RpcServer.Process");
}

// -------------------------------------------------------------------------------------------------
// The main object's log control and its copies
// -------------------------------------------------------------------------------------------------

namespace {

// A main object whose service object keeps the log lines.
class RecordingMain : public CNfsMain {
public:
    explicit RecordingMain(int logControl) { InitMemberVaribles("main", logControl); }
    ~RecordingMain() override { StopServer(); }

    std::unique_ptr<CUtilities> CreateUtilities() override {
        auto utilities = std::make_unique<RecordingUtilities>();
        m_log = utilities.get();
        return utilities;
    }

    void Start() {
        char status[STATUS_SIZE] = "";
        ASSERT_TRUE(Initial(status)) << status;
        ASSERT_TRUE(StartServer(0, 0, 0, 0, false, status)) << status;
    }
    RecordingUtilities& Log() { return *m_log; }

private:
    RecordingUtilities* m_log = nullptr;  // owned by the base
};

const char REQUEST_HEADER[] = "[RpcServer.Process] request header";

}  // namespace

TEST(LogControlOfTheMainObjectTest, IsTheRpcServersFromTheStart) {
    RecordingMain main(4);
    main.Start();
    support::MountClient(support::Transport::Udp).Null();
    EXPECT_TRUE(main.Log().Has(REQUEST_HEADER));
}

TEST(LogControlOfTheMainObjectTest, ChangesTheRpcServersCopyWhileTheServerRuns) {
    RecordingMain main(0);
    main.Start();
    support::MountClient client;
    client.Null();
    EXPECT_THAT(main.Log().Texts(), IsEmpty());

    main.SetLogControl(4);
    EXPECT_EQ(main.GetRuntimeParam()->GetLogControl(), 4);
    client.Null();
    EXPECT_EQ(main.Log().Count(REQUEST_HEADER), 1u);

    main.SetLogControl(0);
    // A round may still have had lines to write when its reply arrived; a second one is all silent.
    client.Null();
    main.Log().Forget();
    client.Null();
    EXPECT_THAT(main.Log().Texts(), IsEmpty());
}

TEST(LogControlOfTheMainObjectTest, LeavesTheFileLoggersOwnAlone) {
    support::ScopedTempDir folder;
    CFileLogger logger((folder / "log").c_str());
    ASSERT_TRUE(logger.Open(0));
    CNfsMain main("main", 0);
    main.SetFileLogger(&logger);
    main.SetLogControl(1023);
    // With file-access logging of its own, the logger would tell of each of its writes on standard
    // output.
    testing::internal::CaptureStdout();
    EXPECT_TRUE(logger.LogInfo("a line"));
    logger.Close();
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "");
    EXPECT_THAT(support::ReadFile(folder / "log"), testing::EndsWith("[info] a line\n"));
    main.SetFileLogger(nullptr);
}

TEST(LogControlOfTheMainObjectTest, MayChangeWhileCallsAreServed) {
    RecordingMain main(0);
    main.Start();
    support::MountClient client;
    for (int i = 0; i < 200; ++i) {
        main.SetLogControl(i % 2 == 0 ? 1023 : 0);
        EXPECT_EQ(client.Null().acceptStat, support::kSuccess);
    }
}
