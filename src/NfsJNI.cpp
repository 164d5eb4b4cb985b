// The native methods of com.corvane.qtx.velocast.nfs.NfsLibNative.
//
// A handle is the address of a main object; 0 is no object.  A boolean from Java is true only when
// it is exactly 1.  A method that may cause log lines or notifications installs a callback to its
// own object while it runs, unless a callback is already installed.

#include <jni.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <string>

#include "Callback.h"
#include "MainFactory.h"
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

// The forms of a method.  Each runs call on the main object of a handle; for handle 0 it does
// nothing and answers with the zero of the result's type.

// Result call(CNfsMain*).
template <typename Call>
auto OnMain(jlong lHandle, Call call) {
    CNfsMain* pMain = GetMain(lHandle);
    using Result = decltype(call(pMain));
    return pMain != nullptr ? call(pMain) : Result();
}

// Result call(CNfsMain*), with a callback to the calling object installed.
template <typename Call>
auto WithCallback(JNIEnv* pEnv, jobject jObj, jlong lHandle, Call call) {
    return OnMain(lHandle, [&](CNfsMain* pMain) {
        const TemporaryCallback callback(pEnv, jObj, pMain);
        return call(pMain);
    });
}

// bool call(CNfsMain*, char* pcError), with that callback; a failure leaves an IOException pending.
// pcError points to STATUS_SIZE bytes.
template <typename Call>
jboolean OrThrow(JNIEnv* pEnv, jobject jObj, jlong lHandle, Call call) {
    return WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        char cError[STATUS_SIZE] = "";
        const bool bOk = call(pMain, cError);
        if (!bOk) {
            ThrowIOException(pEnv, jObj, cError);
        }
        return ToJava(bOk);
    });
}

}  // namespace

// =================================================================================================
// Life
// =================================================================================================

NFS_METHOD(jlong, initial)
(JNIEnv* pEnv, jobject jObj, jstring jID, jint iAccessMode, jint iLogControl) {
    const bool bIpc =
        iAccessMode == ACCESS_MODE_IPC_SERVER || iAccessMode == ACCESS_MODE_IPC_CLIENT;
    std::unique_ptr<CNfsMain> pMain = CMainFactory::Create(
        bIpc ? iAccessMode : ACCESS_MODE_INTERNAL, JavaText(pEnv, jID), iLogControl);
    char cError[STATUS_SIZE] = "";
    if (!pMain->Initial(cError)) {
        ThrowIOException(pEnv, jObj, cError);
        return 0;
    }
    return static_cast<jlong>(reinterpret_cast<std::intptr_t>(pMain.release()));
}

NFS_METHOD(void, terminate)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    OnMain(lHandle, [&](CNfsMain* pMain) {
        if (MayEndThreads(pEnv, "terminate")) {
            const std::unique_ptr<CNfsMain> pOwned(pMain);
            pOwned->Terminate();
        }
    });
}

NFS_METHOD(jboolean, isServerRunning)(JNIEnv* /*pEnv*/, jobject /*jObj*/, jlong lHandle) {
    return OnMain(lHandle, [](CNfsMain* pMain) { return ToJava(pMain->IsServerRunning()); });
}

NFS_METHOD(jboolean, startRemoteController)(JNIEnv* pEnv, jobject jObj, jlong lHandle) {
    return OrThrow(pEnv, jObj, lHandle, [](CNfsMain* pMain, char* pcError) {
        return pMain->StartRemoteController(pcError);
    });
}

NFS_METHOD(void, stopRemoteController)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    OnMain(lHandle, [&](CNfsMain* pMain) {
        if (MayEndThreads(pEnv, "stopRemoteController")) {
            pMain->StopRemoteController();
        }
    });
}

NFS_METHOD(jboolean, startServer)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jint iMountPort, jint iNfsPort, jboolean bReadOnly) {
    return OrThrow(pEnv, jObj, lHandle, [&](CNfsMain* pMain, char* pcError) {
        return pMain->StartServer(iMountPort, iNfsPort, 0, 0, IsTrue(bReadOnly), pcError);
    });
}

