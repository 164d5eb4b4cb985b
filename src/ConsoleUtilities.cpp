#include "ConsoleUtilities.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "ConsoleCommands.h"
#include "ConsoleOptions.h"
#include "ExitCleanup.h"
#include "ExitSignals.h"
#include "FileLogger.h"
#include "MainFactory.h"
#include "NfsMain.h"
#include "RuntimeParam.h"
#include "StandardOutput.h"
#include "Utilities.h"
#include "Version.h"

namespace {

constexpr int POLL_MS = 100;

void PrintDashedLine() { CStandardOutput::Print("------------------------------------\n"); }

void PrintValue(const char* pcLabel, const char* pcValue) {
    CStandardOutput::Print("%s %s\n", pcLabel, pcValue);
}

void PrintCount(const char* pcLabel, int iCount) {
    CStandardOutput::Print("%s %d\n", pcLabel, iCount);
}

bool IsExitRequested(const CNfsMain* pNfsMain) {
    return pNfsMain->IsAutoShutdownRequested() || CExitSignals::IsEndRequested();
}

}  // namespace

// =================================================================================================
// Run
// =================================================================================================

namespace {

// Removes the pid file when a run ends that has made it.
class PidFile {
public:
    PidFile(const std::string& sPath, int iLogControl)
        : m_sPath(sPath), m_iLogControl(iLogControl) {}
    ~PidFile() {
        if (m_bCreated) {
            CConsoleUtilities::RemovePidFile(m_sPath.c_str(), m_iLogControl);
        }
    }
    PidFile(const PidFile&) = delete;
    PidFile& operator=(const PidFile&) = delete;

    bool Create(char* pcReason) {
        m_bCreated = CConsoleUtilities::CreatePidFile(m_sPath.c_str(), m_iLogControl, pcReason);
        return m_bCreated;
    }

private:
    std::string m_sPath;
    int m_iLogControl;
    bool m_bCreated = false;
};

// Attaches the log file, when there is to be one, and says what the run is.  A file that cannot be
// made is told of; the logger stays, unattached.
std::unique_ptr<CFileLogger> AttachLogFile(CNfsMain* pNfsMain, const ConsoleOptions& options) {
    if (!options.sLogFile.has_value()) {
        return nullptr;
    }
    auto pFileLogger = std::make_unique<CFileLogger>(options.sLogFile->c_str());
    if (pFileLogger->Open(options.iLogControl)) {
        pNfsMain->SetFileLogger(pFileLogger.get());
    } else {
        CStandardOutput::Print("Fail to create log file: %s\n", options.sLogFile->c_str());
    }
    CUtilities* pUtilities = pNfsMain->GetUtils();
    pUtilities->LogInfo(pNfsMain->GetRuntimeParam(), "ID = %s, LogControl = %d, AccessMode = %d",
                        options.sID.c_str(), options.iLogControl, pNfsMain->GetAccessMode());
    if (!options.sPidFile.empty()) {
        pUtilities->LogInfo(pNfsMain->GetRuntimeParam(), "Create pid file \"%s\"",
                            options.sPidFile.c_str());
    }
    return pFileLogger;
}

// Prints the banner; false when no server answers.
bool PrintVersions(CNfsMain* pNfsMain) {
    char cVersion[VERSION_SIZE] = "";
    char cDescription[VERSION_SIZE] = "";
    pNfsMain->GetVersion(cVersion);
    pNfsMain->GetDescription(cDescription);
    PrintDashedLine();
    PrintValue("Execute Version:", PRODUCT_VERSION);
    PrintValue("Server Version:", cVersion);
    PrintValue("Server Description:", cDescription);
    PrintDashedLine();
    return std::strcmp(cVersion, "Unknown") != 0;
}

// What follows the creation of the main object; the exit code, and the reason of a failure.
int RunMain(CConsoleUtilities* pConsole, CNfsMain* pNfsMain, CFileLogger* pFileLogger,
            const ConsoleOptions& options, char* pcReason) {
    if (!PrintVersions(pNfsMain)) {
        if (options.bQuery) {
            PrintValue("Server Status:", "NotAccessible");
            PrintDashedLine();
            return 0;
        }
        CUtilities::SetStatus(pcReason, "Fail to get server version");
        return 1;
    }
    if (!pNfsMain->Initial(pcReason)) {
        return 1;
    }
    const bool bStarted = pNfsMain->StartRemoteController(pcReason);
    if (bStarted) {
        if (options.bShutdown) {
            pNfsMain->RequestAutoShutdown();
        } else if (options.bQuery) {
            CConsoleUtilities::PrintStatus(pNfsMain);
        } else if (options.bTest) {
            pNfsMain->RunTestMode(options.sTestPath.c_str(), options.iTestSize);
        } else {
            pConsole->ProcessCommand(pNfsMain, pFileLogger);
        }
        pNfsMain->StopServer();
        pNfsMain->StopRemoteController();
    }
    pNfsMain->Terminate();
    return bStarted ? 0 : 1;
}

}  // namespace

