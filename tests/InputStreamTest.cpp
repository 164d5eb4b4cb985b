#include "InputStream.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <random>
#include <type_traits>

#include "DataException.h"
#include "support/Files.h"

using support::Bytes;
using testing::ElementsAre;

namespace {

constexpr std::uint32_t BUFFER_SIZE = 1'048'576;

void Receive(CInputStream& stream, const Bytes& bytes) {
    ASSERT_LE(bytes.size(), stream.GetFreeBufferSize());
    std::copy(bytes.begin(), bytes.end(), stream.GetFreeBuffer());
    stream.AddFilledBufferSize(static_cast<std::uint32_t>(bytes.size()));
}

// The unread bytes.
Bytes Unread(const CInputStream& stream) {
    const unsigned char* first = stream.GetCurrentBuffer();
    return Bytes(first, first + stream.GetFilledBufferSize());
}

// What a read that must fail says; the position must not move.
template <typename Action>
std::string Truncation(CInputStream& stream, Action action) {
    const std::uint32_t index = stream.GetBufferIndex();
    const std::uint32_t unread = stream.GetFilledBufferSize();
    std::string text = "nothing thrown";
    try {
        action();
    } catch (const CDataTruncatedExpt& error) {
        text = error.what();
    }
    EXPECT_EQ(stream.GetBufferIndex(), index);
    EXPECT_EQ(stream.GetFilledBufferSize(), unread);
    return text;
}

class InputStreamTest : public testing::Test {
protected:
    CInputStream m_stream;
};

}  // namespace

// -------------------------------------------------------------------------------------------------
// What both streams share
// -------------------------------------------------------------------------------------------------

TEST(SocketStreamTest, BufferHasOneMebibyteAndDoesNotGrow) {
    static_assert(CSocketStream::GetMaxBufferSize() == BUFFER_SIZE);
    const CInputStream stream;
    EXPECT_EQ(stream.GetMaxBufferSize(), BUFFER_SIZE);
    EXPECT_EQ(stream.GetFreeBufferSize(), BUFFER_SIZE);
}

TEST(SocketStreamTest, ReverseByteOrderReadsBigEndian) {
    const unsigned char wire[] = {0x12, 0x34, 0x56, 0xFF};
    std::uint32_t word = 0;
    std::memcpy(&word, wire, sizeof word);
    EXPECT_EQ(CSocketStream::ReverseByteOrder(&word), 0x123456FFu);
}

TEST(SocketStreamTest, IsTheBaseOfBothAndIsDestroyedVirtually) {
    static_assert(std::has_virtual_destructor_v<CSocketStream>);
    static_assert(std::is_base_of_v<CSocketStream, CInputStream>);
    static_assert(sizeof(CInputStream) == sizeof(CSocketStream));  // no fields of its own
    std::unique_ptr<CSocketStream> stream = std::make_unique<CInputStream>();
    stream.reset();  // a leak would be reported
}

// -------------------------------------------------------------------------------------------------
// The receiving end
// -------------------------------------------------------------------------------------------------

TEST_F(InputStreamTest, StartsEmpty) {
    EXPECT_EQ(m_stream.GetBufferIndex(), 0u);
    EXPECT_EQ(m_stream.GetFilledBufferSize(), 0u);
    EXPECT_EQ(m_stream.GetFreeBuffer(), m_stream.GetCurrentBuffer());
}

TEST_F(InputStreamTest, ReceivedBytesFollowOneAnother) {
    const unsigned char* start = m_stream.GetFreeBuffer();
    Receive(m_stream, {1, 2, 3});
    EXPECT_EQ(m_stream.GetFreeBuffer(), start + 3);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE - 3);
    Receive(m_stream, {4, 5});
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE - 5);
    EXPECT_EQ(m_stream.GetFilledBufferSize(), 5u);
    EXPECT_THAT(Unread(m_stream), ElementsAre(1, 2, 3, 4, 5));
}

