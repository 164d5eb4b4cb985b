// A server process whose control channel is busy with an export of a redirected file ends as
// promptly as any other.

#include <gtest/gtest.h>

#include <filesystem>
#include <future>

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
    const ScopedTempDir folder;
    const std::string disk = folder / "disk";
    const std::string target = folder / "target";
    std::filesystem::create_symlink("/dev/null", target);
    Server server({.mode = "svr"});
    server.AddExport(folder.Path(), "vm01");
    // A size that no export comes to the end of, and a segment without source that covers it.
    ASSERT_EQ(ipctest::ReplyBool(true),
              Exchange(WithText(WithText(ipcvectors::kOpenRedirectedFile, kPath, kPathWidth, disk),
                                kSize, kHuge.size(), kHuge)));
    ASSERT_EQ(
        ipctest::ReplyBool(true),
        Exchange(WithText(WithText(ipcvectors::kAddRedirectedFileSegment, kPath, kPathWidth, disk),
                          kSource, kSegment.size(), kSegment)));
    const auto before = OpenCount("/dev/null", server.Pid());
    const ipctest::RawClient controller;
    ASSERT_TRUE(controller.Send(
        WithText(WithText(ipcvectors::kExportRedirectedFile, kPath, kPathWidth, disk), kTarget,
                 kPathWidth, target)));
    ASSERT_TRUE(WaitFor([&] { return OpenCount("/dev/null", server.Pid()) > before; }));
    server.Stop(GetParam());  // fails the test when the server does not end
    EXPECT_FALSE(FileExists(ipctest::kServerChannel));
}
