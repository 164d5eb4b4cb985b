// The exchanges that wait for a controller's answer, so that a stop of the service can end them.
#ifndef VELOCAST_IPCWAITS_H
#define VELOCAST_IPCWAITS_H

#include <mutex>
#include <set>

// A controller that does not answer keeps the request that told it waiting without a limit.
// Stopping must not wait with it.
//
// Thread safety: any thread may call.
class CIpcWaits {
public:
    // Enters the socket of an exchange that is about to wait; false while waits are refused.
    bool Enter(int iSocket);
    // Before the socket is closed.
    void Leave(int iSocket);

    // Ends every wait, which then fails, and refuses new ones until Allow.
    void Refuse();
    void Allow();

private:
    std::mutex m_hMutex;  // guards both; a leaf
    std::set<int> m_Sockets;
    bool m_bRefused = false;
};

#endif