int CConsoleUtilities::Run(const char* pcProgramName, const char* pcArguments) {
    ConsoleOptions options;
    if (const auto iEnd = CConsoleOptions::Parse(pcProgramName, pcArguments, &options)) {
        return *iEnd;
    }
    const CExitSignals signals;
    char cReason[STATUS_SIZE] = "";
    PidFile pidFile(options.sPidFile, options.iLogControl);
    if (!pidFile.Create(cReason)) {
        CStandardOutput::Print("Fail to create pid file \"%s\". Reason=%s\n",
                               options.sPidFile.c_str(), cReason);
        return 1;
    }
    std::unique_ptr<CFileLogger> pFileLogger;  // before the main object, which logs to its end
    const std::unique_ptr<CNfsMain> pNfsMain =
        CMainFactory::Create(options.iAccessMode, options.sID.c_str(), options.iLogControl);
    const bool bServer = options.iAccessMode != ACCESS_MODE_IPC_CLIENT;
    int iExitCode = 1;
    if (pNfsMain == nullptr) {
        CStandardOutput::Print("Un-supported access mode: %d\n", options.iAccessMode);
    } else if (bServer && options.bShutdown) {
        CStandardOutput::Print("Auto shutdown is activated, terminate now\n");
        iExitCode = 0;
    } else {
        if (bServer) {
            pNfsMain->EnableAutoShutdown(true);
        }
        pFileLogger = AttachLogFile(pNfsMain.get(), options);
        iExitCode = RunMain(this, pNfsMain.get(), pFileLogger.get(), options, cReason);
    }
    if (iExitCode != 0) {
        CStandardOutput::Print("Terminated. Reason=%s\n", cReason);
    }
    return iExitCode;
}

// =================================================================================================
// Texts
// =================================================================================================

bool CConsoleUtilities::SplitValue(CUtilities* /*pUtilities*/, const char* pcValue,
                                   std::string* psFirst, std::string* psSecond) {
    std::vector<std::string> vParts;
    CUtilities::SplitIntoVector(pcValue, '=', &vParts);
    if (vParts.size() < 2) {
        return false;
    }
    *psFirst = vParts[0];
    *psSecond = vParts[1];
    return true;
}

void CConsoleUtilities::PrintUsage(const char* pcProgramName) {
    CConsoleOptions::PrintUsage(pcProgramName);
}

void CConsoleUtilities::PrintCommandHelp(bool bDebugMode) {
    CConsoleCommands::PrintHelp(bDebugMode);
}

void CConsoleUtilities::PrintStatus(CNfsMain* pNfsMain) {
    PrintValue("Server Status:", pNfsMain->IsServerRunning() ? "Started" : "Stopped");
    PrintDashedLine();
    int iCount = pNfsMain->GetMountInfo(false, false);
    PrintCount("Number of Mount Point:", iCount);
    if (iCount > 0) {
        pNfsMain->GetMountInfo(false, true);
    }
    PrintDashedLine();
    iCount = pNfsMain->GetSessionInfo(false);
    PrintCount("Number of Session:", iCount);
    if (iCount > 0) {
        pNfsMain->GetSessionInfo(true);
    }
    PrintDashedLine();
    iCount = pNfsMain->GetVSphereInfo(false);
    PrintCount("Number of mounted NFS datastore:", iCount);
    if (iCount > 0) {
        pNfsMain->GetVSphereInfo(true);
    }
    PrintDashedLine();
}

// =================================================================================================
// Command loop
// =================================================================================================

void CConsoleUtilities::MsSleep(int iMs) { usleep(static_cast<useconds_t>(iMs) * 1000); }

