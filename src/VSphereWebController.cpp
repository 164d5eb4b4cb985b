#include "VSphereWebController.h"

#include <paths.h>
#include <signal.h>
#include <spawn.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <unistd.h>
#if !defined(__linux__)
#include <sys/sysctl.h>
#endif

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "ExitCleanup.h"
#include "Utilities.h"

extern char** environ;

namespace {

constexpr const char* HELPER_NAME = "dsPurgeToolFbdX86";  // ends in the platform it is built for
constexpr std::size_t COMMAND_SIZE = 1024;                // the NUL included

// The folder of the running executable with its last '/'.  Empty when the system does not tell it:
// the shell then searches PATH for the helper.
std::string GetExecutableFolder() {
    char cPath[PATH_SIZE] = "";
#if defined(__linux__)
    const ssize_t iLen = readlink("/proc/self/exe", cPath, sizeof(cPath) - 1);
    if (iLen <= 0) {
        return "";
    }
    cPath[iLen] = '\0';
#else
    int name[] = {CTL_KERN, KERN_PROC, KERN_PROC_PATHNAME, getpid()};
    std::size_t iSize = sizeof(cPath) - 1;
    if (sysctl(name, 4, cPath, &iSize, nullptr, 0) != 0) {
        return "";
    }
#endif
    const std::string sPath(cPath);
    const std::size_t iSlash = sPath.rfind('/');
    return iSlash != std::string::npos ? sPath.substr(0, iSlash + 1) : "";
}

// Runs a command through the system shell and waits for it.  It starts as from a login, with every
// signal at its default effect and none blocked, whatever this process does with them; and in a
// session of its own, so that a key typed at our terminal does not end it half way, and so that it
// can be ended together with what it starts.
void RunCommand(char* pcCommand) {
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    sigset_t signals;
    sigfillset(&signals);
    sigdelset(&signals, SIGKILL);
    sigdelset(&signals, SIGSTOP);
    posix_spawnattr_setsigdefault(&attributes, &signals);
    sigemptyset(&signals);
    posix_spawnattr_setsigmask(&attributes, &signals);
#if defined(POSIX_SPAWN_SETSID)
    constexpr short GROUP_FLAG = POSIX_SPAWN_SETSID;
#else
    constexpr short GROUP_FLAG = POSIX_SPAWN_SETPGROUP;
#endif
    posix_spawnattr_setflags(&attributes,
                             POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK | GROUP_FLAG);
    char cShell[] = "sh";
    char cOption[] = "-c";
    char* pcArguments[] = {cShell, cOption, pcCommand, nullptr};
    pid_t iProcess = -1;
    // A signal that ends the process comes before the helper or finds it entered.
    sigset_t old;
    sigfillset(&signals);
    pthread_sigmask(SIG_BLOCK, &signals, &old);
    const int iError =
        posix_spawn(&iProcess, _PATH_BSHELL, nullptr, &attributes, pcArguments, environ);
    if (iError == 0) {
        CExitCleanup::SetHelper(iProcess);
    }
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    posix_spawnattr_destroy(&attributes);
    if (iError != 0) {
        return;
    }
    // Its number stays taken until it is forgotten, so that no other process is ever ended for it.
    siginfo_t info;
    while (waitid(P_PID, static_cast<id_t>(iProcess), &info, WEXITED | WNOWAIT) == -1 &&
           errno == EINTR) {
    }
    CExitCleanup::SetHelper(0);
    while (waitpid(iProcess, nullptr, 0) == -1 && errno == EINTR) {
    }
}

}  // namespace

CVSphereWebController::CVSphereWebController(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam)
    : m_pUtilities(pUtilities), m_pRuntimeParam(pRuntimeParam) {}

void CVSphereWebController::RemoveSession(const char* pcMoid, const char* pcHost,
                                          const char* pcPort, const char* pcUser,
                                          const char* pcPwd) {
    if (pcMoid == nullptr || pcHost == nullptr || pcPort == nullptr || pcUser == nullptr ||
        pcPwd == nullptr) {
        return;
    }
    const CMutexLock lock(m_hMutex);
    const std::string sHelper = GetExecutableFolder() + HELPER_NAME;
    char cCommand[COMMAND_SIZE];
    const int iLen =
        std::snprintf(cCommand, sizeof(cCommand),
                      "\"%s\" -host %s -port %s -user %s -pwd %s -method removeDatastore -argu %s",
                      sHelper.c_str(), pcHost, pcPort, pcUser, pcPwd, pcMoid);
    if (iLen < 0 || static_cast<std::size_t>(iLen) >= sizeof(cCommand)) {
        // A command cut short could remove another datastore.
        m_pUtilities->LogError(m_pRuntimeParam,
                               "Fail to unmount NFS datastore with MOID \"%s\". Reason=Command is "
                               "too long",
                               pcMoid);
    } else {
        // What the helper answers changes nothing: the service stops in any case.
        RunCommand(cCommand);
    }
    explicit_bzero(cCommand, sizeof(cCommand));  // it held the password
}
