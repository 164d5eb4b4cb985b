// A call and its log lines.

#include "RpcCall.h"

#include <gtest/gtest.h>

#include "NfsServiceFixture.h"

using namespace nfstest;

namespace {

class RpcCallTest : public ::testing::Test {
protected:
    // Everything that a call can log, at a log control.
    Texts LinesAt(int logControl) {
        param.SetLogControl(logControl);
        log.Forget();
        call.LogName();
        call.Trace("[%s] traced %d", call.GetLabel(), 1);
        call.LogInfo(LOG_CONTROL_GENERAL_INFO, "[%s] general %s", call.GetLabel(), "x");
        call.LogError(LOG_CONTROL_ERROR, "[%s] failed", call.GetLabel());
        call.LogInfo(CRpcCall::LOG_ALWAYS, "[%s] told", call.GetLabel());
        call.LogError(CRpcCall::LOG_ALWAYS, "[%s] cried", call.GetLabel());
        return log.From("");
    }

    LoggedUtilities log;
    CRuntimeParam param{"10.0.0.9", 0};
    ProcessParam processParam{3, 7, "10.0.0.9", &param};
    CInputStream in;
    COutputStream out;
    CRpcCall call{&log, "Label", &in, &out, &processParam};
};

}  // namespace

TEST_F(RpcCallTest, EachLineNeedsItsOwnBit) {
    EXPECT_EQ((Texts{"info [Label] told", "error [Label] cried"}), LinesAt(0));
    const auto lineAt = [&](int bit) {
        const Texts lines = LinesAt(bit);
        return lines.size() == 3 ? lines[0] : "no line of its own";
    };
    EXPECT_EQ("info [Label]", lineAt(LOG_CONTROL_PROC_FUNC_NAME));
    EXPECT_EQ("info [Label] traced 1", lineAt(LOG_CONTROL_PROC_FUNC_ARGU));
    EXPECT_EQ("info [Label] general x", lineAt(LOG_CONTROL_GENERAL_INFO));
    EXPECT_EQ("error [Label] failed", lineAt(LOG_CONTROL_ERROR));
    EXPECT_EQ(6u, LinesAt(kAllLogBits).size());
}

TEST_F(RpcCallTest, TracingIsAskedOfTheSameBit) {
    EXPECT_FALSE(call.IsTraced());
    param.SetLogControl(kAllLogBits & ~LOG_CONTROL_PROC_FUNC_ARGU);
    EXPECT_FALSE(call.IsTraced());
    param.SetLogControl(LOG_CONTROL_PROC_FUNC_ARGU);
    EXPECT_TRUE(call.IsTraced());
}

TEST_F(RpcCallTest, LineIsCutToTheSizeOfAMessage) {
    param.SetLogControl(LOG_CONTROL_PROC_FUNC_ARGU);
    call.Trace("[%s] %s", call.GetLabel(), std::string(STATUS_SIZE, 'x').c_str());
    ASSERT_EQ(1u, log.Lines().size());
    EXPECT_EQ("[Label] " + std::string(STATUS_SIZE - 1 - 8, 'x'), log.Lines()[0].text);
}

TEST_F(RpcCallTest, CallLogsUnderTheIdentityOfTheMoment) {
    param.SetID("vm01");
    param.SetIpcID("controller-1");
    LinesAt(0);
    EXPECT_EQ("vm01", log.Lines()[0].id);
    EXPECT_EQ("controller-1", log.Lines()[0].ipcId);
}
