// File access by path, the system calls with their reports, and what a file system says of itself.

#include <fcntl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <functional>
#include <tuple>

#include "support/Faults.h"
#include "UtilitiesFixture.h"

namespace faults = support::faults;

using ::testing::Contains;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

namespace {

// A folder with a file of ten bytes, an empty folder, and descriptors that refuse things.
class UtilitiesFileTest : public UtilitiesFixture {
protected:
    UtilitiesFileTest() {
        support::WriteFile(m_sFile, "0123456789");
        std::filesystem::create_directory(m_sFolder);
        m_iFile = ::open(m_sFile.c_str(), O_RDWR);
        m_iReadOnly = ::open(m_sFile.c_str(), O_RDONLY);
        m_iFolder = ::open(m_sFolder.c_str(), O_RDONLY | O_DIRECTORY);
        if (pipe(m_iPipe) != 0) {
            throw std::runtime_error("pipe");
        }
    }
    ~UtilitiesFileTest() override {
        for (const int iFile : {m_iFile, m_iReadOnly, m_iFolder, m_iPipe[0], m_iPipe[1]}) {
            ::close(iFile);
        }
    }

    std::string Content() const { return support::ReadFile(m_sFile); }
    std::uint32_t FileID(const std::string& sPath) {
        return m_Utilities.GetFileID(&m_Silent, &m_Argu, sPath.c_str());
    }
    int Cached(const std::string& sPath) {
        return m_Utilities.GetCachedFileHandle(&m_Silent, &m_Argu, sPath.c_str(), false);
    }

    const std::string m_sFile = m_Dir / "file";
    const std::string m_sFolder = m_Dir / "folder";
    const std::string m_sNone = m_Dir / "none";
    int m_iFile = -1;
    int m_iReadOnly = -1;
    int m_iFolder = -1;
    int m_iPipe[2] = {-1, -1};
    faults::Guard m_Faults;
};

// A file system with room for one page of data.
class CTinyFileSystem {
public:
    explicit CTinyFileSystem(const std::string& sFolder) : m_sFolder(sFolder) {
        std::filesystem::create_directory(sFolder);
        if (mount("tmpfs", sFolder.c_str(), "tmpfs", 0, "size=4k") != 0) {
            throw std::runtime_error("mount " + sFolder);
        }
    }
    ~CTinyFileSystem() { umount2(m_sFolder.c_str(), MNT_DETACH); }
    CTinyFileSystem(const CTinyFileSystem&) = delete;
    CTinyFileSystem& operator=(const CTinyFileSystem&) = delete;

private:
    std::string m_sFolder;
};

}  // namespace

// --- The uniform reports of the system calls ---

namespace {

class SystemCallsTest;

// One wrapper, once where it works and once where it fails. In the lines, {D} is the folder, {F}
// the descriptor of a file, {R} one open for reading only, {O} one of a folder, {P} one of a pipe.
struct WrapperCase {
    const char* pcName;
    std::function<long long(SystemCallsTest&, char*)> works;
    std::function<long long(SystemCallsTest&, char*)> fails;
    const char* pcInfo;
    const char* pcError;  // without the reason
    const char* pcReason;
};

class SystemCallsTest : public UtilitiesFileTest,
                        public ::testing::WithParamInterface<WrapperCase> {
public:
    // The cases reach the fixture through these.
    CUtilities* U() { return &m_Utilities; }
    CRuntimeParam* P() { return m_pParam; }
    LogArgu* A() { return &m_Argu; }
    std::string Path(const std::string& sName) const { return m_Dir / sName; }
    int File() const { return m_iFile; }
    int ReadOnly() const { return m_iReadOnly; }
    int Folder() const { return m_iFolder; }
    int Pipe() const { return m_iPipe[0]; }

protected:
    std::string Fill(std::string sText) const {
        const std::pair<const char*, std::string> places[] = {{"{D}", m_Dir.Path()},
                                                              {"{F}", std::to_string(m_iFile)},
                                                              {"{R}", std::to_string(m_iReadOnly)},
                                                              {"{O}", std::to_string(m_iFolder)},
                                                              {"{P}", std::to_string(m_iPipe[0])}};
        for (const auto& [pcPlace, sValue] : places) {
            for (std::size_t i; (i = sText.find(pcPlace)) != std::string::npos;) {
                sText.replace(i, 3, sValue);
            }
        }
        return sText;
    }

    CRuntimeParam* m_pParam = &m_Silent;
    CRuntimeParam m_AllButAccess{"vm01", LOG_CONTROL_ALL & ~LOG_CONTROL_FILE_ACCESS};
    CRuntimeParam m_AllButErrors{"vm01", LOG_CONTROL_ALL & ~LOG_CONTROL_ERROR};
};

// A descriptor that a case has opened is none of its business any more.
long long CloseOpened(int iFile) {
    if (iFile != -1) {
        ::close(iFile);
    }
    return iFile;
}

long long FromBool(bool bOk) { return bOk ? 0 : -1; }

using S = SystemCallsTest;
char cTransfer[16] = "abc";
struct stat statData;

const WrapperCase WRAPPERS[] = {
    {"Create",
     [](S& s, char* st) {
         return CloseOpened(s.U()->OS_FileCreate(s.P(), s.A(), s.Path("new").c_str(), st));
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileCreate(s.P(), s.A(), s.Path("file/new").c_str(), st);
     },
     "[Test.Case] OS create file \"{D}/new\"", "[Test.Case] OS create file \"{D}/file/new\".",
     "Not a directory (20)"},
    {"Remove",
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileRemove(s.P(), s.A(), s.Path("file").c_str(), st);
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileRemove(s.P(), s.A(), s.Path("none").c_str(), st);
     },
     "[Test.Case] OS remove file \"{D}/file\"", "[Test.Case] OS remove file \"{D}/none\".",
     "No such file or directory (2)"},
    {"Rename",
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileRename(s.P(), s.A(), s.Path("file").c_str(), s.Path("to").c_str(),
                                     st);
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileRename(s.P(), s.A(), s.Path("none").c_str(), s.Path("to").c_str(),
                                     st);
     },
     "[Test.Case] OS rename file from \"{D}/file\" to \"{D}/to\"",
     "[Test.Case] OS rename file from \"{D}/none\" to \"{D}/to\".",
     "No such file or directory (2)"},
    {"Open",
     [](S& s, char* st) {
         return CloseOpened(
             s.U()->OS_FileOpen(s.P(), s.A(), s.Path("file").c_str(), O_RDWR, true, st));
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileOpen(s.P(), s.A(), s.Path("none").c_str(), O_RDWR, true, st);
     },
     "[Test.Case] OS open file \"{D}/file\"", "[Test.Case] OS open file \"{D}/none\".",
     "No such file or directory (2)"},
    {"Close",
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileClose(s.P(), s.A(), "/any/name", dup(s.File()), st);
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileClose(s.P(), s.A(), "/any/name", 999, st);  // not open
     },
     "[Test.Case] OS close file \"/any/name\"", "[Test.Case] OS close file \"/any/name\".",
     "Bad file descriptor (9)"},
    {"Read",
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileRead(s.P(), s.A(), s.File(), cTransfer, 4, st);
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileRead(s.P(), s.A(), s.Folder(), cTransfer, 4, st);
     },
     "[Test.Case] OS read file ({F})", "[Test.Case] OS read file ({O}).", "Is a directory (21)"},
    {"Write",
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileWrite(s.P(), s.A(), s.File(), cTransfer, 3, st);
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_FileWrite(s.P(), s.A(), s.ReadOnly(), cTransfer, 3, st);
     },
     "[Test.Case] OS write file ({F})", "[Test.Case] OS write file ({R}).",
     "Bad file descriptor (9)"},
    {"Seek",
     [](S& s, char* st) { return s.U()->OS_FileSeek(s.P(), s.A(), s.File(), 5, SEEK_SET, st); },
     [](S& s, char* st) { return s.U()->OS_FileSeek(s.P(), s.A(), s.Pipe(), 5, SEEK_SET, st); },
     "[Test.Case] OS seek file ({F})", "[Test.Case] OS seek file ({P}).", "Illegal seek (29)"},
    {"Tell", [](S& s, char* st) { return s.U()->OS_FileTell(s.P(), s.A(), s.File(), st); },
     [](S& s, char* st) { return s.U()->OS_FileTell(s.P(), s.A(), s.Pipe(), st); },
     "[Test.Case] OS tell file ({F})", "[Test.Case] OS tell file ({P}).", "Illegal seek (29)"},
    {"FolderCreate",
     [](S& s, char* st) -> long long {
         return s.U()->OS_FolderCreate(s.P(), s.A(), s.Path("new").c_str(), 0750, st);
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_FolderCreate(s.P(), s.A(), s.Path("folder").c_str(), 0750, st);
     },
     "[Test.Case] OS create folder \"{D}/new\" (mode = 488)",
     "[Test.Case] OS create folder \"{D}/folder\" (mode = 488).", "File exists (17)"},
    {"FolderRemove",
     [](S& s, char* st) -> long long {
         return s.U()->OS_FolderRemove(s.P(), s.A(), s.Path("folder").c_str(), st);
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_FolderRemove(s.P(), s.A(), s.Path("file").c_str(), st);
     },
     "[Test.Case] OS remove folder \"{D}/folder\"", "[Test.Case] OS remove folder \"{D}/file\".",
     "Not a directory (20)"},
    {"SetFileMode",
     [](S& s, char* st) -> long long {
         return s.U()->OS_SetFileMode(s.P(), s.A(), s.Path("file").c_str(), 0640, st);
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_SetFileMode(s.P(), s.A(), s.Path("none").c_str(), 0640, st);
     },
     "[Test.Case] OS set file mode \"{D}/file\" (mode = 416)",
     "[Test.Case] OS set file mode \"{D}/none\" (mode = 416).", "No such file or directory (2)"},
    {"GetFileStat",
     [](S& s, char* st) -> long long {
         return s.U()->OS_GetFileStat(s.P(), s.A(), s.Path("file").c_str(), &statData, st);
     },
     [](S& s, char* st) -> long long {
         return s.U()->OS_GetFileStat(s.P(), s.A(), s.Path("none").c_str(), &statData, st);
     },
     "[Test.Case] OS get file stat \"{D}/file\"", "[Test.Case] OS get file stat \"{D}/none\".",
     "No such file or directory (2)"},
    {"SetFileSize",
     [](S& s, char* st) {
         return FromBool(s.U()->OS_SetFileSize(s.P(), s.A(), s.Path("file").c_str(), 5, st));
     },
     [](S& s, char* st) {
         return FromBool(s.U()->OS_SetFileSize(s.P(), s.A(), s.Path("folder").c_str(), 5, st));
     },
     "[Test.Case] OS set file file \"{D}/file\"", "[Test.Case] OS set file file \"{D}/folder\".",
     "Is a directory (21)"},
};

}  // namespace

