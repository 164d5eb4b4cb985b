#include "OutputStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <random>

#include "support/Files.h"

using support::Bytes;
using testing::ElementsAre;

namespace {

constexpr std::uint32_t BUFFER_SIZE = 1'048'576;

class OutputStreamTest : public testing::Test {
protected:
    std::uint32_t Put(const Bytes& bytes) {
        return m_stream.Write(bytes.data(), static_cast<std::uint32_t>(bytes.size()));
    }
    // What a send would take.
    Bytes Extent() const {
        return Bytes(m_stream.GetBuffer(), m_stream.GetBuffer() + m_stream.GetBufferSize());
    }
    // Fills the whole buffer with one byte value and starts over, so that bytes that are never
    // written are known.
    void Prepare(std::uint8_t value) {
        const Bytes bytes(BUFFER_SIZE, value);
        ASSERT_EQ(Put(bytes), BUFFER_SIZE);
        m_stream.ResetBuffer();
    }
    void ExpectAt(std::uint32_t index, std::uint32_t size) const {
        EXPECT_EQ(m_stream.GetBufferIndex(), index);
        EXPECT_EQ(m_stream.GetBufferSize(), size);
    }

    COutputStream m_stream;
};

}  // namespace

TEST_F(OutputStreamTest, StartsEmpty) {
    static_assert(sizeof(COutputStream) == sizeof(CSocketStream));  // no fields of its own
    ExpectAt(0, 0);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE);
    EXPECT_EQ(m_stream.GetCurrentBuffer(), m_stream.GetBuffer());
    EXPECT_EQ(m_stream.GetMaxBufferSize(), BUFFER_SIZE);
}

TEST_F(OutputStreamTest, IsDestroyedThroughItsBase) {
    std::unique_ptr<CSocketStream> stream = std::make_unique<COutputStream>();
    stream.reset();  // a leak would be reported
}

// -------------------------------------------------------------------------------------------------
// Writing
// -------------------------------------------------------------------------------------------------

TEST_F(OutputStreamTest, BytesAreWrittenAtTheIndex) {
    EXPECT_EQ(Put({1, 2, 3}), 3u);
    EXPECT_EQ(Put({4, 5}), 2u);
    ExpectAt(5, 5);
    EXPECT_THAT(Extent(), ElementsAre(1, 2, 3, 4, 5));
    EXPECT_EQ(m_stream.GetCurrentBuffer(), m_stream.GetBuffer() + 5);
}

TEST_F(OutputStreamTest, WordsAreBigEndian) {
    EXPECT_EQ(m_stream.Write(0x01020384u), 4u);
    EXPECT_EQ(m_stream.Write(0xFFFEFDFCu), 4u);
    EXPECT_THAT(Extent(), ElementsAre(0x01, 0x02, 0x03, 0x84, 0xFF, 0xFE, 0xFD, 0xFC));
}

TEST_F(OutputStreamTest, DoubleWordsAreBigEndian) {
    EXPECT_EQ(m_stream.Write8(0xF102030485060708u), 8u);
    EXPECT_THAT(Extent(), ElementsAre(0xF1, 0x02, 0x03, 0x04, 0x85, 0x06, 0x07, 0x08));
    ExpectAt(8, 8);
}

TEST_F(OutputStreamTest, NullReservesSpaceAndLeavesItsBytes) {
    Prepare(0xAA);
    Put({1});
    EXPECT_EQ(m_stream.Write(nullptr, 3), 3u);
    ExpectAt(4, 4);
    EXPECT_THAT(Extent(), ElementsAre(1, 0xAA, 0xAA, 0xAA));
}

TEST_F(OutputStreamTest, NullReservesNoMoreThanThereIs) {
    m_stream.Seek(BUFFER_SIZE - 5, 0);
    EXPECT_EQ(m_stream.Write(nullptr, 100), 5u);
    ExpectAt(BUFFER_SIZE, BUFFER_SIZE);
}

