// ctest-labels: threaded
//
// A start of the service while memory runs out: every allocation of it fails once, and every one
// from there on.

#include <gtest/gtest.h>

#include <cerrno>
#include <cstdlib>
#include <new>
#include <string>

#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "RuntimeParam.h"
#include "support/Nfs3Client.h"
#include "Utilities.h"

namespace {

// Allocations that the calling thread may still make; below zero: any number.
thread_local int t_iLeft = -1;
// How many fail after that.
thread_local int t_iFail = 0;

bool IsDue() {
    if (t_iLeft < 0) {
        return false;
    }
    if (t_iLeft > 0) {
        --t_iLeft;
        return false;
    }
    if (--t_iFail == 0) {
        t_iLeft = -1;
    }
    return true;
}

void* Allocate(std::size_t size) {
    if (IsDue()) {
        return nullptr;
    }
    return std::malloc(size != 0 ? size : 1);
}

}  // namespace

// In place of the library's for the whole program.
void* operator new(std::size_t size) {
    if (void* p = Allocate(size)) {
        return p;
    }
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

// Starts with the allocation after so many failing, and as many behind it. Whether it started.
template <typename Start>
bool StartShortOfMemory(int left, int fail, const Start& start) {
    char reason[STATUS_SIZE] = "";
    t_iLeft = left;
    t_iFail = fail;
    const bool started = start(reason);
    t_iLeft = -1;
    if (!started) {
        EXPECT_EQ("Cannot allocate memory (" + std::to_string(ENOMEM) + ")", reason)
            << "after " << left;
    }
    return started;
}

constexpr int kMostAllocations = 2000;

}  // namespace

TEST(StartMemoryTest, AStartThatRunsOutOfMemoryFailsWithAReasonAndCanBeRepeated) {
    CNfsMain main("sv", 0);
    const auto start = [&main](char* reason) {
        return main.StartServer(0, 0, 0, 0, false, reason);
    };
    for (const int fail : {1, 1'000'000}) {
        int failures = 0;
        while (failures < kMostAllocations && !StartShortOfMemory(failures, fail, start)) {
            EXPECT_FALSE(main.IsServerRunning());
            ++failures;
        }
        EXPECT_GT(failures, 10) << "a start allocates";
        EXPECT_LT(failures, kMostAllocations);
        EXPECT_EQ(support::kSuccess, support::Nfs3Client().Null().acceptStat);
        main.StopServer();
    }
}

TEST(StartMemoryTest, AChannelThatRunsOutOfMemoryFailsWithAReasonAndCanBeOpenedAgain) {
    CNfsIpcServerMain main("sv", 0);
    const auto start = [&main](char* reason) { return main.StartRemoteController(reason); };
    for (const int fail : {1, 1'000'000}) {
        int failures = 0;
        while (failures < kMostAllocations && !StartShortOfMemory(failures, fail, start)) {
            ++failures;
        }
        EXPECT_GT(failures, 0);
        EXPECT_LT(failures, kMostAllocations);
        main.StopRemoteController();
    }
}

TEST(StartMemoryTest, ALineForWhichThereIsNoMemoryIsLostAndItsOperationGoesOn) {
    CUtilities utilities;
    CRuntimeParam param("sv", 0);
    LogArgu argu{"Test.Case"};
    char reason[STATUS_SIZE] = "";
    ASSERT_TRUE(
        utilities.AddMountInfo(&param, &argu, "/none/of/this/is/there", "vm01", "", reason));
    param.SetLogControl(LOG_CONTROL_GENERAL_INFO);
    t_iLeft = 0;
    t_iFail = 1'000'000;
    const bool found =
        utilities.GetMountInfoByPath(&param, &argu, "/none/of/this/is/there/x", nullptr);
    t_iLeft = -1;
    EXPECT_TRUE(found);
}
