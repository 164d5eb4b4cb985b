#include "support/Server.h"

#include <gtest/gtest.h>
#include <signal.h>

#include <stdexcept>

namespace support {

namespace {

constexpr char kPrompt[] = "\nCommand: ";

std::vector<std::string> CommandLine(const ServerOptions& options) {
    std::vector<std::string> line{ServerProgram(), "-md", options.mode, "-log",
                                  std::to_string(options.logControl)};
    line.insert(line.end(), options.arguments.begin(), options.arguments.end());
    return line;
}

bool HasSanitizerReport(const std::string& output) {
    for (const char* sign : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:",
                             "WARNING: ThreadSanitizer", "ERROR: ThreadSanitizer"}) {
        if (output.find(sign) != std::string::npos) {
            return true;
        }
    }
    return false;
}

}  // namespace

std::string ServerProgram() {
    std::string path = EnvironmentOr("VELOCAST_NFS", "");
    if (path.empty()) {
        throw std::runtime_error("VELOCAST_NFS does not name the server program (ctest sets it)");
    }
    return path;
}

Server::Server(ServerOptions options)
    : m_options(std::move(options)),
      m_process(CommandLine(m_options), {.environment = m_options.environment}) {
    try {
        if (!m_process.WaitForOutput(kPrompt)) {
            throw std::runtime_error("the server shows no prompt. Output:\n" + Output());
        }
        if (m_options.start) {
            Start();
        }
        for (const auto& [name, directory] : m_options.exports) {
            AddExport(directory, name);
        }
    } catch (...) {
        m_process.Stop();  // the exception tells; "still running" would only distract
        throw;
    }
}

Server::~Server() { Stop(); }

std::string Server::Console(const std::string& command, Milliseconds timeout) {
    const std::size_t from = m_process.OutputSize();
    if (!m_process.Send(command + "\n") || !m_process.WaitForOutput(kPrompt, timeout, from)) {
        throw std::runtime_error("no prompt after \"" + command + "\". Output:\n" + Output());
    }
    const std::string answer = m_process.Output(from);
    return answer.substr(0, answer.find(kPrompt));
}

void Server::Start() {
    Console("debug");
    std::string command = "start";
    if (m_options.mountPort > 0 || m_options.nfsPort > 0) {
        command +=
            " " + std::to_string(m_options.mountPort) + "=" + std::to_string(m_options.nfsPort);
    }
    const std::string answer = Console(command);
    if (answer.find("Start NFS success") == std::string::npos) {
        throw std::runtime_error("the server does not start: " + answer);
    }
}

void Server::AddExport(const std::string& directory, const std::string& exportName) {
    const std::string answer = Console("mount " + directory + "=" + exportName);
    if (answer.find("Fail to add mount point") != std::string::npos) {
        throw std::runtime_error(answer);
    }
}

void Server::Stop(StopBy way) {
    if (m_stopped) {
        return;
    }
    m_stopped = true;
    switch (way) {
        case StopBy::Quit:
            m_process.Send("quit\n");
            break;
        case StopBy::Terminate:
            m_process.Signal(SIGTERM);
            break;
        case StopBy::Interrupt:
            m_process.Signal(SIGINT);
            break;
    }
    const std::optional<ExitStatus> status = m_process.WaitExit();
    if (!status) {
        ADD_FAILURE() << "the server does not stop. Output:\n" << Output();
        m_process.Stop();
        return;
    }
    EXPECT_EQ(ExitStatus::Code(0), *status) << "Output:\n" << Output();
    EXPECT_FALSE(HasSanitizerReport(Output())) << Output();
}

ExitStatus Server::WaitForDeath(Milliseconds timeout) {
    const std::optional<ExitStatus> status = m_process.WaitExit(timeout);
    if (!status) {
        throw std::runtime_error("the server goes on. Output:\n" + Output());
    }
    m_stopped = true;
    return *status;
}

}  // namespace support
