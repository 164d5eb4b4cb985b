// A main object whose operations touch every argument and do nothing: what a fuzz target drives it
// to cannot leave the process.
#pragma once

#include <cstddef>
#include <cstdio>
#include <cstring>
#include <initializer_list>

#include "NfsMain.h"
#include "Utilities.h"

namespace fuzz {

class FuzzMain : public CNfsMain {
public:
    using CNfsMain::GetMountInfo;
    using CNfsMain::GetSessionInfo;
    using CNfsMain::GetVSphereInfo;
    using CNfsMain::RunTestMode;

    FuzzMain() : CNfsMain("fuzz", 0) {}

    // What the operations that can fail do next.
    void SetResult(bool result) { m_result = result; }

    bool StartServer(int, int, unsigned int, unsigned int, bool, char* pcStatus) override {
        return Result(pcStatus);
    }
    void StopServer() override {}
    bool IsServerRunning() const override { return m_result; }
    bool AddMountPoint(const char* path, const char* name, char* pcStatus) override {
        Touch({path, name});
        return Result(pcStatus);
    }
    void RemoveMountPoint(const char* path) override { Touch({path}); }
    void AddSessionInfo(const char* id, const char* path) override { Touch({id, path}); }
    void RemoveSessionInfo(const char* id) override { Touch({id}); }
    bool IsSessionExists(const char* id) override {
        Touch({id});
        return m_result;
    }
    void OpenRedirectedFile(const char* path, long long, bool, int, int) override { Touch({path}); }
    void CloseRedirectedFile(const char* path) override { Touch({path}); }
    void CloseAllRedirectedFiles(const char* path) override { Touch({path}); }
    bool AddRedirectedFileSegment(const char* path, const char* source, long long, long long,
                                  long long, char* pcStatus) override {
        Touch({path, source});
        return Result(pcStatus);
    }
    void ExportRedirectedFile(const char* path, const char* target) override {
        Touch({path, target});
    }
    void ExportRedirectedFileInfo(const char* path, const char* target, bool) override {
        Touch({path, target});
    }
    void CloseCachedFileHandle(const char* path) override { Touch({path}); }
    void CloseAllCachedFileHandles(const char* path) override { Touch({path}); }
    int GetMountInfo(CRuntimeParam*, bool, bool) override { return m_result ? 1 : 0; }
    int GetSessionInfo(CRuntimeParam*, bool) override { return m_result ? 1 : 0; }
    int GetVSphereInfo(CRuntimeParam*, bool) override { return m_result ? 1 : 0; }
    void RunTestMode(CRuntimeParam*, const char* path, long long) override { Touch({path}); }
    void AddVSphereInfo(const char* moid, const char* host, const char* port, const char* user,
                        const char* password) override {
        Touch({moid, host, port, user, password});
    }
    void RemoveVSphereInfo(const char* moid) override { Touch({moid}); }

private:
    // Reads every text to its end, which AddressSanitizer follows.
    void Touch(std::initializer_list<const char*> texts) {
        for (const char* text : texts) {
            m_seen = m_seen + std::strlen(text);
        }
    }
    // The longest reason there can be.
    bool Result(char* pcStatus) const {
        if (!m_result && pcStatus != nullptr) {
            std::memset(pcStatus, 'r', STATUS_SIZE - 1);
            pcStatus[STATUS_SIZE - 1] = '\0';
        }
        return m_result;
    }

    bool m_result = true;
    volatile std::size_t m_seen = 0;
};

// What the product prints is no part of a report. To be called once, before the first input.
inline bool DropOutput() { return std::freopen("/dev/null", "w", stdout) != nullptr; }

}  // namespace fuzz
