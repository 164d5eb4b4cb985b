#include "ConsoleUtilities.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "ExitCleanup.h"
#include "FileLogger.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "RuntimeParam.h"
#include "StandardOutput.h"
#include "Utilities.h"
#include "Version.h"

namespace {

constexpr const char* DASHED_LINE = "------------------------------------";
constexpr const char* DOUBLE_LINE = "==========================";

constexpr std::size_t MAX_LINE = 4096;  // bytes of a line buffer, its NUL included
constexpr int POLL_MS = 100;

// Option names.
constexpr const char* OPTION_HELP = "-help";
constexpr const char* OPTION_SHUTDOWN = "-shutdown";
constexpr const char* OPTION_QUERY = "-query";
constexpr const char* OPTION_ID = "-id";
constexpr const char* OPTION_LOG = "-log";
constexpr const char* OPTION_MODE = "-md";
constexpr const char* OPTION_LOG_FILE = "-logfile";
constexpr const char* OPTION_PID_FILE = "-pidfile";
constexpr const char* OPTION_TEST = "-test";

constexpr const char* MODE_INTERNAL = "int";
constexpr const char* MODE_SERVER = "svr";
constexpr const char* MODE_CLIENT = "cli";

// Keywords of the command loop; those that take an argument end in a blank.
constexpr const char* COMMAND_HELP = "help";
constexpr const char* COMMAND_QUIT = "quit";
constexpr const char* COMMAND_LOG = "log ";
constexpr const char* COMMAND_STATUS = "status";
constexpr const char* COMMAND_DEBUG = "debug";
constexpr const char* COMMAND_START = "start";
constexpr const char* COMMAND_START_PORTS = "start ";
constexpr const char* COMMAND_MOUNT = "mount ";
constexpr const char* COMMAND_UMOUNT = "umount ";
constexpr const char* COMMAND_TEST = "test ";
constexpr const char* COMMAND_LOG_FILE_SIZE = "logfilesize ";
constexpr const char* COMMAND_PRINT = "print ";
constexpr const char* COMMAND_DEBUG_ACTION = "debugaction ";
constexpr const char* COMMAND_ADD_VSPHERE = "addvsphereinfo ";
constexpr const char* COMMAND_REMOVE_VSPHERE = "removevsphereinfo ";

// What SIGINT, SIGTERM and SIGHUP do.
enum : int {
    END_AT_ONCE,    // end the process
    END_IN_ORDER,   // ask the command loop to end
    END_REQUESTED,  // it was asked: end the process, but for a SIGHUP
};
std::atomic<int> g_iOnSignal{END_AT_ONCE};

// The settings of a terminal that IsKeyboardHit has changed for a moment.
struct termios g_Settings {};
std::atomic<bool> g_bSettingsChanged{false};

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free,
              "a signal handler must not wait for a lock");

void Print(const char* pcFmt, ...) VELOCAST_PRINTF(1, 2);

void Print(const char* pcFmt, ...) {
    va_list vaArgs;
    va_start(vaArgs, pcFmt);
    CStandardOutput::PrintArgs(pcFmt, vaArgs);
    va_end(vaArgs);
}

// Leaves no copy of a text behind: it may hold a password.
void Wipe(std::string* psText) {
    explicit_bzero(psText->data(), psText->size());
    psText->clear();
}

// The argument of a line that begins with the keyword and has at least one character behind it,
// else null.
const char* Argument(const std::string& sLine, const std::string& sKeyword) {
    const bool bMatch = sLine.size() > sKeyword.size() && sLine.starts_with(sKeyword);
    return bMatch ? sLine.c_str() + sKeyword.size() : nullptr;
}

// The commands of one loop.
class CommandLoop {
public:
    CommandLoop(CNfsMain* pNfsMain, CFileLogger* pFileLogger)
        : m_pNfsMain(pNfsMain), m_pFileLogger(pFileLogger) {}

