#include "Workload.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <map>
#include <numeric>
#include <string_view>

namespace bench {

namespace {

using support::XdrWriter;

enum Procedure : std::uint32_t {
    kNull = 0,
    kGetAttr = 1,
    kSetAttr = 2,
    kLookup = 3,
    kAccess = 4,
    kRead = 6,
    kWrite = 7,
    kCreate = 8,
    kRemove = 12,
    kRename = 14,
    kReadDir = 16,
    kReadDirPlus = 17,
};

constexpr std::uint32_t kFileSync = 2;
constexpr std::size_t kAttributesSize = 84;  // fattr3
constexpr std::uint32_t kFullCheckEvery = 64;

std::uint32_t PagesOf(std::uint32_t bytes) { return bytes / static_cast<std::uint32_t>(kPage); }

// Distances of patched words from the end of a record.
constexpr std::size_t kReadOffset = 12;         // offset 8, count 4
constexpr std::size_t kWriteOffset = 20;        // offset 8, count, stable, length; the data
constexpr std::size_t kReadDirCookie = 20;      // cookie 8, verifier 8, count 4
constexpr std::size_t kReadDirPlusCookie = 24;  // cookie 8, verifier 8, dircount, maxcount

// A name that ends in kDigits digits, which are patched; its length is a multiple of four.
constexpr std::size_t kNumberedName = 12;
const std::string kNumberedBlank = "temp-0000000";

void Succeeded(const std::uint8_t* results, std::size_t size) {
    Check(size >= 4, "a reply without a status");
    if (Load32(results) != 0) {
        throw std::runtime_error("a call failed with status " + std::to_string(Load32(results)));
    }
}

// The data of a READ reply: status, attributes when they follow, count, eof, length.
void CheckData(Slot& slot, const std::uint8_t* results, std::size_t size) {
    std::size_t at = 4;
    Check(size >= at + 4, "a short READ reply");
    at += 4 + (Load32(results + at) != 0 ? kAttributesSize : 0);
    const std::size_t bytes = slot.call.pages * kPage;
    Check(size == at + 12 + bytes && Load32(results + at) == bytes &&
              Load32(results + at + 8) == bytes,
          "a READ reply of another size");
    const std::uint8_t* data = results + at + 12;
    const bool full = slot.xid % kFullCheckEvery == 0;
    for (std::uint32_t i = 0; i < slot.call.pages; ++i) {
        const std::uint8_t* page = data + i * kPage;
        Check(full ? IsPage(page, slot.expected[i]) : HasStamp(page, slot.expected[i]),
              "wrong data read");
    }
}

// ------------------------------------------------------------------------------------------------
// NULL, GETATTR, LOOKUP, SETATTR: one kind of call, several objects
// ------------------------------------------------------------------------------------------------

class InTurn : public Workload {
public:
    using Workload::Workload;
    Call Next(Slot& slot) override {
        Call call;
        // Slots begin at different objects.
        call.record = static_cast<std::uint32_t>(
            (slot.index + slot.connection * m_shape.depth + slot.step++) % m_plan.records.size());
        return call;
    }
};

class Null : public InTurn {
public:
    using InTurn::InTurn;
    void Prepare(Session& /*session*/) override { AddRecord(kNull, {}); }
    bool Results(Slot& /*slot*/, const std::uint8_t* /*results*/, std::size_t size) override {
        Check(size == 0, "a NULL with results");
        return true;
    }
};

class GetAttr : public InTurn {
public:
    using InTurn::InTurn;
    void Prepare(Session& session) override {
        for (int i = 0; i < kNames; ++i) {
            Add(session.Find(PlainName(i)));
        }
    }
    void Add(const Handle& handle) {
        XdrWriter arguments;
        AddRecord(kGetAttr, arguments.Opaque(handle));
    }
    bool Results(Slot& /*slot*/, const std::uint8_t* results, std::size_t size) override {
        Succeeded(results, size);
        Check(size == 4 + kAttributesSize, "GETATTR without attributes");
        return true;
    }
};

class Lookup : public InTurn {
public:
    using InTurn::InTurn;
    void Prepare(Session& session) override {
        const Handle folder = session.Find(kDeepFolder);
        for (int i = 0; i < kNames; ++i) {
            Add({folder, PlainName(i)});
        }
    }
    void Add(const Name& name) {
        XdrWriter arguments;
        AddRecord(kLookup, arguments.Opaque(name.folder).String(name.name));
    }
};

// The mode to and fro.
class SetAttr : public InTurn {
public:
    using InTurn::InTurn;
    void Prepare(Session& session) override {
        for (int i = 0; i < kNames; ++i) {
            support::SetAttributes attributes;
            attributes.mode = i % 2 == 0 ? 0600U : 0644U;
            XdrWriter arguments;
            arguments.Opaque(session.Find(PlainName(i / 2)));
            attributes.Write(arguments);
            AddRecord(kSetAttr, arguments.Bool(false));
        }
    }
};

// ------------------------------------------------------------------------------------------------
// READ, WRITE and a mix
// ------------------------------------------------------------------------------------------------

// One of the kinds of calls that a data workload mixes.
struct Kind {
    std::uint32_t procedure;
    std::uint32_t bytes;
    unsigned share;  // of 100
};

enum class Order { Sequential, Random };

// All connections read the one read file, or each works on a write file of its own.
class Data : public Workload {
public:
    Data(const Subject& subject, Shape shape, std::vector<Kind> kinds, Order order, bool ownFiles)
        : Workload(subject, shape),
          m_kinds(std::move(kinds)),
          m_order(order),
          m_ownFiles(ownFiles),
          m_sequence(7) {}

