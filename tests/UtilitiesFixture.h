// What the tests of the service object share: a fixture with a recording service object and the
// context that every operation asks for.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include "RecordingUtilities.h"
#include "RuntimeParam.h"
#include "support/Files.h"
#include "Utilities.h"

using support::DescriptorTarget;
using support::OpenCount;

// Every category switched on.
inline constexpr int LOG_CONTROL_ALL = 1023;

// Gives the recorded lines as "info: text", "error: text" and "raw: text".
class CRecordingUtilities : public RecordingUtilities {
public:
    // The lines since the last call.
    std::vector<std::string> TakeLines() {
        static constexpr const char* KINDS[] = {"info: ", "error: ", "raw: "};
        std::vector<std::string> vLines;
        for (const LogLine& line : Lines()) {
            vLines.push_back(KINDS[static_cast<int>(line.kind)] + line.text);
        }
        Forget();
        return vLines;
    }
};

class UtilitiesFixture : public ::testing::Test {
protected:
    ~UtilitiesFixture() override { m_Utilities.Reset(&m_Silent, &m_Argu); }

    // Exports a folder, which need not exist.
    void Export(const std::string& sFolder, const char* pcName, const char* pcIpcID = "") {
        char cStatus[STATUS_SIZE] = "";
        ASSERT_TRUE(
            m_Utilities.AddMountInfo(&m_Silent, &m_Argu, sFolder.c_str(), pcName, pcIpcID, cStatus))
            << cStatus;
    }

    CRecordingUtilities m_Utilities;
    CRuntimeParam m_Silent{"vm01", 0};
    CRuntimeParam m_Errors{"vm01", LOG_CONTROL_ERROR};
    CRuntimeParam m_General{"vm01", LOG_CONTROL_GENERAL_INFO};
    CRuntimeParam m_Access{"vm01", LOG_CONTROL_FILE_ACCESS};
    CRuntimeParam m_All{"vm01", LOG_CONTROL_ALL};
    LogArgu m_Argu{"Test.Case"};
    support::ScopedTempDir m_Dir;
    char m_cStatus[STATUS_SIZE] = "";
};

// Sets the soft limit of descriptors while it lives.
class CDescriptorLimit {
public:
    explicit CDescriptorLimit(rlim_t iSoft) {
        if (getrlimit(RLIMIT_NOFILE, &m_Old) != 0) {
            throw std::runtime_error("getrlimit");
        }
        struct rlimit limit = m_Old;
        limit.rlim_cur = iSoft;
        if (setrlimit(RLIMIT_NOFILE, &limit) != 0) {
            throw std::runtime_error("setrlimit");
        }
    }
    ~CDescriptorLimit() { setrlimit(RLIMIT_NOFILE, &m_Old); }
    CDescriptorLimit(const CDescriptorLimit&) = delete;
    CDescriptorLimit& operator=(const CDescriptorLimit&) = delete;

private:
    struct rlimit m_Old {};
};

// Sets the mask of permissions of new files while it lives.
class CFileMask {
public:
    explicit CFileMask(mode_t iMask) : m_iOld(umask(iMask)) {}
    ~CFileMask() { umask(m_iOld); }
    CFileMask(const CFileMask&) = delete;
    CFileMask& operator=(const CFileMask&) = delete;

private:
    mode_t m_iOld;
};

// The permission bits of a path.
inline mode_t ModeOf(const std::string& sPath) {
    struct stat data {};
    if (stat(sPath.c_str(), &data) != 0) {
        throw std::runtime_error("stat " + sPath);
    }
    return data.st_mode & 07777;
}
