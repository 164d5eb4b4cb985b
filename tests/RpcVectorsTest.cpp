// Every procedure of the portmapper, MOUNT and NFS programs, success and failures, over both
// transports: the replies are held against vectors/RpcVectors.h and vectors/NfsVectors.h byte by
// byte.

#include "vectors/NfsVectors.h"

#include <sys/time.h>

#include <set>
#include <tuple>

#include "NfsServiceFixture.h"
#include "support/Faults.h"

namespace faults = support::faults;

using namespace nfstest;
using namespace support;
using vectors::Vector;

namespace {

// The clock of the WRITE verifier stands still, from before a service is made.
class StoppedClock {
protected:
    StoppedClock() {
        static constexpr struct timeval kNow { 1'700'000'000, 123'456 };
        faults::SetTimeOfDay(&kNow);
    }

private:
    faults::Guard m_guard;
};

// nfstime3
Bytes TimeOf(time_t seconds) { return Words({static_cast<std::uint32_t>(seconds), 0}); }

// What a vector calls <path.field>, as the system knows it now; numbers as wide as on the wire.
Bytes FieldOf(const std::string& path, const std::string& field) {
    const struct stat data = StatOf(path);
    struct statvfs fs {};
    statvfs(path.c_str(), &fs);
    const auto device = static_cast<std::uint32_t>(data.st_dev);
    const std::map<std::string, Bytes> fields{
        {"size", HyperOf(static_cast<std::uint64_t>(data.st_size))},
        {"rdev", Words({device >> 8 & 0xFF, device & 0xFFFF00FF})},
        {"fsid", HyperOf(static_cast<std::uint32_t>(fs.f_fsid))},
        {"ino", HyperOf(static_cast<std::uint32_t>(data.st_ino))},
        {"atime", TimeOf(data.st_atime)},
        {"mtime", TimeOf(data.st_mtime)},
        {"ctime", TimeOf(data.st_ctime)},
        {"tbytes", HyperOf(fs.f_blocks * fs.f_frsize)},
        {"fbytes", HyperOf(fs.f_bfree * fs.f_frsize)},
        {"abytes", HyperOf(fs.f_bavail * fs.f_frsize)},
        {"tfiles", HyperOf(fs.f_files)},
        {"ffiles", HyperOf(fs.f_ffree)},
    };
    return fields.at(field);
}

// A word per line, so that a failure shows the fields that differ.
std::string Dump(const Bytes& bytes) {
    std::string text = Hex(bytes);
    for (std::size_t i = 11; i < text.size(); i += 12) {
        text[i] = '\n';
    }
    return text;
}

Bytes CallOf(const Vector& vector, const vectors::LookUp& lookUp) {
    return vectors::BytesOf(vector.call, rpcvectors::kDictionary, lookUp);
}

std::uint32_t WordAt(const Bytes& message, std::size_t offset) {
    return XdrReader(Bytes(message.begin() + static_cast<std::ptrdiff_t>(offset), message.end()))
        .U32();
}
std::uint32_t ProgramOf(const Bytes& call) { return WordAt(call, 12); }
std::uint32_t ProcedureOf(const Bytes& call) { return WordAt(call, 20); }

using Parameter = std::tuple<Transport, Vector>;

template <typename Service>
class VectorTest : private StoppedClock,
                   public Service,
                   public ::testing::WithParamInterface<Parameter> {
protected:
    void ExpectAnswered() {
        const auto& [transport, vector] = GetParam();
        const vectors::LookUp lookUp = [&](const std::string& field) {
            const std::size_t point = field.rfind('.');
            return FieldOf(Service::PathOf(field.substr(0, point)), field.substr(point + 1));
        };
        const auto framed = [transport = transport](const Bytes& message) {
            return transport == Transport::Tcp ? WithRecordMark(message) : message;
        };
        const Bytes call = CallOf(vector, lookUp);
        const std::map<std::uint32_t, int> ports{
            {kPortmapProgram, 111}, {kNfsProgram, 2049}, {kMountProgram, 1058}};
        RpcClient client(transport, ports.at(ProgramOf(call)));
        client.SendRaw(framed(call));
        const Bytes reply = client.ReceiveReply().raw;
        // Looked up after the call, because the reply may tell of what that made.
        EXPECT_EQ(Dump(framed(vectors::BytesOf(vector.reply, rpcvectors::kDictionary, lookUp))),
                  Dump(reply));
    }
};

// The tree of the vectors, whose objects get their file IDs in the order in which they are named.
template <typename Service>
class TreeTest : public VectorTest<Service> {
protected:
    void SetUp() override {
        VectorTest<Service>::SetUp();  // the root of vm01: file ID 0
        this->MakeFolder("folder");
        ASSERT_EQ(0, chmod(this->MakeFile("disk", "content!").c_str(), 0640));
        ASSERT_EQ(0, chmod(this->MakeFile("folder/file").c_str(), 0640));
        this->MakeFolder("empty");
        this->MakeFile("gone");
        this->MakeFile("rare");  // gets no file ID
        this->Lookup("disk");
        this->nfs->Lookup(this->Lookup("folder"), "file");
        this->Lookup("empty");
        this->Lookup("gone");
        ASSERT_EQ(0, unlink(this->PathOf("gone").c_str()));
        AddExport("vm03");
        ASSERT_EQ(MNT3_OK, MountClient(Transport::Udp).Mnt("vm03").status);
        this->service.RemoveMountPoint((this->folder / "vm03").c_str());
        AddExport("vm02");

        const timespec times[] = {{0x01020304, 0}, {0x05060708, 0}};
        for (const char* name : {"disk", "folder", "folder/file", "empty"}) {
            ASSERT_EQ(0, utimensat(AT_FDCWD, this->PathOf(name).c_str(), times, 0)) << name;
        }
    }

private:
    void AddExport(const std::string& name) {
        char reason[STATUS_SIZE] = "";
        ASSERT_EQ(0, mkdir((this->folder / name).c_str(), 0755));
        ASSERT_TRUE(
            this->service.AddMountPoint((this->folder / name).c_str(), name.c_str(), reason))
            << reason;
    }
};

using RpcVectorsTest = TreeTest<NfsServiceTest>;
using ReadOnlyRpcVectorsTest = TreeTest<ReadOnlyNfsServiceTest>;
using FirstCallVectorsTest = VectorTest<NfsServiceTest>;

std::string Name(const ::testing::TestParamInfo<Parameter>& info) {
    const auto& [transport, vector] = info.param;
    return vector.claim + (transport == Transport::Tcp ? "OverTcp" : "OverUdp");
}

auto OverBoth(const std::vector<Vector>& table) {
    return ::testing::Combine(::testing::Values(Transport::Tcp, Transport::Udp),
                              ::testing::ValuesIn(table));
}

INSTANTIATE_TEST_SUITE_P(Portmap, RpcVectorsTest, OverBoth(rpcvectors::kPortmap), Name);
INSTANTIATE_TEST_SUITE_P(Mount, RpcVectorsTest, OverBoth(rpcvectors::kMount), Name);
INSTANTIATE_TEST_SUITE_P(NfsData, RpcVectorsTest, OverBoth(rpcvectors::kNfsData), Name);
INSTANTIATE_TEST_SUITE_P(NfsNames, RpcVectorsTest, OverBoth(rpcvectors::kNfsNames), Name);
INSTANTIATE_TEST_SUITE_P(All, ReadOnlyRpcVectorsTest, OverBoth(rpcvectors::kReadOnly), Name);
INSTANTIATE_TEST_SUITE_P(All, FirstCallVectorsTest, OverBoth(rpcvectors::kFirstCalls), Name);

}  // namespace

