// A helper program that keeps the words that it is called with.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <sstream>
#include <stdexcept>
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

// A set of signals in the kernel's description of a process, without the two (32 and 33) that a C
// library keeps for itself, and that posix_spawn starts a program with ignored.
inline std::uint64_t SignalSet(const std::string& status, const std::string& name) {
    const std::string label = "\n" + name + ":\t";
    const std::size_t begin = status.find(label);
    if (begin == std::string::npos) {
        throw std::runtime_error("no " + name + " in: " + status);
    }
    return std::stoull(status.substr(begin + label.size(), 16), nullptr, 16) & ~0x180000000ULL;
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