TEST_F(OutputStreamTest, WriteIsCutAtTheEndOfTheBuffer) {
    m_stream.Seek(1'048'574, 0);
    EXPECT_EQ(Put({1, 2, 3, 4}), 2u);
    ExpectAt(BUFFER_SIZE, BUFFER_SIZE);
    EXPECT_EQ(m_stream.GetBuffer()[BUFFER_SIZE - 2], 1);
    EXPECT_EQ(m_stream.GetBuffer()[BUFFER_SIZE - 1], 2);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), 0u);
    EXPECT_EQ(Put({5}), 0u);
    ExpectAt(BUFFER_SIZE, BUFFER_SIZE);
}

TEST_F(OutputStreamTest, NumbersAreCutAtTheEndOfTheBuffer) {
    m_stream.Seek(BUFFER_SIZE - 3, 0);
    EXPECT_EQ(m_stream.Write(0x01020304u), 3u);
    EXPECT_EQ(m_stream.GetBuffer()[BUFFER_SIZE - 1], 3);
    m_stream.Seek(BUFFER_SIZE - 6, 0);
    EXPECT_EQ(m_stream.Write8(0x0102030405060708u), 6u);
    EXPECT_EQ(m_stream.GetBuffer()[BUFFER_SIZE - 1], 6);
    ExpectAt(BUFFER_SIZE, BUFFER_SIZE);
}

TEST_F(OutputStreamTest, NothingIsWrittenBehindTheBuffer) {
    for (const std::uint32_t index : {BUFFER_SIZE, BUFFER_SIZE + 1, 0xFFFFFFFFu}) {
        m_stream.Seek(index, 0);
        EXPECT_EQ(m_stream.GetFreeBufferSize(), 0u);
        EXPECT_EQ(Put({1}), 0u);
        EXPECT_EQ(m_stream.Write(1u), 0u);
        EXPECT_EQ(m_stream.Write8(1), 0u);
        EXPECT_LE(m_stream.GetBufferSize(), BUFFER_SIZE);
    }
}

TEST_F(OutputStreamTest, OverwritingLeavesTheSizeAtTheFurthestByte) {
    m_stream.Write(1u);
    m_stream.Write(2u);
    m_stream.Write(3u);
    m_stream.Seek(4, 0);
    m_stream.Write(9u);
    ExpectAt(8, 12);
    EXPECT_THAT(Extent(), ElementsAre(0, 0, 0, 1, 0, 0, 0, 9, 0, 0, 0, 3));
    // A write that begins inside and ends beyond moves the size.
    Put({1, 2, 3, 4, 5});
    ExpectAt(13, 13);
}

TEST_F(OutputStreamTest, FreeSizeCountsFromTheIndexNotFromTheSize) {
    Put(Bytes(100));
    m_stream.Seek(10, 0);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE - 10);
}

// -------------------------------------------------------------------------------------------------
// Seeking
// -------------------------------------------------------------------------------------------------

TEST_F(OutputStreamTest, SeekFromTheStart) {
    Put(Bytes(10));
    m_stream.Seek(3, 0);
    ExpectAt(3, 10);
    m_stream.Seek(50, 0);
    ExpectAt(50, 10);
}

TEST_F(OutputStreamTest, SeekFromTheIndex) {
    Put(Bytes(10));
    m_stream.Seek(4, 0);
    m_stream.Seek(3, 1);
    ExpectAt(7, 10);
    m_stream.Seek(0xFFFFFFFF, 1);  // one back, in the arithmetic of 32 bits
    ExpectAt(6, 10);
}

TEST_F(OutputStreamTest, SeekFromTheEndOfTheWrittenExtent) {
    Put(Bytes(10));
    m_stream.Seek(2, 0);
    m_stream.Seek(0, 2);
    ExpectAt(10, 10);
    m_stream.Seek(5, 2);
    ExpectAt(15, 10);
}

TEST_F(OutputStreamTest, SeekFromAnywhereElseDoesNothing) {
    Put(Bytes(10));
    m_stream.Seek(4, 0);
    for (const int whence : {-1, 3, 100}) {
        m_stream.Seek(7, whence);
        ExpectAt(4, 10);
    }
}

