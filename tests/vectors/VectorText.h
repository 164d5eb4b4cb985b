// Calls and replies written down as text.
//
// A table holds vectors: a claim at the beginning of a line, then, indented, the fields of the call
// and, from the word "reply" on, those of the reply; a comment goes from # to the end of its line.
//     00000038 00*52          bytes in hexadecimal, also repeated
//     "disk"                  the bytes of a text
//     <disk.ino>              what the test looks up when it needs the message
//     NFS3_OK                 an entry of the dictionary, in whose place its own text stands
//     file_attributes:disk    the same, with "disk" in the place of every * before a point
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <ostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

#include "support/Files.h"
#include "support/Xdr.h"

namespace vectors {

using support::Bytes;

struct Vector {
    std::string claim;
    std::string call;
    std::string reply;
};
inline std::ostream& operator<<(std::ostream& out, const Vector& vector) {
    return out << vector.claim;
}

using Dictionary = std::map<std::string, std::string>;
using LookUp = std::function<Bytes(const std::string& field)>;

inline std::vector<Vector> VectorsOf(const std::string& table) {
    std::vector<Vector> found;
    std::istringstream lines(table);
    for (std::string line; std::getline(lines, line);) {
        const std::size_t begin = line.find_first_not_of(' ');
        if (begin == 0) {
            found.push_back({line, "", ""});
        } else if (begin != std::string::npos) {
            Vector& vector = found.back();
            const bool inReply = !vector.reply.empty() || line.compare(begin, 5, "reply") == 0;
            (inReply ? vector.reply : vector.call) += line + '\n';
        }
    }
    return found;
}

inline Bytes FromHex(const std::string& word) {
    const std::size_t star = word.find('*');
    const std::string digits = word.substr(0, star);
    if (digits.size() % 2 != 0 ||
        digits.find_first_not_of("0123456789abcdef") != std::string::npos) {
        throw std::runtime_error("neither bytes nor in the dictionary: " + word);
    }
    const std::size_t times = star == std::string::npos ? 1 : std::stoul(word.substr(star + 1));
    Bytes bytes;
    for (std::size_t i = 0; i < digits.size() * times; i += 2) {
        const std::string digit = digits.substr(i % digits.size(), 2);
        bytes.push_back(static_cast<std::uint8_t>(std::stoul(digit, nullptr, 16)));
    }
    return bytes;
}

// The text of a word of the form ENTRY or ENTRY:SUBJECT; empty when there is no such entry.
inline std::string EntryOf(const std::string& word, const Dictionary& dictionary) {
    const std::size_t colon = word.find(':');
    const auto entry = dictionary.find(word.substr(0, colon));
    std::string text = entry != dictionary.end() ? entry->second : "";
    if (colon != std::string::npos) {
        const std::string subject = word.substr(colon + 1);
        for (std::size_t at = 0; (at = text.find("*.", at)) != std::string::npos;) {
            text.replace(at, 1, subject);
        }
    }
    return text;
}

// The bytes that a call, a reply or an entry stands for.
inline Bytes BytesOf(const std::string& text, const Dictionary& dictionary, const LookUp& lookUp) {
    const auto valueOf = [&](const std::string& word) {
        const std::string inner = word.substr(1, word.size() - 2);
        if (word.front() == '"') {
            return support::ToBytes(inner);
        }
        if (word.front() == '<') {
            return lookUp(inner);
        }
        const std::string entry = EntryOf(word, dictionary);
        return entry.empty() ? FromHex(word) : BytesOf(entry, dictionary, lookUp);
    };
    Bytes bytes;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line.substr(0, line.find('#')));
        for (std::string word; words >> word;) {
            const Bytes value = valueOf(word);
            bytes.insert(bytes.end(), value.begin(), value.end());
        }
    }
    return bytes;
}

}  // namespace vectors
