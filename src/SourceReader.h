// Reads the sources of a redirected file, one after the other.
#ifndef VELOCAST_SOURCEREADER_H
#define VELOCAST_SOURCEREADER_H

#include <cstdint>
#include <string>

#include "UsedFile.h"

// Keeps the descriptor of a source for the next segment, which mostly has the same source.
//
// A source is read at a place (pread), or, for an export, copied inside the kernel.  Both leave the
// position of its descriptor as it was until Settle, which puts it where positioning and reading
// one by one would have: others may go on from there.
//
// Thread safety: none.
class CSourceReader {
public:
    static constexpr unsigned int EXPORT_STEP = 65536;  // bytes of one step of an export

    CSourceReader() = default;
    // Steps of an export may go straight to the target, which is borrowed and open.
    explicit CSourceReader(const CUsedFile* pCopyTo) : m_pCopyTo(pCopyTo) {}
    ~CSourceReader() { Settle(); }
    CSourceReader(const CSourceReader&) = delete;
    CSourceReader& operator=(const CSourceReader&) = delete;

    // Bytes read or -1.  Without a source (null), and of one that cannot be opened, zeros.
    // psSource is borrowed until the next call.
    int Read(const FileContext& context, const std::string* psSource, std::int64_t iSourcePos,
             unsigned char* pcBuf, unsigned int iLen);
    // Puts the position behind what was read last.
    void Settle();
    // What was read last went to the target and not to the buffer.
    bool IsCopied() const { return m_bCopied; }

private:
    void Open(const FileContext& context, const std::string* psSource);
    int ReadAtOnce(std::int64_t iSourcePos, unsigned char* pcBuf, unsigned int iLen);

    const std::string* m_psSource = nullptr;
    CUsedFile m_File;
    std::int64_t m_iPos = -1;  // where the position has to be; -1: where it is
    const CUsedFile* m_pCopyTo = nullptr;
    bool m_bCopied = false;
};

#endif