    void Prepare(Session& session) override {
        const std::uint32_t files = m_ownFiles ? m_shape.connections : 1;
        for (std::uint32_t file = 0; file < files; ++file) {
            const Handle handle = session.Find(FileName(file));
            for (const Kind& kind : m_kinds) {
                AddKind(kind, handle);
            }
        }
    }
    void Open() override {
        const std::uint32_t files = m_ownFiles ? m_shape.connections : 1;
        for (std::uint32_t file = 0; file < files; ++file) {
            m_files.push_back(MakeModel(file));
        }
        // The slots of a connection go through the file together, as a reader with read-ahead does.
        m_next.resize(m_shape.connections);
    }
    Call Next(Slot& slot) override {
        const std::uint32_t file = m_ownFiles ? slot.connection : 0;
        std::size_t chosen = 0;
        if (m_kinds.size() > 1) {
            auto ticket = static_cast<unsigned>(m_sequence.Below(100));
            while (ticket >= m_kinds[chosen].share) {
                ticket -= m_kinds[chosen++].share;
            }
        }
        const Kind& kind = m_kinds[chosen];
        Call call;
        call.record = static_cast<std::uint32_t>(file * m_kinds.size() + chosen);
        if (kind.bytes == 0) {
            return call;
        }
        call.file = &m_files[file];
        call.fileIndex = m_ownFiles ? 1 + file : 0;
        call.pages = PagesOf(kind.bytes);
        const std::uint64_t places = call.file->Pages() / call.pages;
        if (m_order == Order::Random) {
            call.firstPage = m_sequence.Below(places) * call.pages;
        } else {
            std::uint64_t& next = m_next[slot.connection];
            call.firstPage = next++ % places * call.pages;
        }
        call.wordAt = m_plan.records[call.record].size() -
                      (kind.procedure == kRead ? kReadOffset : kWriteOffset + kind.bytes);
        call.word = call.firstPage * kPage;
        call.io = kind.procedure == kRead ? Io::Read : Io::Write;
        return call;
    }
    bool Results(Slot& slot, const std::uint8_t* results, std::size_t size) override {
        Succeeded(results, size);
        if (slot.call.io == Io::Read) {
            CheckData(slot, results, size);
        } else if (slot.call.io == Io::Write) {
            // status, wcc without attributes, count, committed, verifier
            Check(size == 28 && Load32(results + 12) == slot.call.pages * kPage,
                  "a WRITE of another size");
        }
        return true;
    }
    void Verify() const override {
        if (m_ownFiles && m_subject.kind != Subject::Kind::Echo) {
            for (const FileModel& file : m_files) {
                file.Verify();
            }
        }
    }

protected:
    virtual std::string FileName(std::uint32_t file) const {
        return m_ownFiles ? WriteFileName(static_cast<int>(file)) : ReadFileName();
    }
    virtual FileModel MakeModel(std::uint32_t file) const {
        return FileModel(m_subject.Export() + "/" + FileName(file));
    }

private:
    void AddKind(const Kind& kind, const Handle& handle) {
        XdrWriter arguments;
        arguments.Opaque(handle);
        if (kind.procedure == kRead) {
            arguments.U64(0).U32(kind.bytes);
        } else if (kind.procedure == kWrite) {
            arguments.U64(0).U32(kind.bytes).U32(kFileSync).Opaque(Bytes(kind.bytes));
        } else if (kind.procedure == kAccess) {
            arguments.U32(0x3F);
        }
        AddRecord(kind.procedure, arguments);
    }

