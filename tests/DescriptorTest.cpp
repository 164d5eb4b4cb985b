// What owns a descriptor closes it exactly once.
#include "Descriptor.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace {

int OpenNull() { return open("/dev/null", O_RDONLY | O_CLOEXEC); }

bool IsOpen(int fd) { return fcntl(fd, F_GETFD) != -1; }

TEST(DescriptorTest, StartsWithoutOne) {
    const CDescriptor none;
    EXPECT_FALSE(none.IsOpen());
    EXPECT_EQ(-1, none.Get());
}

TEST(DescriptorTest, ClosesAtItsEnd) {
    const int fd = OpenNull();
    {
        const CDescriptor owner(fd);
        EXPECT_TRUE(owner.IsOpen());
        EXPECT_EQ(fd, owner.Get());
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST(DescriptorTest, AMoveHandsItOn) {
    const int fd = OpenNull();
    CDescriptor first(fd);
    {
        const CDescriptor second(std::move(first));
        EXPECT_EQ(fd, second.Get());
        EXPECT_TRUE(IsOpen(fd));
    }
    EXPECT_FALSE(IsOpen(fd));
}

TEST(DescriptorTest, AnAssignmentClosesWhatWasThere) {
    const int fdOld = OpenNull();
    const int fdNew = OpenNull();
    CDescriptor owner(fdOld);
    owner = CDescriptor(fdNew);
    EXPECT_FALSE(IsOpen(fdOld));
    EXPECT_TRUE(IsOpen(fdNew));
    EXPECT_EQ(fdNew, owner.Get());
}

TEST(DescriptorTest, AssignedToItselfItStaysOpen) {
    const int fd = OpenNull();
    CDescriptor owner(fd);
    CDescriptor& same = owner;
    owner = std::move(same);
    EXPECT_EQ(fd, owner.Get());
    EXPECT_TRUE(IsOpen(fd));
}

TEST(DescriptorTest, ReleasedItStaysOpen) {
    const int fd = OpenNull();
    {
        CDescriptor owner(fd);
        EXPECT_EQ(fd, owner.Release());
        EXPECT_FALSE(owner.IsOpen());
    }
    EXPECT_TRUE(IsOpen(fd));
    close(fd);
}

TEST(DescriptorTest, ClosingKeepsErrno) {
    CDescriptor owner(OpenNull());
    const int fd = owner.Get();
    close(fd);  // the owner's own close now fails with EBADF
    errno = ENOSPC;
    owner.Reset();
    EXPECT_EQ(ENOSPC, errno);
}

}  // namespace