void CConsoleUtilities::ProcessCommand(CNfsMain* pNfsMain, CFileLogger* pFileLogger) {
    // Whoever sees the prompt may end the loop.
    const auto prompt = [] {
        CExitSignals::EndInOrder();
        CConsoleCommands::PrintPrompt();
    };
    const auto isExitRequested = [pNfsMain] { return IsExitRequested(pNfsMain); };
    const bool bClient = pNfsMain->GetAccessMode() == ACCESS_MODE_IPC_CLIENT;
    CConsoleCommands commands(pNfsMain, pFileLogger);
    CConsoleCommands::PrintHint();
    prompt();
    for (;;) {
        if (isExitRequested()) {
            CStandardOutput::EndWaits();
            CStandardOutput::Print("\nExit by request\n");
            return;
        }
        if (!IsKeyboardHit()) {
            MsSleep(POLL_MS);
            continue;
        }
        std::string sLine;
        if (!m_Input.ReadLine(isExitRequested, &sLine)) {
            continue;
        }
        sLine.resize(std::strlen(sLine.c_str()));
        // What a controller does waits for another process, without a limit, and leaves nothing
        // here to be ended in order.
        const bool bExecute = !bClient || CExitSignals::EndAtOnce();
        const bool bGoOn = !bExecute || commands.Execute(sLine);
        CConsoleInput::Wipe(&sLine);
        if (!bGoOn) {
            return;
        }
        if (bExecute) {
            prompt();
        }
    }
}

// =================================================================================================
// Pid file
// =================================================================================================

namespace {

// Removes a pid file whose process is gone.  False, with a reason, when it still runs.
bool RemoveOldPidFile(CUtilities* pUtilities, CRuntimeParam* pParam, LogArgu* pLogArgu,
                      const char* pcPath, char* pcReason) {
    char cText[256] = "";
    const int iFile = pUtilities->OS_FileOpen(pParam, pLogArgu, pcPath, O_RDONLY, true, pcReason);
    if (iFile == -1) {
        return false;
    }
    const int iRead =
        pUtilities->OS_FileRead(pParam, pLogArgu, iFile, cText, sizeof(cText) - 1, pcReason);
    pUtilities->OS_FileClose(pParam, pLogArgu, pcPath, iFile, nullptr);
    if (iRead == -1) {
        return false;
    }
    // A number that is not positive names no process but a group of them.
    const int iProcess = std::atoi(cText);
    if (iProcess > 0 && kill(iProcess, 0) == 0) {
        CUtilities::SetStatus(pcReason, "Process ID \"%d\" is still running", iProcess);
        return false;
    }
    return pUtilities->OS_FileRemove(pParam, pLogArgu, pcPath, pcReason) != -1;
}

}  // namespace

bool CConsoleUtilities::CreatePidFile(const char* pcPath, int iLogControl, char* pcReason) {
    if (pcPath == nullptr || *pcPath == '\0') {
        return true;
    }
    LogArgu logArgu{"CConsoleUtilities.CreatePidFile"};
    CUtilities utilities;
    CRuntimeParam param("", iLogControl | LOG_CONTROL_ERROR);
    if (CUtilities::OS_IsFileExists(pcPath) &&
        !RemoveOldPidFile(&utilities, &param, &logArgu, pcPath, pcReason)) {
        return false;
    }
    CExitCleanup::AddFile(pcPath);
    const int iFile = utilities.OS_FileForceOpen(&param, &logArgu, pcPath, pcReason);
    bool bOk = iFile != -1;
    if (!bOk) {
        CExitCleanup::Forget(pcPath);
    } else {
        char cNumber[32];
        const int iLen =
            std::snprintf(cNumber, sizeof(cNumber), "%d\n", static_cast<int>(getpid()));
        bOk = utilities.OS_FileWrite(&param, &logArgu, iFile, cNumber,
                                     static_cast<unsigned int>(iLen), pcReason) == iLen;
        utilities.OS_FileClose(&param, &logArgu, pcPath, iFile, nullptr);
    }
    if (!bOk) {
        utilities.LogError(&param, "Fail to create pid file \"%s\". Reason=%s", pcPath, pcReason);
    }
    return bOk;
}

void CConsoleUtilities::RemovePidFile(const char* pcPath, int iLogControl) {
    if (pcPath == nullptr || *pcPath == '\0') {
        return;
    }
    if (CUtilities::OS_IsFileExists(pcPath)) {
        LogArgu logArgu{"CConsoleUtilities.RemovePidFile"};
        CUtilities utilities;
        CRuntimeParam param("", iLogControl | LOG_CONTROL_ERROR);
        utilities.OS_FileRemove(&param, &logArgu, pcPath, nullptr);
    }
    CExitCleanup::Forget(pcPath);
}
