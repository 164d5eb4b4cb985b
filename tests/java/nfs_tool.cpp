// nfs_tool [-p NFSPORT:MOUNTPORT] EXPORT [COMMAND ARGUMENT...]
//
// A client of one export for tests that are not written in C++.  Runs the command, or, when none is
// given, one command per line of standard input; each answers with one line: "ok" and a result, or
// "error" and the reason.  The exit code is 0 when every command was ok.
//
// Words are separated by blanks; a byte of a name can be written as %XX.
//
//   create PATH              read PATH OFFSET LENGTH    -> the bytes in hex
//   remove PATH              write PATH OFFSET LENGTH   -> the count that the server took
//   rename FROM TO           truncate PATH SIZE
//   stat PATH    -> the size utimes PATH ATIME MTIME

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/time.h>
// libnfs.h takes struct timeval from its includer.
#include <nfsc/libnfs.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using Words = std::vector<std::string>;

std::string Decode(const std::string& word) {
    std::string text;
    for (std::size_t i = 0; i < word.size(); ++i) {
        if (word[i] == '%' && i + 2 < word.size()) {
            text += static_cast<char>(std::stoi(word.substr(i + 1, 2), nullptr, 16));
            i += 2;
        } else {
            text += word[i];
        }
    }
    return text;
}

class Export {
public:
    Export(const std::string& name, const std::string& nfsPort, const std::string& mountPort)
        : m_nfs(nfs_init_context()) {
        nfs_set_timeout(m_nfs, 20'000);
        // A lost server shall be an error and not be waited for.
        nfs_set_autoreconnect(m_nfs, 0);
        const std::string url = "nfs://127.0.0.1/?nfsport=" + nfsPort + "&mountport=" + mountPort +
                                "&auto-traverse-mounts=0";
        nfs_url* parsed = nfs_parse_url_incomplete(m_nfs, url.c_str());
        if (parsed != nullptr) {
            nfs_destroy_url(parsed);
        }
        if (parsed == nullptr || nfs_mount(m_nfs, "127.0.0.1", name.c_str()) != 0) {
            const std::string reason = nfs_get_error(m_nfs);
            nfs_destroy_context(m_nfs);
            throw std::runtime_error("mount: " + reason);
        }
    }
    ~Export() {
        nfs_umount(m_nfs);
        nfs_destroy_context(m_nfs);
    }
    Export(const Export&) = delete;
    Export& operator=(const Export&) = delete;

    // The result of a command; throws the reason of a failure.
    std::string Run(const Words& words) {
        const std::string& command = words.at(0);
        const std::string path = "/" + Decode(words.at(1));
        if (command == "create") {
            nfsfh* file = nullptr;
            Check(nfs_creat(m_nfs, path.c_str(), 0644, &file));
            nfs_close(m_nfs, file);  // says that COMMIT failed, which is never served
        } else if (command == "remove") {
            Check(nfs_unlink(m_nfs, path.c_str()));
        } else if (command == "rename") {
            Check(nfs_rename(m_nfs, path.c_str(), ("/" + Decode(words.at(2))).c_str()));
        } else if (command == "truncate") {
            Check(nfs_truncate(m_nfs, path.c_str(), std::stoull(words.at(2))));
        } else if (command == "utimes") {
            timeval times[2] = {};
            times[0].tv_sec = std::stol(words.at(2));
            times[1].tv_sec = std::stol(words.at(3));
            Check(nfs_utimes(m_nfs, path.c_str(), times));
        } else if (command == "stat") {
            nfs_stat_64 attributes{};
            Check(nfs_stat64(m_nfs, path.c_str(), &attributes));
            return std::to_string(attributes.nfs_size);
        } else if (command == "read") {
            return Read(path, std::stoull(words.at(2)), std::stoull(words.at(3)));
        } else if (command == "write") {
            return Write(path, std::stoull(words.at(2)), std::stoull(words.at(3)));
        } else {
            throw std::runtime_error("unknown command: " + command);
        }
        return "";
    }

private:
    void Check(int result) {
        if (result < 0) {
            throw Failure(result);
        }
    }

    // libnfs has no text for every failure.
    std::runtime_error Failure(int result) {
        return std::runtime_error(std::string(std::strerror(-result)) + ": " +
                                  nfs_get_error(m_nfs));
    }

    std::string Read(const std::string& path, std::uint64_t offset, std::uint64_t length) {
        nfsfh* file = nullptr;
        Check(nfs_open(m_nfs, path.c_str(), O_RDONLY, &file));
        std::string bytes(length, '\0');
        const int count = nfs_pread(m_nfs, file, offset, length, bytes.data());
        if (count < 0) {
            throw Failure(count);
        }
        nfs_close(m_nfs, file);
        std::string hex;
        for (int i = 0; i < count; ++i) {
            char digits[3];
            std::snprintf(digits, sizeof(digits), "%02x",
                          static_cast<unsigned char>(bytes[static_cast<std::size_t>(i)]));
            hex += digits;
        }
        return hex;
    }

    std::string Write(const std::string& path, std::uint64_t offset, std::uint64_t length) {
        nfsfh* file = nullptr;
        Check(nfs_open(m_nfs, path.c_str(), O_WRONLY, &file));
        const std::string bytes(length, 'w');
        const int count = nfs_pwrite(m_nfs, file, offset, length, bytes.data());
        if (count < 0) {
            throw Failure(count);
        }
        nfs_close(m_nfs, file);  // as after a creation
        return std::to_string(count);
    }

    nfs_context* m_nfs;
};

bool RunAndAnswer(Export& target, const Words& words) {
    try {
        const std::string result = target.Run(words);
        std::cout << "ok " << result << std::endl;
        return true;
    } catch (const std::exception& e) {
        std::cout << "error " << e.what() << std::endl;
        return false;
    }
}

}  // namespace

int main(int argc, char** argv) {
    Words words(argv + 1, argv + argc);
    std::string nfsPort = "2049";
    std::string mountPort = "1058";
    if (words.size() > 1 && words[0] == "-p") {
        const std::size_t colon = words[1].find(':');
        nfsPort = words[1].substr(0, colon);
        mountPort = words[1].substr(colon + 1);
        words.erase(words.begin(), words.begin() + 2);
    }
    if (words.empty()) {
        std::cerr << "usage: nfs_tool [-p NFSPORT:MOUNTPORT] EXPORT [COMMAND ARGUMENT...]\n";
        return 2;
    }
    try {
        Export target(words[0], nfsPort, mountPort);
        if (words.size() > 1) {
            return RunAndAnswer(target, Words(words.begin() + 1, words.end())) ? 0 : 1;
        }
        bool ok = true;
        for (std::string line; std::getline(std::cin, line);) {
            std::istringstream stream(line);
            Words command;
            for (std::string word; stream >> word;) {
                command.push_back(word);
            }
            ok &= RunAndAnswer(target, command);
        }
        return ok ? 0 : 1;
    } catch (const std::exception& e) {
        std::cout << "error " << e.what() << std::endl;
        return 1;
    }
}
