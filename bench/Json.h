// One line of JSON on standard output: what bench.py collects.
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <string>
#include <type_traits>
#include <vector>

namespace bench {

class JsonLine {
public:
    explicit JsonLine(const std::string& type) : m_text("{") { Add("type", type); }

    JsonLine& Add(const std::string& key, const std::string& value) {
        Key(key);
        m_text += '"' + value + '"';  // names of ours, without anything to escape
        return *this;
    }
    JsonLine& Add(const std::string& key, const char* value) {
        return Add(key, std::string(value));
    }
    template <typename Number>
    requires std::is_arithmetic_v<Number> JsonLine& Add(const std::string& key, Number value) {
        Key(key);
        m_text += Text(value);
        return *this;
    }
    template <typename Number>
    JsonLine& Add(const std::string& key, const std::vector<Number>& values) {
        Key(key);
        m_text += '[';
        for (const Number value : values) {
            m_text += (m_text.back() == '[' ? "" : ",") + Text(value);
        }
        m_text += ']';
        return *this;
    }
    void Print() {
        std::puts((m_text + '}').c_str());
        std::fflush(stdout);
    }

private:
    void Key(const std::string& key) {
        m_text += (m_text.back() == '{' ? "\"" : ",\"") + key + "\":";
    }
    template <typename Number>
    static std::string Text(Number value) {
        if constexpr (std::is_same_v<Number, bool>) {
            return value ? "true" : "false";
        } else if constexpr (std::is_floating_point_v<Number>) {
            char text[32];
            std::snprintf(text, sizeof text, "%.7g", std::isfinite(value) ? double{value} : 0.0);
            return text;
        } else {
            return std::to_string(value);
        }
    }

    std::string m_text;
};

}  // namespace bench