INSTANTIATE_TEST_SUITE_P(Wrapper, SystemCallsTest, ::testing::ValuesIn(WRAPPERS),
                         [](const auto& info) { return std::string(info.param.pcName); });

TEST_P(SystemCallsTest, ReportSuccessWithFileAccessLogging) {
    m_pParam = &m_Access;
    std::snprintf(m_cStatus, sizeof(m_cStatus), "before");
    EXPECT_GE(GetParam().works(*this, m_cStatus), 0);
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre("info: " + Fill(GetParam().pcInfo)));
    EXPECT_STREQ("before", m_cStatus);
}

TEST_P(SystemCallsTest, SucceedSilentlyWithoutFileAccessLogging) {
    m_pParam = &m_AllButAccess;
    EXPECT_GE(GetParam().works(*this, nullptr), 0);
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_P(SystemCallsTest, ReportFailureWithErrorLogging) {
    m_pParam = &m_Errors;
    EXPECT_EQ(-1, GetParam().fails(*this, m_cStatus));
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre("error: " + Fill(GetParam().pcError) +
                                                     " Error=" + GetParam().pcReason));
    EXPECT_STREQ(GetParam().pcReason, m_cStatus);
}

TEST_P(SystemCallsTest, FailSilentlyWithoutErrorLoggingButGiveTheReason) {
    m_pParam = &m_AllButErrors;
    EXPECT_EQ(-1, GetParam().fails(*this, m_cStatus));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
    EXPECT_STREQ(GetParam().pcReason, m_cStatus);
}

TEST_P(SystemCallsTest, TakeANullStatus) {
    EXPECT_EQ(-1, GetParam().fails(*this, nullptr));
    EXPECT_GE(GetParam().works(*this, nullptr), 0);
}

// The wrappers that take a descriptor, in the order close, read, write, seek, tell.
TEST_F(UtilitiesFileTest, TheDescriptorMinusOneIsRefusedWithoutASystemCall) {
    const std::tuple<const char*, faults::Call, std::function<long long()>> calls[] = {
        {"[Test.Case] OS close file \"/any/name\".", faults::Call::Close,
         [&] { return m_Utilities.OS_FileClose(&m_Errors, &m_Argu, "/any/name", -1, m_cStatus); }},
        {"[Test.Case] OS read file (-1).", faults::Call::Read,
         [&] { return m_Utilities.OS_FileRead(&m_Errors, &m_Argu, -1, cTransfer, 1, m_cStatus); }},
        {"[Test.Case] OS write file (-1).", faults::Call::Write,
         [&] { return m_Utilities.OS_FileWrite(&m_Errors, &m_Argu, -1, cTransfer, 1, m_cStatus); }},
        {"[Test.Case] OS seek file (-1).", faults::Call::Lseek,
         [&] { return m_Utilities.OS_FileSeek(&m_Errors, &m_Argu, -1, 0, SEEK_SET, m_cStatus); }},
        {"[Test.Case] OS tell file (-1).", faults::Call::Lseek,
         [&] { return m_Utilities.OS_FileTell(&m_Errors, &m_Argu, -1, m_cStatus); }},
    };
    for (const auto& [pcError, systemCall, call] : calls) {
        SCOPED_TRACE(pcError);
        m_cStatus[0] = '\0';
        const int iBefore = faults::Count(systemCall);
        EXPECT_EQ(-1, call());
        EXPECT_EQ(iBefore, faults::Count(systemCall));
        EXPECT_STREQ("Bad file descriptor", m_cStatus) << "without a number";
        EXPECT_THAT(m_Utilities.TakeLines(),
                    ElementsAre(std::string("error: ") + pcError + " Error=Bad file descriptor"));
    }
}

// --- What the single calls do ---

TEST_F(UtilitiesFileTest, CreateKeepsTheContentOfAnExistingFile) {
    CloseOpened(m_Utilities.OS_FileCreate(&m_Silent, &m_Argu, m_sFile.c_str(), nullptr));
    EXPECT_EQ("0123456789", Content());
}

TEST_F(UtilitiesFileTest, CreateGivesMode0666AndADescriptorForReadingAndWriting) {
    const CFileMask mask(0);
    const int iFile = m_Utilities.OS_FileCreate(&m_Silent, &m_Argu, m_sNone.c_str(), nullptr);
    ASSERT_NE(-1, iFile);
    EXPECT_EQ(0666u, ModeOf(m_sNone));
    EXPECT_EQ(O_RDWR, fcntl(iFile, F_GETFL) & O_ACCMODE);
    CloseOpened(iFile);
}

TEST_F(UtilitiesFileTest, RemoveTakesEmptyFoldersToo) {
    EXPECT_EQ(0, m_Utilities.OS_FileRemove(&m_Silent, &m_Argu, m_sFolder.c_str(), nullptr));
    EXPECT_FALSE(support::FileExists(m_sFolder));
}

TEST_F(UtilitiesFileTest, RenameReplacesAnExistingTarget) {
    support::WriteFile(m_Dir / "to", "old");
    EXPECT_EQ(0, m_Utilities.OS_FileRename(&m_Silent, &m_Argu, m_sFile.c_str(),
                                           (m_Dir / "to").c_str(), nullptr));
    EXPECT_EQ("0123456789", support::ReadFile(m_Dir / "to"));
}

TEST_F(UtilitiesFileTest, OpenUsesTheFlagsGiven) {
    const int iFile = m_Utilities.OS_FileOpen(&m_Silent, &m_Argu, m_sFile.c_str(),
                                              O_RDWR | O_APPEND, false, nullptr);
    ASSERT_NE(-1, iFile);
    EXPECT_EQ(O_RDWR | O_APPEND, fcntl(iFile, F_GETFL) & (O_ACCMODE | O_APPEND));
    CloseOpened(iFile);
}

TEST_F(UtilitiesFileTest, ReadGivesTheCountAndZeroAtTheEnd) {
    char cBuf[16] = "";
    EXPECT_EQ(7, m_Utilities.OS_FileRead(&m_Silent, &m_Argu, m_iFile, cBuf, 7, nullptr));
    EXPECT_STREQ("0123456", cBuf);
    EXPECT_EQ(3, m_Utilities.OS_FileRead(&m_Silent, &m_Argu, m_iFile, cBuf, 16, nullptr));
    EXPECT_EQ(0, m_Utilities.OS_FileRead(&m_Silent, &m_Argu, m_iFile, cBuf, 16, nullptr));
}

TEST_F(UtilitiesFileTest, TransfersInterruptedByASignalAreMadeAgain) {
    char cBuf[16] = "";
    faults::Fail(faults::Call::Read, EINTR, 3);
    EXPECT_EQ(10, m_Utilities.OS_FileRead(&m_All, &m_Argu, m_iFile, cBuf, 16, nullptr));
    faults::Fail(faults::Call::Write, EINTR, 3);
    EXPECT_EQ(2, m_Utilities.OS_FileWrite(&m_Silent, &m_Argu, m_iFile, "ab", 2, nullptr));
    faults::Fail(faults::Call::Open, EINTR, 3);
    EXPECT_NE(-1, CloseOpened(m_Utilities.OS_FileOpen(&m_Silent, &m_Argu, m_sFile.c_str(), O_RDONLY,
                                                      false, nullptr)));
    EXPECT_EQ("0123456789ab", Content());
    EXPECT_EQ(1u, m_Utilities.TakeLines().size()) << "the first tries are not reported";
}

TEST_F(UtilitiesFileTest, ADeviceErrorIsReported) {
    char cBuf[16] = "";
    faults::Fail(faults::Call::Read, EIO);
    EXPECT_EQ(-1, m_Utilities.OS_FileRead(&m_Silent, &m_Argu, m_iFile, cBuf, 16, m_cStatus));
    EXPECT_STREQ("Input/output error (5)", m_cStatus);
}

