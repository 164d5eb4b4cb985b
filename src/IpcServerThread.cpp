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
    const int iError = m_Thread.Start<&CIpcServerThread::Run>(this);
    if (iError != 0) {
        CUtilities::GetLastErrorText(pcError, iError);
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
    m_Thread.Join();
    m_bActive = false;
    m_pServer.reset();  // closes the channel, which nobody waits on any more
}

void CIpcServerThread::Run() {
    while (m_pServer->IsOpened() && !m_pServer->IsInterrupted()) {
        m_pServer->ReadRequest();
    }
    m_bActive = false;
}
