#include "DataException.h"

#include <gtest/gtest.h>

#include <memory>
#include <stdexcept>
#include <type_traits>

TEST(DataTruncatedExptTest, TextTellsWhatIsMissing) {
    EXPECT_STREQ(CDataTruncatedExpt(4, 3).what(), "Data is truncated.Missing 1 data");
    EXPECT_STREQ(CDataTruncatedExpt(1000, 0).what(), "Data is truncated.Missing 1000 data");
}

TEST(DataTruncatedExptTest, TheDifferenceIsUnsigned) {
    EXPECT_STREQ(CDataTruncatedExpt(0xFFFFFFFF, 0).what(),
                 "Data is truncated.Missing 4294967295 data");
    EXPECT_STREQ(CDataTruncatedExpt(0x80000005, 5).what(),
                 "Data is truncated.Missing 2147483648 data");
}

TEST(DataTruncatedExptTest, IsARuntimeErrorWithAnEmptyMessageOfItsOwn) {
    static_assert(std::is_base_of_v<std::runtime_error, CDataTruncatedExpt>);
    const CDataTruncatedExpt error(8, 6);
    EXPECT_STREQ(error.std::runtime_error::what(), "");
    // Through the base, the text is still the derived one.
    const std::exception& base = error;
    EXPECT_STREQ(base.what(), "Data is truncated.Missing 2 data");
}

TEST(DataTruncatedExptTest, ACopyOutlivesWhatWasThrown) {
    std::unique_ptr<CDataTruncatedExpt> copy;
    try {
        throw CDataTruncatedExpt(12, 5);
    } catch (const CDataTruncatedExpt& error) {
        copy = std::make_unique<CDataTruncatedExpt>(error);
    }
    EXPECT_STREQ(copy->what(), "Data is truncated.Missing 7 data");
}
