#include "PlatformTest.h"

#include <fcntl.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstring>
#include <string>

#include "ExitCleanup.h"

namespace {

constexpr long long TEST_DATA_SIZE = 2048;             // bytes
constexpr unsigned int TEST_READ_ONLY_MODE = 0100444;  // a regular file, readable by all

// What a line of a step begins with.
constexpr const char* OK = "[ OK ] ";
constexpr const char* FAIL = "[FAIL] ";

// Where a block of *piLen bytes for *piPos lies in a file of iFileSize bytes.
void MoveIntoFile(long long iFileSize, long long* piPos, long long* piLen) {
    if (*piPos <= 0) {
        *piPos = 0;
        if (*piLen >= iFileSize) {
            *piLen = iFileSize - 1;
        }
    } else if (*piPos >= iFileSize) {
        if (*piLen > iFileSize) {
            *piPos = 0;
            *piLen = iFileSize - 1;
        } else {
            *piPos = iFileSize - *piLen;
        }
    } else if (*piPos + *piLen >= iFileSize) {
        *piLen = iFileSize - *piPos - 1;
    }
}

}  // namespace

// =================================================================================================
// One step
// =================================================================================================

CPlatformTest::Step& CPlatformTest::Step::Run(const char* pcFmt, ...) {
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    std::vsnprintf(m_cText, sizeof(m_cText), pcFmt, vaArgs);
    va_end(vaArgs);
    m_cStatus[0] = '\0';
    m_bTold = false;
    return *this;
}

CPlatformTest::Step& CPlatformTest::Step::After(bool bReady, const char* pcFmt, ...) {
    if (!bReady) {
        va_list vaArgs;
        va_start(vaArgs, pcFmt);
        TellFailure(pcFmt, vaArgs);
        va_end(vaArgs);
    }
    return *this;
}

bool CPlatformTest::Step::Expect(bool bOk, const char* pcFmt, ...) {
    if (!bOk) {
        va_list vaArgs;
        va_start(vaArgs, pcFmt);
        TellFailure(pcFmt, vaArgs);
        va_end(vaArgs);
    }
    return bOk;
}

void CPlatformTest::Step::TellFailure(const char* pcFmt, va_list vaArgs) {
    char cLine[STATUS_SIZE];
    std::vsnprintf(cLine, sizeof(cLine), pcFmt, vaArgs);
    m_pUtilities->LogInfo(m_pRuntimeParam, "%s", cLine);
    m_bTold = true;
}

void CPlatformTest::Step::Tell(bool bOk) {
    if (bOk) {
        m_pUtilities->LogInfo(m_pRuntimeParam, "%s%s.", OK, m_cText);
    } else {
        m_pUtilities->LogInfo(m_pRuntimeParam, "%s%s. Error=%s", FAIL, m_cText, m_cStatus);
    }
}

// =================================================================================================
// The test
// =================================================================================================

CPlatformTest::CPlatformTest(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam) {}

