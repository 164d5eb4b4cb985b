// The calls into Java, against a virtual machine that is made of functions of this file and notices
// what a real one would only fall over.

#include "Callback.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <pthread.h>

#include <cstdarg>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

// What stands behind a reference: a class, a string (as text), the host's object or an exception.
struct Thing {
    std::string text;
};

// The machine and its only thread.
struct Machine {
    Machine();

    JavaVM_ vm{};
    JNIEnv_ env{};

    bool vmAvailable = true;
    bool javaThread = false;  // a thread that came from Java stays attached
    bool attached = false;
    jint getEnvFailure = 0;  // what GetEnv answers instead
    jint attachResult = JNI_OK;
    std::set<std::string> missing;  // names that have no method or class
    std::string throwing;           // the method that throws
    bool outOfMemory = false;
    jint answer = 0;

    jint version = 0;  // that GetEnv was asked for
    int attaches = 0;
    int detaches = 0;
    bool pending = false;
    int described = 0;
    std::string thrown;
    std::set<const void*> locals;
    std::set<const void*> globals;
    std::vector<std::string> calls;       // the method, its signature and its arguments
    std::vector<std::string> violations;  // of the rules of JNI
    std::vector<std::unique_ptr<Thing>> things;
    std::map<std::string, std::string> methods;  // keeps the names that method IDs point to

    // Called at the head of each function that must not meet a pending exception.
    void Enter(const char* function) {
        if (pending) {
            violations.push_back(std::string(function) + " with an exception pending");
        }
        if (!attached && !javaThread) {
            violations.push_back(std::string(function) + " on a detached thread");
        }
    }

    template <typename Reference>
    Reference NewLocal(const std::string& text) {
        things.push_back(std::make_unique<Thing>(Thing{text}));
        locals.insert(things.back().get());
        return reinterpret_cast<Reference>(things.back().get());
    }
};

Machine* g_machine = nullptr;

const std::string& TextOf(jobject reference) {
    return reinterpret_cast<const Thing*>(reference)->text;
}

// A method ID points to the method's name and signature, separated by a blank.
jmethodID IdOf(const std::string& method) {
    return reinterpret_cast<jmethodID>(&g_machine->methods.emplace(method, method).first->second);
}

void Record(jmethodID id, va_list arguments) {
    const std::string& method = *reinterpret_cast<const std::string*>(id);
    std::string call = method;
    const std::size_t open = method.find('(');
    for (std::size_t i = open + 1; method[i] != ')'; ++i) {
        switch (method[i]) {
            case 'L':
                call += " " + TextOf(va_arg(arguments, jobject));
                i = method.find(';', i);
                break;
            case 'J':
                call += " " + std::to_string(va_arg(arguments, jlong));
                break;
            default:  // smaller ones arrive as int
                call += " " + std::to_string(va_arg(arguments, int));
                break;
        }
    }
    g_machine->calls.push_back(call);
    if (!g_machine->throwing.empty() && method.starts_with(g_machine->throwing)) {
        g_machine->pending = true;
    }
}

const JNIInvokeInterface_ g_vmFunctions = [] {
    JNIInvokeInterface_ functions{};
    functions.GetEnv = [](JavaVM*, void** env, jint version) -> jint {
        Machine& m = *g_machine;
        m.version = version;
        if (m.getEnvFailure != 0) {
            return m.getEnvFailure;
        }
        if (!m.attached && !m.javaThread) {
            return JNI_EDETACHED;
        }
        *env = &m.env;
        return JNI_OK;
    };
    functions.AttachCurrentThread = [](JavaVM*, void** env, void* arguments) -> jint {
        Machine& m = *g_machine;
        ++m.attaches;
        if (arguments != nullptr) {
            m.violations.emplace_back("attached with arguments");
        }
        if (m.attachResult == JNI_OK) {
            m.attached = true;
            *env = &m.env;
        }
        return m.attachResult;
    };
    functions.DetachCurrentThread = [](JavaVM*) -> jint {
        ++g_machine->detaches;
        if (g_machine->javaThread) {
            return JNI_ERR;
        }
        g_machine->attached = false;
        return JNI_OK;
    };
    return functions;
}();