NFS_METHOD(void, stopServer)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    OnMain(lHandle, [&](CNfsMain* pMain) {
        if (MayEndThreads(pEnv, "stopServer")) {
            pMain->StopServer();
        }
    });
}

// Installs a callback to the calling object for what comes while no other call runs, until
// isInterrupted of that object answers true or the seconds are over (a negative number: never).
NFS_METHOD(jint, receiveCallbackLoop)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jint iSeconds) {
    return OnMain(lHandle, [&](CNfsMain* pMain) -> jint {
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
    });
}

// =================================================================================================
// Exports and sessions
// =================================================================================================

NFS_METHOD(jboolean, addMountPoint)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jLocalFolder, jstring jExportName) {
    return OrThrow(pEnv, jObj, lHandle, [&](CNfsMain* pMain, char* pcError) {
        return pMain->AddMountPoint(JavaText(pEnv, jLocalFolder), JavaText(pEnv, jExportName),
                                    pcError);
    });
}

NFS_METHOD(void, removeMountPoint)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jLocalFolder) {
    WithCallback(pEnv, jObj, lHandle,
                 [&](CNfsMain* pMain) { pMain->RemoveMountPoint(JavaText(pEnv, jLocalFolder)); });
}

NFS_METHOD(void, addSession)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jSessionId, jstring jLocalFolder) {
    WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        pMain->AddSessionInfo(JavaText(pEnv, jSessionId), JavaText(pEnv, jLocalFolder));
    });
}

NFS_METHOD(void, removeSession)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jSessionId) {
    WithCallback(pEnv, jObj, lHandle,
                 [&](CNfsMain* pMain) { pMain->RemoveSessionInfo(JavaText(pEnv, jSessionId)); });
}

NFS_METHOD(jboolean, isSessionExists)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jSessionId) {
    return WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        return ToJava(pMain->IsSessionExists(JavaText(pEnv, jSessionId)));
    });
}

NFS_METHOD(jboolean, isLocalSessionExists)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jSessionId) {
    return WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        return ToJava(pMain->IsLocalSessionExists(JavaText(pEnv, jSessionId)));
    });
}

// =================================================================================================
// Redirected files and cached descriptors
// =================================================================================================

NFS_METHOD(void, openRedirectedFile)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath, jlong lSize, jboolean bCreateInfoFile,
 jint iSegmentSizeMB, jint iCheckPointSizeMB) {
    WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        pMain->OpenRedirectedFile(JavaText(pEnv, jPath), lSize, IsTrue(bCreateInfoFile),
                                  iSegmentSizeMB, iCheckPointSizeMB);
    });
}

NFS_METHOD(void, closeRedirectedFile)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath) {
    WithCallback(pEnv, jObj, lHandle,
                 [&](CNfsMain* pMain) { pMain->CloseRedirectedFile(JavaText(pEnv, jPath)); });
}

NFS_METHOD(void, closeAllRedirectedFiles)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath) {
    WithCallback(pEnv, jObj, lHandle,
                 [&](CNfsMain* pMain) { pMain->CloseAllRedirectedFiles(JavaText(pEnv, jPath)); });
}

NFS_METHOD(void, addRedirectedFileSegment)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath, jstring jSrcPath, jlong lSrcFileOffset,
 jlong lOffset, jlong lLength) {
    OrThrow(pEnv, jObj, lHandle, [&](CNfsMain* pMain, char* pcError) {
        return pMain->AddRedirectedFileSegment(JavaText(pEnv, jPath), JavaText(pEnv, jSrcPath),
                                               lSrcFileOffset, lOffset, lLength, pcError);
    });
}

NFS_METHOD(void, exportRedirectedFile)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath, jstring jExportPath) {
    WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        pMain->ExportRedirectedFile(JavaText(pEnv, jPath), JavaText(pEnv, jExportPath));
    });
}

