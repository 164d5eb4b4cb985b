// The options of the command line: each is one row of a table.
#ifndef VELOCAST_CONSOLEOPTIONS_H
#define VELOCAST_CONSOLEOPTIONS_H

#include <optional>
#include <span>
#include <string>

// What a run was asked to do.
struct ConsoleOptions {
    bool bShutdown = false;
    bool bQuery = false;
    bool bTest = false;
    std::string sTestPath;
    long long iTestSize = 0;  // bytes
    std::string sID;
    int iLogControl = 0;
    int iAccessMode = 0;                  // ACCESS_MODE_...
    std::optional<std::string> sLogFile;  // none: no log file
    std::string sPidFile;                 // empty: no pid file
};

// Thread safety: any thread may call.
class CConsoleOptions {
public:
    // What the rows fill in: the options, and what was given at all.
    struct Parsed {
        const char* pcProgramName;
        ConsoleOptions options;
        std::optional<std::string> sID;
        std::optional<int> iAccessMode;
        std::optional<int> iExitCode;  // given: the program is to end now
    };
    struct Option {
        const char* pcName;
        const char* pcValue;  // the value's form in the usage; null: the option takes no value
        bool bNewLine;        // begins a line of the usage
        void (*pTake)(Parsed* pParsed, const std::string& sValue);
    };

    // In the order of the usage.
    static std::span<const Option> GetOptions();

    // pcArguments holds the arguments, each followed by a newline.  The exit code when the program
    // is to end now; what is to be said then has been printed.  An unknown option takes a value
    // and both are ignored; an option whose value is missing ends the parsing.
    static std::optional<int> Parse(const char* pcProgramName, const char* pcArguments,
                                    ConsoleOptions* pOptions);
    static void PrintUsage(const char* pcProgramName);
};

#endif
