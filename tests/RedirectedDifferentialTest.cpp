// Random redirected files against a plain model: lists of segments that are scanned from one end to
// the other, one byte-range rule after another, without any index.

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <tuple>
#include <vector>

#include "RedirectedFixture.h"

using namespace redirtest;

namespace {

constexpr std::int64_t kMax = std::numeric_limits<std::int64_t>::max();
__extension__ using Wide = __int128;

// The content of a source; the model looks at nothing else.
struct Source {
    std::string path;
    bool missing = false;
    std::string content;
};

// The rules of a redirected file, one after another.
class Model {
public:
    Model(std::int64_t size, bool infoFile, std::int64_t block, std::int64_t interval)
        : m_size(size), m_infoFile(infoFile), m_block(block), m_interval(interval) {}

    bool Add(const Source* source, std::int64_t fileOffset, std::int64_t offset,
             std::int64_t length) {
        if (offset >= m_size) {
            return false;
        }
        if (Wide{offset} + length >= m_size) {
            length = static_cast<std::int64_t>(Wide{m_size} - offset);
        }
        if (!m_infoFile) {
            m_segments.push_back({source, fileOffset, offset, length});
            return true;
        }
        // Up to the next block boundary, whole blocks, the rest.
        const std::int64_t blockStart = offset / m_block * m_block;
        const std::int64_t head = blockStart + (m_block - 1) - offset + 1;
        if (blockStart < offset && head < length) {
            Emit(source, &fileOffset, &offset, &length, head);
        }
        while (length > m_block) {
            Emit(source, &fileOffset, &offset, &length, m_block);
        }
        if (length > 0) {
            Emit(source, &fileOffset, &offset, &length, length);
        }
        return true;
    }

    Got Read(std::uint64_t seek, unsigned int length) {
        Got got;
        got.count = -1;
        if (seek < static_cast<std::uint64_t>(m_size)) {
            got.data = ReadAt(static_cast<std::int64_t>(seek), length);
            got.count = static_cast<int>(got.data.size());
            m_lastEnd = static_cast<std::int64_t>(seek) + got.count;
        }
        got.eof = m_lastEnd >= m_size;
        if (got.eof && got.count < 0) {
            got.count = 0;
        }
        return got;
    }

    std::size_t Count() const { return m_segments.size(); }

private:
    struct Piece {
        const Source* source;
        std::int64_t fileOffset;
        std::int64_t offset;
        std::int64_t length;
    };
    struct CheckPoint {
        std::size_t record;
        std::int64_t offset;
    };

    void Emit(const Source* source, std::int64_t* fileOffset, std::int64_t* offset,
              std::int64_t* length, std::int64_t piece) {
        if (*offset > 0 && *offset % m_interval == 0) {
            m_checkPoints.push_back({m_segments.size(), *offset});
        }
        m_segments.push_back({source, *fileOffset, *offset, piece});
        *fileOffset += piece;
        *offset += piece;
        *length -= piece;
    }

    std::size_t FirstToLookAt(std::int64_t seek) const {
        if (!m_infoFile) {
            return 0;
        }
        if (seek >= m_interval) {
            for (std::size_t i = m_checkPoints.size(); i-- > 0;) {
                if (m_checkPoints[i].offset <= seek) {
                    return m_checkPoints[i].record +
                           static_cast<std::size_t>((seek - m_checkPoints[i].offset) / m_block);
                }
            }
        }
        return static_cast<std::size_t>(seek / m_block);
    }

