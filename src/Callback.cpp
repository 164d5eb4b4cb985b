#include "Callback.h"

#include <pthread.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <tuple>
#include <vector>

namespace {

constexpr jchar REPLACEMENT = 0xFFFD;

// The length of the sequence that pc begins (1 to 4 bytes) and its code point; 0 for a bad one.
// Surrogates in three bytes and NUL in two are taken, as modified UTF-8 writes them.
std::size_t DecodeUtf8(const unsigned char* pc, std::uint32_t* piCode) {
    struct Form {
        unsigned char iMask;
        unsigned char iLead;
        std::uint32_t iLeast;
    };
    static constexpr Form FORMS[] = {
        {0x80, 0x00, 0}, {0xE0, 0xC0, 0x80}, {0xF0, 0xE0, 0x800}, {0xF8, 0xF0, 0x10000}};
    std::size_t iLen = 1;
    for (const Form& form : FORMS) {
        if ((pc[0] & form.iMask) == form.iLead) {
            std::uint32_t iCode = pc[0] & static_cast<unsigned char>(~form.iMask);
            for (std::size_t i = 1; i < iLen; ++i) {
                if ((pc[i] & 0xC0) != 0x80) {  // also the NUL at the end
                    return 0;
                }
                iCode = iCode << 6 | (pc[i] & 0x3FU);
            }
            const bool bNul = iLen == 2 && iCode == 0;
            *piCode = iCode;
            return (iCode >= form.iLeast || bNul) && iCode <= 0x10FFFF ? iLen : 0;
        }
        ++iLen;
    }
    return 0;
}

// Forgets what the last call threw; true when it threw.
bool ClearException(JNIEnv* pEnv) {
    if (!pEnv->ExceptionCheck()) {
        return false;
    }
    pEnv->ExceptionDescribe();
    pEnv->ExceptionClear();
    return true;
}

// The calls of host's methods that the thread is inside of: a method may call back into the
// library.
thread_local int t_iCalls = 0;

class InsideCall {
public:
    InsideCall() { ++t_iCalls; }
    ~InsideCall() { --t_iCalls; }
    InsideCall(const InsideCall&) = delete;
    InsideCall& operator=(const InsideCall&) = delete;
};

// Owns a local reference.
template <typename Reference>
class Local {
public:
    Local(JNIEnv* pEnv, Reference reference) : m_pEnv(pEnv), m_Reference(reference) {}
    ~Local() {
        if (m_Reference != nullptr) {
            m_pEnv->DeleteLocalRef(m_Reference);
        }
    }
    Local(const Local&) = delete;
    Local& operator=(const Local&) = delete;

    Reference Get() const { return m_Reference; }

private:
    JNIEnv* m_pEnv;
    Reference m_Reference;
};

// The method of an object's class, or null, with nothing pending, when it has none of that name and
// signature.
jmethodID FindMethod(JNIEnv* pEnv, jobject jObj, const char* pcName, const char* pcSignature) {
    const Local<jclass> objectClass(pEnv, pEnv->GetObjectClass(jObj));
    jmethodID method = pEnv->GetMethodID(objectClass.Get(), pcName, pcSignature);
    if (method == nullptr) {
        pEnv->ExceptionClear();
    }
    return method;
}

// Turns the arguments of one call into Java's; owns its texts.
class Arguments {
public:
    explicit Arguments(JNIEnv* pEnv) : m_pEnv(pEnv) {}
    ~Arguments() {
        for (std::size_t i = 0; i < m_iTexts; ++i) {
            m_pEnv->DeleteLocalRef(m_jTexts[i]);
        }
    }
    Arguments(const Arguments&) = delete;
    Arguments& operator=(const Arguments&) = delete;

    // Null, as all that follow, when the virtual machine has no memory for it.
    jstring Convert(const char* pcText) {
        jstring jText = m_bFailed ? nullptr : CCallback::NewJavaString(m_pEnv, pcText);
        m_bFailed = jText == nullptr;
        if (!m_bFailed) {
            m_jTexts[m_iTexts++] = jText;
        }
        return jText;
    }
    static jboolean Convert(bool b) { return b ? JNI_TRUE : JNI_FALSE; }
    static jint Convert(jint i) { return i; }
    static jlong Convert(jlong l) { return l; }

private:
    static constexpr std::size_t MAX_TEXTS = 3;