    // False when the loop is to end.
    bool Execute(const std::string& sLine) {
        if (sLine.empty()) {
            return true;
        }
        if (sLine == COMMAND_QUIT) {
            CStandardOutput::EndWaits();
            Print("\nExit\n");
            return false;
        }
        if (!ExecuteAlways(sLine) && !(m_bDebugMode && ExecuteDebug(sLine))) {
            Print("Unknown command: '%s'\n", sLine.c_str());
            Print("Type '%s' to see help\n", COMMAND_HELP);
        }
        return true;
    }

private:
    // Each returns whether it knew the line.
    bool ExecuteAlways(const std::string& sLine) {
        if (sLine == COMMAND_HELP) {
            CConsoleUtilities::PrintCommandHelp(m_bDebugMode);
        } else if (const char* pcLog = Argument(sLine, COMMAND_LOG)) {
            m_pNfsMain->SetLogControl(std::atoi(pcLog));
        } else if (sLine == COMMAND_STATUS) {
            Print("\n");
            CConsoleUtilities::PrintStatus(m_pNfsMain);
        } else if (sLine == COMMAND_DEBUG) {
            m_bDebugMode = true;
        } else {
            return false;
        }
        return true;
    }

    bool ExecuteDebug(const std::string& sLine) {
        if (sLine == COMMAND_START) {
            Start(nullptr);
        } else if (const char* pcPorts = Argument(sLine, COMMAND_START_PORTS)) {
            Start(pcPorts);
        } else if (const char* pcMount = Argument(sLine, COMMAND_MOUNT)) {
            Mount(pcMount);
        } else if (const char* pcUmount = Argument(sLine, COMMAND_UMOUNT)) {
            m_pNfsMain->RemoveMountPoint(pcUmount);
        } else if (const char* pcTest = Argument(sLine, COMMAND_TEST)) {
            Test(pcTest);
        } else if (const char* pcSize = Argument(sLine, COMMAND_LOG_FILE_SIZE)) {
            SetLogFileSize(pcSize);
        } else if (const char* pcMessage = Argument(sLine, COMMAND_PRINT)) {
            std::string sMessage(pcMessage);
            m_pNfsMain->GetUtils()->LogInfo(m_pNfsMain->GetRuntimeParam(), sMessage.data());
        } else if (const char* pcFlag = Argument(sLine, COMMAND_DEBUG_ACTION)) {
            m_pNfsMain->SetDebugActionEnabled(std::atoi(pcFlag) != 0);
            Print("Current Server Status=%d\n", m_pNfsMain->GetServerStatus());
        } else if (const char* pcInfo = Argument(sLine, COMMAND_ADD_VSPHERE)) {
            AddVSphereInfo(pcInfo);
        } else if (const char* pcMoid = Argument(sLine, COMMAND_REMOVE_VSPHERE)) {
            m_pNfsMain->RemoveVSphereInfo(pcMoid);
        } else {
            return false;
        }
        return true;
    }

    void Start(const char* pcPorts) {
        if (m_pNfsMain->IsServerRunning()) {
            Print("NFS already running\n");
            return;
        }
        int iMountPort = 0;
        int iNfsPort = 0;
        if (pcPorts != nullptr) {
            std::string sMountPort;
            std::string sNfsPort;
            if (!CConsoleUtilities::SplitValue(m_pNfsMain->GetUtils(), pcPorts, &sMountPort,
                                               &sNfsPort)) {
                Print("Fail to start NFS. Reason=In-valid input value: %s\n", pcPorts);
                return;
            }
            iMountPort = std::atoi(sMountPort.c_str());
            iNfsPort = std::atoi(sNfsPort.c_str());
        }
        char cReason[STATUS_SIZE] = "";
        if (m_pNfsMain->StartServer(iMountPort, iNfsPort, 0, 0, false, cReason)) {
            Print("Start NFS success\n");
        } else {
            Print("Fail to start NFS. %s\n", cReason);
        }
    }

    void Mount(const char* pcValue) {
        std::string sPath;
        std::string sExportName;
        if (!CConsoleUtilities::SplitValue(m_pNfsMain->GetUtils(), pcValue, &sPath, &sExportName)) {
            Print("Fail to add mount point to NFS. Reason=In-valid input value: %s\n", pcValue);
            return;
        }
        char cReason[STATUS_SIZE] = "";
        if (!m_pNfsMain->AddMountPoint(sPath.c_str(), sExportName.c_str(), cReason)) {
            Print("Fail to add mount point to NFS. Reason=%s\n", cReason);
        }
    }

