#include "ConsoleOptions.h"

#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <vector>

#include "ConsoleUtilities.h"
#include "NfsMain.h"
#include "StandardOutput.h"
#include "Utilities.h"

// =================================================================================================
// Table
// =================================================================================================

namespace {

using Parsed = CConsoleOptions::Parsed;

constexpr const char* OPTION_MODE = "-md";
constexpr const char* MODE_VALUE = "<int|svr|cli>";

void TakeMode(Parsed* pParsed, const std::string& sValue) {
    if (sValue == "int") {
        pParsed->iAccessMode = ACCESS_MODE_INTERNAL;
    } else if (sValue == "svr") {
        pParsed->iAccessMode = ACCESS_MODE_IPC_SERVER;
    } else if (sValue == "cli") {
        pParsed->iAccessMode = ACCESS_MODE_IPC_CLIENT;
    } else {
        CStandardOutput::Print("Un-supported mode: %s\n", OPTION_MODE);  // not the value
        pParsed->iExitCode = 1;
    }
}

void TakeTest(Parsed* pParsed, const std::string& sValue) {
    std::string sSize;
    if (!CConsoleUtilities::SplitValue(nullptr, sValue.c_str(), &pParsed->options.sTestPath,
                                       &sSize)) {
        CStandardOutput::Print("In-valid test mode value: %s\n", sValue.c_str());
        pParsed->iExitCode = 1;
        return;
    }
    pParsed->options.bTest = true;
    pParsed->options.iTestSize = std::atol(sSize.c_str());
}

constexpr CConsoleOptions::Option OPTIONS[] = {
    {"-help", nullptr, true,
     [](Parsed* pParsed, const std::string&) {
         CConsoleUtilities::PrintUsage(pParsed->pcProgramName);
         pParsed->iExitCode = 0;
     }},
    {"-shutdown", nullptr, true,
     [](Parsed* pParsed, const std::string&) { pParsed->options.bShutdown = true; }},
    {"-query", nullptr, true,
     [](Parsed* pParsed, const std::string&) { pParsed->options.bQuery = true; }},
    {"-test", "<path=max_file_size>", true, TakeTest},
    {"-id", "<name>", true,
     [](Parsed* pParsed, const std::string& sValue) { pParsed->sID = sValue; }},
    {"-log", "<num>", false,
     [](Parsed* pParsed, const std::string& sValue) {
         pParsed->options.iLogControl = std::atoi(sValue.c_str());
     }},
    {OPTION_MODE, MODE_VALUE, false, TakeMode},
    {"-logfile", "<path>", false,
     [](Parsed* pParsed, const std::string& sValue) { pParsed->options.sLogFile = sValue; }},
    {"-pidfile", "<path>", false,
     [](Parsed* pParsed, const std::string& sValue) { pParsed->options.sPidFile = sValue; }},
};

// The identity of a run that was given none.
const char* DefaultID(const ConsoleOptions& options) {
    if (options.bTest) {
        return "tmRun";
    }
    if (options.bQuery) {
        return "qyRun";
    }
    return options.bShutdown ? "shRun" : "cRun";
}

}  // namespace

std::span<const CConsoleOptions::Option> CConsoleOptions::GetOptions() { return OPTIONS; }

// =================================================================================================
// Parsing
// =================================================================================================

std::optional<int> CConsoleOptions::Parse(const char* pcProgramName, const char* pcArguments,
                                          ConsoleOptions* pOptions) {
    std::vector<std::string> vTokens;
    CUtilities::SplitIntoVector(pcArguments, '\n', &vTokens);
    Parsed parsed{pcProgramName, {}, {}, {}, {}};
    for (std::size_t i = 0; i < vTokens.size(); ++i) {
        const auto* const pOption =
            std::ranges::find(OPTIONS, vTokens[i],
                              [](const Option& option) { return std::string_view(option.pcName); });
        const bool bKnown = pOption != std::end(OPTIONS);
        const bool bValue = !bKnown || pOption->pcValue != nullptr;
        if (bValue && ++i == vTokens.size()) {
            break;
        }
        if (bKnown) {
            pOption->pTake(&parsed, bValue ? vTokens[i] : std::string());
        }
        if (parsed.iExitCode.has_value()) {
            return parsed.iExitCode;
        }
    }
    const bool bAsksServer = parsed.options.bShutdown || parsed.options.bQuery;
    *pOptions = parsed.options;
    pOptions->sID = parsed.sID.value_or(DefaultID(parsed.options));
    pOptions->iAccessMode =
        parsed.iAccessMode.value_or(bAsksServer ? ACCESS_MODE_IPC_CLIENT : ACCESS_MODE_IPC_SERVER);
    return std::nullopt;
}

void CConsoleOptions::PrintUsage(const char* pcProgramName) {
    const std::string sUsage = "Usage: ";
    std::string sLine = sUsage + pcProgramName;
    CStandardOutput::Print("\n");
    for (const Option& option : OPTIONS) {
        if (option.bNewLine && &option != std::begin(OPTIONS)) {
            CStandardOutput::Print("%s\n", sLine.c_str());
            sLine.assign(sUsage.size() - 1, ' ');
        }
        sLine += std::string(" [") + option.pcName;
        if (option.pcValue != nullptr) {
            sLine += std::string(" ") + option.pcValue;
        }
        sLine += "]";
    }
    CStandardOutput::Print("%s\n", sLine.c_str());
}
