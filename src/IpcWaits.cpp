#include "IpcWaits.h"

#include <sys/socket.h>

bool CIpcWaits::Enter(int iSocket) {
    const std::lock_guard<std::mutex> lock(m_hMutex);
    if (m_bRefused) {
        return false;
    }
    m_Sockets.insert(iSocket);
    return true;
}

void CIpcWaits::Leave(int iSocket) {
    const std::lock_guard<std::mutex> lock(m_hMutex);
    m_Sockets.erase(iSocket);
}

void CIpcWaits::Refuse() {
    const std::lock_guard<std::mutex> lock(m_hMutex);
    m_bRefused = true;
    for (const int iSocket : m_Sockets) {
        shutdown(iSocket, SHUT_RDWR);
    }
}

void CIpcWaits::Allow() {
    const std::lock_guard<std::mutex> lock(m_hMutex);
    m_bRefused = false;
}
