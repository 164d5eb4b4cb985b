// The calls of each workload, and what their replies must hold.
//
// A workload keeps its calls as finished records in a plan; sending one is copying and patching it.
// The bare echo pair is measured with the plan of a server's workload: the same sizes, the same
// places in files of the same layout.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Pattern.h"
#include "Subject.h"
#include "Wire.h"

namespace bench {

enum class Io : std::uint32_t { None = 0, Read = 1, Write = 2 };

inline constexpr std::size_t kMaxPages = 16;  // of one call

// One call. Positions count from the record's start, its mark included.
struct Call {
    std::uint32_t record = 0;  // of the plan
    std::size_t wordAt = 0;    // a 64-bit word to set (an offset, a cookie); 0: none
    std::uint64_t word = 0;
    std::size_t textAt = 0;  // digits to set, see kDigits; 0: none
    std::uint32_t text = 0;
    Io io = Io::None;
    FileModel* file = nullptr;  // with io
    std::uint32_t fileIndex = 0;
    std::uint64_t firstPage = 0;
    std::uint32_t pages = 0;
};

// One operation that is in progress on a connection, or its place.
struct Slot {
    std::uint32_t connection = 0;
    std::uint32_t index = 0;  // on the connection
    std::uint32_t xid = 0;
    bool busy = false;
    Clock::time_point began;  // of the operation
    std::uint64_t step = 0;   // a workload's own: what to do next
    std::uint64_t sum = 0;    // a listing's
    std::uint64_t listed = 0;
    std::uint64_t cookie = 0;
    Call call;
    std::array<std::uint64_t, kMaxPages> expected{};  // stamps
};

struct Plan {
    std::vector<Bytes> records;             // calls with their marks
    std::vector<std::uint32_t> replySizes;  // with marks, learned from the first replies
};

struct Shape {
    std::uint32_t connections = 1;
    std::uint32_t depth = 1;  // calls in flight on each
};

// Thread safety: used by one thread.
class Workload {
public:
    Workload(const Subject& subject, Shape shape);
    virtual ~Workload() = default;
    Workload(const Workload&) = delete;
    Workload& operator=(const Workload&) = delete;

    // Builds the plan of a server.
    virtual void Prepare(Session& session) = 0;
    // Opens the models of the files: after Prepare, or for a plan that was taken over.
    virtual void Open() {}
    // The next call of a slot; step etc. are the workload's to keep.
    virtual Call Next(Slot& slot) = 0;
    // Looks at the results (behind accept_stat) of a server's reply; true when the operation is
    // complete. Throws when they are wrong.
    virtual bool Results(Slot& slot, const std::uint8_t* results, std::size_t size);
    // The same for a reply of the echo server, which has only its size.
    virtual bool Echoed(Slot& slot);
    // Holds the files against what has been written.
    virtual void Verify() const {}

    Plan& GetPlan() { return m_plan; }
    const Subject& Server() const { return m_subject; }

protected:
    std::uint32_t AddRecord(std::uint32_t procedure, const support::XdrWriter& arguments);

    Subject m_subject;
    Shape m_shape;
    Plan m_plan;
};

// Throws for an unknown name.
std::unique_ptr<Workload> MakeWorkload(const std::string& name, const Subject& subject,
                                       Shape shape);

// Building blocks of the measurements of growth.
//
// GETATTR of these handles in turn, LOOKUP of these names in these folders in turn.
struct Name {
    Handle folder;
    std::string name;
};
std::unique_ptr<Workload> MakeGetAttr(const Subject& subject, Shape shape,
                                      const std::vector<Handle>& handles);
std::unique_ptr<Workload> MakeLookup(const Subject& subject, Shape shape,
                                     const std::vector<Name>& names);
// LOOKUP of "f" and seven digits, each number from `first` on once: makes paths known. `folders`
// holds one handle for each thousand numbers.
std::unique_ptr<Workload> MakeKnown(const Subject& subject, Shape shape,
                                    const std::vector<Handle>& folders, std::uint64_t first);
// READ of `bytes` at random places of one of these files, whose content is not looked at.
std::unique_ptr<Workload> MakeRead(const Subject& subject, Shape shape,
                                   const std::vector<Handle>& handles, std::uint64_t size,
                                   std::uint32_t bytes);
// Whole listings of a folder.
std::unique_ptr<Workload> MakeListing(const Subject& subject, Shape shape, const Handle& folder,
                                      bool plus, std::vector<std::string> names);

inline constexpr std::size_t kDigits = 7;  // of numbered names

}  // namespace bench