    std::string ReadAt(std::int64_t seek, std::size_t length) const {
        std::string out;
        Wide at = seek;
        std::size_t i = FirstToLookAt(seek);
        while (i < m_segments.size() &&
               !(m_segments[i].offset <= seek && seek < End(m_segments[i]))) {
            ++i;
        }
        // In an info file only what begins at or behind the start counts as found.
        if (i < m_segments.size() && m_infoFile && m_segments[i].offset < 0) {
            i = m_segments.size();
        }
        while (i < m_segments.size()) {
            const Piece& piece = m_segments[i];
            at = std::max(at, Wide{piece.offset});  // the zeros of a gap are overwritten
            const Wide left = End(piece) - at;
            if (left <= 0) {
                ++i;
                continue;
            }
            std::size_t chunk = length - out.size();
            const bool usedUp = left <= static_cast<Wide>(chunk);
            if (usedUp) {
                chunk = static_cast<std::size_t>(left);
                ++i;
            }
            const Wide from = piece.fileOffset + (at - piece.offset);
            if (from < 0 || from > kMax) {
                return out;  // no such place in a source
            }
            if (piece.source == nullptr || piece.source->missing) {
                out.append(chunk, '\0');
            } else if (from + static_cast<Wide>(chunk) > kMax) {
                return out;  // the system reads nothing that would reach beyond the last place
            } else {
                const std::string& content = piece.source->content;
                const Wide there = std::max(Wide{0}, static_cast<Wide>(content.size()) - from);
                chunk = static_cast<std::size_t>(std::min(there, static_cast<Wide>(chunk)));
                if (chunk > 0) {
                    out.append(content, static_cast<std::size_t>(from), chunk);
                }
            }
            at += static_cast<Wide>(chunk);
            if (out.size() >= length) {
                return out;
            }
            if (chunk == 0 && !usedUp) {
                return out;  // nothing comes any more
            }
        }
        if (m_lastEnd < m_size) {
            const Wide tail = std::min(m_size - at, static_cast<Wide>(length - out.size()));
            out.append(static_cast<std::size_t>(tail), '\0');
        }
        return out;
    }

    static Wide End(const Piece& piece) { return Wide{piece.offset} + piece.length; }