const JNINativeInterface_ g_envFunctions = [] {
    JNINativeInterface_ functions{};
    functions.GetJavaVM = [](JNIEnv*, JavaVM** vm) -> jint {
        if (!g_machine->vmAvailable) {
            return JNI_ERR;
        }
        *vm = &g_machine->vm;
        return JNI_OK;
    };
    functions.NewGlobalRef = [](JNIEnv*, jobject object) -> jobject {
        g_machine->Enter("NewGlobalRef");
        g_machine->globals.insert(object);
        return object;
    };
    functions.DeleteGlobalRef = [](JNIEnv*, jobject object) {
        if (g_machine->globals.erase(object) == 0) {
            g_machine->violations.emplace_back("DeleteGlobalRef of none");
        }
    };
    functions.DeleteLocalRef = [](JNIEnv*, jobject object) {
        if (g_machine->locals.erase(object) == 0) {
            g_machine->violations.emplace_back("DeleteLocalRef of none");
        }
    };
    functions.GetObjectClass = [](JNIEnv*, jobject) -> jclass {
        g_machine->Enter("GetObjectClass");
        return g_machine->NewLocal<jclass>("the host's class");
    };
    functions.FindClass = [](JNIEnv*, const char* name) -> jclass {
        g_machine->Enter("FindClass");
        if (g_machine->missing.count(name) != 0) {
            g_machine->pending = true;
            return nullptr;
        }
        return g_machine->NewLocal<jclass>(name);
    };
    functions.GetMethodID = [](JNIEnv*, jclass, const char* name, const char* signature) {
        g_machine->Enter("GetMethodID");
        if (g_machine->missing.count(name) != 0) {
            g_machine->pending = true;
            return static_cast<jmethodID>(nullptr);
        }
        return IdOf(std::string(name) + " " + signature);
    };
    functions.ExceptionCheck = [](JNIEnv*) -> jboolean { return g_machine->pending ? 1 : 0; };
    functions.ExceptionDescribe = [](JNIEnv*) { ++g_machine->described; };
    functions.ExceptionClear = [](JNIEnv*) { g_machine->pending = false; };
    functions.NewString = [](JNIEnv*, const jchar* chars, jsize length) -> jstring {
        g_machine->Enter("NewString");
        if (g_machine->outOfMemory) {
            g_machine->pending = true;
            return nullptr;
        }
        std::string text;
        for (jsize i = 0; i < length; ++i) {
            text += chars[i] < 0x80 ? std::string(1, static_cast<char>(chars[i]))
                                    : "<" + std::to_string(chars[i]) + ">";
        }
        return g_machine->NewLocal<jstring>(text);
    };
    functions.CallVoidMethodV = [](JNIEnv*, jobject, jmethodID id, va_list arguments) {
        g_machine->Enter("CallVoidMethod");
        Record(id, arguments);
    };
    functions.CallBooleanMethodV = [](JNIEnv*, jobject, jmethodID id,
                                      va_list arguments) -> jboolean {
        g_machine->Enter("CallBooleanMethod");
        Record(id, arguments);
        return static_cast<jboolean>(g_machine->answer);
    };
    functions.CallIntMethodV = [](JNIEnv*, jobject, jmethodID id, va_list arguments) -> jint {
        g_machine->Enter("CallIntMethod");
        Record(id, arguments);
        return g_machine->answer;
    };
    functions.NewObjectV = [](JNIEnv*, jclass type, jmethodID id, va_list arguments) -> jobject {
        g_machine->Enter("NewObject");
        Record(id, arguments);
        return g_machine->NewLocal<jobject>(TextOf(type) + " by " + g_machine->calls.back());
    };
    functions.Throw = [](JNIEnv*, jthrowable exception) -> jint {
        g_machine->Enter("Throw");
        g_machine->thrown = TextOf(exception);
        g_machine->pending = true;
        return 0;
    };
    return functions;
}();