    void Test(const char* pcValue) {
        std::string sPath;
        std::string sSize;
        if (!CConsoleUtilities::SplitValue(m_pNfsMain->GetUtils(), pcValue, &sPath, &sSize)) {
            Print("Fail to run test. Reason=In-valid input value: %s\n", pcValue);
            return;
        }
        m_pNfsMain->RunTestMode(sPath.c_str(), std::atol(sSize.c_str()));
    }

    void SetLogFileSize(const char* pcSize) {
        if (m_pFileLogger == nullptr) {
            m_pNfsMain->GetUtils()->LogInfo(m_pNfsMain->GetRuntimeParam(),
                                            "No file logger is defined");
            return;
        }
        const auto size = [this] {
            return static_cast<unsigned long long>(m_pFileLogger->GetMaxLogSize());
        };
        Print("Current max log file size: %llu\n", size());
        m_pFileLogger->SetMaxLogSize(std::atol(pcSize));
        Print("Updated max log file size: %llu\n", size());
    }

    void AddVSphereInfo(const char* pcValue) {
        std::vector<std::string> vWords;
        CUtilities::SplitIntoVector(pcValue, ' ', &vWords);
        if (vWords.size() < 5) {
            Print("Fail to add VSphere info to NFS. Reason=In-valid input value: %s\n", pcValue);
            return;
        }
        m_pNfsMain->AddVSphereInfo(vWords[0].c_str(), vWords[1].c_str(), vWords[2].c_str(),
                                   vWords[3].c_str(), vWords[4].c_str());
        Wipe(&vWords[4]);
    }

    CNfsMain* m_pNfsMain;
    CFileLogger* m_pFileLogger;
    bool m_bDebugMode = false;
};

}  // namespace

// =================================================================================================
// Command line
// =================================================================================================

struct CConsoleUtilities::Options {
    bool bShutdown = false;
    bool bQuery = false;
    bool bTest = false;
    bool bID = false;
    std::string sID = "cRun";
    int iLogControl = 0;
    std::string sMode;
    bool bLogFile = false;
    std::string sLogFile;
    std::string sPidFile;
    std::string sTestPath;
    long long iTestSize = 0;  // bytes

    int AccessMode() const {
        if (sMode == MODE_CLIENT) {
            return ACCESS_MODE_IPC_CLIENT;
        }
        return sMode == MODE_SERVER ? ACCESS_MODE_IPC_SERVER : ACCESS_MODE_INTERNAL;
    }
};

