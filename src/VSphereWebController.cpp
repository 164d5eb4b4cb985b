#include "VSphereWebController.h"

#include <sys/types.h>
#include <unistd.h>
#if !defined(__linux__)
#include <sys/sysctl.h>
#endif

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Utilities.h"

namespace {

constexpr const char* HELPER_NAME =
    "dsPurgeTool"
    "Fbd"
    "X86";
constexpr std::size_t COMMAND_SIZE = 1024;  // the NUL included

// The folder of the running executable with its last '/', or nothing when it cannot be found: the
// helper is then looked for in the working directory's and the search path's way.
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
    const std::lock_guard<std::mutex> lock(m_hMutex);
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
        [[maybe_unused]] const int iStatus = std::system(cCommand);
    }
    explicit_bzero(cCommand, sizeof(cCommand));  // it held the password
}