TEST_F(InputStreamTest, FreeSizeCountsFromTheFilledExtentNotFromTheIndex) {
    Receive(m_stream, {1, 2, 3, 4});
    m_stream.Skip(3);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE - 4);
    EXPECT_EQ(m_stream.GetFilledBufferSize(), 1u);
}

TEST_F(InputStreamTest, CanBeFilledToTheLastByte) {
    Receive(m_stream, Bytes(BUFFER_SIZE, 7));
    EXPECT_EQ(m_stream.GetFreeBufferSize(), 0u);
    EXPECT_EQ(m_stream.GetFilledBufferSize(), BUFFER_SIZE);
    m_stream.SetBufferIndex(BUFFER_SIZE - 4);
    std::uint32_t last = 0;
    EXPECT_EQ(m_stream.Read(&last), 4u);
    EXPECT_EQ(last, 0x07070707u);
    EXPECT_EQ(Truncation(m_stream, [&] { m_stream.Skip(1); }), "Data is truncated.Missing 1 data");
}

TEST_F(InputStreamTest, ConsolidateMovesUnreadBytesToTheStart) {
    const unsigned char* start = m_stream.GetFreeBuffer();
    Receive(m_stream, {1, 2, 3, 4, 5, 6, 7, 8});
    m_stream.Skip(3);
    m_stream.ConsolidateBuffer(0);
    EXPECT_EQ(m_stream.GetBufferIndex(), 0u);
    EXPECT_EQ(m_stream.GetCurrentBuffer(), start);
    EXPECT_EQ(m_stream.GetFilledBufferSize(), 5u);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE - 5);
    EXPECT_THAT(Unread(m_stream), ElementsAre(4, 5, 6, 7, 8));
}

TEST_F(InputStreamTest, ConsolidateWaitsUntilTheIndexReachesItsLimit) {
    Receive(m_stream, {1, 2, 3, 4});
    m_stream.Skip(2);
    m_stream.ConsolidateBuffer(3);
    EXPECT_EQ(m_stream.GetBufferIndex(), 2u);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE - 4);
    m_stream.ConsolidateBuffer(2);
    EXPECT_EQ(m_stream.GetBufferIndex(), 0u);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE - 2);
    EXPECT_THAT(Unread(m_stream), ElementsAre(3, 4));
}

TEST_F(InputStreamTest, ConsolidateOfAFullyReadBufferFreesAllOfIt) {
    Receive(m_stream, Bytes(BUFFER_SIZE, 1));
    m_stream.Skip(BUFFER_SIZE);
    m_stream.ConsolidateBuffer(0);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE);
    EXPECT_EQ(m_stream.GetFilledBufferSize(), 0u);
}

TEST_F(InputStreamTest, ResetForgetsEverything) {
    Receive(m_stream, {1, 2, 3});
    m_stream.Skip(1);
    m_stream.ResetBuffer();
    EXPECT_EQ(m_stream.GetBufferIndex(), 0u);
    EXPECT_EQ(m_stream.GetFilledBufferSize(), 0u);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE);
}

TEST_F(InputStreamTest, ACountBeyondTheRoomIsCutToIt) {
    Receive(m_stream, {1, 2, 3});
    m_stream.AddFilledBufferSize(0xFFFFFFFF);
    EXPECT_EQ(m_stream.GetFreeBufferSize(), 0u);
    EXPECT_EQ(m_stream.GetFilledBufferSize(), BUFFER_SIZE);
}

// -------------------------------------------------------------------------------------------------
// Looking ahead
// -------------------------------------------------------------------------------------------------

TEST_F(InputStreamTest, IndexIsSetAndReadFreely) {
    Receive(m_stream, {1, 2, 3, 4});
    m_stream.SetBufferIndex(3);
    EXPECT_EQ(m_stream.GetBufferIndex(), 3u);
    EXPECT_THAT(Unread(m_stream), ElementsAre(4));
    m_stream.SetBufferIndex(1);
    EXPECT_THAT(Unread(m_stream), ElementsAre(2, 3, 4));
}

