// The console front end: command line, pid file, and the interactive command loop.
#ifndef VELOCAST_CONSOLEUTILITIES_H
#define VELOCAST_CONSOLEUTILITIES_H

#include <string>
#include <vector>

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

    // Runs the program; pcArguments holds the arguments, each followed by a newline.  Returns the
    // exit code.
    int Run(const char* pcProgramName, const char* pcArguments);

    // The first two parts of a text split at "="; false when there are fewer.
    static bool SplitValue(CUtilities* pUtilities, const char* pcValue, std::string* psFirst,
                           std::string* psSecond);
    static void PrintUsage(const char* pcProgramName);
    static void PrintCommandHelp(bool bDebugMode);
    static void PrintStatus(CNfsMain* pNfsMain);

    // Whether a character of standard input waits; it is kept for the next line.  False at the end
    // of the input, which may go on later, and in the background of a terminal.
    bool IsKeyboardHit();
    static void MsSleep(int iMs);
    // The command loop.
    void ProcessCommand(CNfsMain* pNfsMain, CFileLogger* pFileLogger);

    // pcReason points to STATUS_SIZE bytes.  An empty or null path succeeds at once.
    static bool CreatePidFile(const char* pcPath, int iLogControl, char* pcReason);
    // Removes the file whatever number it holds.
    static void RemovePidFile(const char* pcPath, int iLogControl);

private:
    struct Options;

    // False when the program is to end now with *piExitCode.
    static bool ParseOptions(const char* pcProgramName, const char* pcArguments, Options* pOptions,
                             int* piExitCode);
    // What follows the creation of the main object; the exit code, and the reason of a failure.
    int RunMain(CNfsMain* pNfsMain, CFileLogger* pFileLogger, const Options& options,
                char* pcReason);
    // One line of standard input without its newline.  False when the loop is to end first.
    bool ReadLine(CNfsMain* pNfsMain, std::string* psLine);
    static bool IsExitRequested(CNfsMain* pNfsMain);

    std::string m_sPending;  // read from standard input, not yet part of a line
};

#endif