TEST_F(OutputStreamTest, WriteAfterASeekBeyondTheSizeTakesTheGapIn) {
    Prepare(0xAA);
    Put({1});
    m_stream.Seek(2, 1);
    Put({2});
    ExpectAt(4, 4);
    EXPECT_THAT(Extent(), ElementsAre(1, 0xAA, 0xAA, 2));
}

TEST_F(OutputStreamTest, AnEmptyWriteTakesTheGapInToo) {
    Put({1});
    m_stream.Seek(3, 1);
    ExpectAt(4, 1);
    EXPECT_EQ(m_stream.Write(nullptr, 0), 0u);
    ExpectAt(4, 4);
}

// -------------------------------------------------------------------------------------------------
// Fill after opaques
// -------------------------------------------------------------------------------------------------

TEST_F(OutputStreamTest, FillOfAnOpaqueIsMovedOver) {
    const std::uint32_t fills[] = {0, 3, 2, 1, 0, 3, 2, 1, 0};
    for (std::uint32_t length = 0; length <= 8; ++length) {
        m_stream.ResetBuffer();
        EXPECT_EQ(m_stream.WriteRemainOpaque(length), fills[length]) << length;
        ExpectAt(fills[length], 0);
    }
    m_stream.ResetBuffer();
    EXPECT_EQ(m_stream.WriteRemainOpaque(0xFFFFFFFF), 1u);
}

TEST_F(OutputStreamTest, FillKeepsWhatTheBufferHeld) {
    Prepare(0xAA);
    Put({1, 2, 3, 4, 5});
    EXPECT_EQ(m_stream.WriteRemainOpaque(5), 3u);
    ExpectAt(8, 5);  // not part of the extent yet
    m_stream.Write(6u);
    ExpectAt(12, 12);
    EXPECT_THAT(Extent(), ElementsAre(1, 2, 3, 4, 5, 0xAA, 0xAA, 0xAA, 0, 0, 0, 6));
}

// -------------------------------------------------------------------------------------------------
// The end of a record
// -------------------------------------------------------------------------------------------------

TEST_F(OutputStreamTest, EndRecordDropsWhatWasWrittenBeyondTheIndex) {
    Put({1, 2, 3, 4, 5, 6});
    m_stream.Seek(4, 0);
    m_stream.EndRecord();
    ExpectAt(4, 4);
}

TEST_F(OutputStreamTest, EndRecordTakesInAFillThatWasMovedOver) {
    Put({1, 2, 3, 4, 5});
    m_stream.WriteRemainOpaque(5);
    m_stream.EndRecord();
    ExpectAt(8, 8);
}

TEST_F(OutputStreamTest, EndRecordStaysInsideTheBuffer) {
    m_stream.Seek(BUFFER_SIZE - 1, 0);
    Put({1});
    m_stream.WriteRemainOpaque(1);
    m_stream.EndRecord();
    ExpectAt(BUFFER_SIZE, BUFFER_SIZE);
}

// -------------------------------------------------------------------------------------------------
// After a send
// -------------------------------------------------------------------------------------------------

TEST_F(OutputStreamTest, FreeingAllEmptiesTheStream) {
    Put({1, 2, 3, 4});
    m_stream.FreeBuffer(4);
    ExpectAt(0, 0);
    Put({1, 2, 3, 4});
    m_stream.FreeBuffer(5);
    ExpectAt(0, 0);
    // Also when the index lies beyond what is freed.
    Put({1, 2});
    m_stream.Seek(100, 0);
    m_stream.FreeBuffer(2);
    ExpectAt(0, 0);
}

TEST_F(OutputStreamTest, FreeingAPartMovesTheRestToTheFront) {
    Put({1, 2, 3, 4, 5, 6});
    m_stream.Seek(2, 0);
    m_stream.FreeBuffer(2);
    ExpectAt(0, 4);
    EXPECT_THAT(Extent(), ElementsAre(3, 4, 5, 6));
}

