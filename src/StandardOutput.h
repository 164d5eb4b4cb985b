// The process's standard output: each text is written whole and at once.
#ifndef VELOCAST_STANDARDOUTPUT_H
#define VELOCAST_STANDARDOUTPUT_H

#include <cstdarg>
#include <cstddef>

#include "LogRouter.h"

// A reader that does not read keeps whoever prints waiting, until the process is about to end: then
// a second of waiting is left for everything that is still printed, and what is not taken is
// dropped.  While a service stops it is the same, for that time.
//
// Thread safety: any thread may print, texts never interleave; EndWaits may also be called from a
// signal handler.
class CStandardOutput {
public:
    static void Print(const char* pcFmt, ...) VELOCAST_PRINTF(1, 2);
    static void PrintArgs(const char* pcFmt, va_list vaArgs) VELOCAST_PRINTF(1, 0);
    // The process is about to end: nobody waits for the reader for long any more.
    static void EndWaits();

    // While one lives, a service stops, and must not wait for the reader either.
    class ServiceStop {
    public:
        ServiceStop();
        ~ServiceStop();
        ServiceStop(const ServiceStop&) = delete;
        ServiceStop& operator=(const ServiceStop&) = delete;
    };

private:
    static void Write(const char* pcText, std::size_t iLen);
};

#endif