    std::vector<Kind> m_kinds;
    Order m_order;
    bool m_ownFiles;
    Sequence m_sequence;
    std::vector<FileModel> m_files;
    std::vector<std::uint64_t> m_next;  // of each connection, sequential
};

// ------------------------------------------------------------------------------------------------
// Redirected files
// ------------------------------------------------------------------------------------------------

constexpr std::uint64_t kSegmentPages = 16;

// A file put together from 64 KiB pieces of the read file, in another order.
class Redirected : public Data {
public:
    Redirected(const Subject& subject, Shape shape, std::uint32_t bytes, bool infoFile)
        : Data(subject, shape, {{kRead, bytes, 100}}, Order::Random, false), m_infoFile(infoFile) {}

    void Prepare(Session& session) override {
        const Control control(m_subject);
        const std::string folder = m_subject.Export() + "/rd";
        const std::string path = m_subject.Export() + "/" + FileName(0);
        control.CloseRedirected(path);
        // What an info file of an earlier run holds would be taken over.
        for (const auto& entry : std::filesystem::directory_iterator(folder)) {
            if (entry.path().string().starts_with(path)) {
                std::filesystem::remove(entry.path());
            }
        }
        MakeEmptyFile(path);
        control.OpenRedirected(path, kReadPages * kPage, m_infoFile);
        constexpr std::int64_t kLength = kSegmentPages * kPage;
        for (std::uint64_t i = 0; i < kReadPages / kSegmentPages; ++i) {
            control.AddSegment(path, m_subject.Export() + "/" + ReadFileName(),
                               static_cast<std::int64_t>(SourceOf(i)) * kLength,
                               static_cast<std::int64_t>(i) * kLength, kLength);
        }
        Data::Prepare(session);
    }

protected:
    std::string FileName(std::uint32_t /*file*/) const override {
        return m_infoFile ? "rd/info.img" : "rd/memory.img";
    }
    FileModel MakeModel(std::uint32_t file) const override {
        std::vector<std::uint64_t> stamps(kReadPages);
        for (std::uint64_t page = 0; page < kReadPages; ++page) {
            stamps[page] =
                StampOf(SourceOf(page / kSegmentPages) * kSegmentPages + page % kSegmentPages, 0);
        }
        return {FileName(file), std::move(stamps)};
    }

private:
    // The segment's place in the source: all of it, far from where it stands here.
    static std::uint64_t SourceOf(std::uint64_t segment) {
        return segment * 757 % (kReadPages / kSegmentPages);
    }

