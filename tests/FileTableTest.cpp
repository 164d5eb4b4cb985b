// File IDs, file handles, and which row a path resolves to.

#include "FileTable.h"

#include <sys/stat.h>

#include <array>
#include <optional>
#include <random>

#include "UtilitiesFixture.h"

using ::testing::Each;
using ::testing::ElementsAre;

namespace {

std::string Numbered(const char* pcPrefix, std::size_t i) { return pcPrefix + std::to_string(i); }

// Adds rows pcPrefix + 0, 1, 2 ...
void AddRows(CFileTable* pTable, const char* pcPrefix, std::size_t iCount) {
    for (std::size_t i = 0; i < iCount; ++i) {
        pTable->AddItem(Numbered(pcPrefix, i).c_str());
    }
}

std::uint32_t FindID(CFileTable* pTable, const std::string& sPath) {
    const FileItem* pItem = pTable->FindItemByPath(sPath.c_str());
    return pItem != nullptr ? pItem->iID : FILE_ID_NONE;
}

}  // namespace

TEST(FileTableTest, TheFirstPathGetsIdZero) {
    CFileTable table;
    EXPECT_EQ(0u, table.GetIDByPath("/export"));
}

TEST(FileTableTest, IdsCountUpWithoutGapsAcrossBuckets) {
    CFileTable table;
    for (std::uint32_t i = 0; i < 3000; ++i) {
        ASSERT_EQ(i, table.GetIDByPath(Numbered("/f", i).c_str()));
    }
}

TEST(FileTableTest, Path1025IsRowZeroOfTheSecondBucket) {
    CFileTable table;
    AddRows(&table, "/f", 1024);
    EXPECT_EQ(1024u, table.GetIDByPath("/f1024"));
    ASSERT_NE(nullptr, table.GetItemByID(1024));
    EXPECT_EQ("/f1024", table.GetItemByID(1024)->sPath);
    EXPECT_EQ("/f1023", table.GetItemByID(1023)->sPath);
}

TEST(FileTableTest, TheSamePathKeepsItsId) {
    CFileTable table;
    AddRows(&table, "/f", 2000);
    EXPECT_EQ(1500u, table.GetIDByPath("/f1500"));
    EXPECT_EQ(1500u, table.GetIDByPath("/f1500"));
    EXPECT_EQ(2000u, table.GetIDByPath("/next"));
}

TEST(FileTableTest, LetterCaseMakesAnotherPath) {
    CFileTable table;
    EXPECT_EQ(0u, table.GetIDByPath("/export/Disk"));
    EXPECT_EQ(1u, table.GetIDByPath("/export/disk"));
}

TEST(FileTableTest, BytesOutsideAsciiAreComparedAsTheyAre) {
    CFileTable table;
    EXPECT_EQ(0u, table.GetIDByPath("/\xC3\xA4"));
    EXPECT_EQ(1u, table.GetIDByPath("/a\xCC\x88"));
    EXPECT_EQ(2u, table.GetIDByPath("/\xFF\xFE"));
    EXPECT_EQ(0u, table.GetIDByPath("/\xC3\xA4"));
}

TEST(FileTableTest, ANullPathHasNoRow) {
    CFileTable table;
    EXPECT_EQ(0xFFFFFFFFu, table.GetIDByPath(nullptr));
    EXPECT_EQ(nullptr, table.AddItem(nullptr));
    EXPECT_EQ(nullptr, table.FindItemByPath(nullptr));
    EXPECT_EQ(0u, table.GetIDByPath("/first")) << "no row was made";
}

TEST(FileTableTest, AddItemAppendsEvenWhatIsThere) {
    CFileTable table;
    EXPECT_EQ(0u, table.AddItem("/twice")->iID);
    EXPECT_EQ(1u, table.AddItem("/twice")->iID);
    EXPECT_EQ(0u, FindID(&table, "/twice"));
}

TEST(FileTableTest, RowsKeepTheirPlaceWhileTheTableGrows) {
    CFileTable table;
    const FileItem* pFirst = table.AddItem("/first");
    AddRows(&table, "/f", 5000);
    EXPECT_EQ(pFirst, table.GetItemByID(0));
    EXPECT_EQ("/first", pFirst->sPath);
}

