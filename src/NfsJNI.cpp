// The native methods of com.corvane.qtx.velocast.nfs.NfsLibNative.
//
// A handle is the address of a main object; 0 means none.  Booleans from Java count only when they
// are exactly 1.  Methods that may produce log lines or notifications lend the calling object for
// the duration of the call when no other object is being told of them.

#include <jni.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Callback.h"
#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"
#include "Utilities.h"

// The linker exports these names and no others.
#define NFS_METHOD(type, name) \
    extern "C" JNIEXPORT type JNICALL Java_com_corvane_qtx_velocast_nfs_NfsLibNative_##name

namespace {

constexpr useconds_t LOOP_STEP_US = 1000000;

CNfsMain* GetMain(jlong lHandle) {
    return reinterpret_cast<CNfsMain*>(static_cast<std::intptr_t>(lHandle));
}

bool IsTrue(jboolean b) { return b == 1; }

jboolean ToJava(bool b) { return b ? JNI_TRUE : JNI_FALSE; }

// The modified UTF-8 of a Java string while it lives; null for a null string.
class JavaText {
public:
    JavaText(JNIEnv* pEnv, jstring jText) : m_pEnv(pEnv), m_jText(jText) {
        if (jText != nullptr) {
            m_pcText = pEnv->GetStringUTFChars(jText, nullptr);
        }
    }
    ~JavaText() {
        if (m_pcText != nullptr) {
            m_pEnv->ReleaseStringUTFChars(m_jText, m_pcText);
        }
    }
    JavaText(const JavaText&) = delete;
    JavaText& operator=(const JavaText&) = delete;

    operator const char*() const { return m_pcText; }

private:
    JNIEnv* m_pEnv;
    jstring m_jText;
    const char* m_pcText = nullptr;
};

// Installs a callback for the duration of a call, when none is installed.
class TemporaryCallback {
public:
    TemporaryCallback(JNIEnv* pEnv, jobject jObj, CNfsMain* pMain) : m_pMain(pMain) {
        if (pMain->GetCallback() == nullptr) {
            m_pCallback = std::make_shared<CCallback>(pEnv, jObj);
            if (!pMain->SetCallback(m_pCallback, false)) {
                m_pCallback.reset();
            }
        }
    }
    ~TemporaryCallback() {
        if (m_pCallback != nullptr) {
            m_pMain->UnsetCallback(m_pCallback.get());
        }
    }
    TemporaryCallback(const TemporaryCallback&) = delete;
    TemporaryCallback& operator=(const TemporaryCallback&) = delete;

private:
    CNfsMain* m_pMain;
    std::shared_ptr<CCallback> m_pCallback;  // null: another one is in place
};

void ThrowIOException(JNIEnv* pEnv, jobject jObj, const char* pcMessage) {
    CCallback(pEnv, jObj).ThrowIOException(pcMessage);
}

// Whether a method that ends threads may run.  Inside a callback it would wait for the thread that
// it runs on, or take away what that thread goes on with: an IllegalStateException is then pending.
bool MayEndThreads(JNIEnv* pEnv, const char* pcMethod) {
    if (!CCallback::IsInsideCall()) {
        return true;
    }
    jclass jException = pEnv->FindClass("java/lang/IllegalStateException");
    if (jException != nullptr) {
        const std::string sMessage =
            std::string(pcMethod) + " must not be called from inside a callback";
        pEnv->ThrowNew(jException, sMessage.c_str());
        pEnv->DeleteLocalRef(jException);
    }
    return false;
}

std::unique_ptr<CNfsMain> CreateMain(const char* pcID, jint iAccessMode, jint iLogControl) {
    switch (iAccessMode) {
        case ACCESS_MODE_IPC_SERVER:
            return std::make_unique<CNfsIpcServerMain>(pcID, iLogControl);
        case ACCESS_MODE_IPC_CLIENT:
            return std::make_unique<CNfsIpcClientMain>(pcID, iLogControl);
        default:
            return std::make_unique<CNfsMain>(pcID, iLogControl);
    }
}

}  // namespace

// =================================================================================================
// Life
// =================================================================================================

NFS_METHOD(jlong, initial)
(JNIEnv* pEnv, jobject jObj, jstring jID, jint iAccessMode, jint iLogControl) {
    std::unique_ptr<CNfsMain> pMain = CreateMain(JavaText(pEnv, jID), iAccessMode, iLogControl);
    char cError[STATUS_SIZE] = "";
    if (!pMain->Initial(cError)) {
        ThrowIOException(pEnv, jObj, cError);
        return 0;
    }
    return static_cast<jlong>(reinterpret_cast<std::intptr_t>(pMain.release()));
}

