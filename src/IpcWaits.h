// The exchanges that wait for another process's answer, so that a stop can end them.
#ifndef VELOCAST_IPCWAITS_H
#define VELOCAST_IPCWAITS_H

#include <atomic>

// A process that does not answer keeps whoever asked it waiting without a limit.  Stopping must not
// wait with it.
//
// Thread safety: any thread may call.
class CIpcWaits {
public:
    // Ends every exchange that is under way, which then fails, and refuses new ones until Allow has
    // been called as often.
    void Refuse();
    void Allow();

    // While it lives, the exchanges of the calling thread belong to these waits and not to those
    // that they were made for.
    class ThreadScope {
    public:
        explicit ThreadScope(CIpcWaits* pWaits);
        ~ThreadScope();
        ThreadScope(const ThreadScope&) = delete;
        ThreadScope& operator=(const ThreadScope&) = delete;

    private:
        CIpcWaits* m_pOuter;
    };

private:
    friend class CIpcWait;

    std::atomic<unsigned> m_iEnds{0};  // how often exchanges have been ended
    std::atomic<int> m_iRefusals{0};   // not yet allowed again
};

// One exchange, from before its first wait to its end.  It asks now and then whether it is to go
// on.
class CIpcWait {
public:
    // pWaits (borrowed) may be null; where the thread has waits of its own, those count.
    explicit CIpcWait(const CIpcWaits* pWaits);

    bool IsEnded() const;

private:
    const CIpcWaits* m_pWaits;
    unsigned m_iEnds;
};

#endif