TEST(FileTableTest, IdsBeyondTheLastRowHaveNoItem) {
    CFileTable table;
    EXPECT_EQ(nullptr, table.GetItemByID(0)) << "no bucket at all";
    AddRows(&table, "/f", 1025);
    EXPECT_NE(nullptr, table.GetItemByID(1024));
    for (const std::uint32_t iID : {1025u, 2047u, 2048u, 0x7FFFFFFFu, 0xFFFFFFFEu, 0xFFFFFFFFu}) {
        EXPECT_EQ(nullptr, table.GetItemByID(iID)) << iID;
        EXPECT_FALSE(table.GetPathByID(iID, nullptr, 0)) << iID;
    }
}

TEST(FileTableTest, AFindDoesNotAddARow) {
    CFileTable table;
    EXPECT_EQ(nullptr, table.FindItemByPath("/unknown"));
    EXPECT_EQ(0u, table.GetIDByPath("/first"));
}

TEST(FileTableTest, ThePathMustBeShorterThanTheBuffer) {
    CFileTable table;
    table.AddItem("/1234");
    char cBuf[8];
    std::fill(std::begin(cBuf), std::end(cBuf), '#');
    EXPECT_FALSE(table.GetPathByID(0, cBuf, 4));
    EXPECT_FALSE(table.GetPathByID(0, cBuf, 5)) << "no room for the terminating zero";
    EXPECT_FALSE(table.GetPathByID(0, cBuf, 0));
    EXPECT_FALSE(table.GetPathByID(0, cBuf, -1));
    EXPECT_THAT(cBuf, Each('#')) << "nothing is written on failure";
    EXPECT_TRUE(table.GetPathByID(0, cBuf, 6));
    EXPECT_STREQ("/1234", cBuf);
    EXPECT_EQ('#', cBuf[6]);
}

TEST(FileTableTest, APathAsLongAsTheProtocolBufferIsNotCopied) {
    CFileTable table;
    const std::string sLong = "/" + std::string(4095, 'x');
    const std::string sFits = "/" + std::string(4094, 'x');
    EXPECT_EQ(0u, table.GetIDByPath(sLong.c_str()));
    EXPECT_EQ(1u, table.GetIDByPath(sFits.c_str()));
    char cBuf[4096];
    EXPECT_FALSE(table.GetPathByID(0, cBuf, sizeof(cBuf)));
    EXPECT_TRUE(table.GetPathByID(0, nullptr, 0)) << "the row exists all the same";
    EXPECT_TRUE(table.GetPathByID(1, cBuf, sizeof(cBuf)));
    EXPECT_EQ(sFits, cBuf);
}

TEST(FileTableTest, ANullBufferAsksWhetherTheIdExists) {
    CFileTable table;
    table.AddItem("/a");
    EXPECT_TRUE(table.GetPathByID(0, nullptr, 0));
    EXPECT_FALSE(table.GetPathByID(1, nullptr, 4096));
}

TEST(FileTableTest, MatchingNeedsLengthAndBytesToBeEqual) {
    const FileItem item{"/abc", 0};
    EXPECT_TRUE(CFileTable::IsMatchItem(&item, "/abc", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, "/abd", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, "/ABC", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, "/abc", 3));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, "/abcd", 5));
    EXPECT_FALSE(CFileTable::IsMatchItem(nullptr, "/abc", 4));
    EXPECT_FALSE(CFileTable::IsMatchItem(&item, nullptr, 4));
}

TEST(FileTableTest, ARenameKeepsTheId) {
    CFileTable table;
    table.AddItem("/a");
    table.AddItem("/b");
    EXPECT_TRUE(table.UpdateItemPath("/b", "/c"));
    EXPECT_EQ("/c", table.GetItemByID(1)->sPath);
    EXPECT_EQ(1u, FindID(&table, "/c"));
    EXPECT_EQ(FILE_ID_NONE, FindID(&table, "/b"));
    EXPECT_EQ(2u, table.GetIDByPath("/b")) << "the old path is a new one now";
}

TEST(FileTableTest, ARenameNeedsBothPathsAndARow) {
    CFileTable table;
    table.AddItem("/a");
    EXPECT_FALSE(table.UpdateItemPath(nullptr, "/b"));
    EXPECT_FALSE(table.UpdateItemPath("/a", nullptr));
    EXPECT_FALSE(table.UpdateItemPath("/unknown", "/b"));
    EXPECT_FALSE(table.UpdateItemPath("/A", "/b"));
    EXPECT_EQ("/a", table.GetItemByID(0)->sPath);
}