TEST_F(InputStreamTest, AnIndexBeyondTheReceivedBytesIsKeptAndLeavesNothingToRead) {
    Receive(m_stream, {1, 2, 3, 4});
    for (const std::uint32_t index : {5u, BUFFER_SIZE, BUFFER_SIZE + 1, 0xFFFFFFFFu}) {
        m_stream.SetBufferIndex(index);
        EXPECT_EQ(m_stream.GetBufferIndex(), index);
        EXPECT_EQ(m_stream.GetFilledBufferSize(), 0u);
        EXPECT_EQ(m_stream.GetFilledBuffer(0, 1), nullptr);
        unsigned char byte = 0;
        EXPECT_EQ(Truncation(m_stream, [&] { m_stream.Read(&byte, 1); }),
                  "Data is truncated.Missing 1 data");
    }
}

TEST_F(InputStreamTest, FilledBufferIsCountedFromTheIndexAndConsumesNothing) {
    Receive(m_stream, {1, 2, 3, 4, 5, 6});
    m_stream.Skip(1);
    const unsigned char* bytes = m_stream.GetFilledBuffer(2, 3);
    ASSERT_NE(bytes, nullptr);
    EXPECT_THAT(Bytes(bytes, bytes + 3), ElementsAre(4, 5, 6));
    EXPECT_EQ(m_stream.GetBufferIndex(), 1u);
    EXPECT_EQ(m_stream.GetFilledBufferSize(), 5u);
}

TEST_F(InputStreamTest, FilledBufferIsNullWhenItWouldPassTheReceivedBytes) {
    Receive(m_stream, {1, 2, 3, 4, 5, 6});
    m_stream.Skip(1);
    EXPECT_NE(m_stream.GetFilledBuffer(0, 5), nullptr);
    EXPECT_EQ(m_stream.GetFilledBuffer(0, 6), nullptr);
    EXPECT_NE(m_stream.GetFilledBuffer(4, 1), nullptr);
    EXPECT_EQ(m_stream.GetFilledBuffer(5, 1), nullptr);
    EXPECT_NE(m_stream.GetFilledBuffer(5, 0), nullptr);
    EXPECT_EQ(m_stream.GetFilledBuffer(6, 0), nullptr);
}

TEST_F(InputStreamTest, FilledBufferIsNullWhenOffsetAndLengthTogetherOverflow) {
    Receive(m_stream, {1, 2, 3, 4});
    EXPECT_EQ(m_stream.GetFilledBuffer(0xFFFFFFFF, 2), nullptr);
    EXPECT_EQ(m_stream.GetFilledBuffer(2, 0xFFFFFFFF), nullptr);
}

// -------------------------------------------------------------------------------------------------
// Reading
// -------------------------------------------------------------------------------------------------

TEST_F(InputStreamTest, ReadCopiesAndConsumes) {
    Receive(m_stream, {1, 2, 3, 4, 5});
    Bytes copy(3);
    EXPECT_EQ(m_stream.Read(copy.data(), 3), 3u);
    EXPECT_THAT(copy, ElementsAre(1, 2, 3));
    EXPECT_EQ(m_stream.GetBufferIndex(), 3u);
    EXPECT_THAT(Unread(m_stream), ElementsAre(4, 5));
}

TEST_F(InputStreamTest, ReadOfNothingSucceedsAtTheEnd) {
    EXPECT_EQ(m_stream.Read(nullptr, 0), 0u);
    EXPECT_EQ(m_stream.Skip(0), 0u);
}

