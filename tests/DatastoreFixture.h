// A helper program that keeps the words that it is called with.
#pragma once

#include <sys/stat.h>

#include <sstream>
#include <string>
#include <vector>

#include "support/Files.h"

namespace datastore {

using Words = std::vector<std::string>;

// The words of a run for one datastore.
inline Words Unmount(const std::string& moid, const std::string& host, const std::string& port,
                     const std::string& user, const std::string& password) {
    return {"-host",  host,      "-port",           port,    "-user", user, "-pwd",
            password, "-method", "removeDatastore", "-argu", moid};
}

// The helper in a folder that exists. It never succeeds, so that every test shows that what it
// answers changes nothing.
class RecordingHelper {
public:
    // More shell commands for every run go before the end.
    explicit RecordingHelper(const std::string& folder, const std::string& commands = "")
        : m_calls(folder + "/calls") {
        const std::string path = folder + "/dsPurgeToolFbdX86";
        support::WriteFile(path,
                           "#!/bin/sh\n"
                           "{ echo run; for word; do printf '=%s\\n' \"$word\"; done; } >>'" +
                               m_calls + "'\n" + commands + "\nexit 3\n");
        chmod(path.c_str(), 0755);
        support::WriteFile(m_calls, "");
    }

    // The words of each run so far.
    std::vector<Words> Calls() const {
        std::vector<Words> calls;
        std::istringstream input(support::ReadFile(m_calls));
        for (std::string line; std::getline(input, line);) {
            if (line == "run") {
                calls.emplace_back();
            } else {
                calls.back().push_back(line.substr(1));
            }
        }
        return calls;
    }

private:
    std::string m_calls;
};

}  // namespace datastore