TEST(FileTableTest, ARenamedFolderLeavesTheRowsBelowIt) {
    CFileTable table;
    table.AddItem("/d");
    table.AddItem("/d/f");
    EXPECT_TRUE(table.UpdateItemPath("/d", "/e"));
    EXPECT_EQ("/d/f", table.GetItemByID(1)->sPath);
    EXPECT_EQ(FILE_ID_NONE, FindID(&table, "/e/f"));
}

TEST(FileTableTest, ATakenPlaceIsNotThatOfTheRowLeftBehind) {
    CFileTable table;
    table.AddItem("/d/f");
    table.AddItem("/d2/f");
    EXPECT_FALSE(table.HasLeftBehind("/d/f"));
    table.LeaveBehind("/d", "/e", true);
    EXPECT_TRUE(table.IsLeftBehind(0));
    EXPECT_FALSE(table.IsLeftBehind(1)) << "only begins alike";
    EXPECT_TRUE(table.HasLeftBehind("/d/f"));
    EXPECT_FALSE(table.HasLeftBehind("/e/f")) << "keeps its path";
    EXPECT_FALSE(table.HasLeftBehind(nullptr));
    EXPECT_EQ(0u, table.GetIDByPath("/d/f")) << "nothing has come there";
    EXPECT_FALSE(table.UpdateItemPath("/d/f", "/x", true));
    EXPECT_EQ(2u, table.GetIDByPath("/d/f", true));
    EXPECT_EQ(2u, table.GetIDByPath("/d/f", true));
    EXPECT_EQ(0u, table.GetIDByPath("/d/f"));
    EXPECT_TRUE(table.UpdateItemPath("/d/f", "/x", true));
    EXPECT_EQ("/x", table.GetItemByID(2)->sPath);
}

TEST(FileTableTest, ARowLeftBehindCountsAgainWhenItsObjectIsBack) {
    CFileTable table;
    table.AddItem("/d/f");
    table.AddItem("/d/g/h");
    table.LeaveBehind("/d", "/e", true);
    table.LeaveBehind("/e", "/k/e", true);
    table.LeaveBehind("/k/e/f", "/f", false);
    table.LeaveBehind("/d", "/nowhere", true);  // their objects are not there any more
    EXPECT_TRUE(table.IsLeftBehind(0));
    table.LeaveBehind("/f", "/d/f", false);
    EXPECT_FALSE(table.IsLeftBehind(0));
    EXPECT_TRUE(table.IsLeftBehind(1));
    table.LeaveBehind("/k/e", "/d", true);
    EXPECT_FALSE(table.IsLeftBehind(1));
    EXPECT_EQ(1u, table.GetIDByPath("/d/g/h", true));
}

TEST(FileTableTest, ARowThatIsRenamedByItsPathIsNotLeftBehind) {
    CFileTable table;
    table.AddItem("/d/f");
    table.LeaveBehind("/d", "/e", true);
    EXPECT_TRUE(table.UpdateItemPath("/d/f", "/x"));
    EXPECT_FALSE(table.IsLeftBehind(0));
}

TEST(FileTableTest, ARowKeepsItsPathWhenItsFileIsLeftToMoveAlone) {
    CFileTable table;
    table.AddItem("/f");
    table.AddItem("/f/below");
    table.LeaveBehind("/f", "/g", false);
    EXPECT_EQ("/f", table.GetItemByID(0)->sPath);
    EXPECT_TRUE(table.IsLeftBehind(0));
    EXPECT_FALSE(table.IsLeftBehind(1)) << "not of a folder";
    table.Clear();
    table.AddItem("/f");
    EXPECT_FALSE(table.IsLeftBehind(0));
}

TEST(FileTableTest, ClearStartsFromZeroAndForgetsEverything) {
    CFileTable table;
    AddRows(&table, "/f", 1500);
    EXPECT_EQ(7u, FindID(&table, "/f7"));  // cached
    table.Clear();
    EXPECT_EQ(nullptr, table.GetItemByID(0));
    EXPECT_EQ(FILE_ID_NONE, FindID(&table, "/f7"));
    EXPECT_EQ(0u, table.GetIDByPath("/f9"));
    EXPECT_EQ(1u, table.GetIDByPath("/f7"));
}

// --- Duplicates: renames may give several rows one path ---