TEST_F(UtilitiesFileTest, AFullFileSystemWritesWhatFitsAndThenFails) {
    const CTinyFileSystem tiny(m_Dir / "tiny");
    const int iFile =
        m_Utilities.OS_FileCreate(&m_Silent, &m_Argu, (m_Dir / "tiny/f").c_str(), nullptr);
    ASSERT_NE(-1, iFile);
    const std::string sData(6000, 'x');
    EXPECT_EQ(4096,
              m_Utilities.OS_FileWrite(&m_Silent, &m_Argu, iFile, sData.data(), 6000, m_cStatus));
    EXPECT_EQ(-1, m_Utilities.OS_FileWrite(&m_Silent, &m_Argu, iFile, sData.data(), 1, m_cStatus));
    EXPECT_STREQ("No space left on device (28)", m_cStatus);
    CloseOpened(iFile);
}

TEST_F(UtilitiesFileTest, SeekGivesThePositionInAllThreeWays) {
    EXPECT_EQ(4, m_Utilities.OS_FileSeek(&m_Silent, &m_Argu, m_iFile, 4, SEEK_SET, nullptr));
    EXPECT_EQ(6, m_Utilities.OS_FileSeek(&m_Silent, &m_Argu, m_iFile, 2, SEEK_CUR, nullptr));
    EXPECT_EQ(6, m_Utilities.OS_FileTell(&m_Silent, &m_Argu, m_iFile, nullptr));
    EXPECT_EQ(13, m_Utilities.OS_FileSeek(&m_Silent, &m_Argu, m_iFile, 3, SEEK_END, nullptr));
    EXPECT_EQ(13, m_Utilities.OS_FileTell(&m_Silent, &m_Argu, m_iFile, nullptr));
}

TEST_F(UtilitiesFileTest, SeekReachesBeyond4GiB) {
    const unsigned long long iFar = 1ULL << 40;
    EXPECT_EQ(static_cast<long long>(iFar),
              m_Utilities.OS_FileSeek(&m_Silent, &m_Argu, m_iFile, iFar, SEEK_SET, nullptr));
    EXPECT_EQ(static_cast<long long>(iFar),
              m_Utilities.OS_FileTell(&m_Silent, &m_Argu, m_iFile, nullptr));
}

TEST_F(UtilitiesFileTest, APositionThatIsNegativeAsASignedNumberIsRefused) {
    EXPECT_EQ(-1, m_Utilities.OS_FileSeek(&m_Silent, &m_Argu, m_iFile, ~0ULL, SEEK_SET, m_cStatus));
    EXPECT_STREQ("Invalid argument (22)", m_cStatus);
    EXPECT_EQ(9, m_Utilities.OS_FileSeek(&m_Silent, &m_Argu, m_iFile, ~0ULL, SEEK_END, nullptr))
        << "but it goes back from the end";
}

TEST_F(UtilitiesFileTest, FoldersAndModesAreSetAsGiven) {
    const CFileMask mask(0);
    EXPECT_EQ(0, m_Utilities.OS_FolderCreate(&m_Silent, &m_Argu, m_sNone.c_str(), 0751, nullptr));
    EXPECT_EQ(0751u, ModeOf(m_sNone));
    EXPECT_EQ(0, m_Utilities.OS_SetFileMode(&m_Silent, &m_Argu, m_sFile.c_str(), 04615, nullptr));
    EXPECT_EQ(04615u, ModeOf(m_sFile));
    EXPECT_EQ(0, m_Utilities.OS_FolderRemove(&m_Silent, &m_Argu, m_sNone.c_str(), nullptr));
    EXPECT_FALSE(support::FileExists(m_sNone));
}

TEST_F(UtilitiesFileTest, StatDescribesASymbolicLinkItself) {
    ASSERT_EQ(0, symlink("/nowhere", m_sNone.c_str()));
    struct stat data {};
    EXPECT_EQ(0, m_Utilities.OS_GetFileStat(&m_Silent, &m_Argu, m_sNone.c_str(), &data, nullptr));
    EXPECT_TRUE(S_ISLNK(data.st_mode));
    EXPECT_EQ(0, m_Utilities.OS_GetFileStat(&m_Silent, &m_Argu, m_sFile.c_str(), &data, nullptr));
    EXPECT_EQ(10, data.st_size);
}

TEST_F(UtilitiesFileTest, ExistenceFollowsSymbolicLinks) {
    ASSERT_EQ(0, symlink("/nowhere", (m_Dir / "dangling").c_str()));
    ASSERT_EQ(0, symlink("file", (m_Dir / "link").c_str()));
    EXPECT_TRUE(CUtilities::OS_IsFileExists(m_sFile.c_str()));
    EXPECT_TRUE(CUtilities::OS_IsFileExists(m_sFolder.c_str()));
    EXPECT_TRUE(CUtilities::OS_IsFileExists((m_Dir / "link").c_str()));
    EXPECT_FALSE(CUtilities::OS_IsFileExists((m_Dir / "dangling").c_str()));
    EXPECT_FALSE(CUtilities::OS_IsFileExists(m_sNone.c_str()));
    EXPECT_FALSE(CUtilities::OS_IsFileExists(""));
}

// --- Setting a file's size ---

TEST_F(UtilitiesFileTest, SizesGrowWithZerosAndShrink) {
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Silent, &m_Argu, m_sFile.c_str(), 12, nullptr));
    EXPECT_EQ(std::string("0123456789\0\0", 12), Content());
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Silent, &m_Argu, m_sFile.c_str(), 3, nullptr));
    EXPECT_EQ("012", Content());
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Silent, &m_Argu, m_sFile.c_str(), 0, nullptr));
    EXPECT_EQ("", Content());
}

TEST_F(UtilitiesFileTest, TheCurrentSizeIsSetWithoutALogLine) {
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_All, &m_Argu, m_sFile.c_str(), 10, nullptr));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
    EXPECT_EQ("0123456789", Content());
}

TEST_F(UtilitiesFileTest, SettingASizeCreatesAMissingFileWithMode0755) {
    const CFileMask mask(0);
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_All, &m_Argu, m_sNone.c_str(), 7, nullptr));
    EXPECT_EQ(std::string(7, '\0'), support::ReadFile(m_sNone));
    EXPECT_EQ(0755u, ModeOf(m_sNone));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] OS set file file \"" + m_sNone + "\""));
}

TEST_F(UtilitiesFileTest, SettingSize0CreatesAMissingFileWithoutALogLine) {
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_All, &m_Argu, m_sNone.c_str(), 0, nullptr));
    EXPECT_TRUE(support::FileExists(m_sNone));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(UtilitiesFileTest, ASizeThatTheSystemRefusesIsReportedAndTheDescriptorClosed) {
    const std::ptrdiff_t iOpen = OpenCount(m_sFile);
    EXPECT_FALSE(
        m_Utilities.OS_SetFileSize(&m_Errors, &m_Argu, m_sFile.c_str(), 1ULL << 63, m_cStatus));
    EXPECT_STREQ("Invalid argument (22)", m_cStatus);
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre("error: [Test.Case] OS set file file \"" +
                                                     m_sFile + "\". Error=Invalid argument (22)"));
    EXPECT_EQ(iOpen, OpenCount(m_sFile));
    EXPECT_EQ("0123456789", Content());
}

TEST_F(UtilitiesFileTest, ASizeThatCannotBeAskedIsReportedAndTheDescriptorClosed) {
    const std::ptrdiff_t iOpen = OpenCount(m_sFile);
    faults::Fail(faults::Call::Fstat, EIO);
    EXPECT_FALSE(m_Utilities.OS_SetFileSize(&m_Errors, &m_Argu, m_sFile.c_str(), 3, m_cStatus));
    EXPECT_STREQ("Input/output error (5)", m_cStatus);
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre("error: [Test.Case] OS set file file \"" +
                                                     m_sFile + "\". Error=Input/output error (5)"));
    EXPECT_EQ(iOpen, OpenCount(m_sFile));
    EXPECT_EQ("0123456789", Content());
}

TEST_F(UtilitiesFileTest, SettingASizeLeavesNoDescriptorOpen) {
    const std::ptrdiff_t iOpen = OpenCount(m_sFile);
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Silent, &m_Argu, m_sFile.c_str(), 10, nullptr));
    EXPECT_TRUE(m_Utilities.OS_SetFileSize(&m_Silent, &m_Argu, m_sFile.c_str(), 11, nullptr));
    EXPECT_EQ(iOpen, OpenCount(m_sFile));
}

// --- Forced opening ---