Machine::Machine() {
    vm.functions = &g_vmFunctions;
    env.functions = &g_envFunctions;
}

class CallbackTest : public testing::Test {
protected:
    CallbackTest() { g_machine = &m; }
    ~CallbackTest() override {
        callback.reset();
        EXPECT_THAT(m.violations, IsEmpty());
        EXPECT_THAT(m.globals, IsEmpty());
        EXPECT_THAT(m.locals, IsEmpty());
    }

    // Made by a thread of Java, as always; what follows runs on a native thread.
    void Create() {
        m.javaThread = true;
        callback = std::make_unique<CCallback>(&m.env, reinterpret_cast<jobject>(&host));
        m.javaThread = false;
    }

    // Every operation but IsInterrupted and ThrowIOException, and what it returned.
    std::vector<int> CallAll() {
        return {callback->LogInfo("id", "text"),
                callback->LogError("id", "text"),
                callback->LogRaw("id", "text"),
                callback->UpdateRedirectedFileAttributes("id", "path", true, 1, true, 2, true, 3),
                callback->RemoveRedirectedFile("id", "path"),
                callback->RenameRedirectedFile("id", "from", "to"),
                callback->WriteRedirectedFile("id", "path", 1, 0, 2)};
    }

    Machine m;
    Thing host{"host"};
    std::unique_ptr<CCallback> callback;
};

constexpr int OPERATIONS = 7;

}  // namespace

TEST_F(CallbackTest, WithoutAVirtualMachineEveryOperationIsANoOp) {
    m.vmAvailable = false;
    testing::internal::CaptureStdout();
    Create();
    EXPECT_EQ("[Callback::Constructor] vm = NULL\n", testing::internal::GetCapturedStdout());

    EXPECT_THAT(CallAll(), ElementsAre(0, 0, 0, -1, -1, -1, -1));
    EXPECT_FALSE(callback->IsInterrupted());
    callback->ThrowIOException("text");
    JNIEnv* env = nullptr;
    EXPECT_EQ(-1, callback->GetEnv(&env));
    EXPECT_FALSE(callback->AttrachThisThread(&env, JNI_EDETACHED));
    EXPECT_FALSE(callback->AttrachThisThread(&env, JNI_OK));
    callback->DetachThisThread();
    EXPECT_EQ(0, m.attaches + m.detaches);
    EXPECT_THAT(m.calls, IsEmpty());
}

TEST_F(CallbackTest, WithoutAnEnvironmentItIsTheSame) {
    testing::internal::CaptureStdout();
    callback = std::make_unique<CCallback>(nullptr, nullptr);
    EXPECT_EQ("[Callback::Constructor] vm = NULL\n", testing::internal::GetCapturedStdout());
    EXPECT_THAT(CallAll(), ElementsAre(0, 0, 0, -1, -1, -1, -1));
}

TEST_F(CallbackTest, AVirtualMachineThatIsGoneMakesEveryOperationANoOp) {
    Create();
    m.getEnvFailure = JNI_ERR;
    EXPECT_THAT(CallAll(), ElementsAre(0, 0, 0, -1, -1, -1, -1));
    EXPECT_FALSE(callback->IsInterrupted());
    callback->ThrowIOException("text");
    EXPECT_EQ(0, m.attaches);
    EXPECT_THAT(m.calls, IsEmpty());
    m.getEnvFailure = 0;
}

TEST_F(CallbackTest, TheObjectIsHeldUntilTheEnd) {
    Create();
    EXPECT_EQ(1u, m.globals.size());
    callback.reset();
    EXPECT_THAT(m.globals, IsEmpty());
    // Its last user may be a native thread, which is left as it was.
    EXPECT_EQ(1, m.attaches);
    EXPECT_FALSE(m.attached);
}