TEST(FileTableDuplicatesTest, TheOldestCacheEntryWinsOverALowerRow) {
    CFileTable table;
    table.AddItem("/a");
    table.AddItem("/b");
    EXPECT_EQ(1u, FindID(&table, "/b"));            // cached first
    EXPECT_TRUE(table.UpdateItemPath("/a", "/b"));  // its own search caches row 0 second
    EXPECT_EQ(1u, FindID(&table, "/b"));
}

TEST(FileTableDuplicatesTest, WithoutACacheEntryTheLowestRowWins) {
    CFileTable table;
    table.AddItem("/x");
    table.AddItem("/x");
    table.AddItem("/x");
    EXPECT_EQ(0u, FindID(&table, "/x"));
    EXPECT_TRUE(table.UpdateItemPath("/x", "/y"));  // the cached row 0
    EXPECT_EQ(1u, FindID(&table, "/x"));
    EXPECT_TRUE(table.UpdateItemPath("/x", "/y"));
    EXPECT_EQ(2u, FindID(&table, "/x"));
    EXPECT_EQ(0u, FindID(&table, "/y")) << "row 0 was cached before row 1";
}

TEST(FileTableDuplicatesTest, ACachedRowStaysFoundUnderItsNewPath) {
    CFileTable table;
    table.AddItem("/low");
    table.AddItem("/high");
    EXPECT_TRUE(table.UpdateItemPath("/high", "/tmp"));  // row 1 enters the cache
    EXPECT_TRUE(table.UpdateItemPath("/tmp", "/low"));
    EXPECT_EQ(1u, FindID(&table, "/low")) << "the uncached row 0 is not looked at";
}

TEST(FileTableDuplicatesTest, ReturningToAnEarlierPathCachesNothingTwice) {
    CFileTable table;
    table.AddItem("/a");
    EXPECT_TRUE(table.UpdateItemPath("/a", "/b"));
    EXPECT_TRUE(table.UpdateItemPath("/b", "/a"));
    EXPECT_TRUE(table.UpdateItemPath("/a", "/a"));
    EXPECT_EQ(0u, FindID(&table, "/a"));
    EXPECT_EQ(FILE_ID_NONE, FindID(&table, "/b"));
}

// What the cache holds shows through duplicates: row 1024 + i is cached under the path of the
// uncached row i, so a search finds the high row exactly while that is in the cache.
class FileTableCacheTest : public ::testing::Test {
protected:
    static constexpr std::size_t CACHE_SIZE = 1024;

    FileTableCacheTest() {
        AddRows(&m_Table, "/t", CACHE_SIZE);
        AddRows(&m_Table, "/h", CACHE_SIZE);
        m_Table.AddItem("/extra");
        for (std::size_t i = 0; i < CACHE_SIZE; ++i) {
            m_Table.UpdateItemPath(Numbered("/h", i).c_str(), Numbered("/t", i).c_str());
        }
    }

    bool IsCached(std::size_t i) { return FindID(&m_Table, Numbered("/t", i)) == CACHE_SIZE + i; }

    CFileTable m_Table;
};

TEST_F(FileTableCacheTest, Holds1024Rows) {
    for (std::size_t i = 0; i < CACHE_SIZE; ++i) {
        ASSERT_TRUE(IsCached(i)) << i;
    }
}

TEST_F(FileTableCacheTest, TheNextFullSearchDropsThe102Oldest) {
    EXPECT_EQ(2 * CACHE_SIZE, FindID(&m_Table, "/extra"));
    for (std::size_t i = 102; i < CACHE_SIZE; ++i) {
        ASSERT_TRUE(IsCached(i)) << i;
    }
    // Each miss enters the cache, which has room for 101 more.
    for (std::size_t i = 101; i > 0; --i) {
        ASSERT_FALSE(IsCached(i)) << i;
    }
}

TEST_F(FileTableCacheTest, AHitDoesNotMakeARowYounger) {
    ASSERT_TRUE(IsCached(0));
    ASSERT_TRUE(IsCached(101));
    EXPECT_EQ(2 * CACHE_SIZE, FindID(&m_Table, "/extra"));
    EXPECT_FALSE(IsCached(0));
    EXPECT_FALSE(IsCached(101));
}

TEST_F(FileTableCacheTest, AHitInAFullCacheDropsNothing) {
    ASSERT_TRUE(IsCached(500));
    EXPECT_TRUE(IsCached(0));
}