    JNIEnv* m_pEnv;
    jstring m_jTexts[MAX_TEXTS] = {};
    std::size_t m_iTexts = 0;
    bool m_bFailed = false;
};

// Calls a method through call(method, arguments...).  True when it was there and returned without
// an exception; what was thrown is not pending any more.
template <typename Call, typename... Args>
bool CallMethod(JNIEnv* pEnv, jobject jObj, const char* pcName, const char* pcSignature, Call call,
                Args... args) {
    jmethodID method = FindMethod(pEnv, jObj, pcName, pcSignature);
    if (method == nullptr) {
        return false;
    }
    Arguments arguments(pEnv);
    const std::tuple values{arguments.Convert(args)...};  // in braces: one after the other
    if (ClearException(pEnv)) {
        return false;
    }
    const InsideCall inside;
    std::apply([&](auto... jValues) { call(method, jValues...); }, values);
    return !ClearException(pEnv);
}

}  // namespace

CCallback::CCallback(JNIEnv* pEnv, jobject jObj) {
    if (pEnv == nullptr || pEnv->GetJavaVM(&m_jVM) != JNI_OK || m_jVM == nullptr) {
        m_jVM = nullptr;
        std::printf("[Callback::Constructor] vm = NULL\n");
        std::fflush(stdout);
        return;
    }
    m_jObj = pEnv->NewGlobalRef(jObj);
}

CCallback::~CCallback() {
    JNIEnv* pEnv = nullptr;
    const int iGetEnvResult = GetEnv(&pEnv);
    if (m_jObj != nullptr && AttrachThisThread(&pEnv, iGetEnvResult) && pEnv != nullptr) {
        pEnv->DeleteGlobalRef(m_jObj);
        if (iGetEnvResult == JNI_EDETACHED) {
            DetachThisThread();
        }
    }
}

bool CCallback::IsInsideCall() { return t_iCalls > 0; }

// =================================================================================================
// Environments
// =================================================================================================

int CCallback::GetEnv(JNIEnv** ppEnv) {
    return m_jVM != nullptr ? m_jVM->GetEnv(reinterpret_cast<void**>(ppEnv), JNI_VERSION_1_4) : -1;
}

bool CCallback::AttrachThisThread(JNIEnv** ppEnv, int iGetEnvResult) {
    if (m_jVM == nullptr) {
        return false;
    }
    if (iGetEnvResult != JNI_EDETACHED) {
        return true;
    }
    if (m_jVM->AttachCurrentThread(reinterpret_cast<void**>(ppEnv), nullptr) != JNI_OK) {
        std::printf("GetEnv: fail to attach thread (%lu)\n",
                    static_cast<unsigned long>(pthread_self()));
        std::fflush(stdout);
        return false;
    }
    return true;
}

void CCallback::DetachThisThread() {
    if (m_jVM != nullptr) {
        m_jVM->DetachCurrentThread();
    }
}

template <typename Call>
bool CCallback::WithEnv(Call call) {
    JNIEnv* pEnv = nullptr;
    const int iGetEnvResult = GetEnv(&pEnv);
    if (m_jObj == nullptr || !AttrachThisThread(&pEnv, iGetEnvResult) || pEnv == nullptr) {
        return false;
    }
    // An exception that is already on its way to the host must not meet another call.
    if (!pEnv->ExceptionCheck()) {
        call(pEnv);
    }
    DetachThisThread();
    return true;
}

// =================================================================================================
// Texts
// =================================================================================================

// Text from a file system or a peer need not be UTF-8, but a virtual machine may fall over anything
// else.
jstring CCallback::NewJavaString(JNIEnv* pEnv, const char* pcText) {
    std::vector<jchar> vChars;
    const auto* pc = reinterpret_cast<const unsigned char*>(pcText != nullptr ? pcText : "");
    while (*pc != '\0') {
        std::uint32_t iCode = 0;
        const std::size_t iLen = DecodeUtf8(pc, &iCode);
        if (iLen == 0) {
            vChars.push_back(REPLACEMENT);
            ++pc;
            continue;
        }
        if (iCode >= 0x10000) {
            vChars.push_back(static_cast<jchar>(0xD800 + ((iCode - 0x10000) >> 10)));
            vChars.push_back(static_cast<jchar>(0xDC00 + ((iCode - 0x10000) & 0x3FF)));
        } else {
            vChars.push_back(static_cast<jchar>(iCode));
        }
        pc += iLen;
    }
    static constexpr jchar EMPTY = 0;
    return pEnv->NewString(vChars.empty() ? &EMPTY : vChars.data(),
                           static_cast<jsize>(vChars.size()));
}

// =================================================================================================
// Log lines
// =================================================================================================

bool CCallback::LogInfo(const char* pcID, const char* pcText) {
    return FireMessageLog("logInfo", pcID, pcText);
}

