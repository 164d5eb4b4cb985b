// The console program.
#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

#include <csignal>
#include <cstring>
#include <string>

#include "ConsoleUtilities.h"

namespace {

// A connection must never get the number of a closed standard stream.
void OpenStandardStreams() {
    int fd = 0;
    do {
        fd = open("/dev/null", O_RDWR);
    } while (fd >= 0 && fd <= STDERR_FILENO);
    if (fd > STDERR_FILENO) {
        close(fd);
    }
}

// The descriptor cache holds up to 1,024 files beside the sockets.
void RaiseDescriptorLimit() {
    struct rlimit limit {};
    if (getrlimit(RLIMIT_NOFILE, &limit) == 0) {
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_NOFILE, &limit);
    }
}

}  // namespace

int main(int argc, char* argv[]) {
    OpenStandardStreams();
    RaiseDescriptorLimit();
    // The services stay when whoever reads our output goes away, when a file reaches the limit of
    // file sizes, and when the terminal is used from the background: it then answers with an error
    // instead of stopping the process.
    for (const int iSignal : {SIGPIPE, SIGXFSZ, SIGTTIN, SIGTTOU}) {
        std::signal(iSignal, SIG_IGN);
    }

    const char* pcProgram = argc > 0 ? argv[0] : "";
    const char* pcSlash = std::strrchr(pcProgram, '\\');
    const char* pcProgramName = pcSlash != nullptr ? pcSlash + 1 : pcProgram;
    std::string sArguments;
    for (int i = 1; i < argc; ++i) {
        sArguments += argv[i];
        sArguments += '\n';
    }
    CConsoleUtilities console;
    return console.Run(pcProgramName, sArguments.c_str());
}
