// A service object that keeps log lines, with the identity they were written under, for tests to
// look at.
#pragma once

#include <algorithm>
#include <mutex>
#include <ostream>
#include <string>
#include <utility>
#include <vector>

#include "Utilities.h"

enum class LogKind { Info, Error, Raw };

struct LogLine {
    LogKind kind;
    std::string id;     // the identity of the runtime parameters at that moment
    std::string ipcId;  // their IPC identity
    std::string text;
};

inline std::ostream& operator<<(std::ostream& out, const LogLine& line) {
    static constexpr const char* kNames[] = {"info", "error", "raw"};
    return out << kNames[static_cast<int>(line.kind)] << " (" << line.id << ") " << line.text;
}

// Thread safety: lines may be logged and looked at from any thread.
class RecordingUtilities : public CUtilities {
public:
    using CUtilities::LogError;
    using CUtilities::LogInfo;
    using CUtilities::LogRaw;

    void LogInfo(CRuntimeParam* pRuntimeParam, char* pcMessage) override {
        Record(LogKind::Info, pRuntimeParam, pcMessage);
    }
    void LogError(CRuntimeParam* pRuntimeParam, char* pcMessage) override {
        Record(LogKind::Error, pRuntimeParam, pcMessage);
    }
    void LogRaw(CRuntimeParam* pRuntimeParam, char* pcMessage) override {
        Record(LogKind::Raw, pRuntimeParam, pcMessage);
    }

    std::vector<LogLine> Lines() const {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    // The texts alone, of one kind or of all.
    std::vector<std::string> Texts() const { return Select(nullptr); }
    std::vector<std::string> Infos() const { return Of(LogKind::Info); }
    std::vector<std::string> Errors() const { return Of(LogKind::Error); }
    std::vector<std::string> Raws() const { return Of(LogKind::Raw); }

    // How many lines of any kind have exactly this text.
    std::size_t Count(const std::string& text) const {
        const std::vector<std::string> texts = Texts();
        return static_cast<std::size_t>(std::count(texts.begin(), texts.end(), text));
    }
    bool Has(const std::string& text) const { return Count(text) != 0; }

    void Forget() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    void Record(LogKind kind, const CRuntimeParam* param, const char* text) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back({kind, param->GetID(), param->GetIpcID(), text});
    }
    std::vector<std::string> Of(LogKind kind) const { return Select(&kind); }
    std::vector<std::string> Select(const LogKind* kind) const {
        std::vector<std::string> texts;
        for (const LogLine& line : Lines()) {
            if (kind == nullptr || line.kind == *kind) {
                texts.push_back(line.text);
            }
        }
        return texts;
    }

    mutable std::mutex m_mutex;
    std::vector<LogLine> m_lines;  // guarded by m_mutex
};