bool CCallback::LogError(const char* pcID, const char* pcText) {
    return FireMessageLog("logError", pcID, pcText);
}

bool CCallback::LogRaw(const char* pcID, const char* pcText) {
    return FireMessageLog("logRaw", pcID, pcText);
}

bool CCallback::FireMessageLog(const char* pcMethodName, const char* pcID, const char* pcText) {
    return WithEnv(
        [&](JNIEnv* pEnv) { FireMessageLogWOAT(pEnv, m_jObj, pcMethodName, pcID, pcText); });
}

void CCallback::FireMessageLogWOAT(JNIEnv* pEnv, jobject jObj, const char* pcMethodName,
                                   const char* pcID, const char* pcText) {
    CallMethod(
        pEnv, jObj, pcMethodName, "(Ljava/lang/String;Ljava/lang/String;)V",
        [&](jmethodID method, auto... jArgs) { pEnv->CallVoidMethod(jObj, method, jArgs...); },
        pcID, pcText);
}

bool CCallback::IsInterrupted() {
    JNIEnv* pEnv = nullptr;
    if (m_jObj == nullptr || GetEnv(&pEnv) != JNI_OK || pEnv == nullptr) {
        return false;
    }
    jboolean bInterrupted = JNI_FALSE;
    return CallMethod(
               pEnv, m_jObj, "isInterrupted", "()Z",
               [&](jmethodID method) { bInterrupted = pEnv->CallBooleanMethod(m_jObj, method); }) &&
           bInterrupted == JNI_TRUE;
}

// =================================================================================================
// Notifications
// =================================================================================================

template <typename... Args>
int CCallback::Notify(const char* pcName, const char* pcSignature, Args... args) {
    jint iAnswer = -1;
    bool bAnswered = false;
    WithEnv([&](JNIEnv* pEnv) {
        bAnswered = CallMethod(
            pEnv, m_jObj, pcName, pcSignature,
            [&](jmethodID method, auto... jArgs) {
                iAnswer = pEnv->CallIntMethod(m_jObj, method, jArgs...);
            },
            args...);
    });
    return bAnswered ? iAnswer : -1;
}

int CCallback::UpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                              unsigned long long iSize, bool bAccessTime,
                                              unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                              unsigned long lLastModifiedTimeSec) {
    // The high words of the times are zero.
    return Notify("setRedirectedFileAttributes", "(Ljava/lang/String;Ljava/lang/String;ZJZJZJ)I",
                  pcID, pcPath, bSize, static_cast<jlong>(iSize), bAccessTime,
                  static_cast<jlong>(static_cast<std::uint32_t>(lAccessTimeSec)), bLastModifiedTime,
                  static_cast<jlong>(static_cast<std::uint32_t>(lLastModifiedTimeSec)));
}

int CCallback::RemoveRedirectedFile(const char* pcID, const char* pcPath) {
    return Notify("removeRedirectedFile", "(Ljava/lang/String;Ljava/lang/String;)I", pcID, pcPath);
}

int CCallback::RenameRedirectedFile(const char* pcID, const char* pcPathFrom,
                                    const char* pcPathTo) {
    return Notify("renameRedirectedFile",
                  "(Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)I", pcID, pcPathFrom,
                  pcPathTo);
}

int CCallback::WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                                   int iSeekType, unsigned int iLen) {
    return Notify("writeRedirectedFile", "(Ljava/lang/String;Ljava/lang/String;JII)I", pcID, pcPath,
                  static_cast<jlong>(iSeek), static_cast<jint>(iSeekType), static_cast<jint>(iLen));
}

// =================================================================================================
// Exceptions
// =================================================================================================

void CCallback::ThrowIOException(const char* pcMessage) {
    WithEnv([&](JNIEnv* pEnv) {
        const Local<jclass> exceptionClass(pEnv, pEnv->FindClass("java/io/IOException"));
        if (exceptionClass.Get() == nullptr) {
            return;  // what FindClass threw stays pending in its place
        }
        jmethodID constructor =
            pEnv->GetMethodID(exceptionClass.Get(), "<init>", "(Ljava/lang/String;)V");
        if (constructor == nullptr) {
            return;
        }
        const Local<jstring> message(pEnv, NewJavaString(pEnv, pcMessage));
        if (message.Get() == nullptr) {
            return;
        }
        const Local<jobject> exception(
            pEnv, pEnv->NewObject(exceptionClass.Get(), constructor, message.Get()));
        if (exception.Get() != nullptr) {
            pEnv->Throw(static_cast<jthrowable>(exception.Get()));
        }
    });
}
