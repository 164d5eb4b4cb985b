#include "SourceReader.h"

#include <cstdio>

#include "RuntimeParam.h"

void CSourceReader::Settle() {
    if (m_iPos >= 0) {
        m_File.MoveTo(m_iPos);
        m_iPos = -1;
    }
}

void CSourceReader::Open(const FileContext& context, const std::string* psSource) {
    if (m_File.IsOpen() && m_psSource == psSource) {
        return;
    }
    Settle();
    m_File.Release();  // the cache may have to close it to open the next one
    m_psSource = psSource;
    if (psSource != nullptr) {
        m_File = CUsedFile(context, psSource->c_str(), false);
    }
}

int CSourceReader::ReadAtOnce(std::int64_t iSourcePos, unsigned char* pcBuf, unsigned int iLen) {
    m_bCopied = iLen == EXPORT_STEP && m_pCopyTo != nullptr &&
                m_pCopyTo->CopyFrom(m_File, iSourcePos, iLen);
    const int iRead = m_bCopied ? static_cast<int>(iLen) : m_File.ReadAt(iSourcePos, pcBuf, iLen);
    if (iRead > 0) {
        m_iPos = iSourcePos + iRead;
    }
    return iRead;
}

int CSourceReader::Read(const FileContext& context, const std::string* psSource,
                        std::int64_t iSourcePos, unsigned char* pcBuf, unsigned int iLen) {
    Open(context, psSource);
    // One call for two, where no log line tells of each.  What gives nothing is done again below:
    // the system may refuse the place, and that is reported.
    if (m_File.IsOpen() && !context.pRuntimeParam->IsLogFileAccess()) {
        const int iRead = ReadAtOnce(iSourcePos, pcBuf, iLen);
        if (iRead > 0) {
            return iRead;
        }
    }
    Settle();
    const auto lock = m_File.Lock();
    if (m_File.OS_FileSeek(context, iSourcePos, SEEK_SET) < 0) {
        return -1;
    }
    return m_File.OS_FileRead(context, pcBuf, iLen);
}
