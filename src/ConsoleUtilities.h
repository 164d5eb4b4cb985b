// The console front end: a run of the program, its status listing, its pid file, its command loop.
#ifndef VELOCAST_CONSOLEUTILITIES_H
#define VELOCAST_CONSOLEUTILITIES_H

#include <string>

#include "ConsoleInput.h"

class CFileLogger;
class CNfsMain;
class CUtilities;

// Thread safety: used by the main thread.
class CConsoleUtilities {
public:
    CConsoleUtilities() = default;
    virtual ~CConsoleUtilities() = default;
    CConsoleUtilities(const CConsoleUtilities&) = delete;
    CConsoleUtilities& operator=(const CConsoleUtilities&) = delete;

    // ---------------------------------------------------------------------------------------------
    // Run
    // ---------------------------------------------------------------------------------------------

    // Runs the program; pcArguments holds the arguments, each followed by a newline.  Returns the
    // exit code.
    int Run(const char* pcProgramName, const char* pcArguments);

    // ---------------------------------------------------------------------------------------------
    // Texts
    // ---------------------------------------------------------------------------------------------

    // The first two parts of a text split at "="; false when there are fewer.
    static bool SplitValue(CUtilities* pUtilities, const char* pcValue, std::string* psFirst,
                           std::string* psSecond);
    static void PrintUsage(const char* pcProgramName);
    static void PrintCommandHelp(bool bDebugMode);
    static void PrintStatus(CNfsMain* pNfsMain);

    // ---------------------------------------------------------------------------------------------
    // Command loop
    // ---------------------------------------------------------------------------------------------

    // As CConsoleInput::IsKeyboardHit, for this object's command loop.
    bool IsKeyboardHit() { return m_Input.IsKeyboardHit(); }
    static void MsSleep(int iMs);
    void ProcessCommand(CNfsMain* pNfsMain, CFileLogger* pFileLogger);

    // ---------------------------------------------------------------------------------------------
    // Pid file
    // ---------------------------------------------------------------------------------------------

    // pcReason points to STATUS_SIZE bytes.  An empty or null path succeeds at once.
    static bool CreatePidFile(const char* pcPath, int iLogControl, char* pcReason);
    // Removes the file whatever number it holds.
    static void RemovePidFile(const char* pcPath, int iLogControl);

private:
    CConsoleInput m_Input;
};

#endif
