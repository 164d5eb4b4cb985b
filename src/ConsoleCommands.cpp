#include "ConsoleCommands.h"

#include <cstdlib>
#include <string_view>
#include <vector>

#include "ConsoleInput.h"
#include "ConsoleUtilities.h"
#include "FileLogger.h"
#include "NfsMain.h"
#include "StandardOutput.h"
#include "Utilities.h"

// =================================================================================================
// Table
// =================================================================================================

namespace {

constexpr const char* TITLE = "Command";
constexpr const char* KEYWORD_HELP = "help";

}  // namespace

// The line of "start" is kept as people know it: without its blank, and with two kinds of bracket.
const CConsoleCommands::Command CConsoleCommands::COMMANDS[] = {
    {KEYWORD_HELP, "  %s: display help\n", false, &CConsoleCommands::Help},
    {"quit", "  %s: quit this program\n", false, &CConsoleCommands::Quit},
    {"log ", "  %s<num>: display log messages or not\n", false, &CConsoleCommands::SetLogControl},
    {"status", "  %s: show status\n", false, &CConsoleCommands::ShowStatus},
    {"debug", nullptr, false, &CConsoleCommands::EnterDebugMode},
    {"start", "  %s<mount_port=nfs_port]: start server\n", true, &CConsoleCommands::Start},
    {"start ", nullptr, true, &CConsoleCommands::Start},
    {"mount ", "  %s<path=exportName>: add mount point\n", true, &CConsoleCommands::Mount},
    {"umount ", "  %s<path>: remove mount point\n", true, &CConsoleCommands::Umount},
    {"test ", "  %s<dirPath=fileSizeInByte>: run platform test on target file\n", true,
     &CConsoleCommands::Test},
    {"logfilesize ", "  %s<size>: set max log file size\n", true,
     &CConsoleCommands::SetLogFileSize},
    {"print ", "  %s<message>: print message to log\n", true, &CConsoleCommands::LogMessage},
    {"debugaction ", "  %s<num>: turn on/off debug action control in QVS\n", true,
     &CConsoleCommands::SetDebugAction},
    {"addvsphereinfo ", "  %s<datastore MOID> <host> <port> <user> <password>: add VSphere info\n",
     true, &CConsoleCommands::AddVSphereInfo},
    {"removevsphereinfo ", "  %s<datastore MOID>: remove VSphere info\n", true,
     &CConsoleCommands::RemoveVSphereInfo},
};

std::span<const CConsoleCommands::Command> CConsoleCommands::GetCommands() { return COMMANDS; }

void CConsoleCommands::PrintHelp(bool bDebugMode) {
    constexpr const char* DOUBLE_LINE = "==========================";
    constexpr std::string_view PLACE = "%s";
    CStandardOutput::Print("%s\n", DOUBLE_LINE);
    CStandardOutput::Print("%s:\n", TITLE);
    for (const Command& command : COMMANDS) {
        if (command.pcHelp != nullptr && (bDebugMode || !command.bDebugOnly)) {
            std::string sLine = command.pcHelp;
            sLine.replace(sLine.find(PLACE), PLACE.size(), command.pcKeyword);
            CStandardOutput::Print("%s", sLine.c_str());
        }
    }
    CStandardOutput::Print("%s\n", DOUBLE_LINE);
}

void CConsoleCommands::PrintHint() {
    CStandardOutput::Print("Type '%s' to see help\n", KEYWORD_HELP);
}

void CConsoleCommands::PrintPrompt() { CStandardOutput::Print("\n%s: ", TITLE); }

bool CConsoleCommands::Execute(const std::string& sLine) {
    if (sLine.empty()) {
        return true;
    }
    for (const Command& command : COMMANDS) {
        const std::string_view sKeyword = command.pcKeyword;
        const bool bArgument = sKeyword.ends_with(' ');
        const bool bMatch = bArgument
                                ? sLine.size() > sKeyword.size() && sLine.starts_with(sKeyword)
                                : sLine == sKeyword;
        if (bMatch && (m_bDebugMode || !command.bDebugOnly)) {
            (this->*command.pExecute)(bArgument ? sLine.c_str() + sKeyword.size() : nullptr);
            return !m_bQuit;
        }
    }
    CStandardOutput::Print("Unknown command: '%s'\n", sLine.c_str());
    PrintHint();
    return true;
}

// =================================================================================================
// Always known
// =================================================================================================

void CConsoleCommands::Help(const char* /*pcArgument*/) {
    CConsoleUtilities::PrintCommandHelp(m_bDebugMode);
}

void CConsoleCommands::Quit(const char* /*pcArgument*/) {
    CStandardOutput::EndWaits();
    CStandardOutput::Print("\nExit\n");
    m_bQuit = true;
}

void CConsoleCommands::SetLogControl(const char* pcBits) {
    m_pNfsMain->SetLogControl(std::atoi(pcBits));
}