TEST_F(FileTableCacheTest, ASearchWithoutAMatchDropsNothing) {
    EXPECT_EQ(FILE_ID_NONE, FindID(&m_Table, "/unknown"));
    EXPECT_TRUE(IsCached(0));
}

TEST_F(FileTableCacheTest, ANewRowIsNotCached) {
    for (std::size_t i = 0; i < 5; ++i) {
        m_Table.GetIDByPath(Numbered("/new", i).c_str());
    }
    EXPECT_TRUE(IsCached(0)) << "nothing was dropped for the new rows";
}

// --- The indexes against the walk that defines the answer ---

// The table as a plain list: every search walks the cache and then all rows.
class CLinearTable {
public:
    std::uint32_t GetIDByPath(const std::string& sPath) {
        const std::optional<std::uint32_t> iFound = Find(sPath);
        return iFound ? *iFound : Add(sPath);
    }
    bool Update(const std::string& sOld, const std::string& sNew) {
        const std::optional<std::uint32_t> iFound = Find(sOld);
        if (iFound) {
            m_vRows[*iFound] = sNew;
        }
        return iFound.has_value();
    }
    std::uint32_t Add(const std::string& sPath) {
        m_vRows.push_back(sPath);
        return static_cast<std::uint32_t>(m_vRows.size() - 1);
    }
    std::optional<std::uint32_t> Find(const std::string& sPath) {
        for (const std::uint32_t iID : m_vCache) {
            if (m_vRows[iID] == sPath) {
                return iID;
            }
        }
        const auto it = std::find(m_vRows.begin(), m_vRows.end(), sPath);
        if (it == m_vRows.end()) {
            return std::nullopt;
        }
        if (m_vCache.size() > 1023) {
            const std::size_t iDrop = m_vCache.size() / 10;
            for (std::size_t i = 0; i < iDrop; ++i) {
                m_vCache.erase(m_vCache.begin());
            }
            ++m_iEvictions;
        }
        m_vCache.push_back(static_cast<std::uint32_t>(it - m_vRows.begin()));
        return m_vCache.back();
    }
    void Clear() {
        m_vRows.clear();
        m_vCache.clear();
    }

    std::vector<std::string> m_vRows;
    std::vector<std::uint32_t> m_vCache;
    int m_iEvictions = 0;
};

class FileTableAgainstLinearWalkTest : public ::testing::TestWithParam<std::uint64_t> {};

TEST_P(FileTableAgainstLinearWalkTest, GivesTheSameAnswers) {
    const std::uint64_t iSeed = GetParam() != 0 ? GetParam() : support::RandomSeed();
    SCOPED_TRACE("seed " + std::to_string(iSeed));
    std::mt19937_64 random(iSeed);
    // Below the cache's size everything found stays cached; above it, the cache churns.
    const std::size_t iPool = 1400 + iSeed % 3 * 400;
    const auto pick = [&] { return Numbered("/", random() % iPool); };

    CFileTable table;
    CLinearTable model;
    int iDuplicates = 0;
    for (int iStep = 0; iStep < 25'000; ++iStep) {
        const std::uint64_t iDice = random() % 1000;
        const std::string sPath = pick();
        if (iDice < 500) {
            ASSERT_EQ(model.GetIDByPath(sPath), table.GetIDByPath(sPath.c_str()))
                << "step " << iStep;
        } else if (iDice < 750) {
            ASSERT_EQ(model.Find(sPath).value_or(FILE_ID_NONE), FindID(&table, sPath))
                << "step " << iStep;
        } else if (iDice < 960) {
            const std::string sNew = pick();
            ASSERT_EQ(model.Update(sPath, sNew), table.UpdateItemPath(sPath.c_str(), sNew.c_str()))
                << "step " << iStep;
            ++iDuplicates;
        } else if (iDice < 980) {
            ASSERT_EQ(model.Add(sPath), table.AddItem(sPath.c_str())->iID) << "step " << iStep;
        } else {
            const auto iID = static_cast<std::uint32_t>(random() % (iPool + 200));
            char cBuf[16] = "";
            const bool bExists = iID < model.m_vRows.size();
            ASSERT_EQ(bExists, table.GetPathByID(iID, cBuf, sizeof(cBuf))) << "step " << iStep;
            ASSERT_EQ(bExists ? model.m_vRows[iID] : "", cBuf) << "step " << iStep;
        }
        if (iStep == 20'000) {
            model.Clear();
            table.Clear();
        }
    }
    for (std::size_t iID = 0; iID < model.m_vRows.size(); ++iID) {
        ASSERT_EQ(model.m_vRows[iID], table.GetItemByID(static_cast<std::uint32_t>(iID))->sPath);
    }
    EXPECT_GT(model.m_iEvictions, 5) << "the run has to reach evictions to mean something";
    EXPECT_GT(iDuplicates, 1000);
}