TEST_F(UtilitiesFileTest, ForcedOpeningCreatesFoldersStepByStep) {
    const CFileMask mask(0);
    const std::string sLog = m_Dir / "a/b/log";
    const int iFile = m_Utilities.OS_FileForceOpen(&m_Access, &m_Argu, sLog.c_str(), m_cStatus);
    ASSERT_NE(-1, iFile);
    CloseOpened(iFile);
    const std::string& d = m_Dir.Path();  // "/tmp/NAME"
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] OS splited path \"" + sLog + "\" into 6 elements",
                            "info: [Test.Case] Check folder \"/tmp\" exists",
                            "info: [Test.Case] Check folder \"" + d + "\" exists",
                            "info: [Test.Case] Check folder \"" + d + "/a\" exists",
                            "info: [Test.Case] Create folder \"" + d + "/a\"",
                            "info: [Test.Case] OS create folder \"" + d + "/a\" (mode = 493)",
                            "info: [Test.Case] Check folder \"" + d + "/a/b\" exists",
                            "info: [Test.Case] Create folder \"" + d + "/a/b\"",
                            "info: [Test.Case] OS create folder \"" + d + "/a/b\" (mode = 493)",
                            "info: [Test.Case] OS create file \"" + sLog + "\""));
    EXPECT_EQ(0755u, ModeOf(m_Dir / "a"));
    EXPECT_EQ(0755u, ModeOf(m_Dir / "a/b"));
}

TEST_F(UtilitiesFileTest, ForcedOpeningAppendsToAnExistingFile) {
    const int iFile = m_Utilities.OS_FileForceOpen(&m_Access, &m_Argu, m_sFile.c_str(), m_cStatus);
    ASSERT_NE(-1, iFile);
    EXPECT_THAT(m_Utilities.TakeLines(),
                Contains("info: [Test.Case] OS open file \"" + m_sFile + "\""));
    EXPECT_EQ(O_RDWR | O_APPEND, fcntl(iFile, F_GETFL) & (O_ACCMODE | O_APPEND));
    EXPECT_EQ(2, write(iFile, "ab", 2));
    CloseOpened(iFile);
    EXPECT_EQ("0123456789ab", Content());
}

TEST_F(UtilitiesFileTest, ForcedOpeningIsSilentWithoutFileAccessLogging) {
    CRuntimeParam param("vm01", LOG_CONTROL_ALL & ~LOG_CONTROL_FILE_ACCESS);
    CloseOpened(m_Utilities.OS_FileForceOpen(&param, &m_Argu, (m_Dir / "a/log").c_str(), nullptr));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
    EXPECT_TRUE(support::FileExists(m_Dir / "a/log"));
}

TEST_F(UtilitiesFileTest, ForcedOpeningNeitherChecksNorCreatesTheFirstPieceOfARelativePath) {
    const std::filesystem::path old = std::filesystem::current_path();
    std::filesystem::current_path(m_Dir.Path());
    EXPECT_EQ(-1, m_Utilities.OS_FileForceOpen(&m_All, &m_Argu, "a/b/log", m_cStatus));
    EXPECT_STREQ("No such file or directory (2)", m_cStatus);
    EXPECT_FALSE(support::FileExists(m_Dir / "a"));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] OS splited path \"a/b/log\" into 3 elements",
                            "info: [Test.Case] Check folder \"a/b\" exists",
                            "info: [Test.Case] Create folder \"a/b\"",
                            "error: [Test.Case] OS create folder \"a/b\" (mode = 493). "
                            "Error=No such file or directory (2)"));
    EXPECT_NE(-1, CloseOpened(
                      m_Utilities.OS_FileForceOpen(&m_Silent, &m_Argu, "folder/b/log", m_cStatus)));
    EXPECT_TRUE(support::FileExists(m_Dir / "folder/b/log"));
    std::filesystem::current_path(old);
}

TEST_F(UtilitiesFileTest, ForcedOpeningOfABareNameChecksNoFolder) {
    const std::filesystem::path old = std::filesystem::current_path();
    std::filesystem::current_path(m_Dir.Path());
    CloseOpened(m_Utilities.OS_FileForceOpen(&m_Access, &m_Argu, "log", m_cStatus));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] OS splited path \"log\" into 1 elements",
                            "info: [Test.Case] OS create file \"log\""));
    EXPECT_TRUE(support::FileExists(m_Dir / "log"));
    std::filesystem::current_path(old);
}

TEST_F(UtilitiesFileTest, ForcedOpeningEndsAtAFolderThatCannotBeCreated) {
    EXPECT_EQ(-1, m_Utilities.OS_FileForceOpen(&m_Errors, &m_Argu, (m_Dir / "file/a/b/log").c_str(),
                                               m_cStatus));
    EXPECT_STREQ("Not a directory (20)", m_cStatus);
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("error: [Test.Case] OS create folder \"" + (m_Dir / "file/a") +
                            "\" (mode = 493). Error=Not a directory (20)"));
}

TEST_F(UtilitiesFileTest, ForcedOpeningGivesTheReasonOfTheOpen) {
    EXPECT_EQ(-1, m_Utilities.OS_FileForceOpen(&m_Silent, &m_Argu, m_sFolder.c_str(), m_cStatus));
    EXPECT_STREQ("Is a directory (21)", m_cStatus);
    EXPECT_EQ(-1, m_Utilities.OS_FileForceOpen(&m_Silent, &m_Argu, "", m_cStatus));
    EXPECT_STREQ("No such file or directory (2)", m_cStatus);
}

TEST_F(UtilitiesFileTest, ForcedOpeningShedsCachedDescriptorsWhenThereAreTooMany) {
    ASSERT_NE(-1, Cached(m_sFile));
    faults::Fail(faults::Call::Open, EMFILE);
    EXPECT_NE(-1, CloseOpened(m_Utilities.OS_FileForceOpen(&m_Access, &m_Argu, m_sFile.c_str(),
                                                           m_cStatus)));
    EXPECT_THAT(m_Utilities.TakeLines(),
                Contains("info: [Test.Case] Close exceeded cached file handle: ALL"));
}

// --- Sizes, new files ---

TEST_F(UtilitiesFileTest, TheSizeIsThatOfTheFileNow) {
    EXPECT_EQ(10, m_Utilities.GetFileSize(&m_Silent, &m_Argu, m_sFile.c_str(), -7));
    ASSERT_EQ(0, truncate(m_sFile.c_str(), (1LL << 33) + 1));
    EXPECT_EQ((1LL << 33) + 1, m_Utilities.GetFileSize(&m_Silent, &m_Argu, m_sFile.c_str(), -7));
}

TEST_F(UtilitiesFileTest, WithoutASizeTheCallersValueIsGiven) {
    EXPECT_EQ(-7, m_Utilities.GetFileSize(&m_Silent, &m_Argu, m_sNone.c_str(), -7));
    EXPECT_EQ(1LL << 40, m_Utilities.GetFileSize(&m_Silent, &m_Argu, m_sNone.c_str(), 1LL << 40));
    EXPECT_EQ(5, m_Utilities.GetFileSize(&m_Silent, &m_Argu, "", 5));
    faults::Fail(faults::Call::Lseek, EIO);
    EXPECT_EQ(5, m_Utilities.GetFileSize(&m_Silent, &m_Argu, m_sFile.c_str(), 5));
}

TEST_F(UtilitiesFileTest, ANewFileIsCreatedAndClosed) {
    EXPECT_TRUE(m_Utilities.NewFile(&m_Access, &m_Argu, m_sNone.c_str()));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] OS create file \"" + m_sNone + "\"",
                            "info: [Test.Case] OS close file \"" + m_sNone + "\""));
    EXPECT_EQ("", support::ReadFile(m_sNone));
    EXPECT_EQ(0, OpenCount(m_sNone));
}

TEST_F(UtilitiesFileTest, ANewFileInPlaceOfAnExistingOneKeepsItsContent) {
    EXPECT_TRUE(m_Utilities.NewFile(&m_Silent, &m_Argu, m_sFile.c_str()));
    EXPECT_EQ("0123456789", Content());
}

TEST_F(UtilitiesFileTest, ANewFileIsNotTheOneThatWasRemovedBehindOurBack) {
    Export(m_Dir.Path(), "vm01");
    ASSERT_NE(-1, Cached(m_sFile));
    ASSERT_TRUE(std::filesystem::remove(m_sFile));
    ASSERT_TRUE(m_Utilities.NewFile(&m_Silent, &m_Argu, m_sFile.c_str()));
    EXPECT_EQ(3, m_Utilities.WriteFile(&m_Silent, &m_Argu, m_sFile.c_str(), 0, SEEK_SET, "new", 3));
    EXPECT_EQ("new", Content());
}

TEST_F(UtilitiesFileTest, ANewFileThatCannotBeCreatedIsAFailure) {
    EXPECT_FALSE(m_Utilities.NewFile(&m_Errors, &m_Argu, (m_Dir / "none/f").c_str()));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("error: [Test.Case] OS create file \"" + (m_Dir / "none/f") +
                            "\". Error=No such file or directory (2)"))
        << "nothing is closed";
}

TEST_F(UtilitiesFileTest, ANewFileCountsEvenWhenItsCloseFails) {
    faults::Fail(faults::Call::Close, EIO);
    EXPECT_TRUE(m_Utilities.NewFile(&m_Silent, &m_Argu, m_sNone.c_str()));
    EXPECT_TRUE(support::FileExists(m_sNone));
}

// --- Attributes ---