    std::int64_t m_size;
    bool m_infoFile;
    std::int64_t m_block;
    std::int64_t m_interval;
    std::vector<Piece> m_segments;  // in memory as given, in an info file as recorded
    std::vector<CheckPoint> m_checkPoints;
    std::int64_t m_lastEnd = 0;  // of the last read that worked
};

enum class Layout {
    Random,     // anywhere, overlapping
    Ascending,  // one after another, without gaps
    Gaps,       // one after another, most of it uncovered
    Edges,      // at both ends of 64 bits
};

struct Kind {
    const char* name;
    int blockMB;  // 0: in memory
    int intervalMB;
    Layout layout;
};

constexpr Kind kKinds[] = {
    {"MemoryRandom", 0, 0, Layout::Random},
    {"MemoryAscending", 0, 0, Layout::Ascending},
    {"MemoryGaps", 0, 0, Layout::Gaps},
    {"MemoryEdges", 0, 0, Layout::Edges},
    {"Block1Interval1Random", 1, 1, Layout::Random},
    {"Block1Interval1Ascending", 1, 1, Layout::Ascending},
    {"Block1Interval3Gaps", 1, 3, Layout::Gaps},
    {"Block1Interval5Random", 1, 5, Layout::Random},
    {"Block2Interval1Gaps", 2, 1, Layout::Gaps},
    {"Block3Interval2Ascending", 3, 2, Layout::Ascending},
    {"Block4Interval16Random", 4, 16, Layout::Random},
    {"Block1Interval1Edges", 1, 1, Layout::Edges},
    {"Block32Interval1024Random", 32, 1024, Layout::Random},
};

constexpr int kReads = 100'000;  // of each kind
constexpr int kReadsPerList = 1000;
constexpr int kShards = 5;  // of each kind, so that each stays short under a sanitizer

class RedirectedDifferentialTest : public RedirectedFixture,
                                   public testing::WithParamInterface<std::tuple<Kind, int>> {
protected:
    void SetUp() override {
        for (const std::size_t size :
             {std::size_t{3} << 20, std::size_t{100'000}, std::size_t{7}}) {
            Source source;
            source.content = support::PatternData(size, size);
            source.path = Make("source" + std::to_string(size), source.content);
            m_sources.push_back(source);
        }
        m_sources.push_back({dir / "missing", true, ""});
    }

    std::int64_t Below(std::int64_t limit) {
        return static_cast<std::int64_t>(m_random() % static_cast<std::uint64_t>(limit));
    }
    bool OneIn(std::int64_t n) { return Below(n) == 0; }

    // Lengths from one byte to several blocks, small ones as often as large ones; also none.
    std::int64_t Length(std::int64_t largest) {
        if (OneIn(30)) {
            return OneIn(2) ? 0 : -Below(1000);
        }
        return 1 + Below(std::max<std::int64_t>(1, largest >> Below(16)));
    }

    static const Kind& TheKind() { return std::get<Kind>(GetParam()); }

    struct List {
        std::int64_t size;
        std::int64_t next;  // of the next segment of an ascending list
        std::int64_t largest;
        std::vector<std::int64_t> places;  // where segments begin and end
    };

    void AddOne(CRedirectedFile& file, Model& model, List& list) {
        const Source* source = OneIn(8) ? nullptr : &m_sources[static_cast<std::size_t>(Below(4))];
        std::int64_t offset = 0;
        std::int64_t length = Length(list.largest);
        switch (TheKind().layout) {
            case Layout::Random:
                offset = Below(list.size + 10) - (OneIn(20) ? 1000 : 0);
                break;
            case Layout::Ascending:
                length = std::max<std::int64_t>(1, length);
                offset = list.next;
                list.next += length;
                break;
            case Layout::Gaps:
                offset = list.next + Length(list.largest);
                list.next = std::max(list.next, offset + std::max<std::int64_t>(0, length));
                break;
            case Layout::Edges:
                offset = OneIn(2) ? kMax - Below(2000) : Below(2000) - 1000;
                if (OneIn(10)) {
                    offset = kMax / kMiB * kMiB - Below(3) * kMiB;  // makes a checkpoint
                }
                length = OneIn(3) ? kMax - Below(10) : Length(500);
                if (TheKind().blockMB != 0) {
                    length = std::min(length, 3 * kMiB);
                }
                break;
        }
        if (OneIn(10) && !list.places.empty()) {
            offset = list.places[static_cast<std::size_t>(
                Below(static_cast<std::int64_t>(list.places.size())))];
        }
        // Mostly within the source, so that data is compared.
        std::int64_t fileOffset = Below(2000);
        if (source != nullptr && !source->content.empty()) {
            fileOffset = Below(static_cast<std::int64_t>(source->content.size()));
        }
        if (OneIn(50)) {
            fileOffset = -Below(100);
        }
        const bool expected = model.Add(source, fileOffset, offset, length);
        ASSERT_EQ(expected,
                  file.AddSegment(&param, source != nullptr ? source->path.c_str() : nullptr,
                                  fileOffset, offset, length, nullptr));
        list.places.push_back(offset);
        std::int64_t end = 0;
        if (!__builtin_add_overflow(offset, length, &end)) {
            list.places.push_back(end);
        }
    }

    void ReadOne(CRedirectedFile& file, Model& model, const List& list) {
        std::uint64_t seek = 0;
        if (!list.places.empty() && !OneIn(3)) {
            const std::int64_t place = list.places[static_cast<std::size_t>(
                Below(static_cast<std::int64_t>(list.places.size())))];
            seek = static_cast<std::uint64_t>(place) + static_cast<std::uint64_t>(Below(5)) - 2;
        } else if (TheKind().layout == Layout::Edges) {
            seek = static_cast<std::uint64_t>(OneIn(2) ? kMax - Below(2000) : Below(2000));
        } else {
            seek = static_cast<std::uint64_t>(Below(list.size + 3));
        }
        const auto length =
            static_cast<unsigned int>(OneIn(50) ? Below(70'000) : Below(1 + (400 >> Below(8))));
        const Got expected = model.Read(seek, length);
        const Got got = GuardedRead(length, [&](void* buffer, bool* eof) {
            return file.Read(&param, seek, buffer, length, eof);
        });
        ASSERT_TRUE(expected == got)
            << "seek " << seek << " length " << length << ": model " << expected.count << " eof "
            << expected.eof << ", read " << got.count << " eof " << got.eof;
        m_bytes += static_cast<std::size_t>(std::max(0, got.count));
        m_whole += got.count == static_cast<int>(length) ? 1u : 0u;
    }

    void CompareOneList(int number) {
        const Kind& kind = TheKind();
        const bool infoFile = kind.blockMB != 0;
        const std::int64_t block = infoFile ? kind.blockMB * kMiB : kMiB;
        // Now and then enough segments for several runs, once enough for groups of runs.
        const int count = number == 0        ? 20'000
                          : number % 10 == 1 ? 2000
                                             : static_cast<int>(Below(150));
        List list{};
        list.size = kind.layout == Layout::Edges ? kMax
                    : OneIn(2)                   ? 12 * block
                                                 : 1 + Below(5000) * (1 + Below(1000));
        // The lists stay within a few thousand records.
        list.largest = std::max<std::int64_t>(1, std::min(list.size, kGiB) * 8 / (1 + count));
        list.largest = std::min(list.largest, 3 * block);
        if (kind.layout == Layout::Ascending || kind.layout == Layout::Gaps) {
            list.largest = std::max<std::int64_t>(1, list.size * 4 / (1 + count));
        }

        const std::string found = OneIn(3) ? support::PatternData(1 + m_random() % 100) : "";
        const std::string info = infoFile ? Make("info", found) : "";
        CRedirectedFile file(&utilities);
        file.Open(&param, list.size, number, infoFile ? info.c_str() : nullptr, kind.blockMB,
                  kind.intervalMB);
        Model model(list.size, infoFile, block, infoFile ? kind.intervalMB * kMiB : kMiB);
        for (int i = 0; i < count; ++i) {
            ASSERT_NO_FATAL_FAILURE(AddOne(file, model, list)) << "segment " << i;
        }
        for (int i = 0; i < kReadsPerList; ++i) {
            if (OneIn(100)) {
                ASSERT_NO_FATAL_FAILURE(AddOne(file, model, list));
            }
            ASSERT_NO_FATAL_FAILURE(ReadOne(file, model, list))
                << "list " << number << " of size " << list.size << " with " << model.Count()
                << " segments, read " << i;
        }
    }

    const std::uint64_t m_seed = support::RandomSeed();
    std::mt19937_64 m_random{m_seed};
    std::vector<Source> m_sources;
    std::size_t m_bytes = 0;
    std::size_t m_whole = 0;
};

INSTANTIATE_TEST_SUITE_P(Kinds, RedirectedDifferentialTest,
                         testing::Combine(testing::ValuesIn(kKinds), testing::Range(0, kShards)),
                         [](const auto& kind) {
                             return std::string(std::get<Kind>(kind.param).name) + "_" +
                                    std::to_string(std::get<int>(kind.param));
                         });

}  // namespace

TEST_P(RedirectedDifferentialTest, RandomReadsAreThoseOfThePlainModel) {
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(m_seed));
    RecordProperty("seed", std::to_string(m_seed));
    const int shard = std::get<int>(GetParam());
    for (int list = shard; list < kReads / kReadsPerList; list += kShards) {
        ASSERT_NO_FATAL_FAILURE(CompareOneList(list));
    }
    // The lists are worth something: most reads find what they ask for.
    EXPECT_GT(m_whole, static_cast<std::size_t>(kReads / kShards) / 10);
    EXPECT_GT(m_bytes, static_cast<std::size_t>(kReads / kShards));
}