bool CConsoleUtilities::ParseOptions(const char* pcProgramName, const char* pcArguments,
                                     Options* pOptions, int* piExitCode) {
    std::vector<std::string> vTokens;
    CUtilities::SplitIntoVector(pcArguments, '\n', &vTokens);
    for (std::size_t i = 0; i < vTokens.size(); ++i) {
        const std::string& sOption = vTokens[i];
        if (sOption == OPTION_HELP) {
            PrintUsage(pcProgramName);
            *piExitCode = 0;
            return false;
        }
        if (sOption == OPTION_SHUTDOWN) {
            pOptions->bShutdown = true;
            continue;
        }
        if (sOption == OPTION_QUERY) {
            pOptions->bQuery = true;
            continue;
        }
        if (++i == vTokens.size()) {
            break;  // an option without a value
        }
        const std::string& sValue = vTokens[i];
        if (sOption == OPTION_ID) {
            pOptions->bID = true;
            pOptions->sID = sValue;
        } else if (sOption == OPTION_LOG) {
            pOptions->iLogControl = std::atoi(sValue.c_str());
        } else if (sOption == OPTION_MODE) {
            if (sValue != MODE_INTERNAL && sValue != MODE_SERVER && sValue != MODE_CLIENT) {
                Print("Un-supported mode: %s\n", OPTION_MODE);
                *piExitCode = 1;
                return false;
            }
            pOptions->sMode = sValue;
        } else if (sOption == OPTION_LOG_FILE) {
            pOptions->bLogFile = true;
            pOptions->sLogFile = sValue;
        } else if (sOption == OPTION_PID_FILE) {
            pOptions->sPidFile = sValue;
        } else if (sOption == OPTION_TEST) {
            std::string sSize;
            if (!SplitValue(nullptr, sValue.c_str(), &pOptions->sTestPath, &sSize)) {
                Print("In-valid test mode value: %s\n", sValue.c_str());
                *piExitCode = 1;
                return false;
            }
            pOptions->bTest = true;
            pOptions->iTestSize = std::atol(sSize.c_str());
        }
    }
    if (!pOptions->bID) {
        if (pOptions->bTest) {
            pOptions->sID = "tmRun";
        } else if (pOptions->bQuery) {
            pOptions->sID = "qyRun";
        } else if (pOptions->bShutdown) {
            pOptions->sID = "shRun";
        }
    }
    if (pOptions->sMode.empty()) {
        pOptions->sMode = pOptions->bShutdown || pOptions->bQuery ? MODE_CLIENT : MODE_SERVER;
    }
    return true;
}

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
    Print("\n");
    Print("Usage: %s [%s]\n", pcProgramName, OPTION_HELP);
    Print("       [%s]\n", OPTION_SHUTDOWN);
    Print("       [%s]\n", OPTION_QUERY);
    Print("       [%s <path=max_file_size>]\n", OPTION_TEST);
    Print("       [%s <name>] [%s <num>] [%s <%s|%s|%s>] [%s <path>] [%s <path>]\n", OPTION_ID,
          OPTION_LOG, OPTION_MODE, MODE_INTERNAL, MODE_SERVER, MODE_CLIENT, OPTION_LOG_FILE,
          OPTION_PID_FILE);
}

// =================================================================================================
// Run
// =================================================================================================

bool CConsoleUtilities::IsExitRequested(CNfsMain* pNfsMain) {
    return pNfsMain->IsAutoShutdownRequested() || g_iOnSignal == END_REQUESTED;
}

namespace {

constexpr int EXIT_SIGNALS[] = {SIGINT, SIGTERM, SIGHUP};

// Ends the process as the signal's default effect does, and leaves nothing behind.
[[noreturn]] void EndAtOnce(int iSignal) {
    CExitCleanup::Run();
    if (g_bSettingsChanged) {
        tcsetattr(STDIN_FILENO, TCSANOW, &g_Settings);
    }
    struct sigaction action {};
    action.sa_handler = SIG_DFL;
    sigaction(iSignal, &action, nullptr);
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, iSignal);
    pthread_sigmask(SIG_UNBLOCK, &set, nullptr);
    raise(iSignal);
    _exit(128 + iSignal);  // the first process of a container survives its own signals
}

void OnExitSignal(int iSignal) {
    const int iError = errno;
    int iNow = END_IN_ORDER;
    if (g_iOnSignal.compare_exchange_strong(iNow, END_REQUESTED)) {
        CStandardOutput::EndWaits();
    } else if (iNow != END_REQUESTED || iSignal != SIGHUP) {
        EndAtOnce(iSignal);
    }  // else a terminal that goes away: its shell may tell of it a second time
    errno = iError;
}

// While it lives, SIGINT, SIGTERM and SIGHUP end the process, in order where the command loop can.
class ExitSignals {
public:
    ExitSignals() {
        struct sigaction action {};
        action.sa_handler = OnExitSignal;
        action.sa_flags = SA_RESTART;  // the services' threads go on undisturbed
        sigemptyset(&action.sa_mask);
        for (const int iSignal : EXIT_SIGNALS) {
            sigaddset(&action.sa_mask, iSignal);
        }
        for (std::size_t i = 0; i < std::size(EXIT_SIGNALS); ++i) {
            sigaction(EXIT_SIGNALS[i], nullptr, &m_Saved[i]);
            // Who is told to outlive its terminal (nohup) does.
            if (EXIT_SIGNALS[i] != SIGHUP || m_Saved[i].sa_handler != SIG_IGN) {
                sigaction(EXIT_SIGNALS[i], &action, nullptr);
            }
        }
    }
    ~ExitSignals() {
        for (std::size_t i = 0; i < std::size(EXIT_SIGNALS); ++i) {
            sigaction(EXIT_SIGNALS[i], &m_Saved[i], nullptr);
        }
    }
    ExitSignals(const ExitSignals&) = delete;
    ExitSignals& operator=(const ExitSignals&) = delete;

private:
    struct sigaction m_Saved[std::size(EXIT_SIGNALS)]{};
};