namespace {

// The attributes of one call; nothing is set unless said.
struct Attributes {
    bool bMode = false;
    unsigned int iMode = 0;
    bool bUid = false;
    unsigned int iUid = 0;
    bool bGid = false;
    unsigned int iGid = 0;
    bool bSize = false;
    unsigned long long lSize = 0;
    bool bATime = false;
    std::uint32_t lASec = 0;
    std::uint32_t lANsec = 0;
    bool bMTime = false;
    std::uint32_t lMSec = 0;
    std::uint32_t lMNsec = 0;
};

class FileAttributesTest : public UtilitiesFileTest {
protected:
    bool Update(CRuntimeParam* pParam, const std::string& sPath, const Attributes& a) {
        return m_Utilities.UpdateFileAttributes(
            pParam, &m_Argu, sPath.c_str(), a.bMode, a.iMode, a.bUid, a.iUid, a.bGid, a.iGid,
            a.bSize, a.lSize, a.bATime, a.lASec, a.lANsec, a.bMTime, a.lMSec, a.lMNsec);
    }
    struct stat Stat() {
        struct stat data {};
        EXPECT_EQ(0, lstat(m_sFile.c_str(), &data));
        return data;
    }
};

}  // namespace

TEST_F(FileAttributesTest, AreLoggedAllTogether) {
    Attributes a;
    a.bUid = true;
    a.iMode = 0xFFFFFFFF;
    a.iUid = 1000;
    a.iGid = 1001;
    a.lSize = 0xFFFFFFFFFFFFFFFF;
    a.bMTime = true;
    a.lASec = 11;
    a.lANsec = 12;
    a.lMSec = 4294967295;
    a.lMNsec = 14;
    EXPECT_TRUE(Update(&m_Access, "/x/y", a));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Update file attributes, path=/x/y, set_mode=0, "
                            "mode=4294967295, set_uid=1, uid=1000, set_gid=0, gid=1001, "
                            "set_size=0, size=18446744073709551615, set_atime=0, atime.sec=11, "
                            "atime.nsec=12, set_mtime=1, mtime.sec=4294967295, mtime.nsec=14"));
}

TEST_F(FileAttributesTest, AreNotLoggedWithoutFileAccessLogging) {
    CRuntimeParam param("vm01", LOG_CONTROL_ALL & ~LOG_CONTROL_FILE_ACCESS);
    EXPECT_TRUE(Update(&param, m_sFile, {.bSize = true, .lSize = 4}));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
}

TEST_F(FileAttributesTest, NothingToSetSucceedsAlsoForAMissingFile) {
    EXPECT_TRUE(Update(&m_Silent, m_sFile, {}));
    EXPECT_TRUE(Update(&m_Errors, m_sNone, {}));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
    EXPECT_FALSE(support::FileExists(m_sNone));
}

TEST_F(FileAttributesTest, OwnerAndTimesSucceedAndChangeNothing) {
    const struct stat before = Stat();
    ASSERT_NE(-1, Cached(m_sFile));
    const std::ptrdiff_t iOpen = OpenCount(m_sFile);
    EXPECT_TRUE(Update(&m_Silent, m_sFile, {.bUid = true, .iUid = 4711}));
    EXPECT_TRUE(Update(&m_Silent, m_sFile, {.bGid = true, .iGid = 4711}));
    EXPECT_TRUE(Update(&m_Silent, m_sFile, {.bATime = true, .lASec = 1}));
    EXPECT_TRUE(Update(&m_Silent, m_sFile, {.bMTime = true, .lMSec = 1}));
    EXPECT_TRUE(Update(&m_Silent, m_sNone, {.bUid = true, .iUid = 4711})) << "not even looked at";
    const struct stat after = Stat();
    EXPECT_EQ(before.st_uid, after.st_uid);
    EXPECT_EQ(before.st_gid, after.st_gid);
    EXPECT_EQ(before.st_mode, after.st_mode);
    EXPECT_EQ(before.st_size, after.st_size);
    EXPECT_EQ(before.st_atim.tv_sec, after.st_atim.tv_sec);
    EXPECT_EQ(before.st_mtim.tv_sec, after.st_mtim.tv_sec);
    EXPECT_EQ(before.st_ctim.tv_nsec, after.st_ctim.tv_nsec);
    EXPECT_EQ(iOpen, OpenCount(m_sFile)) << "the cached descriptor stays";
}

TEST_F(FileAttributesTest, ModeAndSizeAreApplied) {
    EXPECT_TRUE(Update(&m_Silent, m_sFile, {.bMode = true, .iMode = 0604}));
    EXPECT_EQ(0604u, ModeOf(m_sFile));
    EXPECT_TRUE(Update(&m_Silent, m_sFile, {.bSize = true, .lSize = 4}));
    EXPECT_EQ("0123", Content());
    EXPECT_TRUE(
        Update(&m_Silent, m_sFile, {.bMode = true, .iMode = 0640, .bSize = true, .lSize = 2}));
    EXPECT_EQ(0640u, ModeOf(m_sFile));
    EXPECT_EQ("01", Content());
}

TEST_F(FileAttributesTest, ModeAndSizeCloseTheCachedDescriptorFirst) {
    const std::string sClose = "info: [Test.Case] OS close file \"" + m_sFile + "\"";
    ASSERT_NE(-1, Cached(m_sFile));
    EXPECT_TRUE(
        Update(&m_Access, m_sFile, {.bMode = true, .iMode = 0640, .bSize = true, .lSize = 2}));
    std::vector<std::string> vLines = m_Utilities.TakeLines();
    vLines.erase(vLines.begin());
    EXPECT_THAT(
        vLines,
        ElementsAre(sClose, "info: [Test.Case] OS set file mode \"" + m_sFile + "\" (mode = 416)",
                    "info: [Test.Case] OS set file file \"" + m_sFile + "\""));
    for (const Attributes& a :
         {Attributes{.bMode = true, .iMode = 0600}, Attributes{.bSize = true}}) {
        ASSERT_NE(-1, Cached(m_sFile));
        EXPECT_TRUE(Update(&m_Access, m_sFile, a));
        EXPECT_THAT(m_Utilities.TakeLines(), Contains(sClose));
    }
}

TEST_F(FileAttributesTest, AModeThatFailsSkipsTheSize) {
    EXPECT_FALSE(
        Update(&m_Silent, m_sNone, {.bMode = true, .iMode = 0640, .bSize = true, .lSize = 2}));
    EXPECT_FALSE(support::FileExists(m_sNone)) << "setting the size would have created it";
}

TEST_F(FileAttributesTest, ASizeThatFailsIsAFailure) {
    EXPECT_FALSE(Update(&m_Silent, m_sFolder, {.bSize = true, .lSize = 2}));
    EXPECT_FALSE(
        Update(&m_Silent, m_sFolder, {.bMode = true, .iMode = 0700, .bSize = true, .lSize = 2}));
    EXPECT_EQ(0700u, ModeOf(m_sFolder)) << "the mode was set before";
}

// --- Renaming ---

namespace {

class RenamingTest : public UtilitiesFileTest {
protected:
    bool Rename(CRuntimeParam* pParam, const std::string& sFrom, const std::string& sTo) {
        return m_Utilities.RenameFile(pParam, &m_Argu, sFrom.c_str(), sTo.c_str());
    }
    // The path of a handle with this ID, or nothing.
    std::string PathOf(unsigned char iID) {
        const unsigned char cHandle[56] = {iID};
        char cPath[PATH_SIZE] = "";
        return m_Utilities.GetFilePath(&m_Silent, cHandle, cPath, sizeof(cPath)) ? cPath : "";
    }
    const std::string m_sTo = m_Dir / "to";
};

}  // namespace

TEST_F(RenamingTest, MovesTheFileAndItsRow) {
    EXPECT_EQ(0u, FileID(m_sFile));
    EXPECT_TRUE(Rename(&m_Access, m_sFile, m_sTo));
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre(
            "info: [Test.Case] Rename file, pathFrom=" + m_sFile + ", pathTo=" + m_sTo,
            "info: [Test.Case] OS rename file from \"" + m_sFile + "\" to \"" + m_sTo + "\""));
    EXPECT_FALSE(support::FileExists(m_sFile));
    EXPECT_EQ("0123456789", support::ReadFile(m_sTo));
    EXPECT_EQ(0u, FileID(m_sTo));
    EXPECT_EQ(1u, FileID(m_sFile));
}

TEST_F(RenamingTest, AnExistingTargetIsRemovedFirst) {
    support::WriteFile(m_sTo, "old");
    FileID(m_sFile);
    ASSERT_NE(-1, Cached(m_sFile));
    ASSERT_NE(-1, Cached(m_sTo));
    EXPECT_TRUE(Rename(&m_Access, m_sFile, m_sTo));
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre(
            "info: [Test.Case] Rename file, pathFrom=" + m_sFile + ", pathTo=" + m_sTo,
            "info: [Test.Case] Remove file, path=" + m_sTo,
            "info: [Test.Case] OS close file \"" + m_sTo + "\"",
            "info: [Test.Case] OS remove file \"" + m_sTo + "\"",
            "info: [Test.Case] OS close file \"" + m_sFile + "\"",
            "info: [Test.Case] OS rename file from \"" + m_sFile + "\" to \"" + m_sTo + "\""));
    EXPECT_EQ("0123456789", support::ReadFile(m_sTo));
    char cBuf[16] = "";
    bool bEof = false;
    EXPECT_EQ(10,
              m_Utilities.ReadFile(&m_Silent, &m_Argu, m_sTo.c_str(), 0, SEEK_SET, cBuf, 16, &bEof))
        << "no descriptor of the old target answers";
}

