// What SIGINT, SIGTERM and SIGHUP do to the program.
#ifndef VELOCAST_EXITSIGNALS_H
#define VELOCAST_EXITSIGNALS_H

#include <signal.h>

#include <array>

// While one lives, the three signals end the process: at once, leaving nothing behind, or in order
// where the command loop can.  The first signal that ends it in order is a request; another SIGINT
// or SIGTERM then ends the process at once.  A SIGHUP that is ignored from the start (nohup) stays
// ignored.
//
// Thread safety: one object in a process, made and ended by the main thread; the static operations
// are called by the main thread.
class CExitSignals {
public:
    CExitSignals();
    ~CExitSignals();
    CExitSignals(const CExitSignals&) = delete;
    CExitSignals& operator=(const CExitSignals&) = delete;

    // From now on signals end the command loop in order.
    static void EndInOrder();
    // From now on signals end the process at once; false when the loop has already been asked to
    // end.
    static bool EndAtOnce();
    // Whether a signal has asked the command loop to end.
    static bool IsEndRequested();

private:
    static constexpr std::array SIGNALS{SIGINT, SIGTERM, SIGHUP};

    std::array<struct sigaction, SIGNALS.size()> m_Saved{};
};

#endif