// From now on signals end the command loop in order.
void EndInOrderOnSignal() {
    int iNow = END_AT_ONCE;
    g_iOnSignal.compare_exchange_strong(iNow, END_IN_ORDER);
}

// From now on signals end the process at once; false when the loop has already been asked to end.
bool EndAtOnceOnSignal() {
    int iNow = END_IN_ORDER;
    g_iOnSignal.compare_exchange_strong(iNow, END_AT_ONCE);
    return iNow != END_REQUESTED;
}

// Null for an unknown mode.
std::unique_ptr<CNfsMain> CreateMain(int iAccessMode, const char* pcID, int iLogControl) {
    switch (iAccessMode) {
        case ACCESS_MODE_INTERNAL:
            return std::make_unique<CNfsMain>(pcID, iLogControl);
        case ACCESS_MODE_IPC_SERVER:
            return std::make_unique<CNfsIpcServerMain>(pcID, iLogControl);
        case ACCESS_MODE_IPC_CLIENT:
            return std::make_unique<CNfsIpcClientMain>(pcID, iLogControl);
        default:
            return nullptr;
    }
}

}  // namespace

int CConsoleUtilities::Run(const char* pcProgramName, const char* pcArguments) {
    Options options;
    int iExitCode = 0;
    if (!ParseOptions(pcProgramName, pcArguments, &options, &iExitCode)) {
        return iExitCode;
    }
    const ExitSignals signals;

    const char* pcPidFile = options.sPidFile.c_str();
    char cReason[STATUS_SIZE] = "";
    if (!CreatePidFile(pcPidFile, options.iLogControl, cReason)) {
        Print("Fail to create pid file \"%s\". Reason=%s\n", pcPidFile, cReason);
        return 1;
    }

    const int iAccessMode = options.AccessMode();
    std::unique_ptr<CFileLogger> pFileLogger;
    std::unique_ptr<CNfsMain> pNfsMain =
        CreateMain(iAccessMode, options.sID.c_str(), options.iLogControl);
    if (pNfsMain == nullptr) {
        Print("Un-supported access mode: %d\n", iAccessMode);
        iExitCode = 1;
    } else {
        if (iAccessMode != ACCESS_MODE_IPC_CLIENT) {
            pNfsMain->EnableAutoShutdown(true);
        }
        if (iAccessMode != ACCESS_MODE_IPC_CLIENT && options.bShutdown) {
            Print("Auto shutdown is activated, terminate now\n");
        } else {
            if (options.bLogFile) {
                pFileLogger = std::make_unique<CFileLogger>(options.sLogFile.c_str());
                if (pFileLogger->Open(options.iLogControl)) {
                    pNfsMain->SetFileLogger(pFileLogger.get());
                } else {
                    Print("Fail to create log file: %s\n", options.sLogFile.c_str());
                }
            }
            iExitCode = RunMain(pNfsMain.get(), pFileLogger.get(), options, cReason);
        }
    }
    if (iExitCode != 0) {
        Print("Terminated. Reason=%s\n", cReason);
    }
    pNfsMain.reset();
    pFileLogger.reset();
    RemovePidFile(pcPidFile, options.iLogControl);
    return iExitCode;
}