TEST_F(RenamingTest, ATargetThatCannotBeRemovedKeepsTheSource) {
    support::WriteFile(m_Dir / "folder/f", "x");
    FileID(m_sFile);
    EXPECT_FALSE(Rename(&m_Silent, m_sFile, m_sFolder));
    EXPECT_EQ("0123456789", Content());
    EXPECT_EQ(0u, FileID(m_sFile));
}

TEST_F(RenamingTest, AnEmptyFolderAsTargetGivesWayToAFile) {
    FileID(m_sFile);
    EXPECT_TRUE(Rename(&m_Silent, m_sFile, m_sFolder));
    EXPECT_EQ("0123456789", support::ReadFile(m_sFolder));
}

TEST_F(RenamingTest, AMissingTargetFolderKeepsSourceAndRow) {
    FileID(m_sFile);
    EXPECT_FALSE(Rename(&m_Errors, m_sFile, m_Dir / "none/to"));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("error: [Test.Case] OS rename file from \"" + m_sFile + "\" to \"" +
                            (m_Dir / "none/to") + "\". Error=No such file or directory (2)"));
    EXPECT_EQ("0123456789", Content());
    EXPECT_EQ(0u, FileID(m_sFile));
}

TEST_F(RenamingTest, OntoItselfChangesNothingAndSucceeds) {
    FileID(m_sFile);
    EXPECT_TRUE(Rename(&m_Silent, m_sFile, m_sFile));
    EXPECT_EQ("0123456789", Content());
    EXPECT_EQ(0u, FileID(m_sFile));
    EXPECT_TRUE(Rename(&m_Silent, m_sFolder, m_sFolder)) << "without a row as well";
}

TEST_F(RenamingTest, WithoutARowFailsAlthoughTheFileIsRenamed) {
    EXPECT_FALSE(Rename(&m_Silent, m_sFile, m_sTo));
    EXPECT_EQ("0123456789", support::ReadFile(m_sTo));
    EXPECT_FALSE(support::FileExists(m_sFile));
}

TEST_F(RenamingTest, AMissingSourceWithARowRenamesTheRowOnly) {
    EXPECT_EQ(0u, FileID(m_sNone));
    EXPECT_TRUE(Rename(&m_Errors, m_sNone, m_sTo));
    EXPECT_THAT(m_Utilities.TakeLines(), IsEmpty());
    EXPECT_FALSE(support::FileExists(m_sTo));
    EXPECT_EQ(0u, FileID(m_sTo));
}

TEST_F(RenamingTest, AMissingSourceStillRemovesTheTarget) {
    support::WriteFile(m_sTo, "old");
    EXPECT_FALSE(Rename(&m_Silent, m_sNone, m_sTo)) << "there is no row";
    EXPECT_FALSE(support::FileExists(m_sTo));
}

TEST_F(RenamingTest, OverATargetWithARowLeavesTwoRowsOfOnePath) {
    support::WriteFile(m_sTo, "old");
    EXPECT_EQ(0u, FileID(m_sTo));
    EXPECT_EQ(1u, FileID(m_sFile));
    EXPECT_TRUE(Rename(&m_Silent, m_sFile, m_sTo));
    EXPECT_EQ(1u, FileID(m_sTo)) << "only the renamed row is among the recently found";
}

TEST_F(RenamingTest, AFolderKeepsTheRowsBelowUnderTheirOldPaths) {
    support::WriteFile(m_Dir / "folder/f", "x");
    EXPECT_EQ(0u, FileID(m_sFolder));
    EXPECT_EQ(1u, FileID(m_Dir / "folder/f"));
    EXPECT_TRUE(Rename(&m_Silent, m_sFolder, m_sTo));
    EXPECT_EQ(0u, FileID(m_sTo));
    EXPECT_EQ(2u, FileID(m_Dir / "to/f"));
    EXPECT_EQ(1u, FileID(m_Dir / "folder/f"));
}

TEST_F(RenamingTest, OntoATargetWithARowMovesBothRowsTheNextTime) {
    support::WriteFile(m_sTo, "old");
    FileID(m_sTo);
    FileID(m_sTo);  // among the recently found, where the next search begins
    EXPECT_EQ(1u, FileID(m_sFile));
    ASSERT_TRUE(Rename(&m_Silent, m_sFile, m_sTo));
    const std::string sThird = m_Dir / "third";
    ASSERT_TRUE(Rename(&m_Silent, m_sTo, sThird));
    EXPECT_EQ(sThird, PathOf(1)) << "the file's own row";
    EXPECT_EQ(sThird, PathOf(0));
    EXPECT_EQ(2u, FileID(m_sTo)) << "what comes there next is another file";
}

TEST_F(RenamingTest, AFolderClosesWhatIsOpenBelowItAndNoSibling) {
    const std::string sSibling = m_Dir / "folder2";
    support::WriteFile(m_sFolder + "/f", "x");
    std::filesystem::create_directory(m_sFolder + "/inner");
    support::WriteFile(m_sFolder + "/inner/g", "x");
    support::WriteFile(sSibling, "x");
    FileID(m_sFolder);
    for (const std::string& sPath : {m_sFolder + "/f", m_sFolder + "/inner/g", sSibling, m_sFile}) {
        ASSERT_NE(-1, Cached(sPath));
    }
    ASSERT_EQ(-1, Cached(m_sFolder + "/missing"));
    ASSERT_TRUE(Rename(&m_All, m_sFolder, m_sTo));
    EXPECT_THAT(
        m_Utilities.TakeLines(),
        ElementsAre(
            "info: [Test.Case] Rename file, pathFrom=" + m_sFolder + ", pathTo=" + m_sTo,
            "info: [Test.Case] OS close file \"" + m_sFolder + "/f\"",
            "info: [Test.Case] OS close file \"" + m_sFolder + "/inner/g\"",
            "info: [Test.Case] OS rename file from \"" + m_sFolder + "\" to \"" + m_sTo + "\""));
    EXPECT_EQ(0, OpenCount(m_sTo + "/f"));
    EXPECT_EQ(0, OpenCount(m_sTo + "/inner/g"));
    EXPECT_EQ(1, OpenCount(sSibling));
}

TEST_F(RenamingTest, WhatIsStillOpenAtTheTargetFromRemovedFilesIsClosed) {
    support::WriteFile(m_sFolder + "/f", "x");
    FileID(m_sFolder);
    FileID(m_sFile);
    // Removed by somebody else, so that the server does not know.
    std::filesystem::create_directory(m_sTo);
    support::WriteFile(m_sTo + "/f", "gone");
    support::WriteFile(m_sNone, "gone");
    ASSERT_NE(-1, Cached(m_sTo + "/f"));
    ASSERT_NE(-1, Cached(m_sNone));
    std::filesystem::remove_all(m_sTo);
    std::filesystem::remove(m_sNone);
    ASSERT_TRUE(Rename(&m_Silent, m_sFolder, m_sTo));
    ASSERT_TRUE(Rename(&m_Silent, m_sFile, m_sNone));
    char cBuf[16] = "";
    bool bEof = false;
    EXPECT_EQ(1, m_Utilities.ReadFile(&m_Silent, &m_Argu, (m_sTo + "/f").c_str(), 0, SEEK_SET, cBuf,
                                      16, &bEof));
    EXPECT_EQ(10, m_Utilities.ReadFile(&m_Silent, &m_Argu, m_sNone.c_str(), 0, SEEK_SET, cBuf, 16,
                                       &bEof));
}

TEST_F(RenamingTest, ARowLeftBehindMeansNothingThatComesToItsPlace) {
    support::WriteFile(m_sFolder + "/f", "x");
    EXPECT_EQ(0u, FileID(m_sFolder));
    EXPECT_EQ(1u, FileID(m_sFolder + "/f"));
    ASSERT_TRUE(Rename(&m_Silent, m_sFolder, m_sTo));
    EXPECT_EQ(m_sFolder + "/f", PathOf(1)) << "nothing is there";
    std::filesystem::create_directory(m_sFolder);
    support::WriteFile(m_sFolder + "/f", "another");
    EXPECT_EQ("", PathOf(1));
    EXPECT_EQ(2u, FileID(m_sFolder + "/f"));
    EXPECT_EQ(m_sFolder + "/f", PathOf(2));
    // Back at its place it counts again.
    std::filesystem::remove_all(m_sFolder);
    ASSERT_TRUE(Rename(&m_Silent, m_sTo, m_sFolder));
    EXPECT_EQ(m_sFolder + "/f", PathOf(1));
    EXPECT_EQ(1u, FileID(m_sFolder + "/f"));
}

TEST_F(RenamingTest, AFolderIntoItselfRemovesNothing) {
    support::WriteFile(m_sFolder + "/f", "kept");
    FileID(m_sFolder);
    EXPECT_FALSE(Rename(&m_Errors, m_sFolder, m_sFolder + "/f"));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("error: [Test.Case] OS rename file from \"" + m_sFolder + "\" to \"" +
                            m_sFolder + "/f\". Error=Invalid argument (22)"));
    EXPECT_EQ("kept", support::ReadFile(m_sFolder + "/f"));
}

TEST_F(RenamingTest, OntoAnotherFileSystemRemovesNothing) {
    const CTinyFileSystem tiny(m_Dir / "tiny");
    support::WriteFile(m_Dir / "tiny/f", "kept");
    FileID(m_sFile);
    EXPECT_FALSE(Rename(&m_Silent, m_sFile, m_Dir / "tiny/f"));
    EXPECT_EQ("kept", support::ReadFile(m_Dir / "tiny/f"));
    EXPECT_EQ("0123456789", Content());
}

