// The file that an export of a redirected file writes to.
#ifndef VELOCAST_EXPORTTARGET_H
#define VELOCAST_EXPORTTARGET_H

#include <string>

#include "UsedFile.h"

// Must exist already: opening does not create it.
//
// Thread safety: none.
class CExportTarget {
public:
    // pcPath may be null or empty: not open.
    CExportTarget(const FileContext& context, const char* pcPath);

    bool IsOpen() const { return m_File.IsOpen(); }
    const CUsedFile& GetFile() const { return m_File; }
    // Bytes written at the position, or -1.  A pipe is waited for while its reader goes on reading,
    // and once that was in vain, or exports are stopped, no more.  REQUIRES: IsOpen.
    int Write(const void* pvBuf, unsigned int iLen);
    // Takes the file out of the cache, which closes it and reports that.
    void Close();

private:
    int WriteFrom(const void* pvBuf, unsigned int iFrom, unsigned int iLen) const;

    FileContext m_Context;
    std::string m_sPath;
    CUsedFile m_File;
    bool m_bWait = true;  // for room in a pipe
};

#endif