void CPlatformTest::Run(const char* pcDirPath, long long iFileSize) {
    if (pcDirPath == nullptr) {
        m_pUtilities->LogInfo(m_pRuntimeParam,
                              "Cannot start platrorm test. Error=Target directory is NULL");
        return;
    }
    if (iFileSize <= 0) {
        m_pUtilities->LogInfo(m_pRuntimeParam,
                              "Cannot start platrorm test. Error=File size is ZERO");
        return;
    }
    char cDir[PATH_SIZE];
    m_pUtilities->GetCanonicalPath(m_pRuntimeParam, &m_LogArgu, cDir, pcDirPath);
    if (!CUtilities::OS_IsFileExists(cDir)) {
        m_pUtilities->LogInfo(m_pRuntimeParam,
                              "Cannot start platrorm test. Error=Target directory \"%s\" not exist",
                              cDir);
        return;
    }
    std::string sTestDir(cDir);
    if (sTestDir.back() != '/') {
        sTestDir += '/';
    }
    sTestDir += "_test";
    const std::string sTestFile = sTestDir + '/' + "test" + ".bak";
    const std::string sSecondFile = sTestFile + "2";
    const char* pcTestDir = sTestDir.c_str();
    const char* pcTestFile = sTestFile.c_str();
    const char* pcSecondFile = sSecondFile.c_str();
    if (CUtilities::OS_IsFileExists(pcTestDir)) {
        m_pUtilities->LogInfo(
            m_pRuntimeParam,
            "Cannot start platrorm test. Error=Test directory \"%s\" already exist", pcTestDir);
        return;
    }
    CExitCleanup::AddFile(pcTestFile);
    CExitCleanup::AddFile(pcSecondFile);
    CExitCleanup::AddFolder(pcTestDir);

    m_pUtilities->LogInfo(
        m_pRuntimeParam, "%s",
        "=============================== START TEST ===============================");
    m_pUtilities->LogInfo(m_pRuntimeParam, " >> Directory : \"%s\"", pcTestDir);
    m_pUtilities->LogInfo(m_pRuntimeParam, " >> File      : \"%s\"", pcTestFile);
    m_pUtilities->LogInfo(m_pRuntimeParam, "%s", "");
    ReportFileSystem(cDir);
    m_pUtilities->LogInfo(m_pRuntimeParam, "%s", "");
    RunTestFiles(pcTestDir, pcTestFile, pcSecondFile, iFileSize);

    for (const char* pcFile : {pcTestFile, pcSecondFile}) {
        if (CUtilities::OS_IsFileExists(pcFile)) {
            m_pUtilities->OS_FileRemove(m_pRuntimeParam, &m_LogArgu, pcFile, nullptr);
        }
    }
    if (CUtilities::OS_IsFileExists(pcTestDir)) {
        m_pUtilities->OS_FolderRemove(m_pRuntimeParam, &m_LogArgu, pcTestDir, nullptr);
    }
    for (const char* pcPath : {pcTestFile, pcSecondFile, pcTestDir}) {
        CExitCleanup::Forget(pcPath);
    }
    m_pUtilities->LogInfo(
        m_pRuntimeParam, "%s",
        "================================ END TEST ================================");
}

void CPlatformTest::ReportFileSystem(const char* pcDir) {
    m_pUtilities->LogInfo(
        m_pRuntimeParam, "%s",
        "------------------------ ATTRIBUTES of file system -----------------------");
    m_pUtilities->LogInfo(m_pRuntimeParam, "%-40s: %llu", "Current time (in milliseconds)",
                          CUtilities::GetCurrentSystemTimeInMilliseconds());
    const auto printSize = [&](const char* pcName, unsigned long long iSize) {
        char cSize[32];
        CUtilities::GetPrintableFileSize(iSize, cSize);
        m_pUtilities->LogInfo(m_pRuntimeParam, "%-40s: %s", pcName, cSize);
    };
    printSize("Maximum File Size", CUtilities::GetMaxFileSize(pcDir));
    printSize("Total Disk Space", CUtilities::GetTotalDiskSpace(pcDir));
    printSize("Free Disk Space", CUtilities::GetFreeDiskSpace(pcDir));
    printSize("Free Disk Space To Caller", CUtilities::GetFreeDiskSpaceAvailableToCaller(pcDir));
    const auto printSlots = [&](const char* pcName, unsigned long long iSlots) {
        m_pUtilities->LogInfo(m_pRuntimeParam, "%-40s: %llu(%llX)", pcName, iSlots, iSlots);
    };
    printSlots("Total File Slots", CUtilities::GetTotalFileSlots(pcDir));
    printSlots("Free File Slots", CUtilities::GetFreeFileSlots(pcDir));
    printSlots("Free File Slots To Caller", CUtilities::GetFreeFileSlotsAvailableToCaller(pcDir));
}

