// Calls the methods of a host's Java object, from whatever thread has something to tell.
#ifndef VELOCAST_CALLBACK_H
#define VELOCAST_CALLBACK_H

#include <jni.h>

#include "HostCallback.h"

// Holds the virtual machine and a global reference to the object, never an environment: that
// belongs to a thread.  Every operation finds its thread's environment, attaching the thread when
// it has none, and detaches the thread afterwards (which a virtual machine refuses for a thread
// that came from Java).  A method that the object lacks, or that throws, counts as its default
// result; what it threw is described on standard error and does not stay pending.
//
// Thread safety: any thread may call; calls are not serialised.
class CCallback : public IHostCallback {
public:
    // The object's methods are called until the destruction.
    CCallback(JNIEnv* pEnv, jobject jObj);
    ~CCallback() override;

    // True when the thread had or got an environment.
    bool LogInfo(const char* pcID, const char* pcText) override;
    bool LogError(const char* pcID, const char* pcText) override;
    bool LogRaw(const char* pcID, const char* pcText) override;

    // Never attaches: false on a thread without an environment.
    bool IsInterrupted();

    // The method's answer, -1 when it was not called.  Times are seconds, sizes and positions
    // bytes.
    int UpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                       unsigned long long iSize, bool bAccessTime,
                                       unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                       unsigned long lLastModifiedTimeSec) override;
    int RemoveRedirectedFile(const char* pcID, const char* pcPath) override;
    int RenameRedirectedFile(const char* pcID, const char* pcPathFrom,
                             const char* pcPathTo) override;
    int WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                            int iSeekType, unsigned int iLen) override;

    // Leaves a java.io.IOException pending in the calling thread.
    void ThrowIOException(const char* pcMessage);

    // Whether this thread is inside a call of a host's method.
    static bool IsInsideCall();

    // JNI's answer; -1 without a virtual machine.
    int GetEnv(JNIEnv** ppEnv);
    // Attaches the thread when GetEnv answered that it is not attached; false when that fails.
    bool AttrachThisThread(JNIEnv** ppEnv, int iGetEnvResult);
    void DetachThisThread();

    bool FireMessageLog(const char* pcMethodName, const char* pcID, const char* pcText);
    // The same on a thread that has an environment.
    static void FireMessageLogWOAT(JNIEnv* pEnv, jobject jObj, const char* pcMethodName,
                                   const char* pcID, const char* pcText);

    // A local reference; what is not UTF-8 becomes replacement characters, null an empty string.
    // Null, with an exception pending, when the virtual machine has no memory for it.
    static jstring NewJavaString(JNIEnv* pEnv, const char* pcText);

private:
    // Runs call(pEnv) on this thread with an environment; false when there is none.
    template <typename Call>
    bool WithEnv(Call call);
    // Calls a method that returns int; its answer, -1 when it was not called or threw.
    template <typename... Args>
    int Notify(const char* pcName, const char* pcSignature, Args... args);

    JavaVM* m_jVM = nullptr;
    jobject m_jObj = nullptr;  // global reference, owned
};

#endif