TEST_F(CallbackTest, MethodsAreCalledByNameAndSignatureWithTheArguments) {
    Create();
    m.answer = 5;
    EXPECT_THAT(CallAll(), ElementsAre(1, 1, 1, 5, 5, 5, 5));
    EXPECT_THAT(
        m.calls,
        ElementsAre(
            "logInfo (Ljava/lang/String;Ljava/lang/String;)V id text",
            "logError (Ljava/lang/String;Ljava/lang/String;)V id text",
            "logRaw (Ljava/lang/String;Ljava/lang/String;)V id text",
            "setRedirectedFileAttributes (Ljava/lang/String;Ljava/lang/String;ZJZJZJ)I id path 1 1 "
            "1 2 1 3",
            "removeRedirectedFile (Ljava/lang/String;Ljava/lang/String;)I id path",
            "renameRedirectedFile (Ljava/lang/String;Ljava/lang/String;Ljava/lang/String;)I id "
            "from to",
            "writeRedirectedFile (Ljava/lang/String;Ljava/lang/String;JII)I id path 1 0 2"));
    EXPECT_EQ(JNI_VERSION_1_4, m.version);
}

TEST_F(CallbackTest, TimesHaveZeroHighWordsAndSizesAllTheirBits) {
    Create();
    callback->UpdateRedirectedFileAttributes("", "", false, 0x7000000000000001, false,
                                             0xFFFFFFFF80000000UL, false, 0xFFFFFFFFUL);
    EXPECT_THAT(m.calls,
                ElementsAre(HasSubstr(" 0 8070450532247928833 0 2147483648 0 4294967295")));
}

TEST_F(CallbackTest, EveryCallOfANativeThreadAttachesAndDetachesIt) {
    Create();
    CallAll();
    EXPECT_EQ(OPERATIONS, m.attaches);
    EXPECT_EQ(OPERATIONS, m.detaches);
    EXPECT_FALSE(m.attached);
}

TEST_F(CallbackTest, EveryCallOfAJavaThreadDetachesToo) {
    Create();
    m.javaThread = true;
    CallAll();
    EXPECT_EQ(0, m.attaches);
    EXPECT_EQ(OPERATIONS, m.detaches);
}

TEST_F(CallbackTest, IsInterruptedNeitherAttachesNorDetaches) {
    Create();
    m.answer = 1;
    EXPECT_FALSE(callback->IsInterrupted());
    EXPECT_THAT(m.calls, IsEmpty());
    m.javaThread = true;
    EXPECT_TRUE(callback->IsInterrupted());
    EXPECT_THAT(m.calls, ElementsAre("isInterrupted ()Z"));
    m.answer = 0;
    EXPECT_FALSE(callback->IsInterrupted());
    EXPECT_EQ(0, m.attaches + m.detaches);
}

TEST_F(CallbackTest, AThreadThatCannotBeAttachedIsNamed) {
    Create();
    m.attachResult = JNI_ERR;
    testing::internal::CaptureStdout();
    EXPECT_FALSE(callback->LogInfo("id", "text"));
    EXPECT_EQ("GetEnv: fail to attach thread (" +
                  std::to_string(static_cast<unsigned long>(pthread_self())) + ")\n",
              testing::internal::GetCapturedStdout());
    testing::internal::CaptureStdout();
    EXPECT_THAT(CallAll(), ElementsAre(0, 0, 0, -1, -1, -1, -1));
    callback->ThrowIOException("text");
    testing::internal::GetCapturedStdout();
    EXPECT_THAT(m.calls, IsEmpty());
    EXPECT_EQ(0, m.detaches);
    m.attachResult = JNI_OK;
}

