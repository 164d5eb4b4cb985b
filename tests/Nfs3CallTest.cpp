// An NFS call in the words of its procedures: places in the reply, and arguments that resolve to
// nothing.

#include "Nfs3Call.h"

#include <gtest/gtest.h>

#include "NfsServiceFixture.h"
#include "support/Faults.h"

using support::faults::LstatFault;

using namespace nfstest;

namespace {

class Nfs3CallTest : public ::testing::Test {
protected:
    Bytes Reply() const { return Bytes(out.GetBuffer(), out.GetBuffer() + out.GetBufferIndex()); }

    void Receive(const Bytes& arguments) {
        in.ResetBuffer();
        std::memcpy(in.GetFreeBuffer(), arguments.data(), arguments.size());
        in.AddFilledBufferSize(static_cast<std::uint32_t>(arguments.size()));
    }
    void AddExport(const char* path, const char* name) {
        LogArgu logArgu{"test"};
        char reason[STATUS_SIZE] = "";
        ASSERT_TRUE(log.AddMountInfo(&param, &logArgu, path, name, "", reason)) << reason;
    }

    LoggedUtilities log;
    CRuntimeParam param{"10.0.0.9", 0};
    ProcessParam processParam{3, 1, "10.0.0.9", &param};
    CInputStream in;
    COutputStream out;
    CNfs3Call call{&log, "test", &in, &out, &processParam};
};

}  // namespace

TEST_F(Nfs3CallTest, ValuesArePutOverAPlaceWithoutMovingTheEnd) {
    call.Write(1U, 2U);
    const std::uint32_t place = call.GetPlace();
    call.Write(3U, true, 4U);
    call.WriteAt(place, 5U, false);
    EXPECT_EQ(Hex(Words({1, 2, 5, 0, 4})), Hex(Reply()));
    call.Write(6U);
    EXPECT_EQ(Hex(Words({1, 2, 5, 0, 4, 6})), Hex(Reply()));
    call.GoTo(place);
    call.Write(7U);
    EXPECT_EQ(Hex(Words({1, 2, 7})), Hex(Reply()));
}

TEST_F(Nfs3CallTest, DataInPlaceIsPassedOverWithItsFill) {
    std::memcpy(out.GetCurrentBuffer(), "abcde\0\0\0", 8);
    call.PassOverData(5);
    EXPECT_EQ(8u, call.GetPlace());
    EXPECT_EQ(Bytes({'a', 'b', 'c', 'd', 'e', 0, 0, 0}), Reply());
}

TEST_F(Nfs3CallTest, HandleThatBelongsToNothingIsAnEmptyPath) {
    AddExport("/tmp", "vm01");
    for (const Handle& handle : {HandleOfId(99), HandleOfId(0, 3), HandleOfId(0xFFFFFFFF)}) {
        Receive(OpaqueOf(handle) + OpaqueOf(handle) + Words({1}));
        EXPECT_EQ("", call.ReadHandle().sPath);
        EXPECT_EQ("", call.ReadDirAndName().sPath);
        EXPECT_EQ(4u, in.GetFilledBufferSize()) << "the name is not read";
    }
    EXPECT_EQ(NFS3ERR_IO, call.Check(""));
    EXPECT_EQ(NFS3ERR_IO, call.CheckUnresolved());
}

TEST_F(Nfs3CallTest, ExportWithAnEmptyFolderHoldsTheEmptyPathButNothingIsThere) {
    AddExport("", "all");
    EXPECT_EQ(NFS3_OK, call.CheckUnresolved());
    EXPECT_EQ(NFS3_OK, call.Check(""));
    EXPECT_EQ(NFS3ERR_IO, call.CheckExisting(""));
    post_op_attr attr;
    EXPECT_EQ(NFS3ERR_IO, call.CheckAttributes("", &attr));
    EXPECT_FALSE(attr.attributes_follow);
    EXPECT_STREQ("all", param.GetID());
}

TEST_F(Nfs3CallTest, AttributesThatCannotBeHadAreAnIoError) {
    support::ScopedTempDir folder;
    AddExport(folder.Path().c_str(), "vm01");
    post_op_attr attr;
    EXPECT_EQ(NFS3_OK, call.CheckAttributes(folder.Path().c_str(), &attr));
    EXPECT_EQ(NF3DIR, attr.attributes.type);
    const LstatFault fault(folder.Path());
    EXPECT_EQ(NFS3_OK, call.CheckExisting(folder.Path().c_str()));
    EXPECT_EQ(NFS3ERR_IO, call.CheckAttributes(folder.Path().c_str(), &attr));
    EXPECT_FALSE(attr.attributes_follow);
}
