#include "IpcServerThread.h"

#include "IpcServer.h"

CIpcServerThread::CIpcServerThread() = default;

CIpcServerThread::~CIpcServerThread() { Close(); }

bool CIpcServerThread::Open(const char* pcChannel, CNfsMain* pNfsHandle, char* pcError) {
    Close();
    m_pServer = std::make_unique<CIpcServer>(pNfsHandle);
    if (!m_pServer->Open(pcChannel, pcError)) {
        m_pServer.reset();
        return false;
    }
    m_bActive = true;
    m_iThreadCreated = pthread_create(&m_hThread, nullptr, &CIpcServerThread::ThreadMain, this);
    if (m_iThreadCreated != 0) {
        CUtilities::GetLastErrorText(pcError, m_iThreadCreated);
        Close();
        return false;
    }
    return true;
}

void CIpcServerThread::Close() {
    if (m_pServer == nullptr) {
        return;
    }
    m_pServer->Interrupt();
    if (m_iThreadCreated == 0) {
        pthread_join(m_hThread, nullptr);
    }
    m_iThreadCreated = -1;
    m_bActive = false;
    m_pServer.reset();  // closes the channel, which nobody waits on any more
}

void* CIpcServerThread::ThreadMain(void* pvThread) {
    static_cast<CIpcServerThread*>(pvThread)->Run();
    return nullptr;
}

void CIpcServerThread::Run() {
    while (m_pServer->IsOpened() && !m_pServer->IsInterrupted()) {
        m_pServer->ReadRequest();
    }
    m_bActive = false;
}