int CConsoleUtilities::RunMain(CNfsMain* pNfsMain, CFileLogger* pFileLogger, const Options& options,
                               char* pcReason) {
    CUtilities* pUtilities = pNfsMain->GetUtils();
    if (pFileLogger != nullptr) {
        pUtilities->LogInfo(pNfsMain->GetRuntimeParam(),
                            "ID = %s, LogControl = %d, AccessMode = %d", options.sID.c_str(),
                            options.iLogControl, pNfsMain->GetAccessMode());
        if (!options.sPidFile.empty()) {
            pUtilities->LogInfo(pNfsMain->GetRuntimeParam(), "Create pid file \"%s\"",
                                options.sPidFile.c_str());
        }
    }
    char cVersion[VERSION_SIZE] = "";
    char cDescription[VERSION_SIZE] = "";
    pNfsMain->GetVersion(cVersion);
    pNfsMain->GetDescription(cDescription);
    Print("%s\n", DASHED_LINE);
    Print("%s %s\n", "Execute Version:", PRODUCT_VERSION);
    Print("%s %s\n", "Server Version:", cVersion);
    Print("%s %s\n", "Server Description:", cDescription);
    Print("%s\n", DASHED_LINE);
    if (std::string(cVersion) == "Unknown") {
        if (options.bQuery) {
            Print("%s %s\n", "Server Status:", "NotAccessible");
            Print("%s\n", DASHED_LINE);
            return 0;
        }
        CUtilities::SetStatus(pcReason, "Fail to get server version");
        return 1;
    }
    if (!pNfsMain->Initial(pcReason)) {
        return 1;
    }
    int iExitCode = 0;
    if (pNfsMain->StartRemoteController(pcReason)) {
        if (options.bShutdown) {
            pNfsMain->RequestAutoShutdown();
        } else if (options.bQuery) {
            PrintStatus(pNfsMain);
        } else if (options.bTest) {
            pNfsMain->RunTestMode(options.sTestPath.c_str(), options.iTestSize);
        } else {
            ProcessCommand(pNfsMain, pFileLogger);
        }
        pNfsMain->StopServer();
        pNfsMain->StopRemoteController();
    } else {
        iExitCode = 1;
    }
    pNfsMain->Terminate();
    return iExitCode;
}

// =================================================================================================
// Command loop
// =================================================================================================

void CConsoleUtilities::PrintCommandHelp(bool bDebugMode) {
    Print("%s\n", DOUBLE_LINE);
    Print("%s:\n", "Command");
    Print("  %s: display help\n", COMMAND_HELP);
    Print("  %s: quit this program\n", COMMAND_QUIT);
    Print("  %s<num>: display log messages or not\n", COMMAND_LOG);
    Print("  %s: show status\n", COMMAND_STATUS);
    if (bDebugMode) {
        Print("  %s<mount_port=nfs_port]: start server\n", COMMAND_START);
        Print("  %s<path=exportName>: add mount point\n", COMMAND_MOUNT);
        Print("  %s<path>: remove mount point\n", COMMAND_UMOUNT);
        Print("  %s<dirPath=fileSizeInByte>: run platform test on target file\n", COMMAND_TEST);
        Print("  %s<size>: set max log file size\n", COMMAND_LOG_FILE_SIZE);
        Print("  %s<message>: print message to log\n", COMMAND_PRINT);
        Print("  %s<num>: turn on/off debug action control in QVS\n", COMMAND_DEBUG_ACTION);
        Print("  %s<datastore MOID> <host> <port> <user> <password>: add VSphere info\n",
              COMMAND_ADD_VSPHERE);
        Print("  %s<datastore MOID>: remove VSphere info\n", COMMAND_REMOVE_VSPHERE);
    }
    Print("%s\n", DOUBLE_LINE);
}