// --- Removing ---

TEST_F(UtilitiesFileTest, RemovingClosesTheCachedDescriptorFirst) {
    ASSERT_NE(-1, Cached(m_sFile));
    EXPECT_TRUE(m_Utilities.RemoveFile(&m_Access, &m_Argu, m_sFile.c_str()));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Remove file, path=" + m_sFile,
                            "info: [Test.Case] OS close file \"" + m_sFile + "\"",
                            "info: [Test.Case] OS remove file \"" + m_sFile + "\""));
    EXPECT_FALSE(support::FileExists(m_sFile));
}

TEST_F(UtilitiesFileTest, RemovingWhatIsMissingFails) {
    EXPECT_FALSE(m_Utilities.RemoveFile(&m_Errors, &m_Argu, m_sNone.c_str()));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("error: [Test.Case] OS remove file \"" + m_sNone +
                            "\". Error=No such file or directory (2)"));
}

// --- Reading ---

namespace {

class TransfersTest : public UtilitiesFileTest {
protected:
    TransfersTest() { Export(m_Dir.Path(), "vm01"); }

    // The bytes read, or "-1".
    std::string Read(CRuntimeParam* pParam, const std::string& sPath, unsigned long long iSeek,
                     unsigned int iLen, int iSeekType = SEEK_SET) {
        char cBuf[32];
        m_bEof = !m_bEof;  // whatever it was, it has to be set
        const int iRead = m_Utilities.ReadFile(pParam, &m_Argu, sPath.c_str(), iSeek, iSeekType,
                                               cBuf, iLen, &m_bEof);
        return iRead < 0 ? std::to_string(iRead)
                         : std::string(cBuf, static_cast<std::size_t>(iRead));
    }
    int Write(CRuntimeParam* pParam, const std::string& sPath, unsigned long long iSeek,
              const std::string& sData, int iSeekType = SEEK_SET) {
        return m_Utilities.WriteFile(pParam, &m_Argu, sPath.c_str(), iSeek, iSeekType, sData.data(),
                                     static_cast<unsigned int>(sData.size()));
    }

    bool m_bEof = false;
};

}  // namespace

TEST_F(TransfersTest, AReadIsLoggedStepByStep) {
    const std::string sFd = std::to_string(Cached(m_sFile));
    EXPECT_EQ("345", Read(&m_Access, m_sFile, 3, 3));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Read file, path=" + m_sFile +
                                ", iSeek=3, iSeekType=0, length=3",
                            "info: [Test.Case] OS seek file (" + sFd + ")",
                            "info: [Test.Case] OS read file (" + sFd + ")",
                            "info: [Test.Case] OS tell file (" + sFd + ")",
                            "info: [Test.Case] OS seek file (" + sFd + ")"));
}

TEST_F(TransfersTest, AReadInTheMiddleIsNotTheEnd) {
    EXPECT_EQ("2345", Read(&m_Silent, m_sFile, 2, 4));
    EXPECT_FALSE(m_bEof);
    EXPECT_EQ("012345678", Read(&m_Silent, m_sFile, 0, 9));
    EXPECT_FALSE(m_bEof);
}

TEST_F(TransfersTest, AReadOfTheLastByteIsTheEnd) {
    EXPECT_EQ("9", Read(&m_Silent, m_sFile, 9, 1));
    EXPECT_TRUE(m_bEof);
    EXPECT_EQ("0123456789", Read(&m_Silent, m_sFile, 0, 10));
    EXPECT_TRUE(m_bEof);
}

TEST_F(TransfersTest, AReadAcrossTheEndGivesWhatThereIs) {
    EXPECT_EQ("89", Read(&m_Silent, m_sFile, 8, 20));
    EXPECT_TRUE(m_bEof);
}

TEST_F(TransfersTest, AReadAtOrBeyondTheEndGivesNothing) {
    EXPECT_EQ("", Read(&m_Silent, m_sFile, 10, 5));
    EXPECT_TRUE(m_bEof);
    EXPECT_EQ("", Read(&m_Silent, m_sFile, 1'000'000'000'000, 5));
    EXPECT_TRUE(m_bEof);
}

TEST_F(TransfersTest, AReadOfNothingTellsWhetherThePlaceIsTheEnd) {
    EXPECT_EQ("", Read(&m_Silent, m_sFile, 5, 0));
    EXPECT_FALSE(m_bEof);
    EXPECT_EQ("", Read(&m_Silent, m_sFile, 10, 0));
    EXPECT_TRUE(m_bEof);
}

TEST_F(TransfersTest, AReadLeavesTheDescriptorAtTheEnd) {
    EXPECT_EQ("01", Read(&m_Silent, m_sFile, 0, 2));
    EXPECT_EQ(10, lseek(Cached(m_sFile), 0, SEEK_CUR));
    EXPECT_EQ("89", Read(&m_Silent, m_sFile, ~0ULL - 1, 5, SEEK_END));
    EXPECT_EQ("", Read(&m_Silent, m_sFile, 0, 5, SEEK_CUR));
}

TEST_F(TransfersTest, AReadOfAMissingFileFailsAtItsEnd) {
    EXPECT_EQ("-1", Read(&m_Silent, m_sNone, 0, 5));
    EXPECT_TRUE(m_bEof);
    EXPECT_EQ("-1", Read(&m_Silent, "", 0, 5));
    EXPECT_TRUE(m_bEof);
}

TEST_F(TransfersTest, AReadThatTheDeviceRefusesFails) {
    ASSERT_NE(-1, Cached(m_sFile));
    faults::Fail(faults::Call::Read, EIO);
    EXPECT_EQ("-1", Read(&m_Silent, m_sFile, 0, 5));
    EXPECT_FALSE(m_bEof);
    EXPECT_EQ("01234", Read(&m_Silent, m_sFile, 0, 5));
}

TEST_F(TransfersTest, AReadAtAPlaceThatNoFileCanHaveIsBehindTheEnd) {
    for (const unsigned long long iSeek : {1ULL << 63, ~0ULL}) {
        EXPECT_EQ("", Read(&m_Silent, m_sFile, iSeek, 5));
        EXPECT_TRUE(m_bEof);
    }
    EXPECT_EQ("-1", Read(&m_Silent, m_sFile, ~0ULL - 10, 5, SEEK_END)) << "before the beginning";
    const std::string sPipe = m_Dir / "pipe";
    ASSERT_EQ(0, mkfifo(sPipe.c_str(), 0600));
    EXPECT_EQ("-1", Read(&m_Silent, sPipe, 0, 5)) << "no ordinary file";
}

TEST_F(TransfersTest, AReadSeesWhatOthersWrite) {
    EXPECT_EQ("0123456789", Read(&m_Silent, m_sFile, 0, 20));
    ASSERT_EQ(2, pwrite(m_iFile, "AB", 2, 9));
    EXPECT_EQ("AB", Read(&m_Silent, m_sFile, 9, 20));
    EXPECT_TRUE(m_bEof);
}

TEST_F(TransfersTest, FilesOutsideEveryExportCanBeRead) {
    m_Utilities.RemoveAllMountInfo();
    EXPECT_EQ("0123456789", Read(&m_Silent, m_sFile, 0, 20));
}

// --- Writing ---

TEST_F(TransfersTest, AWriteIsLoggedStepByStep) {
    const std::string sFd = std::to_string(Cached(m_sFile));
    EXPECT_EQ(2, Write(&m_Access, m_sFile, 3, "ab"));
    EXPECT_THAT(m_Utilities.TakeLines(),
                ElementsAre("info: [Test.Case] Write file, path=" + m_sFile +
                                ", iSeek=3, iSeekType=0, length=2",
                            "info: [Test.Case] OS seek file (" + sFd + ")",
                            "info: [Test.Case] OS write file (" + sFd + ")"));
    EXPECT_EQ("012ab56789", Content());
}

TEST_F(TransfersTest, AWriteBeyondTheEndLeavesZerosBetween) {
    EXPECT_EQ(2, Write(&m_Silent, m_sFile, 12, "ab"));
    EXPECT_EQ(std::string("0123456789\0\0ab", 14), Content());
}

TEST_F(TransfersTest, AWriteTakesTheWayOfSeeking) {
    EXPECT_EQ(2, Write(&m_Silent, m_sFile, 0, "ab", SEEK_END));
    EXPECT_EQ("0123456789ab", Content());
    EXPECT_EQ(1, Write(&m_Silent, m_sFile, 0, "c", SEEK_CUR));
    EXPECT_EQ("0123456789abc", Content());
}

TEST_F(TransfersTest, AWriteOutsideEveryExportFailsAndChangesNothing) {
    m_Utilities.RemoveAllMountInfo();
    EXPECT_EQ(-1, Write(&m_Errors, m_sFile, 0, "ab"));
    const std::string sFd = std::to_string(Cached(m_sFile));
    EXPECT_THAT(m_Utilities.TakeLines(), ElementsAre("error: [Test.Case] OS write file (" + sFd +
                                                     "). Error=Bad file descriptor (9)"));
    EXPECT_EQ("0123456789", Content());
}