void CPlatformTest::RunTestFiles(const char* pcTestDir, const char* pcTestFile,
                                 const char* pcSecondFile, long long iFileSize) {
    CUtilities& utilities = *m_pUtilities;
    CRuntimeParam* pParam = m_pRuntimeParam;
    Step step(m_pUtilities, pParam);
    utilities.LogInfo(pParam, "%s",
                      "-------------------------------- FILE IO ---------------------------------");

    step.Run("Create directory \"%s\"", pcTestDir).Do([&] {
        return utilities.OS_FolderCreate(pParam, &m_LogArgu, pcTestDir, 0755, step.Status()) !=
                   -1 &&
               step.Expect(CUtilities::OS_IsFileExists(pcTestDir),
                           "%s%s. Error=Directory not exist", FAIL, step.Text());
    });

    int iFile = -1;
    step.Run("Create file \"%s\"", pcTestFile).Do([&] {
        iFile = utilities.OS_FileCreate(pParam, &m_LogArgu, pcTestFile, step.Status());
        return iFile != -1 && step.Expect(CUtilities::OS_IsFileExists(pcTestFile),
                                          "%s%s. Error=File not exist", FAIL, step.Text());
    });
    const auto closeFile = [&] {
        step.Run("Close file \"%s\"", pcTestFile).Do([&] {
            return utilities.OS_FileClose(pParam, &m_LogArgu, pcTestFile, iFile, step.Status()) !=
                   -1;
        });
    };
    closeFile();

    // Beyond the largest size this wraps round, and the step fails on the file system's word.
    const auto iLargeSize =
        static_cast<long long>(static_cast<unsigned long long>(iFileSize) + 1024);
    RunTestUpdateFileSize(pcTestFile, iLargeSize, "Enlarge file");
    RunTestUpdateFileSize(pcTestFile, iFileSize, "Shrink file");

    step.Run("Open file \"%s\"", pcTestFile).Do([&] {
        iFile = utilities.OS_FileOpen(pParam, &m_LogArgu, pcTestFile, O_RDWR, false, step.Status());
        return iFile != -1;
    });
    RunTestReadWriteFile(iFile, 0, iFileSize);
    RunTestReadWriteFile(iFile, iFileSize, iFileSize);

    struct stat data {};
    if (!step.Run("Get file stat from file \"%s\"", pcTestFile).Do([&] {
            return utilities.OS_GetFileStat(pParam, &m_LogArgu, pcTestFile, &data, step.Status()) !=
                   -1;
        })) {
        data.st_mode = 0;
    }
    RunTestUpdateFileAttribute(pcTestFile, TEST_READ_ONLY_MODE);
    RunTestUpdateFileAttribute(pcTestFile, data.st_mode);
    closeFile();

    step.Run("Rename file from \"%s\" to \"%s\"", pcTestFile, pcSecondFile).Do([&] {
        return utilities.OS_FileRename(pParam, &m_LogArgu, pcTestFile, pcSecondFile,
                                       step.Status()) != -1;
    });
    step.Run("Remove file \"%s\"", pcSecondFile).Do([&] {
        return utilities.OS_FileRemove(pParam, &m_LogArgu, pcSecondFile, step.Status()) != -1;
    });
    step.Run("Remove directory \"%s\"", pcTestDir).Do([&] {
        return utilities.OS_FolderRemove(pParam, &m_LogArgu, pcTestDir, step.Status()) != -1 &&
               step.Expect(!CUtilities::OS_IsFileExists(pcTestDir),
                           "%s%s. Error=Directory still exist", FAIL, step.Text());
    });
}

void CPlatformTest::RunTestUpdateFileSize(const char* pcFile, long long iFileSize,
                                          const char* pcPrefix) {
    CUtilities& utilities = *m_pUtilities;
    CRuntimeParam* pParam = m_pRuntimeParam;
    Step step(m_pUtilities, pParam);
    const bool bSet = step.Run("%s \"%s\" size to %lld", pcPrefix, pcFile, iFileSize).Do([&] {
        return utilities.OS_SetFileSize(pParam, &m_LogArgu, pcFile,
                                        static_cast<unsigned long long>(iFileSize), step.Status());
    });

    int iFile = -1;
    const bool bOpen = step.Run("Open file \"%s\"", pcFile)
                           .After(bSet, "%s%s. Error=Set file size failed", FAIL, step.Text())
                           .Do([&] {
                               iFile = utilities.OS_FileOpen(pParam, &m_LogArgu, pcFile, O_RDWR,
                                                             false, step.Status());
                               return iFile != -1;
                           });

    step.Run("Verify file size")
        .After(bOpen, "%s%s. Error=Open file failed", FAIL, step.Text())
        .Do([&] {
            const long long iSize =
                utilities.OS_FileSeek(pParam, &m_LogArgu, iFile, 0, SEEK_END, step.Status());
            return iSize != -1 &&
                   step.Expect(iSize == iFileSize,
                               "%s%s. Error=Size not match (current size = %llu)", FAIL,
                               step.Text(), static_cast<unsigned long long>(iSize));
        });

    step.Run("Close file \"%s\"", pcFile)
        .After(bOpen, "%s%s. Error=Open file failed", FAIL, step.Text())
        .Do([&] {
            return utilities.OS_FileClose(pParam, &m_LogArgu, pcFile, iFile, step.Status()) != -1;
        });
}

