#include "UsedFile.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstring>

CUsedFile::CUsedFile(const FileContext& context, const char* pcPath, bool bAlwaysReadWrite)
    : m_File(context.pUtilities->UseCachedFile(context.pRuntimeParam, context.pLogArgu, pcPath,
                                               bAlwaysReadWrite)) {}

std::unique_lock<std::mutex> CUsedFile::Lock() const {
    return IsOpen() ? std::unique_lock<std::mutex>(m_File.pUse->m_hMutex)
                    : std::unique_lock<std::mutex>();
}

int CUsedFile::OS_FileRead(const FileContext& context, void* pvBuf, unsigned int iLen) const {
    if (!IsOpen()) {
        std::memset(pvBuf, 0, iLen);
        return static_cast<int>(iLen);
    }
    return context.pUtilities->OS_FileRead(context.pRuntimeParam, context.pLogArgu, m_File.iFile,
                                           pvBuf, iLen, nullptr);
}

std::int64_t CUsedFile::OS_FileSeek(const FileContext& context, std::int64_t iSeek,
                                    int iSeekType) const {
    if (!IsOpen()) {
        return iSeek;
    }
    return context.pUtilities->OS_FileSeek(context.pRuntimeParam, context.pLogArgu, m_File.iFile,
                                           static_cast<unsigned long long>(iSeek), iSeekType,
                                           nullptr);
}

int CUsedFile::OS_FileWrite(const FileContext& context, const void* pvBuf,
                            unsigned int iLen) const {
    return context.pUtilities->OS_FileWrite(context.pRuntimeParam, context.pLogArgu, m_File.iFile,
                                            pvBuf, iLen, nullptr);
}

int CUsedFile::ReadAt(std::int64_t iPos, void* pvBuf, unsigned int iLen) const {
    if (!IsRegularFile()) {  // devices may read without a place, or know other ends
        return -1;
    }
    const auto lock = Lock();
    return static_cast<int>(pread(m_File.iFile, pvBuf, iLen, iPos));
}

void CUsedFile::MoveTo(std::int64_t iPos) const {
    const auto lock = Lock();
    lseek(m_File.iFile, iPos, SEEK_SET);
}

bool CUsedFile::CopyFrom(const CUsedFile& source, std::int64_t iSourcePos,
                         unsigned int iLen) const {
    if (!source.m_File.pUse->IsOtherRegularFile(*m_File.pUse)) {
        return false;
    }
    // A source that ends inside the bytes is not copied at all: the rest of them may come from this
    // file itself, which must then be as it was.
    struct stat data {};
    if (iSourcePos < 0 || fstat(source.m_File.iFile, &data) != 0 ||
        data.st_size - iSourcePos < std::int64_t{iLen}) {
        return false;
    }
    const std::scoped_lock lock(source.m_File.pUse->m_hMutex, m_File.pUse->m_hMutex);
    const long long iCopied =
        CUtilities::OS_FileCopyRange(source.m_File.iFile, iSourcePos, m_File.iFile, iLen);
    if (iCopied > 0 && iCopied < iLen) {
        lseek(m_File.iFile, -iCopied, SEEK_CUR);
    }
    return iCopied == iLen;
}