    bool m_infoFile;
};

// WRITEs of 4 KiB to a redirected file, of which a controller hears; they reach no file.
class Callback : public InTurn {
public:
    using InTurn::InTurn;
    void Prepare(Session& session) override {
        const Control control(m_subject);
        const std::string folder = m_subject.folder + "/heard";
        control.AddExport(folder, kHeardName, "bench");
        m_listener = std::make_unique<CallbackListener>(m_subject);
        const std::string path = folder + "/disk.img";
        MakeEmptyFile(path);
        control.CloseRedirected(path);
        control.OpenRedirected(path, kReadPages * kPage, false);
        const support::LookupResult disk =
            session.Nfs().Lookup(session.Mount(kHeardName), "disk.img");
        Check(disk.status == 0, "no redirected file to write to");
        XdrWriter arguments;
        arguments.Opaque(disk.handle).U64(0).U32(kPage).U32(kFileSync).Opaque(Bytes(kPage));
        AddRecord(kWrite, arguments);
    }
    bool Results(Slot& slot, const std::uint8_t* results, std::size_t size) override {
        Check(Workload::Results(slot, results, size) && size == 28 && Load32(results + 12) == kPage,
              "a WRITE of another size");
        ++m_answered;
        return true;
    }
    void Verify() const override {
        Check(m_listener == nullptr || m_listener->Writes() == m_answered,
              "not as many callbacks as writes");
    }

private:
    std::unique_ptr<CallbackListener> m_listener;
    std::uint64_t m_answered = 0;
};

// ------------------------------------------------------------------------------------------------
// Names
// ------------------------------------------------------------------------------------------------

// A number of its own for every slot.
std::uint32_t NumberOf(const Slot& slot) { return slot.connection * 1000 + slot.index; }

// An operation is a CREATE of a slot's name and then its REMOVE.
class CreateRemove : public Workload {
public:
    using Workload::Workload;
    void Prepare(Session& session) override {
        const Handle folder = session.Find("scratch");
        for (const auto& entry :
             std::filesystem::directory_iterator(m_subject.Export() + "/scratch")) {
            std::filesystem::remove(entry.path());
        }
        support::SetAttributes attributes;
        attributes.mode = 0644;
        XdrWriter create;
        create.Opaque(folder).String(kNumberedBlank).U32(0);  // unchecked
        const std::size_t name = create.Data().size() - 4 - kDigits;
        attributes.Write(create);
        const std::size_t behind = create.Data().size() - name;
        AddRecord(kCreate, create);
        XdrWriter remove;
        AddRecord(kRemove, remove.Opaque(folder).String(kNumberedBlank));
        m_createNameFromEnd = behind;
    }
    Call Next(Slot& slot) override {
        Call call;
        call.record = slot.step++ % 2;
        if (m_subject.IsNfs()) {
            call.textAt = m_plan.records[call.record].size() -
                          (call.record == 0 ? m_createNameFromEnd : kDigits);
            call.text = NumberOf(slot);
        }
        return call;
    }
    bool Results(Slot& slot, const std::uint8_t* results, std::size_t size) override {
        Succeeded(results, size);
        return Echoed(slot);
    }
    bool Echoed(Slot& slot) override { return slot.call.record == 1; }

private:
    std::size_t m_createNameFromEnd = 0;
};

// A slot's file to another name and back.
class Rename : public Workload {
public:
    using Workload::Workload;
    void Prepare(Session& session) override {
        const Handle folder = session.Find("scratch");
        for (std::uint32_t connection = 0; connection < m_shape.connections; ++connection) {
            for (std::uint32_t i = 0; i < m_shape.depth; ++i) {
                Slot slot;
                slot.connection = connection;
                slot.index = i;
                const std::string number = std::to_string(NumberOf(slot));
                const std::string a = "from-" + number;
                const std::string b = "to-" + number;
                std::filesystem::remove(m_subject.Export() + "/scratch/" + b);
                MakeEmptyFile(m_subject.Export() + "/scratch/" + a);
                // Only a path that has been looked up can be renamed.
                Check(session.Nfs().Lookup(folder, a).status == 0, "no file to rename");
                Add(folder, a, b);
                Add(folder, b, a);
            }
        }
    }
    Call Next(Slot& slot) override {
        Call call;
        call.record = static_cast<std::uint32_t>(
            2 * (slot.connection * m_shape.depth + slot.index) + slot.step++ % 2);
        return call;
    }

private:
    void Add(const Handle& folder, const std::string& from, const std::string& to) {
        XdrWriter arguments;
        arguments.Opaque(folder).String(from).Opaque(folder).String(to);
        AddRecord(kRename, arguments);
    }
};

// ------------------------------------------------------------------------------------------------
// Listings
// ------------------------------------------------------------------------------------------------

constexpr std::uint64_t kEntriesOfReply = 10;

std::uint64_t HashOf(std::string_view name) { return std::hash<std::string_view>{}(name); }

// Reads entries with nothing but bounds in the way.
class Entries {
public:
    Entries(const std::uint8_t* bytes, std::size_t size) : m_bytes(bytes), m_size(size) {}
    std::uint32_t U32() { return Load32(Take(4)); }
    std::uint64_t U64() { return Load64(Take(8)); }
    std::string_view Opaque() {
        const std::uint32_t size = U32();
        const std::uint8_t* at = Take(size);
        Take((4 - size % 4) % 4);
        return {reinterpret_cast<const char*>(at), size};
    }
    void PostAttributes() {
        if (U32() != 0) {
            Take(kAttributesSize);
        }
    }
    const std::uint8_t* Take(std::size_t size) {
        Check(size <= m_size - m_at, "a listing ends too early");
        m_at += size;
        return m_bytes + m_at - size;
    }

private:
    const std::uint8_t* m_bytes;
    std::size_t m_size;
    std::size_t m_at = 0;
};

// An operation is a listing from the first to the last call.
class Listing : public Workload {
public:
    Listing(const Subject& subject, Shape shape, bool plus, std::vector<std::string> names)
        : Workload(subject, shape), m_plus(plus), m_entries(names.size()) {
        for (const std::string& name : names) {
            m_sum += HashOf(name);
        }
    }
    void Prepare(Session& session) override { Add(session.Find("listed")); }
    void Add(const Handle& folder) {
        XdrWriter arguments;
        arguments.Opaque(folder).U64(0).U64(0).U32(8192);
        if (m_plus) {
            arguments.U32(32768);
        }
        AddRecord(m_plus ? kReadDirPlus : kReadDir, arguments);
    }
    Call Next(Slot& slot) override {
        Call call;
        call.wordAt = m_plan.records[0].size() - (m_plus ? kReadDirPlusCookie : kReadDirCookie);
        call.word = slot.cookie;
        return call;
    }
    bool Results(Slot& slot, const std::uint8_t* results, std::size_t size) override {
        Succeeded(results, size);
        Entries entries(results + 4, size - 4);
        entries.PostAttributes();
        entries.Take(8);  // verifier
        while (entries.U32() != 0) {
            entries.U64();  // fileid
            slot.sum += HashOf(entries.Opaque());
            slot.cookie = entries.U64();
            ++slot.listed;
            if (m_plus) {
                entries.PostAttributes();
                Check(entries.U32() != 0, "an entry without a handle");
                entries.Opaque();
            }
        }
        const bool end = entries.U32() != 0;
        if (end) {
            Check(slot.listed == m_entries && slot.sum == m_sum, "not the names of the folder");
            Restart(slot);
        }
        return end;
    }
    bool Echoed(Slot& slot) override {
        slot.listed += kEntriesOfReply;
        if (slot.listed > m_entries) {
            Restart(slot);
            return true;
        }
        return false;
    }

private:
    static void Restart(Slot& slot) { slot.sum = slot.listed = slot.cookie = 0; }