TEST_F(OutputStreamTest, FreeingAPartLeavesALargerIndexWhereItWas) {
    Put({1, 2, 3, 4, 5, 6});
    m_stream.Seek(3, 0);
    m_stream.FreeBuffer(2);
    ExpectAt(3, 4);  // neither reduced by 2 nor set to 0
    EXPECT_THAT(Extent(), ElementsAre(3, 4, 5, 6));
}

TEST_F(OutputStreamTest, FreeingNothingFromAnEmptyIndexKeepsTheExtent) {
    Put({1, 2, 3});
    m_stream.FreeBuffer(0);
    ExpectAt(3, 3);
    EXPECT_THAT(Extent(), ElementsAre(1, 2, 3));
}

TEST_F(OutputStreamTest, ResetForgetsEverything) {
    Put({1, 2, 3});
    m_stream.ResetBuffer();
    ExpectAt(0, 0);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE);
}

// -------------------------------------------------------------------------------------------------
// Against a plain model
// -------------------------------------------------------------------------------------------------

TEST_F(OutputStreamTest, BehavesLikeAPlainArrayWithIndexAndSize) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto below = [&random](std::uint64_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    };

    Prepare(0);
    Bytes model(BUFFER_SIZE);
    std::uint32_t index = 0;
    std::uint32_t size = 0;
    const auto write = [&](const Bytes& bytes) {
        const auto count = static_cast<std::uint32_t>(
            std::min<std::size_t>(bytes.size(), index < BUFFER_SIZE ? BUFFER_SIZE - index : 0));
        std::copy_n(bytes.begin(), count, model.begin() + std::min(index, BUFFER_SIZE));
        index += count;
        size = std::max(size, std::min(index, BUFFER_SIZE));
        return count;
    };
    for (int step = 0; step < 5'000 && !HasFailure(); ++step) {
        switch (below(7)) {
            case 0: {
                Bytes bytes(below(8) == 0 ? below(300'000) : below(20));
                std::generate(bytes.begin(), bytes.end(),
                              [&] { return static_cast<std::uint8_t>(random()); });
                ASSERT_EQ(Put(bytes), write(bytes));
                break;
            }
            case 1: {
                const auto value = static_cast<std::uint32_t>(random());
                ASSERT_EQ(m_stream.Write(value), write({static_cast<std::uint8_t>(value >> 24),
                                                        static_cast<std::uint8_t>(value >> 16),
                                                        static_cast<std::uint8_t>(value >> 8),
                                                        static_cast<std::uint8_t>(value)}));
                break;
            }
            case 2: {
                const std::uint32_t offset = below(8) == 0 ? below(BUFFER_SIZE + 10) : below(100);
                const auto whence = static_cast<int>(below(4));
                m_stream.Seek(offset, whence);
                index = whence == 0   ? offset
                        : whence == 1 ? index + offset
                        : whence == 2 ? size + offset
                                      : index;
                break;
            }
            case 3: {
                const std::uint32_t length = below(100);
                m_stream.WriteRemainOpaque(length);
                index += (4 - length % 4) % 4;
                break;
            }
            case 4: {
                const std::uint32_t sent = below(size + 2);
                m_stream.FreeBuffer(sent);
                if (size <= sent) {
                    index = size = 0;
                } else {
                    std::copy(model.begin() + sent, model.begin() + size, model.begin());
                    size -= sent;
                    index = index <= sent ? 0 : index;
                }
                break;
            }
            case 5:
                m_stream.EndRecord();
                index = size = std::min(index, BUFFER_SIZE);
                break;
            default:
                if (below(10) == 0) {
                    m_stream.ResetBuffer();
                    index = size = 0;
                }
        }
        ASSERT_EQ(m_stream.GetBufferIndex(), index);
        ASSERT_EQ(m_stream.GetBufferSize(), size);
        ASSERT_TRUE(std::equal(model.begin(), model.begin() + size, m_stream.GetBuffer()));
    }
}
