#include "Thread.h"

void CThread::Join() {
    if (m_iThreadCreated == 0) {
        pthread_join(m_hThread, nullptr);
    }
    m_iThreadCreated = -1;
}
