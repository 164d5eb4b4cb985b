// A server process whose control channel is busy with an export of a redirected file ends as
// promptly as any other.

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>

#include "ConsoleFixture.h"
#include "IpcFixture.h"
#include "support/Files.h"
#include "support/Server.h"

using namespace support;
using ipctest::Exchange;
using ipctest::WithText;

namespace {

constexpr std::size_t kPath = 16;  // offsets of the fields of the messages
constexpr std::size_t kTarget = 1040;
constexpr std::size_t kSize = 1040;
constexpr std::size_t kSource = 1040;
constexpr std::size_t kPathWidth = 1024;
const std::string kHuge = "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\x7F";
// No source, its offset, the segment's offset and length.
const std::string kSegment = std::string(kPathWidth + 8 + 8, '\0') + kHuge;

// A server process that exports a redirected file without an end.
class EndlessExport {
public:
    EndlessExport() {
        std::filesystem::create_symlink("/dev/null", m_target);
        m_server.AddExport(m_folder.Path(), "vm01");
        // A size that no export comes to the end of, and a segment without source that covers it.
        EXPECT_EQ(
            ipctest::ReplyBool(true),
            Exchange(WithText(WithText(ipcvectors::kOpenRedirectedFile, kPath, kPathWidth, m_disk),
                              kSize, kHuge.size(), kHuge)));
        EXPECT_EQ(ipctest::ReplyBool(true),
                  Exchange(WithText(
                      WithText(ipcvectors::kAddRedirectedFileSegment, kPath, kPathWidth, m_disk),
                      kSource, kSegment.size(), kSegment)));
        const auto before = OpenCount("/dev/null", m_server.Pid());
        m_controller = std::make_unique<ipctest::RawClient>();
        EXPECT_TRUE(m_controller->Send(
            WithText(WithText(ipcvectors::kExportRedirectedFile, kPath, kPathWidth, m_disk),
                     kTarget, kPathWidth, m_target)));
        EXPECT_TRUE(WaitFor([&] { return OpenCount("/dev/null", m_server.Pid()) > before; }));
    }

    Server& TheServer() { return m_server; }
    // Whose request the export is.
    const ipctest::RawClient& Controller() const { return *m_controller; }

private:
    const ScopedTempDir m_folder;
    const std::string m_disk = m_folder / "disk";
    const std::string m_target = m_folder / "target";
    Server m_server{{.mode = "svr"}};
    std::unique_ptr<ipctest::RawClient> m_controller;
};

class ExportStopTest : public testing::TestWithParam<Server::StopBy> {};

std::string NameOf(Server::StopBy way) {
    return way == Server::StopBy::Quit        ? "Quit"
           : way == Server::StopBy::Terminate ? "Terminate"
                                              : "Interrupt";
}

INSTANTIATE_TEST_SUITE_P(Ways, ExportStopTest,
                         testing::Values(Server::StopBy::Quit, Server::StopBy::Terminate,
                                         Server::StopBy::Interrupt),
                         [](const auto& way) { return NameOf(way.param); });

}  // namespace

TEST_P(ExportStopTest, TheServerEndsAlthoughAnExportRuns) {
    EndlessExport running;
    running.TheServer().Stop(GetParam());  // fails the test when the server does not end
    EXPECT_FALSE(FileExists(ipctest::kServerChannel));
}

TEST(EndlessExportTest, AShutdownByAControllerDoesNotWaitForAnExport) {
    EndlessExport running;
    const auto result = console::RunConsole({"-shutdown"});
    EXPECT_EQ(ExitStatus::Code(0), result.status) << result.output;
    EXPECT_EQ(ExitStatus::Code(0), running.TheServer().WaitForDeath());
    EXPECT_EQ(ipctest::ReplyBool(true), running.Controller().Receive())
        << "the export is answered all the same";
}

TEST(EndlessExportTest, WhileAnExportRunsOtherRequestsWaitForTheirTurn) {
    EndlessExport running;
    const ipctest::RawClient earlier;
    ASSERT_TRUE(earlier.Send(ipcvectors::kGetServerStatus));
    EXPECT_FALSE(Exchange(ipcvectors::kGetVersion).empty());
    EXPECT_FALSE(earlier.HasAnswer(Milliseconds(0)))
        << "a later message that nothing depends on came first";
    running.TheServer().Stop();
}