TEST_F(TransfersTest, AWriteToAMissingFileFailsAndCreatesNothing) {
    EXPECT_EQ(-1, Write(&m_Silent, m_sNone, 0, "ab"));
    EXPECT_EQ(-1, Write(&m_Silent, "", 0, "ab"));
    EXPECT_FALSE(support::FileExists(m_sNone));
}

TEST_F(TransfersTest, AWriteAtAnImpossiblePlaceFails) {
    EXPECT_EQ(-1, Write(&m_Silent, m_sFile, 1ULL << 63, "ab"));
    EXPECT_EQ("0123456789", Content());
}

TEST_F(TransfersTest, AWriteToAFullFileSystemGivesTheCountAndThenFails) {
    const CTinyFileSystem tiny(m_Dir / "tiny");
    support::WriteFile(m_Dir / "tiny/f", "");
    EXPECT_EQ(4096, Write(&m_Silent, m_Dir / "tiny/f", 0, std::string(6000, 'x')));
    EXPECT_EQ(-1, Write(&m_Silent, m_Dir / "tiny/f", 4096, "x"));
    EXPECT_EQ(4096u, support::ReadFile(m_Dir / "tiny/f").size());
    m_Utilities.Reset(&m_Silent, &m_Argu);
}

TEST_F(TransfersTest, ReadsAndWritesShareOneDescriptor) {
    const std::ptrdiff_t iOpen = OpenCount(m_sFile);
    EXPECT_EQ(2, Write(&m_Silent, m_sFile, 0, "ab"));
    EXPECT_EQ("ab2", Read(&m_Silent, m_sFile, 0, 3));
    EXPECT_EQ(10, m_Utilities.GetFileSize(&m_Silent, &m_Argu, m_sFile.c_str(), -1));
    EXPECT_EQ(iOpen + 1, OpenCount(m_sFile));
}

// --- What a file system says of itself ---

TEST_F(UtilitiesFileTest, DiskSpaceAndSlotsAreThoseOfTheFileSystem) {
    struct statvfs data {};
    // Each value its own, and products beyond 32 bits.
    data.f_bsize = 1;
    data.f_frsize = 4096;
    data.f_blocks = 5'000'000'000;
    data.f_bfree = 3'000'000'000;
    data.f_bavail = 2'000'000'000;
    data.f_files = 7'000'000'000;
    data.f_ffree = 6'000'000'000;
    data.f_favail = 1'000;
    data.f_fsid = 0xFEDCBA9876543210;
    faults::SetFileSystem(&data);
    const char* pcPath = m_sFile.c_str();
    EXPECT_EQ(20'480'000'000'000u, CUtilities::GetTotalDiskSpace(pcPath));
    EXPECT_EQ(12'288'000'000'000u, CUtilities::GetFreeDiskSpace(pcPath));
    EXPECT_EQ(8'192'000'000'000u, CUtilities::GetFreeDiskSpaceAvailableToCaller(pcPath));
    EXPECT_EQ(7'000'000'000u, CUtilities::GetTotalFileSlots(pcPath));
    EXPECT_EQ(6'000'000'000u, CUtilities::GetFreeFileSlots(pcPath));
    EXPECT_EQ(6'000'000'000u, CUtilities::GetFreeFileSlotsAvailableToCaller(pcPath))
        << "all free slots, not only the caller's";
    EXPECT_EQ(0xFEDCBA9876543210u, CUtilities::GetFileSystemID(pcPath));
}

TEST_F(UtilitiesFileTest, TheRealFileSystemIsAsked) {
    const CTinyFileSystem tiny(m_Dir / "tiny");
    struct statvfs data {};
    ASSERT_EQ(0, statvfs((m_Dir / "tiny").c_str(), &data));
    EXPECT_EQ(4096u, CUtilities::GetTotalDiskSpace((m_Dir / "tiny").c_str()));
    EXPECT_EQ(4096u, CUtilities::GetFreeDiskSpace((m_Dir / "tiny").c_str()));
    EXPECT_EQ(data.f_fsid, CUtilities::GetFileSystemID((m_Dir / "tiny").c_str()));
    EXPECT_EQ(data.f_files, CUtilities::GetTotalFileSlots((m_Dir / "tiny").c_str()));
}

TEST_F(UtilitiesFileTest, WithoutAFileSystemEveryValueIsAllOnesAndTheIdIs4) {
    const char* pcPath = m_sNone.c_str();
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFu, CUtilities::GetTotalDiskSpace(pcPath));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFu, CUtilities::GetFreeDiskSpace(pcPath));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFu, CUtilities::GetFreeDiskSpaceAvailableToCaller(pcPath));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFu, CUtilities::GetTotalFileSlots(pcPath));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFu, CUtilities::GetFreeFileSlots(pcPath));
    EXPECT_EQ(0xFFFFFFFFFFFFFFFFu, CUtilities::GetFreeFileSlotsAvailableToCaller(pcPath));
    EXPECT_EQ(4u, CUtilities::GetFileSystemID(pcPath));
}

TEST_F(UtilitiesFileTest, TheLargestFileDependsOnTheTypeOfFileSystem) {
    const char* pcPath = m_sFile.c_str();
    EXPECT_EQ(2'199'023'255'552u, CUtilities::GetMaxFileSize(pcPath)) << "of this tmpfs";
    faults::SetFileSystemType(0x4D44);
    EXPECT_EQ(4'294'967'296u, CUtilities::GetMaxFileSize(pcPath));
    faults::SetFileSystemType(0x52654973);
    EXPECT_EQ(8'796'093'022'208u, CUtilities::GetMaxFileSize(pcPath));
    faults::SetFileSystemType(0xEF53);
    EXPECT_EQ(2'199'023'255'552u, CUtilities::GetMaxFileSize(pcPath));
    faults::SetFileSystemType(0);
    EXPECT_EQ(2'199'023'255'552u, CUtilities::GetMaxFileSize(m_sNone.c_str()));
}

TEST(SystemTimeTest, IsInMilliseconds) {
    using Clock = std::chrono::system_clock;
    const auto now = [] {
        return static_cast<unsigned long long>(
            std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now().time_since_epoch())
                .count());
    };
    const unsigned long long iBefore = now();
    const unsigned long long iTime = CUtilities::GetCurrentSystemTimeInMilliseconds();
    EXPECT_LE(iBefore, iTime);
    EXPECT_GE(now(), iTime);
}

// --- Texts ---

namespace {

std::vector<std::string> Split(const char* pcText, char cDelimiter) {
    std::vector<std::string> vPieces;
    CUtilities::SplitIntoVector(pcText, cDelimiter, &vPieces);
    return vPieces;
}

std::string Printed(unsigned long long iValue) {
    char cText[32];
    CUtilities::GetPrintableFileSize(iValue, cText);
    return cText;
}

}  // namespace

TEST(SplittingTest, GivesThePiecesBetweenDelimiters) {
    EXPECT_THAT(Split("a/bc/d", '/'), ElementsAre("a", "bc", "d"));
    EXPECT_THAT(Split("abc", '/'), ElementsAre("abc"));
    EXPECT_THAT(Split("a b/c", ' '), ElementsAre("a", "b/c"));
}

TEST(SplittingTest, ALeadingDelimiterGivesAnEmptyFirstPiece) {
    EXPECT_THAT(Split("/a/b", '/'), ElementsAre("", "a", "b"));
    EXPECT_THAT(Split("/", '/'), ElementsAre(""));
}

TEST(SplittingTest, ATrailingDelimiterGivesNoEmptyLastPiece) {
    EXPECT_THAT(Split("a/b/", '/'), ElementsAre("a", "b"));
    EXPECT_THAT(Split("a//", '/'), ElementsAre("a", ""));
}

TEST(SplittingTest, DoubleDelimitersGiveAnEmptyPiece) {
    EXPECT_THAT(Split("a//b", '/'), ElementsAre("a", "", "b"));
}

TEST(SplittingTest, NothingGivesNothing) {
    EXPECT_THAT(Split("", '/'), IsEmpty());
    EXPECT_THAT(Split(nullptr, '/'), IsEmpty());
}

TEST(SplittingTest, AppendsToWhatIsThere) {
    std::vector<std::string> vPieces = {"x"};
    CUtilities::SplitIntoVector("a,b", ',', &vPieces);
    EXPECT_THAT(vPieces, ElementsAre("x", "a", "b"));
}

TEST(PrintableSizesTest, ChangeTheirUnitAt1024) {
    EXPECT_EQ("0.0B", Printed(0));
    EXPECT_EQ("1.0B", Printed(1));
    EXPECT_EQ("1023.0B", Printed(1023));
    EXPECT_EQ("1.0KB", Printed(1024));
    EXPECT_EQ("1.5KB", Printed(1536));
    EXPECT_EQ("1024.0KB", Printed((1ULL << 20) - 1)) << "rounded within its unit";
    EXPECT_EQ("1.0MB", Printed(1ULL << 20));
    EXPECT_EQ("2.5GB", Printed(5ULL << 29));
    EXPECT_EQ("1.0TB", Printed(1ULL << 40));
    EXPECT_EQ("1.0PB", Printed(1ULL << 50));
    EXPECT_EQ("1.0EB", Printed(1ULL << 60));
    EXPECT_EQ("16.0EB", Printed(~0ULL));
}