void CConsoleUtilities::PrintStatus(CNfsMain* pNfsMain) {
    Print("%s %s\n", "Server Status:", pNfsMain->IsServerRunning() ? "Started" : "Stopped");
    Print("%s\n", DASHED_LINE);
    int iCount = pNfsMain->GetMountInfo(false, false);
    Print("%s %d\n", "Number of Mount Point:", iCount);
    if (iCount > 0) {
        pNfsMain->GetMountInfo(false, true);
    }
    Print("%s\n", DASHED_LINE);
    iCount = pNfsMain->GetSessionInfo(false);
    Print("%s %d\n", "Number of Session:", iCount);
    if (iCount > 0) {
        pNfsMain->GetSessionInfo(true);
    }
    Print("%s\n", DASHED_LINE);
    iCount = pNfsMain->GetVSphereInfo(false);
    Print("%s %d\n", "Number of mounted NFS datastore:", iCount);
    if (iCount > 0) {
        pNfsMain->GetVSphereInfo(true);
    }
    Print("%s\n", DASHED_LINE);
}

namespace {

constexpr int NEVER = 0;

// After how many looks at an ended standard input the text behind the last newline is a line as it
// stands, or NEVER.
int LooksAtTheEnd() {
    struct stat data {};
    if (fstat(STDIN_FILENO, &data) == -1 || S_ISCHR(data.st_mode)) {
        return NEVER;  // a terminal, whose end-of-file key, or its loss, does not end a line
    }
    // Whoever wrote to a pipe has closed it; a file may be growing, and its writer has some time
    // for the rest of the line.
    return S_ISREG(data.st_mode) ? 10 : 1;
}

// In the background the terminal's keys are somebody else's.  A terminal that does not control
// this process has no background.
bool IsInBackground() {
    const pid_t iGroup = tcgetpgrp(STDIN_FILENO);
    return iGroup > 0 && iGroup != getpgrp();
}

// Takes a terminal out of its line mode, in which it gives no single characters, while it lives.
class CharacterMode {
public:
    CharacterMode() {
        m_bTerminal = tcgetattr(STDIN_FILENO, &g_Settings) == 0;
        if (m_bTerminal) {
            struct termios settings = g_Settings;
            settings.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
            g_bSettingsChanged = true;
            tcsetattr(STDIN_FILENO, TCSANOW, &settings);
        }
    }
    ~CharacterMode() {
        // A shell that has taken the terminal over meanwhile has its own settings.
        if (m_bTerminal && !IsInBackground()) {
            tcsetattr(STDIN_FILENO, TCSANOW, &g_Settings);
        }
        g_bSettingsChanged = false;
    }
    CharacterMode(const CharacterMode&) = delete;
    CharacterMode& operator=(const CharacterMode&) = delete;

    bool IsTerminal() const { return m_bTerminal; }

private:
    bool m_bTerminal;
};

// Whether standard input can be read, or has ended, within a time.
bool WaitForInput(int iMs) {
    // Asked with poll, not made non-blocking: other processes share the input's open file.
    struct pollfd input {
        STDIN_FILENO, POLLIN, 0
    };
    return poll(&input, 1, iMs) > 0;
}

}  // namespace

bool CConsoleUtilities::IsKeyboardHit() {
    if (!m_sPending.empty()) {
        return true;
    }
    if (IsInBackground()) {
        return false;
    }
    const CharacterMode mode;
    char c = 0;
    if (WaitForInput(0) && read(STDIN_FILENO, &c, 1) == 1 &&
        (c != '\0' || !mode.IsTerminal())) {  // NUL: the end-of-file key, out of the line mode
        m_sPending.push_back(c);
    }
    return !m_sPending.empty();
}

void CConsoleUtilities::MsSleep(int iMs) { usleep(static_cast<useconds_t>(iMs) * 1000); }

