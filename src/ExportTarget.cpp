#include "ExportTarget.h"

#include <poll.h>

namespace {

constexpr int PIPE_WAITS = 20;    // how often an export waits for the reader of a full pipe,
constexpr int PIPE_WAIT_MS = 50;  // and how long each time

// False when a pipe stays full.  In short waits, so that signals can neither end it nor renew it.
bool WaitForRoom(int iFile) {
    for (int i = 0; i < PIPE_WAITS; ++i) {
        pollfd room{iFile, POLLOUT, 0};
        if (poll(&room, 1, PIPE_WAIT_MS) > 0) {
            return true;
        }
    }
    return false;
}

}  // namespace

CExportTarget::CExportTarget(const FileContext& context, const char* pcPath)
    : m_Context(context),
      m_sPath(pcPath != nullptr ? pcPath : ""),
      m_File(context, m_sPath.c_str(), false) {}

int CExportTarget::WriteFrom(const void* pvBuf, unsigned int iFrom, unsigned int iLen) const {
    const auto lock = m_File.Lock();
    return m_File.OS_FileWrite(m_Context, static_cast<const unsigned char*>(pvBuf) + iFrom,
                               iLen - iFrom);
}

int CExportTarget::Write(const void* pvBuf, unsigned int iLen) {
    if (m_File.IsRegularFile()) {
        return WriteFrom(pvBuf, 0, iLen);
    }
    // A pipe takes as much as it has room for.
    unsigned int iDone = 0;
    while (iDone < iLen) {
        if (m_Context.pUtilities->AreExportsStopped()) {
            return static_cast<int>(iDone);
        }
        m_bWait = m_bWait && WaitForRoom(m_File.GetDescriptor());
        const int iWritten = WriteFrom(pvBuf, iDone, iLen);
        if (iWritten <= 0) {
            return iDone > 0 ? static_cast<int>(iDone) : iWritten;
        }
        iDone += static_cast<unsigned int>(iWritten);
    }
    return static_cast<int>(iDone);
}

void CExportTarget::Close() {
    m_File.Release();
    m_Context.pUtilities->CloseCachedFileHandle(m_Context.pRuntimeParam, m_Context.pLogArgu,
                                                m_sPath.c_str());
}
