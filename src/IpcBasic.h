// What both ends of the local control channel share: buffers, texts, headers and tracing.
#ifndef VELOCAST_IPCBASIC_H
#define VELOCAST_IPCBASIC_H

#include <cstring>
#include <string>
#include <type_traits>

#include "IpcMessages.h"
#include "Utilities.h"

// One message.  lDataLen, the bytes of cBuf that make it up, is never transmitted.
struct IpcDataBuf {
    char cBuf[IPC_MESSAGE_SIZE];
    std::int32_t lDataLen;

    // The message read as, or written from, one of its structures.  A bool that a peer sent
    // as a byte other than 0 or 1 must go through GetBool or
    // ReadIpcField.
    template <typename Message>
    Message Get() const {
        static_assert(std::is_trivially_copyable_v<Message> && sizeof(Message) <= sizeof(cBuf));
        Message message;
        std::memcpy(&message, cBuf, sizeof(message));
        return message;
    }
    template <typename Message>
    void Put(const Message& message) {
        static_assert(std::is_trivially_copyable_v<Message> && sizeof(Message) <= sizeof(cBuf));
        std::memcpy(cBuf, &message, sizeof(message));
    }
    bool GetBool(std::size_t iOffset) const { return cBuf[iOffset] != 0; }
};

// The request and the reply of one exchange.
struct IpcDataInst {
    IpcDataBuf request;
    IpcDataBuf reply;
};

// A text field that a peer sent, with or without its NUL.
template <std::size_t N>
std::string GetIpcText(const char (&cField)[N]) {
    return std::string(cField, strnlen(cField, N));
}

// Fills a text field, cut to fit and padded with NULs; false when the text was cut.  Null counts as
// the empty text.
template <std::size_t N>
bool SetIpcText(char (&cField)[N], const char* pcText) {
    const std::size_t iLen = pcText != nullptr ? std::strlen(pcText) : 0;
    const std::size_t iCopied = iLen < N ? iLen : N - 1;
    std::memset(cField, 0, N);
    if (iCopied != 0) {
        std::memcpy(cField, pcText, iCopied);
    }
    return iCopied == iLen;
}

// The channel of an identity, "/tmp/nfs-" and the name, in IPC_CHANNEL_SIZE bytes.
void MakeIpcChannel(const char* pcName, char* pcChannel);

// Thread safety: the operations of this class keep nothing and may be called from any thread.
class CIpcBasic {
public:
    // Both borrowed.
    CIpcBasic(CUtilities* pUtilities, CRuntimeParam* pRuntimeParam);
    virtual ~CIpcBasic() = default;
    CIpcBasic(const CIpcBasic&) = delete;
    CIpcBasic& operator=(const CIpcBasic&) = delete;

    // Write the header and set the length of the type's structure; an unknown type becomes a bare
    // header of type 0.  The bytes behind the header stay as they are.
    static void InitialRequestData(IpcDataBuf* pData, int iType);
    static void InitialReplyData(IpcDataBuf* pData, int iType);
    static void InitialCallbackData(IpcDataBuf* pData, int iType);

    // Traces a message when IPC logging is on.
    void PrintData(LogArgu* pLogArgu, const IpcDataBuf* pData);

    // Log with the identity of the owner, in this process only.
    void LogInfo(const char* pcFmt, ...) VELOCAST_PRINTF(2, 3);
    void LogError(const char* pcFmt, ...) VELOCAST_PRINTF(2, 3);
    void LogInfo(char* pcMessage);
    void LogError(char* pcMessage);
    // Logs the reason for which an operation failed, when errors are logged; always false.
    bool LogFailure(const char* pcName, const char* pcError);

protected:
    // The system's text for an error number, as an argument of Fail.
    class ErrorText {
    public:
        explicit ErrorText(int iError) { CUtilities::GetLastErrorText(m_cText, iError); }
        const char* Get() const { return m_cText; }

    private:
        char m_cText[STATUS_SIZE] = "";
    };

    // Formats a reason into pcError (STATUS_SIZE bytes, or null); always false.
    static bool Fail(char* pcError, const char* pcFmt, ...) VELOCAST_PRINTF(2, 3);
    // Logs a step of an exchange.  The log control may change while an exchange waits, so it is
    // asked for each line.
    void LogState(const char* pcFmt, ...) VELOCAST_PRINTF(2, 3);

    CUtilities* m_pUtilities;
    CRuntimeParam* m_pRuntimeParam;
};

#endif