void CPlatformTest::RunTestReadWriteFile(int iFile, long long iPos, long long iFileSize) {
    CUtilities& utilities = *m_pUtilities;
    CRuntimeParam* pParam = m_pRuntimeParam;
    // Every byte of the pattern has the value 1.
    const std::string sData(TEST_DATA_SIZE, '\x01');
    long long iLen = TEST_DATA_SIZE;
    MoveIntoFile(iFileSize, &iPos, &iLen);
    const auto iPosition = static_cast<unsigned long long>(iPos);
    const auto iDataLen = static_cast<unsigned int>(iLen);
    const int iPrintLen = static_cast<int>(iLen);

    Step step(m_pUtilities, pParam);
    const auto seek = [&] {
        const long long iNow =
            utilities.OS_FileSeek(pParam, &m_LogArgu, iFile, iPosition, SEEK_SET, step.Status());
        return iNow != -1 &&
               step.Expect(iNow == iPos, "%s%s. Error=Position not match (current pos = %llu)",
                           FAIL, step.Text(), static_cast<unsigned long long>(iNow));
    };
    bool bOk = step.Run("File seek to position %llu", iPosition).Do(seek);

    bOk = step.Run("Write data with length %d", iPrintLen)
              .After(bOk, "%s%s. Error=File seek failed", FAIL, step.Text())
              .Do([&] {
                  const int iWritten = utilities.OS_FileWrite(
                      pParam, &m_LogArgu, iFile, sData.data(), iDataLen, step.Status());
                  return iWritten != -1 &&
                         step.Expect(iWritten == iPrintLen,
                                     "%s%s. Error=Data lenght not match (write length = %d)", FAIL,
                                     step.Text(), iWritten);
              });

    bOk = step.Run("Move pointer to position %llu", iPosition)
              .After(bOk, "%s%s. Error=File write failed", FAIL, step.Text())
              .Do(seek);

    char cRead[TEST_DATA_SIZE] = {};
    bOk = step.Run("Read data with length %d", iPrintLen)
              .After(bOk, "%s%s. Error=File seek failed", FAIL, step.Text())
              .Do([&] {
                  const int iRead = utilities.OS_FileRead(pParam, &m_LogArgu, iFile, cRead,
                                                          iDataLen, step.Status());
                  return iRead != -1 &&
                         step.Expect(iRead == iPrintLen,
                                     "%s%s. Error=Data lenght not match (read length = %d)", FAIL,
                                     step.Text(), iRead);
              });

    step.Run("Verify data with size %d", iPrintLen)
        .After(bOk, "%s%s. Error=File read failed", FAIL, step.Text())
        .Do([&] {
            return step.Expect(std::memcmp(cRead, sData.data(), iDataLen) == 0,
                               "%s%s. Error=Data content not match", FAIL, step.Text());
        });
}

void CPlatformTest::RunTestUpdateFileAttribute(const char* pcFile, unsigned int iMode) {
    CUtilities& utilities = *m_pUtilities;
    CRuntimeParam* pParam = m_pRuntimeParam;
    Step step(m_pUtilities, pParam);
    bool bOk = step.Run("Set file mode %X to file \"%s\"", iMode, pcFile).Do([&] {
        return utilities.OS_SetFileMode(pParam, &m_LogArgu, pcFile, static_cast<int>(iMode),
                                        step.Status()) != -1;
    });

    struct stat data {};
    bOk = step.Run("Get file mode from file \"%s\"", pcFile)
              .After(bOk, "%s%s. Error=Set file mode failed", FAIL, step.Text())
              .Do([&] {
                  return utilities.OS_GetFileStat(pParam, &m_LogArgu, pcFile, &data,
                                                  step.Status()) != -1;
              });

    step.Run("Verify file mode %X from file \"%s\"", iMode, pcFile)
        .After(bOk, "%s%s. Error=Get file mode failed", FAIL, step.Text())
        .Do([&] {
            return step.Expect(data.st_mode == iMode,
                               "%s%s. Error=File mode not match (current file mode = %X)", FAIL,
                               step.Text(), data.st_mode);
        });
}