NFS_METHOD(void, terminate)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    if (GetMain(lHandle) != nullptr && MayEndThreads(pEnv, "terminate")) {
        const std::unique_ptr<CNfsMain> pMain(GetMain(lHandle));
        pMain->Terminate();
    }
}

NFS_METHOD(jboolean, isServerRunning)(JNIEnv* /*pEnv*/, jobject /*jObj*/, jlong lHandle) {
    CNfsMain* pMain = GetMain(lHandle);
    return ToJava(pMain != nullptr && pMain->IsServerRunning());
}

NFS_METHOD(jboolean, startRemoteController)(JNIEnv* pEnv, jobject jObj, jlong lHandle) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain == nullptr) {
        return JNI_FALSE;
    }
    const TemporaryCallback callback(pEnv, jObj, pMain);
    char cError[STATUS_SIZE] = "";
    if (!pMain->StartRemoteController(cError)) {
        ThrowIOException(pEnv, jObj, cError);
        return JNI_FALSE;
    }
    return JNI_TRUE;
}

NFS_METHOD(void, stopRemoteController)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr && MayEndThreads(pEnv, "stopRemoteController")) {
        pMain->StopRemoteController();
    }
}

NFS_METHOD(jboolean, startServer)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jint iMountPort, jint iNfsPort, jboolean bReadOnly) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain == nullptr) {
        return JNI_FALSE;
    }
    const TemporaryCallback callback(pEnv, jObj, pMain);
    char cError[STATUS_SIZE] = "";
    if (!pMain->StartServer(iMountPort, iNfsPort, 0, 0, IsTrue(bReadOnly), cError)) {
        ThrowIOException(pEnv, jObj, cError);
        return JNI_FALSE;
    }
    return JNI_TRUE;
}

NFS_METHOD(void, stopServer)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr && MayEndThreads(pEnv, "stopServer")) {
        pMain->StopServer();
    }
}

// Lends the calling thread's object for callbacks that come while no other call runs, until
// isInterrupted of that object answers true or the seconds are over (a negative number: never).
NFS_METHOD(jint, receiveCallbackLoop)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jint iSeconds) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain == nullptr) {
        return 0;
    }
    // Behind another call's callback it waits its turn, so that nothing is lost in between.
    const auto pCallback = std::make_shared<CCallback>(pEnv, jObj);
    pMain->SetCallback(pCallback, true);
    while (iSeconds != 0 && !pCallback->IsInterrupted()) {
        if (iSeconds > 0) {
            --iSeconds;
        }
        usleep(LOOP_STEP_US);
    }
    pMain->UnsetCallback(pCallback.get());
    return 0;
}

// =================================================================================================
// Exports and sessions
// =================================================================================================

NFS_METHOD(jboolean, addMountPoint)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jLocalFolder, jstring jExportName) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain == nullptr) {
        return JNI_FALSE;
    }
    const TemporaryCallback callback(pEnv, jObj, pMain);
    char cError[STATUS_SIZE] = "";
    if (!pMain->AddMountPoint(JavaText(pEnv, jLocalFolder), JavaText(pEnv, jExportName), cError)) {
        ThrowIOException(pEnv, jObj, cError);
        return JNI_FALSE;
    }
    return JNI_TRUE;
}

NFS_METHOD(void, removeMountPoint)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jLocalFolder) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->RemoveMountPoint(JavaText(pEnv, jLocalFolder));
    }
}

NFS_METHOD(void, addSession)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jSessionId, jstring jLocalFolder) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->AddSessionInfo(JavaText(pEnv, jSessionId), JavaText(pEnv, jLocalFolder));
    }
}

NFS_METHOD(void, removeSession)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jSessionId) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->RemoveSessionInfo(JavaText(pEnv, jSessionId));
    }
}

NFS_METHOD(jboolean, isSessionExists)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jSessionId) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain == nullptr) {
        return JNI_FALSE;
    }
    const TemporaryCallback callback(pEnv, jObj, pMain);
    return ToJava(pMain->IsSessionExists(JavaText(pEnv, jSessionId)));
}

NFS_METHOD(jboolean, isLocalSessionExists)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jSessionId) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain == nullptr) {
        return JNI_FALSE;
    }
    const TemporaryCallback callback(pEnv, jObj, pMain);
    return ToJava(pMain->IsLocalSessionExists(JavaText(pEnv, jSessionId)));
}

// =================================================================================================
// Redirected files and cached descriptors
// =================================================================================================

NFS_METHOD(void, openRedirectedFile)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath, jlong lSize, jboolean bCreateInfoFile,
 jint iSegmentSizeMB, jint iCheckPointSizeMB) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->OpenRedirectedFile(JavaText(pEnv, jPath), lSize, IsTrue(bCreateInfoFile),
                                  iSegmentSizeMB, iCheckPointSizeMB);
    }
}