NFS_METHOD(void, exportRedirectedFileInfo)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath, jstring jExportPath,
 jboolean bMergeRange) {
    WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        pMain->ExportRedirectedFileInfo(JavaText(pEnv, jPath), JavaText(pEnv, jExportPath),
                                        IsTrue(bMergeRange));
    });
}

NFS_METHOD(void, closeOpenedFile)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath) {
    WithCallback(pEnv, jObj, lHandle,
                 [&](CNfsMain* pMain) { pMain->CloseCachedFileHandle(JavaText(pEnv, jPath)); });
}

NFS_METHOD(void, closeAllOpenedFiles)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jPath) {
    WithCallback(pEnv, jObj, lHandle,
                 [&](CNfsMain* pMain) { pMain->CloseAllCachedFileHandles(JavaText(pEnv, jPath)); });
}

// =================================================================================================
// What the server is
// =================================================================================================

NFS_METHOD(void, setLogControl)(JNIEnv* /*pEnv*/, jobject /*jObj*/, jlong lHandle, jint iBits) {
    OnMain(lHandle, [&](CNfsMain* pMain) { pMain->SetLogControl(iBits); });
}

NFS_METHOD(jstring, getVersion)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    char cVersion[VERSION_SIZE] = "Not Defined";
    OnMain(lHandle, [&](CNfsMain* pMain) { pMain->GetVersion(cVersion); });
    return CCallback::NewJavaString(pEnv, cVersion);
}

NFS_METHOD(jstring, getDescription)(JNIEnv* pEnv, jobject /*jObj*/, jlong lHandle) {
    char cDescription[VERSION_SIZE] = "Unknown";
    OnMain(lHandle, [&](CNfsMain* pMain) { pMain->GetDescription(cDescription); });
    return CCallback::NewJavaString(pEnv, cDescription);  // a server's text
}

NFS_METHOD(jint, getAccessMode)(JNIEnv* /*pEnv*/, jobject /*jObj*/, jlong lHandle) {
    jint iAccessMode = -1;
    OnMain(lHandle, [&](CNfsMain* pMain) { iAccessMode = pMain->GetAccessMode(); });
    return iAccessMode;
}

NFS_METHOD(jint, getMountInfo)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jboolean bClientMountedOnly, jboolean bPrintDetails) {
    return WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        return pMain->GetMountInfo(IsTrue(bClientMountedOnly), IsTrue(bPrintDetails));
    });
}

NFS_METHOD(jint, getSessionInfo)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jboolean bPrintDetails) {
    return WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        return pMain->GetSessionInfo(IsTrue(bPrintDetails));
    });
}

NFS_METHOD(void, runTestMode)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jDirPath, jlong lFileSize) {
    WithCallback(pEnv, jObj, lHandle,
                 [&](CNfsMain* pMain) { pMain->RunTestMode(JavaText(pEnv, jDirPath), lFileSize); });
}

NFS_METHOD(jint, getServerStatus)(JNIEnv* /*pEnv*/, jobject /*jObj*/, jlong lHandle) {
    return OnMain(lHandle, [](CNfsMain* pMain) { return pMain->GetServerStatus(); });
}

// =================================================================================================
// Datastores
// =================================================================================================

NFS_METHOD(void, addVSphereInfo)
(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jMoid, jstring jHost, jstring jPort,
 jstring jUser, jstring jPassword) {
    WithCallback(pEnv, jObj, lHandle, [&](CNfsMain* pMain) {
        pMain->AddVSphereInfo(JavaText(pEnv, jMoid), JavaText(pEnv, jHost), JavaText(pEnv, jPort),
                              JavaText(pEnv, jUser), JavaText(pEnv, jPassword));
    });
}

NFS_METHOD(void, removeVSphereInfo)(JNIEnv* pEnv, jobject jObj, jlong lHandle, jstring jMoid) {
    WithCallback(pEnv, jObj, lHandle,
                 [&](CNfsMain* pMain) { pMain->RemoveVSphereInfo(JavaText(pEnv, jMoid)); });
}