bool CConsoleUtilities::ReadLine(CNfsMain* pNfsMain, std::string* psLine) {
    const int iLooksAtTheEnd = LooksAtTheEnd();
    int iLooks = 0;  // at the end, since the last character
    for (;;) {
        const std::size_t iNewline = m_sPending.find('\n');
        const bool bLine = iNewline < MAX_LINE - 1;
        const bool bEnd = iLooksAtTheEnd != NEVER && iLooks >= iLooksAtTheEnd;
        if (bLine || bEnd || m_sPending.size() >= MAX_LINE - 1) {
            const std::size_t iLen = std::min(bLine ? iNewline : m_sPending.size(), MAX_LINE - 1);
            psLine->assign(m_sPending, 0, iLen);
            std::string sRest(m_sPending, std::min(iLen + (bLine ? 1 : 0), m_sPending.size()));
            Wipe(&m_sPending);
            m_sPending += sRest;
            Wipe(&sRest);
            return true;
        }
        if (IsExitRequested(pNfsMain)) {
            return false;
        }
        if (IsInBackground()) {
            MsSleep(POLL_MS);
            continue;
        }
        if (!WaitForInput(POLL_MS)) {
            continue;
        }
        char cBuf[MAX_LINE];
        const ssize_t iRead = read(STDIN_FILENO, cBuf, sizeof(cBuf));
        if (iRead > 0) {
            m_sPending.append(cBuf, static_cast<std::size_t>(iRead));
            explicit_bzero(cBuf, static_cast<std::size_t>(iRead));
            iLooks = 0;
        } else {
            if (iRead == 0 || (errno != EINTR && errno != EAGAIN)) {
                ++iLooks;
            }
            if (iLooks != iLooksAtTheEnd) {
                MsSleep(POLL_MS);  // an ended input is always ready
            }
        }
    }
}

void CConsoleUtilities::ProcessCommand(CNfsMain* pNfsMain, CFileLogger* pFileLogger) {
    // Whoever sees the prompt may end the loop.
    const auto prompt = [] {
        EndInOrderOnSignal();
        Print("\n%s: ", "Command");
    };
    const bool bClient = pNfsMain->GetAccessMode() == ACCESS_MODE_IPC_CLIENT;
    CommandLoop loop(pNfsMain, pFileLogger);
    m_sPending.reserve(2 * MAX_LINE);  // never moved, so never copied
    Print("Type '%s' to see help\n", COMMAND_HELP);
    prompt();
    for (;;) {
        if (IsExitRequested(pNfsMain)) {
            CStandardOutput::EndWaits();
            Print("\nExit by request\n");
            return;
        }
        if (!IsKeyboardHit()) {
            MsSleep(POLL_MS);
            continue;
        }
        std::string sLine;
        if (ReadLine(pNfsMain, &sLine)) {
            sLine.resize(std::strlen(sLine.c_str()));
            // What a controller does waits for another process, without a limit, and leaves nothing
            // here to be ended in order.
            const bool bExecute = !bClient || EndAtOnceOnSignal();
            const bool bGoOn = !bExecute || loop.Execute(sLine);
            Wipe(&sLine);
            if (!bGoOn) {
                return;
            }
            if (bExecute) {
                prompt();
            }
        }
    }
}

// =================================================================================================
// Pid file
// =================================================================================================

bool CConsoleUtilities::CreatePidFile(const char* pcPath, int iLogControl, char* pcReason) {
    if (pcPath == nullptr || *pcPath == '\0') {
        return true;
    }
    LogArgu logArgu{"CConsoleUtilities.CreatePidFile"};
    CUtilities utilities;
    CRuntimeParam param("", iLogControl | LOG_CONTROL_ERROR);
    if (CUtilities::OS_IsFileExists(pcPath)) {
        char cText[256] = "";
        const int iFile = utilities.OS_FileOpen(&param, &logArgu, pcPath, O_RDONLY, true, pcReason);
        if (iFile == -1) {
            return false;
        }
        const int iRead =
            utilities.OS_FileRead(&param, &logArgu, iFile, cText, sizeof(cText) - 1, pcReason);
        utilities.OS_FileClose(&param, &logArgu, pcPath, iFile, nullptr);
        if (iRead == -1) {
            return false;
        }
        std::string sText(cText);
        for (const char c : {'\n', '\r'}) {
            if (!sText.empty() && sText.back() == c) {
                sText.pop_back();
            }
        }
        // A number that is not positive names no process but a group of them.
        const int iProcess = std::atoi(sText.c_str());
        if (iProcess > 0 && kill(iProcess, 0) == 0) {
            CUtilities::SetStatus(pcReason, "Process ID \"%d\" is still running", iProcess);
            return false;
        }
        if (utilities.OS_FileRemove(&param, &logArgu, pcPath, pcReason) == -1) {
            return false;
        }
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