NFS_METHOD(void, closeRedirectedFile)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->CloseRedirectedFile(JavaText(pEnv, jPath));
    }
}

NFS_METHOD(void, closeAllRedirectedFiles)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->CloseAllRedirectedFiles(JavaText(pEnv, jPath));
    }
}

NFS_METHOD(void, addRedirectedFileSegment)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath, jstring jSrcPath, jlong lSrcFileOffset,
 jlong lOffset, jlong lLength) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain == nullptr) {
        return;
    }
    const TemporaryCallback callback(pEnv, jObj, pMain);
    char cError[STATUS_SIZE] = "";
    if (!pMain->AddRedirectedFileSegment(JavaText(pEnv, jPath), JavaText(pEnv, jSrcPath),
                                         lSrcFileOffset, lOffset, lLength, cError)) {
        ThrowIOException(pEnv, jObj, cError);
    }
}

NFS_METHOD(void, exportRedirectedFile)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath, jstring jExportPath) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->ExportRedirectedFile(JavaText(pEnv, jPath), JavaText(pEnv, jExportPath));
    }
}

NFS_METHOD(void, exportRedirectedFileInfo)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath, jstring jExportPath,
 jboolean bMergeRange) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->ExportRedirectedFileInfo(JavaText(pEnv, jPath), JavaText(pEnv, jExportPath),
                                        IsTrue(bMergeRange));
    }
}

NFS_METHOD(void, closeOpenedFile)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->CloseCachedFileHandle(JavaText(pEnv, jPath));
    }
}

NFS_METHOD(void, closeAllOpenedFiles)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->CloseAllCachedFileHandles(JavaText(pEnv, jPath));
    }
}

// =================================================================================================
// What the server is
// =================================================================================================

NFS_METHOD(void, setLogControl)(JNIEnv* /*pEnv*/, jobject /*jObj*/, jlong lHandle, jint iBits) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        pMain->SetLogControl(iBits);
    }
}

NFS_METHOD(jstring, getVersion)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    char cVersion[VERSION_SIZE] = "Not Defined";
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        pMain->GetVersion(cVersion);
    }
    return CCallback::NewJavaString(pEnv, cVersion);
}

NFS_METHOD(jstring, getDescription)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    char cDescription[VERSION_SIZE] = "Unknown";
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        pMain->GetDescription(cDescription);
    }
    return CCallback::NewJavaString(pEnv, cDescription);  // a server's text
}

NFS_METHOD(jint, getAccessMode)(JNIEnv* /*pEnv*/, jobject /*jObj*/, jlong lHandle) {
    CNfsMain* pMain = GetMain(lHandle);
    return pMain != nullptr ? pMain->GetAccessMode() : -1;
}

NFS_METHOD(jint, getMountInfo)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jboolean bClientMountedOnly, jboolean bPrintDetails) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain == nullptr) {
        return 0;
    }
    const TemporaryCallback callback(pEnv, jObj, pMain);
    return pMain->GetMountInfo(IsTrue(bClientMountedOnly), IsTrue(bPrintDetails));
}

NFS_METHOD(jint, getSessionInfo)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jboolean bPrintDetails) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain == nullptr) {
        return 0;
    }
    const TemporaryCallback callback(pEnv, jObj, pMain);
    return pMain->GetSessionInfo(IsTrue(bPrintDetails));
}

NFS_METHOD(void, runTestMode)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jDirPath, jlong lFileSize) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->RunTestMode(JavaText(pEnv, jDirPath), lFileSize);
    }
}

NFS_METHOD(jint, getServerStatus)(JNIEnv* /*pEnv*/, jobject /*jObj*/, jlong lHandle) {
    CNfsMain* pMain = GetMain(lHandle);
    return pMain != nullptr ? pMain->GetServerStatus() : 0;
}

// =================================================================================================
// Datastores
// =================================================================================================

NFS_METHOD(void, addVSphereInfo)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jMoid, jstring jHost, jstring jPort,
 jstring jUser, jstring jPassword) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->AddVSphereInfo(JavaText(pEnv, jMoid), JavaText(pEnv, jHost), JavaText(pEnv, jPort),
                              JavaText(pEnv, jUser), JavaText(pEnv, jPassword));
    }
}

NFS_METHOD(void, removeVSphereInfo)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jMoid) {
    CNfsMain* pMain = GetMain(lHandle);
    if (pMain != nullptr) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        pMain->RemoveVSphereInfo(JavaText(pEnv, jMoid));
    }
}
