// Keeps log lines back until the locks of an operation are released.
#ifndef VELOCAST_HELDLINES_H
#define VELOCAST_HELDLINES_H

#include <string>
#include <vector>

#include "LogRouter.h"

// While it lives, the lines that the calling thread logs are kept; at its end, which is that of the
// outermost one, they are delivered in their order.  It stands before the locks of an operation, so
// that no line is delivered under them: whoever takes the line may be waiting for what they guard.
// Not for an operation that waits for a controller's answer, nor for one without an end in sight.
//
// Thread safety: an object belongs to the thread that made it.
class CHeldLines {
public:
    // Borrowed.
    explicit CHeldLines(CLogRouter* pLogRouter);
    ~CHeldLines();
    CHeldLines(const CHeldLines&) = delete;
    CHeldLines& operator=(const CHeldLines&) = delete;

    // Whether the line is kept, and so not to be delivered yet.
    static bool Hold(CLogRouter* pLogRouter, LineKind kind, CRuntimeParam* pRuntimeParam,
                     const char* pcMessage);

private:
    struct Line {
        LineKind kind;
        CRuntimeParam* pRuntimeParam;  // the caller's, who is still in the operation
        std::string sMessage;
    };

    static thread_local CHeldLines* t_pHeldLines;  // the outermost one; null: none

    CLogRouter* m_pLogRouter;
    bool m_bOutermost;
    std::vector<Line> m_vLines;
};

#endif
