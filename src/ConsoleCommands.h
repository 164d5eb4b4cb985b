// The commands of the console: each is one row of a table.
#ifndef VELOCAST_CONSOLECOMMANDS_H
#define VELOCAST_CONSOLECOMMANDS_H

#include <span>
#include <string>

class CFileLogger;
class CNfsMain;

// Executes the lines of one command loop.
//
// Thread safety: used by the main thread.
class CConsoleCommands {
public:
    struct Command {
        // Ends in a blank when the command takes an argument, which is the rest of the line.
        const char* pcKeyword;
        const char* pcHelp;  // the line of the help, %s for the keyword; null: none
        bool bDebugOnly;     // known only after "debug"
        // pcArgument is null without an argument, and else not empty.
        void (CConsoleCommands::*pExecute)(const char* pcArgument);
    };

    // Both borrowed; pFileLogger may be null.
    CConsoleCommands(CNfsMain* pNfsMain, CFileLogger* pFileLogger)
        : m_pNfsMain(pNfsMain), m_pFileLogger(pFileLogger) {}

    // In the order of the help.
    static std::span<const Command> GetCommands();
    static void PrintHelp(bool bDebugMode);
    static void PrintHint();
    static void PrintPrompt();

    // False when the loop is to end.
    bool Execute(const std::string& sLine);

private:
    static const Command COMMANDS[];

    void Help(const char* pcArgument);
    void Quit(const char* pcArgument);
    void SetLogControl(const char* pcBits);
    void ShowStatus(const char* pcArgument);
    void EnterDebugMode(const char* pcArgument);
    void Start(const char* pcPorts);
    void Mount(const char* pcValue);
    void Umount(const char* pcPath);
    void Test(const char* pcValue);
    void SetLogFileSize(const char* pcSize);
    void LogMessage(const char* pcMessage);
    void SetDebugAction(const char* pcFlag);
    void AddVSphereInfo(const char* pcValue);
    void RemoveVSphereInfo(const char* pcMoid);

    CNfsMain* m_pNfsMain;
    CFileLogger* m_pFileLogger;
    bool m_bDebugMode = false;
    bool m_bQuit = false;
};

#endif