TEST_F(InputStreamTest, WordsAreBigEndian) {
    Receive(m_stream, {0x01, 0x02, 0x03, 0x04, 0xFF, 0xFE, 0xFD, 0xFC});
    std::uint32_t word = 0;
    EXPECT_EQ(m_stream.Read(&word), 4u);
    EXPECT_EQ(word, 0x01020304u);
    EXPECT_EQ(m_stream.Read(&word), 4u);
    EXPECT_EQ(word, 0xFFFEFDFCu);
    EXPECT_EQ(m_stream.GetBufferIndex(), 8u);
}

TEST_F(InputStreamTest, WordsAreReadAtAnyPosition) {
    Receive(m_stream, {0, 0x80, 0x00, 0x00, 0x01});
    m_stream.Skip(1);
    std::uint32_t word = 0;
    m_stream.Read(&word);
    EXPECT_EQ(word, 0x80000001u);
}

TEST_F(InputStreamTest, DoubleWordsAreBigEndian) {
    Receive(m_stream, {0xF1, 0x02, 0x03, 0x04, 0x85, 0x06, 0x07, 0x08});
    std::uint64_t value = 0;
    EXPECT_EQ(m_stream.Read8(&value), 8u);
    EXPECT_EQ(value, 0xF102030485060708u);
    EXPECT_EQ(m_stream.GetBufferIndex(), 8u);
}

TEST_F(InputStreamTest, ReadPastTheEndThrowsWithTheShortfallAndConsumesNothing) {
    Receive(m_stream, {1, 2, 3});
    std::uint32_t word = 0;
    EXPECT_EQ(Truncation(m_stream, [&] { m_stream.Read(&word); }),
              "Data is truncated.Missing 1 data");
    Bytes copy(10);
    EXPECT_EQ(Truncation(m_stream, [&] { m_stream.Read(copy.data(), 10); }),
              "Data is truncated.Missing 7 data");
    EXPECT_THAT(copy, testing::Each(0));
    std::uint64_t value = 0;
    EXPECT_EQ(Truncation(m_stream, [&] { m_stream.Read8(&value); }),
              "Data is truncated.Missing 5 data");
    EXPECT_EQ(Truncation(m_stream, [&] { m_stream.Skip(0xFFFFFFFF); }),
              "Data is truncated.Missing 4294967292 data");
    EXPECT_THAT(Unread(m_stream), ElementsAre(1, 2, 3));
}

TEST_F(InputStreamTest, DoubleWordCutInItsSecondHalfConsumesNothing) {
    Receive(m_stream, {1, 2, 3, 4, 5, 6, 7});
    std::uint64_t value = 0;
    EXPECT_EQ(Truncation(m_stream, [&] { m_stream.Read8(&value); }),
              "Data is truncated.Missing 1 data");
}

TEST_F(InputStreamTest, SkipConsumesWithoutCopying) {
    Receive(m_stream, {1, 2, 3, 4});
    EXPECT_EQ(m_stream.Skip(3), 3u);
    EXPECT_THAT(Unread(m_stream), ElementsAre(4));
    EXPECT_EQ(Truncation(m_stream, [&] { m_stream.Skip(2); }), "Data is truncated.Missing 1 data");
}

TEST_F(InputStreamTest, FillOfAnOpaqueIsSkipped) {
    const std::uint32_t fills[] = {0, 3, 2, 1, 0, 3, 2, 1, 0};
    for (std::uint32_t length = 0; length <= 8; ++length) {
        m_stream.ResetBuffer();
        Receive(m_stream, {1, 2, 3, 4});
        EXPECT_EQ(m_stream.SkipRemainOpaque(length), fills[length]) << length;
        EXPECT_EQ(m_stream.GetBufferIndex(), fills[length]) << length;
    }
    EXPECT_EQ(m_stream.SkipRemainOpaque(0xFFFFFFFF), 1u);
}

TEST_F(InputStreamTest, FillThatIsMissingThrows) {
    Receive(m_stream, {1, 2});
    EXPECT_EQ(Truncation(m_stream, [&] { m_stream.SkipRemainOpaque(5); }),
              "Data is truncated.Missing 1 data");
    EXPECT_EQ(m_stream.SkipRemainOpaque(6), 2u);
    EXPECT_EQ(m_stream.SkipRemainOpaque(8), 0u);
}