TEST_F(CallbackTest, AMissingMethodIsTheDefaultWithNothingPending) {
    Create();
    m.answer = 5;
    for (const char* name :
         {"logInfo", "logError", "logRaw", "setRedirectedFileAttributes", "removeRedirectedFile",
          "renameRedirectedFile", "writeRedirectedFile", "isInterrupted"}) {
        m.missing.insert(name);
    }
    EXPECT_THAT(CallAll(), ElementsAre(1, 1, 1, -1, -1, -1, -1));
    EXPECT_EQ(OPERATIONS, m.detaches);
    m.javaThread = true;
    EXPECT_FALSE(callback->IsInterrupted());
    EXPECT_FALSE(m.pending);
    EXPECT_THAT(m.calls, IsEmpty());

    m.missing.erase("removeRedirectedFile");
    EXPECT_EQ(5, callback->RemoveRedirectedFile("id", "path"));
}

TEST_F(CallbackTest, WhatAMethodThrowsIsDescribedAndCleared) {
    Create();
    m.answer = 5;
    const char* methods[] = {"logInfo",
                             "logError",
                             "logRaw",
                             "setRedirectedFileAttributes",
                             "removeRedirectedFile",
                             "renameRedirectedFile",
                             "writeRedirectedFile"};
    const std::vector<int> usual = {1, 1, 1, 5, 5, 5, 5};
    for (std::size_t i = 0; i < OPERATIONS; ++i) {
        m.throwing = methods[i];
        std::vector<int> expected = usual;
        expected[i] = i < 3 ? 1 : -1;  // a line counts as delivered
        EXPECT_EQ(expected, CallAll()) << methods[i];
        EXPECT_FALSE(m.pending);
        EXPECT_EQ(static_cast<int>(i) + 1, m.described);
    }
    m.throwing = "isInterrupted";
    m.javaThread = true;
    m.answer = 1;
    EXPECT_FALSE(callback->IsInterrupted());
    EXPECT_FALSE(m.pending);
}

TEST_F(CallbackTest, AnExceptionOnItsWayMeetsNoOtherCall) {
    Create();
    m.javaThread = true;
    m.pending = true;
    CallAll();
    EXPECT_THAT(m.calls, IsEmpty());
    EXPECT_TRUE(m.pending) << "it still reaches the host";
}

TEST_F(CallbackTest, WithoutMemoryForTheTextsNothingIsCalled) {
    Create();
    m.outOfMemory = true;
    EXPECT_THAT(CallAll(), ElementsAre(1, 1, 1, -1, -1, -1, -1));
    EXPECT_THAT(m.calls, IsEmpty());
    EXPECT_FALSE(m.pending);
}

TEST_F(CallbackTest, ThrowsAnIOExceptionWithTheMessage) {
    Create();
    m.javaThread = true;
    callback->ThrowIOException("why");
    EXPECT_TRUE(m.pending);
    EXPECT_EQ("java/io/IOException by <init> (Ljava/lang/String;)V why", m.thrown);
    EXPECT_EQ(1, m.detaches);
}

TEST_F(CallbackTest, WithoutTheExceptionsClassWhatFindingItThrewStaysPending) {
    Create();
    m.javaThread = true;
    m.missing = {"java/io/IOException"};
    callback->ThrowIOException("why");
    EXPECT_TRUE(m.pending);
    m.pending = false;
    m.missing = {"<init>"};
    callback->ThrowIOException("why");
    EXPECT_TRUE(m.pending);
    m.pending = false;
    m.missing.clear();
    m.outOfMemory = true;
    callback->ThrowIOException("why");
    EXPECT_TRUE(m.pending);
    EXPECT_EQ("", m.thrown);
}

TEST_F(CallbackTest, TextsThatAreNotUtf8AreMended) {
    Create();
    callback->LogInfo(nullptr, "a\xFF\xE2\x82z \xC3\xA4 \xF0\x9F\x98\x80");
    EXPECT_THAT(m.calls,
                ElementsAre(HasSubstr(")V  a<65533><65533><65533>z <228> <55357><56832>")));
}
