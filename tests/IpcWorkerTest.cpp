// ctest-labels: threaded
// The thread that waits for other processes, and the context of a request that uses one.

#include "IpcWorker.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <new>
#include <thread>
#include <vector>

#include "IpcReport.h"
#include "IpcWaits.h"
#include "support/Faults.h"
#include "support/Files.h"

namespace faults = support::faults;

using std::chrono::milliseconds;

namespace {

using Clock = std::chrono::steady_clock;

class IpcWorkerTest : public testing::Test {
protected:
    faults::Guard guard;
    CIpcWaits waits;
};

}  // namespace

TEST_F(IpcWorkerTest, DoesItsTasksInTheirOrderOnAThreadOfItsOwn) {
    std::vector<int> done;
    {
        CIpcWorker worker(&waits);
        for (int i = 0; i < 100; ++i) {
            ASSERT_TRUE(worker.Add([&done, i] { done.push_back(i); }));
        }
        ASSERT_TRUE(worker.Add(
            [self = std::this_thread::get_id()] { EXPECT_NE(self, std::this_thread::get_id()); }));
    }
    ASSERT_EQ(100u, done.size()) << "the end waits for them all";
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(i, done[static_cast<std::size_t>(i)]);
    }
}

TEST_F(IpcWorkerTest, CountsTheTaskUnderWay) {
    std::latch released(1);
    CIpcWorker worker(&waits);
    EXPECT_EQ(0u, worker.GetCount());
    worker.Add([&] { released.wait(); });
    worker.Add([] {});
    EXPECT_EQ(2u, worker.GetCount());
    const auto begin = Clock::now();
    worker.WaitForAll(milliseconds(50));
    EXPECT_GE(Clock::now() - begin, milliseconds(50));
    EXPECT_EQ(2u, worker.GetCount());
    released.count_down();
    worker.WaitForAll(support::kPatience);
    EXPECT_EQ(0u, worker.GetCount());
}

TEST_F(IpcWorkerTest, ItsExchangesBelongToItsWaits) {
    CIpcWaits other;
    waits.Refuse();
    CIpcWorker worker(&waits);
    worker.Add([&] { EXPECT_TRUE(CIpcWait(&other).IsEnded()); });
    worker.WaitForAll(support::kPatience);
    EXPECT_FALSE(CIpcWait(&other).IsEnded());
}

TEST_F(IpcWorkerTest, ATaskThatThrowsEndsNothing) {
    std::atomic<bool> done{false};
    CIpcWorker worker(&waits);
    worker.Add([] { throw std::bad_alloc(); });
    worker.Add([&] { done = true; });
    worker.WaitForAll(support::kPatience);
    EXPECT_TRUE(done);
}

TEST_F(IpcWorkerTest, WithoutAThreadATaskIsLeftToTheCaller) {
    std::atomic<int> done{0};
    CIpcWorker worker(&waits);
    faults::Fail(faults::Call::Thread, EAGAIN);
    EXPECT_FALSE(worker.Add([&] { ++done; }));
    EXPECT_EQ(0u, worker.GetCount());
    EXPECT_TRUE(worker.Add([&] { ++done; })) << "tried again";
    worker.WaitForAll(support::kPatience);
    EXPECT_EQ(1, done);
}

// ================================================================================================
// Reports
// ================================================================================================

TEST_F(IpcWorkerTest, AReportWaitsForEachDeliveryWhileItHasPatience) {
    const CRuntimeParam owner("sv", 5);
    CIpcReport report(&owner, &waits, support::kPatience);
    EXPECT_STREQ("sv", report.GetID());
    EXPECT_EQ(5, report.GetLogControl());
    EXPECT_FALSE(report.IsUsed());
    std::atomic<int> delivered{0};
    for (int i = 1; i <= 20; ++i) {
        report.Deliver([&] { ++delivered; });
        EXPECT_EQ(i, delivered);
    }
    EXPECT_TRUE(report.IsUsed());
    EXPECT_TRUE(report.IsDone());
}

TEST_F(IpcWorkerTest, AReportWithoutPatienceLeavesItsDeliveriesBehindInTheirOrder) {
    std::latch released(1);
    std::vector<int> delivered;
    {
        const CRuntimeParam owner("sv", 0);
        CIpcReport report(&owner, &waits, milliseconds(50));
        const auto begin = Clock::now();
        report.Deliver([&] { released.wait(); });
        EXPECT_GE(Clock::now() - begin, milliseconds(50));
        for (int i = 0; i < 100; ++i) {
            report.Deliver([&, i] { delivered.push_back(i); });
        }
        EXPECT_LT(Clock::now() - begin, milliseconds(2500)) << "once, not with each";
        EXPECT_FALSE(report.IsDone());
        released.count_down();
    }
    EXPECT_EQ(100u, delivered.size());
    EXPECT_EQ(99, delivered.back());
}

TEST_F(IpcWorkerTest, WithoutAThreadAReportDeliversItself) {
    CIpcWaits other;
    waits.Refuse();
    const CRuntimeParam owner("sv", 0);
    CIpcReport report(&owner, &waits, milliseconds(0));
    faults::Fail(faults::Call::Thread, EAGAIN);
    bool ended = false;
    report.Deliver([&] { ended = CIpcWait(&other).IsEnded(); });
    EXPECT_TRUE(ended) << "its exchange belongs to the report's waits";
    EXPECT_TRUE(report.IsDone());
}