    bool m_plus;
    std::uint64_t m_entries;
    std::uint64_t m_sum = 0;
};

std::vector<std::string> ListedNames() {
    std::vector<std::string> names;
    for (int i = 0; i < kListed; ++i) {
        names.push_back(ListedName(i));
    }
    return names;
}

// ------------------------------------------------------------------------------------------------
// Growth
// ------------------------------------------------------------------------------------------------

class Known : public Workload {
public:
    Known(const Subject& subject, Shape shape, std::uint64_t first)
        : Workload(subject, shape), m_next(first) {}
    void Prepare(Session& /*session*/) override {}
    void Add(const Handle& folder) {
        XdrWriter arguments;
        AddRecord(kLookup, arguments.Opaque(folder).String("f0000000"));
    }
    Call Next(Slot& /*slot*/) override {
        Call call;
        // Behind the last number (calls in flight may be more than asked for) the last again.
        const std::uint64_t number = std::min(m_next++, m_plan.records.size() * 1000 - 1);
        call.record = static_cast<std::uint32_t>(number / 1000);
        call.textAt = m_plan.records[call.record].size() - kDigits;
        call.text = static_cast<std::uint32_t>(number);
        return call;
    }

private:
    std::uint64_t m_next;
};

class AnyRead : public Workload {
public:
    AnyRead(const Subject& subject, Shape shape, std::uint64_t size, std::uint32_t bytes)
        : Workload(subject, shape),
          m_places(std::max<std::uint64_t>(size / bytes, 1)),
          m_bytes(bytes),
          m_sequence(11) {}
    void Prepare(Session& /*session*/) override {}
    void Add(const Handle& handle) {
        XdrWriter arguments;
        AddRecord(kRead, arguments.Opaque(handle).U64(0).U32(m_bytes));
    }
    Call Next(Slot& /*slot*/) override {
        Call call;
        call.record = static_cast<std::uint32_t>(m_sequence.Below(m_plan.records.size()));
        call.wordAt = m_plan.records[call.record].size() - kReadOffset;
        call.word = m_sequence.Below(m_places) * m_bytes;
        return call;
    }
    bool Results(Slot& slot, const std::uint8_t* results, std::size_t size) override {
        Check(Workload::Results(slot, results, size) && size > m_bytes, "a short READ");
        return true;
    }

private:
    std::uint64_t m_places;
    std::uint32_t m_bytes;
    Sequence m_sequence;
};

// The mix of a virtual machine's disk, in hundredths of the calls.
const std::vector<Kind> kMachineMix = {
    {kRead, 4096, 45},  {kWrite, 4096, 25}, {kRead, 65536, 8},
    {kWrite, 16384, 7}, {kGetAttr, 0, 12},  {kAccess, 0, 3},
};

using Maker = std::function<std::unique_ptr<Workload>(const Subject&, Shape)>;

template <typename Class, typename... Arguments>
Maker Make(Arguments... arguments) {
    return [=](const Subject& subject, Shape shape) -> std::unique_ptr<Workload> {
        return std::make_unique<Class>(subject, shape, arguments...);
    };
}

Maker MakeData(std::vector<Kind> kinds, Order order, bool ownFiles) {
    return Make<Data>(std::move(kinds), order, ownFiles);
}

const std::map<std::string, Maker>& Makers() {
    static const std::map<std::string, Maker> makers = {
        {"null", Make<Null>()},
        {"getattr", Make<GetAttr>()},
        {"lookup", Make<Lookup>()},
        {"read64k", MakeData({{kRead, 65536, 100}}, Order::Sequential, false)},
        {"read4k", MakeData({{kRead, 4096, 100}}, Order::Random, false)},
        {"vmmix", MakeData(kMachineMix, Order::Random, true)},
        {"write16k", MakeData({{kWrite, 16384, 100}}, Order::Sequential, true)},
        {"write4k", MakeData({{kWrite, 4096, 100}}, Order::Random, true)},
        {"create-remove", Make<CreateRemove>()},
        {"setattr", Make<SetAttr>()},
        {"rename", Make<Rename>()},
        {"readdir", Make<Listing>(false, ListedNames())},
        {"readdirplus", Make<Listing>(true, ListedNames())},
        {"redirected-memory-64k", Make<Redirected>(65536U, false)},
        {"redirected-memory-4k", Make<Redirected>(4096U, false)},
        {"redirected-info-64k", Make<Redirected>(65536U, true)},
        {"redirected-info-4k", Make<Redirected>(4096U, true)},
        {"callback", Make<Callback>()},
    };
    return makers;
}

}  // namespace

Workload::Workload(const Subject& subject, Shape shape) : m_subject(subject), m_shape(shape) {}

bool Workload::Results(Slot& /*slot*/, const std::uint8_t* results, std::size_t size) {
    Succeeded(results, size);
    return true;
}

bool Workload::Echoed(Slot& /*slot*/) { return true; }

std::uint32_t Workload::AddRecord(std::uint32_t procedure, const XdrWriter& arguments) {
    // The credential of a host's kernel: root of one group.
    static const support::OpaqueAuth kCredential = support::AuthSys(0, 0, {0}, "bench-host");
    m_plan.records.push_back(support::WithRecordMark(
        support::BuildCall(0, support::kNfsProgram, 3, procedure, arguments.Data(), kCredential)));
    m_plan.replySizes.resize(m_plan.records.size());
    return static_cast<std::uint32_t>(m_plan.records.size() - 1);
}

std::unique_ptr<Workload> MakeWorkload(const std::string& name, const Subject& subject,
                                       Shape shape) {
    const auto found = Makers().find(name);
    Check(found != Makers().end(), "no such workload: " + name);
    return found->second(subject, shape);
}

std::unique_ptr<Workload> MakeGetAttr(const Subject& subject, Shape shape,
                                      const std::vector<Handle>& handles) {
    auto workload = std::make_unique<GetAttr>(subject, shape);
    for (const Handle& handle : handles) {
        workload->Add(handle);
    }
    return workload;
}

std::unique_ptr<Workload> MakeLookup(const Subject& subject, Shape shape,
                                     const std::vector<Name>& names) {
    auto workload = std::make_unique<Lookup>(subject, shape);
    for (const Name& name : names) {
        workload->Add(name);
    }
    return workload;
}

std::unique_ptr<Workload> MakeKnown(const Subject& subject, Shape shape,
                                    const std::vector<Handle>& folders, std::uint64_t first) {
    auto workload = std::make_unique<Known>(subject, shape, first);
    for (const Handle& folder : folders) {
        workload->Add(folder);
    }
    return workload;
}

std::unique_ptr<Workload> MakeRead(const Subject& subject, Shape shape,
                                   const std::vector<Handle>& handles, std::uint64_t size,
                                   std::uint32_t bytes) {
    auto workload = std::make_unique<AnyRead>(subject, shape, size, bytes);
    for (const Handle& handle : handles) {
        workload->Add(handle);
    }
    return workload;
}

std::unique_ptr<Workload> MakeListing(const Subject& subject, Shape shape, const Handle& folder,
                                      bool plus, std::vector<std::string> names) {
    auto workload = std::make_unique<Listing>(subject, shape, plus, std::move(names));
    workload->Add(folder);
    return workload;
}

}  // namespace bench