// -------------------------------------------------------------------------------------------------
// Against a plain model
// -------------------------------------------------------------------------------------------------

TEST_F(InputStreamTest, BehavesLikeAPlainVectorWithAnIndex) {
    const std::uint64_t seed = support::RandomSeed();
    SCOPED_TRACE("VELOCAST_SEED=" + std::to_string(seed));
    std::mt19937_64 random(seed);
    const auto below = [&random](std::uint64_t limit) {
        return static_cast<std::uint32_t>(random() % limit);
    };

    Bytes model;  // every received byte that was not compacted away
    std::uint32_t index = 0;
    for (int step = 0; step < 20'000 && !HasFailure(); ++step) {
        const auto unread = static_cast<std::uint32_t>(model.size()) - index;
        const auto at = [&](std::uint32_t i) { return std::uint64_t{model[index + i]}; };
        switch (below(7)) {
            case 0: {
                Bytes bytes(below(4) == 0 ? below(100'000) : below(20));
                std::generate(bytes.begin(), bytes.end(),
                              [&] { return static_cast<std::uint8_t>(random()); });
                if (bytes.size() <= BUFFER_SIZE - model.size()) {
                    Receive(m_stream, bytes);
                    model.insert(model.end(), bytes.begin(), bytes.end());
                }
                break;
            }
            case 1: {
                const std::uint32_t limit = below(2) == 0 ? 0 : below(BUFFER_SIZE);
                m_stream.ConsolidateBuffer(limit);
                if (index >= limit) {
                    model.erase(model.begin(), model.begin() + index);
                    index = 0;
                }
                break;
            }
            case 2: {
                std::uint32_t word = 0;
                if (unread < 4) {
                    EXPECT_THROW(m_stream.Read(&word), CDataTruncatedExpt);
                } else {
                    EXPECT_EQ(m_stream.Read(&word), 4u);
                    EXPECT_EQ(word, at(0) << 24 | at(1) << 16 | at(2) << 8 | at(3));
                    index += 4;
                }
                break;
            }
            case 3: {
                std::uint64_t value = 0;
                if (unread < 8) {
                    EXPECT_THROW(m_stream.Read8(&value), CDataTruncatedExpt);
                } else {
                    EXPECT_EQ(m_stream.Read8(&value), 8u);
                    std::uint64_t expected = 0;
                    for (std::uint32_t i = 0; i < 8; ++i) {
                        expected = expected << 8 | at(i);
                    }
                    EXPECT_EQ(value, expected);
                    index += 8;
                }
                break;
            }
            case 4: {
                const std::uint32_t length = below(4) == 0 ? below(150'000) : below(30);
                if (length > unread) {
                    EXPECT_THROW(m_stream.Skip(length), CDataTruncatedExpt);
                } else {
                    EXPECT_EQ(m_stream.Skip(length), length);
                    index += length;
                }
                break;
            }
            case 5: {
                const std::uint32_t offset = below(40);
                const std::uint32_t length = below(60);
                const unsigned char* bytes = m_stream.GetFilledBuffer(offset, length);
                ASSERT_EQ(bytes != nullptr, offset + length <= unread);
                if (bytes != nullptr) {
                    EXPECT_TRUE(std::equal(bytes, bytes + length, model.begin() + index + offset));
                }
                break;
            }
            default:
                index = below(model.size() + 1);
                m_stream.SetBufferIndex(index);
        }
        ASSERT_EQ(m_stream.GetBufferIndex(), index);
        ASSERT_EQ(m_stream.GetFilledBufferSize(), model.size() - index);
        ASSERT_EQ(m_stream.GetFreeBufferSize(), BUFFER_SIZE - model.size());
    }
}
