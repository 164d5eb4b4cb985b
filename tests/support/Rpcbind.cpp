#include "support/Rpcbind.h"

#include <sstream>
#include <stdexcept>

#include "support/Files.h"
#include "support/Nfs3Client.h"

namespace support {

Rpcbind::Rpcbind()
    : m_process({"rpcbind", "-f"},
                {.environment = {"LD_PRELOAD=" + EnvironmentOr("VELOCAST_STAYROOT", "")}}) {
    const auto answers = [] {
        try {
            PortmapClient portmap(Transport::Tcp);
            return portmap.Rpc().TryCall(kPortmapProgram, 2, 0, {}, Milliseconds(1000)).has_value();
        } catch (const std::runtime_error&) {
            return false;
        }
    };
    if (!WaitFor(answers)) {
        m_process.Stop();
        throw std::runtime_error("rpcbind does not serve: " + m_process.Output());
    }
}

std::multiset<std::string> Mappings() {
    std::istringstream lines(RunProgram({"rpcinfo", "-p", "127.0.0.1"}).output);
    std::multiset<std::string> mappings;
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string program, version, protocol, port;
        words >> program >> version >> protocol >> port;
        if (program == "100003" || program == "100005") {
            mappings.insert(program + " " + version + " " + protocol + " " + port);
        }
    }
    return mappings;
}

}  // namespace support