// 0 stands for a seed of the day.
INSTANTIATE_TEST_SUITE_P(Seeds, FileTableAgainstLinearWalkTest, ::testing::Values(1, 2, 3, 4, 0));

TEST(FileTableTest, AMillionPathsDoNotSlowLookupsDown) {
    // A walk over the rows would need days for this.
    constexpr std::uint32_t iCount = 1'000'000;
    const std::uint64_t iSeed = support::RandomSeed();
    SCOPED_TRACE("seed " + std::to_string(iSeed));
    CFileTable table;
    for (std::uint32_t i = 0; i < iCount; ++i) {
        ASSERT_EQ(i, table.GetIDByPath(Numbered("/vm/", i).c_str()));
    }
    std::mt19937_64 random(iSeed);
    for (int i = 0; i < 200'000; ++i) {
        const std::size_t iPath = random() % iCount;
        ASSERT_EQ(iPath, table.GetIDByPath(Numbered("/vm/", iPath).c_str()));
    }
}

// --- File handles ---

class FileHandlesTest : public UtilitiesFixture {
protected:
    using Handle = std::array<unsigned char, 56>;

    Handle MakeHandle(const std::string& sPath) {
        Handle handle;
        handle.fill(0xEE);
        EXPECT_TRUE(m_Utilities.GetFileHandle(&m_Silent, &m_Argu, sPath.c_str(), handle.data(),
                                              static_cast<int>(handle.size())));
        return handle;
    }
    // The path of a handle; nothing when it has none.
    std::optional<std::string> Resolve(const Handle& handle) {
        char cPath[PATH_SIZE];
        if (!m_Utilities.GetFilePath(&m_Silent, handle.data(), cPath, sizeof(cPath))) {
            return std::nullopt;
        }
        return cPath;
    }
    static Handle HandleOf(unsigned char a, unsigned char b, unsigned char c, unsigned char d) {
        return Handle{a, b, c, d};
    }
};

TEST_F(FileHandlesTest, TheFirstHandleIsAllZeroAndValid) {
    const Handle handle = MakeHandle("/none/first");
    EXPECT_THAT(handle, Each(0));
    EXPECT_EQ("/none/first", Resolve(Handle{}));
}

TEST_F(FileHandlesTest, Path1025IsEncodedLeastSignificantByteFirst) {
    for (std::size_t i = 0; i < 1024; ++i) {
        m_Utilities.GetFileID(&m_Silent, &m_Argu, Numbered("/none/", i).c_str());
    }
    const Handle handle = MakeHandle("/none/1024");
    EXPECT_EQ(HandleOf(0x00, 0x04, 0x00, 0x00), handle);  // file ID 1024; 52 bytes of zero
    EXPECT_EQ("/none/1024", Resolve(handle));
}

TEST_F(FileHandlesTest, TheLargerBufferOfMountIsFilledWithZeros) {
    m_Utilities.GetFileID(&m_Silent, &m_Argu, "/none/0");
    std::array<unsigned char, 88> handle;
    handle.fill(0xEE);
    ASSERT_TRUE(m_Utilities.GetFileHandle(&m_Silent, &m_Argu, "/none/1", handle.data(),
                                          static_cast<int>(handle.size())));
    std::array<unsigned char, 88> expected{};
    expected[0] = 1;
    EXPECT_EQ(expected, handle);
}

TEST_F(FileHandlesTest, ABufferOfFourBytesOrLessIsZeroedAndRefused) {
    unsigned char cBuf[5] = {9, 9, 9, 9, 9};
    EXPECT_FALSE(m_Utilities.GetFileHandle(&m_Silent, &m_Argu, "/none/a", cBuf, 4));
    EXPECT_THAT(cBuf, ElementsAre(0, 0, 0, 0, 9));
    EXPECT_FALSE(m_Utilities.GetFileHandle(&m_Silent, &m_Argu, "/none/a", cBuf, 0));
    EXPECT_FALSE(m_Utilities.GetFileHandle(&m_Silent, &m_Argu, "/none/a", cBuf, -1));
    EXPECT_TRUE(m_Utilities.GetFileHandle(&m_Silent, &m_Argu, "/none/b", cBuf, 5));
    EXPECT_THAT(cBuf, ElementsAre(0, 0, 0, 0, 0)) << "the refused path took no ID";
}

