// The options and commands that the program knows, and the files that it is made of, are those that
// the documents tell of.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <regex>
#include <set>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "ConsoleCommands.h"
#include "ConsoleOptions.h"
#include "support/Files.h"

using support::ReadFile;

namespace {

std::string SourcePath(const std::string& name) {
    const char* source = std::getenv("VELOCAST_SOURCE_DIR");
    return (source != nullptr ? std::string(source) : "..") + "/" + name;
}

std::string Document(const std::string& name) { return ReadFile(SourcePath(name)); }

// The first group of each match.
std::set<std::string> Matches(const std::string& text, const std::string& pattern) {
    const std::regex regex(pattern);
    std::set<std::string> matches;
    for (std::sregex_iterator match(text.begin(), text.end(), regex), end; match != end; ++match) {
        matches.insert(match->str(1));
    }
    return matches;
}

// The options' names.
std::set<std::string> OptionNames() {
    std::set<std::string> names;
    for (const CConsoleOptions::Option& option : CConsoleOptions::GetOptions()) {
        EXPECT_TRUE(names.insert(option.pcName).second) << option.pcName << " stands twice";
    }
    return names;
}

// A command: its keyword, whether it takes an argument, whether it is known only after "debug".
using Command = std::tuple<std::string, bool, bool>;

}  // namespace

TEST(ConsoleDocumentsTest, TheReadmeShowsEveryOptionWithItsValueAndNoOther) {
    std::set<std::string> options;
    for (const CConsoleOptions::Option& option : CConsoleOptions::GetOptions()) {
        options.insert(std::string(option.pcName) +
                       (option.pcValue != nullptr ? std::string(" ") + option.pcValue : ""));
    }
    EXPECT_EQ(options, Matches(Document("README.md"), R"(\[(-[a-z]+(?: <[^>]*>)?)\])"));
}

TEST(ConsoleDocumentsTest, TheReadmeExplainsEveryOptionAndNoOther) {
    EXPECT_EQ(OptionNames(), Matches(Document("README.md"), "`(-[a-z]+)"));
}

TEST(ConsoleDocumentsTest, NoDocumentSpeaksOfAnOptionThatThereIsNot) {
    const std::set<std::string> names = OptionNames();
    for (const char* document : {"docs/internals.md", "docs/formats.md", "docs/ipc-protocol.md",
                                 "docs/nfs-protocol.md", "bench/README.md"}) {
        const std::string text = Document(document);
        EXPECT_NE("", text) << document;
        EXPECT_THAT(names, testing::IsSupersetOf(Matches(text, "`(-[a-z]+)[ `]"))) << document;
    }
}

TEST(ConsoleDocumentsTest, TheReadmeListsEveryCommandAndNoOther) {
    std::set<Command> commands;
    for (const CConsoleCommands::Command& command : CConsoleCommands::GetCommands()) {
        std::string keyword = command.pcKeyword;
        const bool argument = keyword.ends_with(' ');
        if (argument) {
            keyword.pop_back();
        }
        EXPECT_TRUE(commands.emplace(keyword, argument, command.bDebugOnly).second)
            << keyword << " stands twice";
    }
    std::set<Command> listed;
    const std::regex row(R"(\| `([a-z]+)( <[^`]*)?` \| (always|after `debug`) \| .+ \|)");
    std::istringstream lines(Document("README.md"));
    for (std::string line; std::getline(lines, line);) {
        std::smatch match;
        if (std::regex_match(line, match, row)) {
            listed.emplace(match[1], match[2].matched, match[3] != "always");
        }
    }
    EXPECT_EQ(commands, listed);
}

TEST(ConsoleDocumentsTest, TheWalkThroughTheSourcesNamesEveryFileOnceAndNoOther) {
    std::set<std::string> files;
    for (const auto& entry : std::filesystem::directory_iterator(SourcePath("src"))) {
        if (entry.path().extension() == ".h" || entry.path().extension() == ".cpp") {
            files.insert(entry.path().stem());
        }
    }
    EXPECT_FALSE(files.empty());
    const std::string text = Document("docs/internals.md");
    const std::regex bold(R"(\*\*([A-Za-z0-9]+)\*\*)");
    std::vector<std::string> named;
    for (std::sregex_iterator match(text.begin(), text.end(), bold), end; match != end; ++match) {
        named.push_back(match->str(1));
    }
    EXPECT_THAT(named, testing::UnorderedElementsAreArray(files));
}
