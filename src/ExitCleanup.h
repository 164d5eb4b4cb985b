// What a process that a signal ends at once must not leave behind.
#ifndef VELOCAST_EXITCLEANUP_H
#define VELOCAST_EXITCLEANUP_H

#include <sys/types.h>

// Files and folders are entered before they are made and forgotten after they were removed in
// order, so that no moment in between leaves one behind.  Nothing here is owned: without Run (a
// Java host has its own signal handlers) an entry has no effect.
//
// Thread safety: any thread may call; Run also from a signal handler, while another thread is
// inside one of the others.
class CExitCleanup {
public:
    // A path of 4,096 bytes or more, and a seventeenth one, are not kept.
    static void AddFile(const char* pcPath);
    // Removed after the files, and only when it is empty then.
    static void AddFolder(const char* pcPath);
    static void Forget(const char* pcPath);

    // The process whose group is to end as well; 0: none.
    static void SetHelper(pid_t iHelper);

    // Ends the helper and removes what is entered.  Async-signal-safe.
    static void Run();

private:
    static void Add(const char* pcPath, int iState);
};

#endif
