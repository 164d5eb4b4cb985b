// A running server program with its console, for system tests.
#pragma once

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "support/Process.h"

namespace support {

struct ServerOptions {
    int logControl = 0;                       // -log
    std::vector<std::string> arguments = {};  // further options, e.g. {"-logfile", path}
    std::string mode = "int";                 // -md
    int mountPort = 0;                        // 0 and 0: `start` without ports
    int nfsPort = 0;
    bool start = true;                                // enter `debug` and `start` at once
    std::map<std::string, std::string> exports = {};  // export name -> directory
    std::vector<std::string> environment = {};        // "NAME=value"
};

// The path of the server program: VELOCAST_NFS in the environment.
std::string ServerProgram();

// Starts the server and waits until it says that it serves. A start that fails throws with all that
// the server printed. At the end the server is stopped with `quit`; the test fails when it does not
// exit with 0 in time, or when it printed a sanitizer report.
class Server {
public:
    explicit Server(ServerOptions options = {});
    ~Server();
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    // Enters a command and returns what the server prints up to its next prompt, the prompt left
    // out. Throws when no prompt comes.
    std::string Console(const std::string& command, Milliseconds timeout = kPatience);

    // `debug`, then `start` with the ports of the options. Called by the constructor unless the
    // options say otherwise.
    void Start();
    // Enters `mount`; a refusal throws with its text.
    void AddExport(const std::string& directory, const std::string& exportName);

    enum class StopBy { Quit, Terminate, Interrupt };
    // Stops the server and checks its end. Does nothing when it was stopped before.
    void Stop(StopBy way = StopBy::Quit);

    // For tests that bring the server down on purpose: waits for its end and returns it, without
    // the checks of Stop. Throws when the server goes on.
    ExitStatus WaitForDeath(Milliseconds timeout = kPatience);

    // Everything printed so far, both streams in one.
    std::string Output(std::size_t from = 0) const { return m_process.Output(from); }
    pid_t Pid() const { return m_process.Pid(); }
    Process& Program() { return m_process; }

    // The ports given, or the defaults of a machine without a system portmapper.
    int NfsPort() const { return m_options.nfsPort > 0 ? m_options.nfsPort : 2049; }
    int MountPort() const { return m_options.mountPort > 0 ? m_options.mountPort : 1058; }

private:
    ServerOptions m_options;
    Process m_process;
    bool m_stopped = false;
};

}  // namespace support
