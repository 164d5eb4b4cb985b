// Runs the helper program that unmounts datastores from their hosts.
#ifndef VELOCAST_VSPHEREWEBCONTROLLER_H
#define VELOCAST_VSPHEREWEBCONTROLLER_H

#include "Mutex.h"

class CRuntimeParam;
class CUtilities;

// The helper lies beside the running executable (in a Java host that is the virtual machine's).
//
// Thread safety: one run at a time.
class CVSphereWebController {
public:
    // Both borrowed, for the report of a command that does not fit.
    CVSphereWebController(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);
    virtual ~CVSphereWebController() = default;
    CVSphereWebController(const CVSphereWebController&) = delete;
    CVSphereWebController& operator=(const CVSphereWebController&) = delete;

    // Runs the helper once, through the system shell, with every signal at its default effect and
    // in a session of its own, and waits for it; what it answers is ignored.  Only the helper's
    // path is quoted: the shell sees the values as they are.  Does nothing when an argument is
    // null; logs an error, and runs nothing, when the command exceeds 1,023 bytes.
    void RemoveSession(const char* pcMoid, const char* pcHost, const char* pcPort,
                       const char* pcUser, const char* pcPwd) EXCLUDES(m_hMutex);

private:
    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
    CMutex m_hMutex;  // held while the helper runs
};

#endif