TEST_P(RpcVectorsTest, IsAnsweredByteForByte) { ExpectAnswered(); }
TEST_P(ReadOnlyRpcVectorsTest, IsAnsweredByteForByte) { ExpectAnswered(); }
TEST_P(FirstCallVectorsTest, IsAnsweredByteForByte) { ExpectAnswered(); }

TEST(RpcVectorTablesTest, EveryServedProcedureHasAVector) {
    std::set<std::pair<std::uint32_t, std::uint32_t>> seen;
    for (const auto* table : {&rpcvectors::kPortmap, &rpcvectors::kMount, &rpcvectors::kNfsData,
                              &rpcvectors::kNfsNames}) {
        for (const Vector& vector : *table) {
            const Bytes call = CallOf(vector, [](const std::string&) { return Bytes(8); });
            seen.emplace(ProgramOf(call), ProcedureOf(call));
        }
    }
    for (std::uint32_t procedure = 0; procedure < rpcvectors::kNfsProcedures.size(); ++procedure) {
        EXPECT_TRUE(seen.contains({kNfsProgram, procedure}))
            << rpcvectors::kNfsProcedures[procedure];
    }
    for (std::uint32_t procedure = 0; procedure < rpcvectors::kMountProcedures.size();
         ++procedure) {
        EXPECT_TRUE(seen.contains({kMountProgram, procedure}))
            << rpcvectors::kMountProcedures[procedure];
    }
    for (const std::uint32_t procedure : {0u, 3u}) {
        EXPECT_TRUE(seen.contains({kPortmapProgram, procedure}))
            << rpcvectors::kPortmapProcedures[procedure];
    }
}