TEST_F(FileHandlesTest, ANullBufferIsRefused) {
    EXPECT_FALSE(m_Utilities.GetFileHandle(&m_Silent, &m_Argu, "/none/a", nullptr, 56));
    char cPath[PATH_SIZE];
    EXPECT_FALSE(m_Utilities.GetFilePath(&m_Silent, nullptr, cPath, sizeof(cPath)));
}

TEST_F(FileHandlesTest, FourBytesOfFFResolveToNothing) {
    m_Utilities.GetFileID(&m_Silent, &m_Argu, "/none/a");
    EXPECT_EQ(std::nullopt, Resolve(HandleOf(0xFF, 0xFF, 0xFF, 0xFF)));
}

TEST_F(FileHandlesTest, AnUnknownIdResolvesToNothing) {
    EXPECT_EQ(std::nullopt, Resolve(Handle{})) << "the table is empty";
    m_Utilities.GetFileID(&m_Silent, &m_Argu, "/none/a");
    EXPECT_EQ(std::nullopt, Resolve(HandleOf(1, 0, 0, 0)));
    EXPECT_EQ(std::nullopt, Resolve(HandleOf(0, 4, 0, 0))) << "a missing bucket";
    EXPECT_EQ(std::nullopt, Resolve(HandleOf(0, 0, 0, 0x80)));
}

TEST_F(FileHandlesTest, OnlyTheFirstFourBytesMatter) {
    m_Utilities.GetFileID(&m_Silent, &m_Argu, "/none/a");
    Handle handle;
    handle.fill(0xFF);
    std::fill_n(handle.begin(), 4, static_cast<unsigned char>(0));
    EXPECT_EQ("/none/a", Resolve(handle));
}

TEST_F(FileHandlesTest, APathThatDoesNotFitTheBufferResolvesToNothing) {
    const Handle handle = MakeHandle("/none/a");
    char cPath[PATH_SIZE];
    EXPECT_FALSE(m_Utilities.GetFilePath(&m_Silent, handle.data(), cPath, 7));
    EXPECT_TRUE(m_Utilities.GetFilePath(&m_Silent, handle.data(), cPath, 8));
}

TEST_F(FileHandlesTest, SpellingsOfOneExistingPathShareAnId) {
    ASSERT_EQ(0, symlink(m_Dir.Path().c_str(), (m_Dir / "link").c_str()));
    const std::string sRow = "/none/row";  // so that the ID is not the first one
    m_Utilities.GetFileID(&m_Silent, &m_Argu, sRow.c_str());
    EXPECT_EQ(1u, m_Utilities.GetFileID(&m_Silent, &m_Argu, m_Dir.Path().c_str()));
    EXPECT_EQ(1u, m_Utilities.GetFileID(&m_Silent, &m_Argu, (m_Dir / "").c_str()));
    EXPECT_EQ(1u, m_Utilities.GetFileID(&m_Silent, &m_Argu, (m_Dir / "./.").c_str()));
    EXPECT_EQ(1u, m_Utilities.GetFileID(&m_Silent, &m_Argu, (m_Dir / "link").c_str()));
    EXPECT_EQ(m_Dir.Path(), Resolve(HandleOf(1, 0, 0, 0)));
}

TEST_F(FileHandlesTest, GetFileIdReportsTheCanonicalPathUnderTheCallersName) {
    m_Utilities.GetFileID(&m_General, &m_Argu, (m_Dir / ".").c_str());
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Get canonical path successfully: " + m_Dir.Path()));
}

TEST_F(FileHandlesTest, ResetStartsFromZeroAndOldHandlesMayMeanAnotherPath) {
    MakeHandle("/none/a");
    const Handle handle = MakeHandle("/none/b");
    m_Utilities.ResetFileTable();
    EXPECT_EQ(std::nullopt, Resolve(handle));
    EXPECT_EQ(0u, m_Utilities.GetFileID(&m_Silent, &m_Argu, "/none/c"));
    EXPECT_EQ("/none/c", Resolve(Handle{}));
}