void CConsoleCommands::ShowStatus(const char* /*pcArgument*/) {
    CStandardOutput::Print("\n");
    CConsoleUtilities::PrintStatus(m_pNfsMain);
}

void CConsoleCommands::EnterDebugMode(const char* /*pcArgument*/) { m_bDebugMode = true; }

// =================================================================================================
// Known after "debug"
// =================================================================================================

void CConsoleCommands::Start(const char* pcPorts) {
    if (m_pNfsMain->IsServerRunning()) {
        CStandardOutput::Print("NFS already running\n");
        return;
    }
    int iMountPort = 0;
    int iNfsPort = 0;
    if (pcPorts != nullptr) {
        std::string sMountPort;
        std::string sNfsPort;
        if (!CConsoleUtilities::SplitValue(m_pNfsMain->GetUtils(), pcPorts, &sMountPort,
                                           &sNfsPort)) {
            CStandardOutput::Print("Fail to start NFS. Reason=In-valid input value: %s\n", pcPorts);
            return;
        }
        iMountPort = std::atoi(sMountPort.c_str());
        iNfsPort = std::atoi(sNfsPort.c_str());
    }
    char cReason[STATUS_SIZE] = "";
    if (m_pNfsMain->StartServer(iMountPort, iNfsPort, 0, 0, false, cReason)) {
        CStandardOutput::Print("Start NFS success\n");
    } else {
        CStandardOutput::Print("Fail to start NFS. %s\n", cReason);
    }
}

void CConsoleCommands::Mount(const char* pcValue) {
    std::string sPath;
    std::string sExportName;
    if (!CConsoleUtilities::SplitValue(m_pNfsMain->GetUtils(), pcValue, &sPath, &sExportName)) {
        CStandardOutput::Print("Fail to add mount point to NFS. Reason=In-valid input value: %s\n",
                               pcValue);
        return;
    }
    char cReason[STATUS_SIZE] = "";
    if (!m_pNfsMain->AddMountPoint(sPath.c_str(), sExportName.c_str(), cReason)) {
        CStandardOutput::Print("Fail to add mount point to NFS. Reason=%s\n", cReason);
    }
}

void CConsoleCommands::Umount(const char* pcPath) { m_pNfsMain->RemoveMountPoint(pcPath); }

void CConsoleCommands::Test(const char* pcValue) {
    std::string sPath;
    std::string sSize;
    if (!CConsoleUtilities::SplitValue(m_pNfsMain->GetUtils(), pcValue, &sPath, &sSize)) {
        CStandardOutput::Print("Fail to run test. Reason=In-valid input value: %s\n", pcValue);
        return;
    }
    m_pNfsMain->RunTestMode(sPath.c_str(), std::atol(sSize.c_str()));
}

void CConsoleCommands::SetLogFileSize(const char* pcSize) {
    if (m_pFileLogger == nullptr) {
        m_pNfsMain->GetUtils()->LogInfo(m_pNfsMain->GetRuntimeParam(), "No file logger is defined");
        return;
    }
    const auto size = [this] {
        return static_cast<unsigned long long>(m_pFileLogger->GetMaxLogSize());
    };
    CStandardOutput::Print("Current max log file size: %llu\n", size());
    m_pFileLogger->SetMaxLogSize(std::atol(pcSize));
    CStandardOutput::Print("Updated max log file size: %llu\n", size());
}

void CConsoleCommands::LogMessage(const char* pcMessage) {
    // The operation without a format: one with a format would cut the text to STATUS_SIZE bytes.
    std::string sMessage(pcMessage);
    char* pcText = sMessage.data();
    m_pNfsMain->GetUtils()->LogInfo(m_pNfsMain->GetRuntimeParam(), pcText);
}

void CConsoleCommands::SetDebugAction(const char* pcFlag) {
    m_pNfsMain->SetDebugActionEnabled(std::atoi(pcFlag) != 0);
    CStandardOutput::Print("Current Server Status=%d\n", m_pNfsMain->GetServerStatus());
}

void CConsoleCommands::AddVSphereInfo(const char* pcValue) {
    std::vector<std::string> vWords;
    CUtilities::SplitIntoVector(pcValue, ' ', &vWords);
    if (vWords.size() < 5) {
        CStandardOutput::Print("Fail to add VSphere info to NFS. Reason=In-valid input value: %s\n",
                               pcValue);
        return;
    }
    m_pNfsMain->AddVSphereInfo(vWords[0].c_str(), vWords[1].c_str(), vWords[2].c_str(),
                               vWords[3].c_str(), vWords[4].c_str());
    CConsoleInput::Wipe(&vWords[4]);
}

void CConsoleCommands::RemoveVSphereInfo(const char* pcMoid) {
    m_pNfsMain->RemoveVSphereInfo(pcMoid);
}
