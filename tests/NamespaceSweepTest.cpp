// Every sequence of up to four changes of a small export, against a plain model of it: whatever a
// client has written is found where that client has put it, and nowhere else.

#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <tuple>
#include <vector>

#include "InputStream.h"
#include "Nfs3Prog.h"
#include "OutputStream.h"
#include "RuntimeParam.h"
#include "support/Files.h"
#include "support/Xdr.h"
#include "Utilities.h"

namespace {

using support::Bytes;
using support::XdrWriter;
using Path = std::string;  // below the export: "a" or "a/b"

const std::vector<Path> kNames{"a", "b", "c"};

constexpr std::uint32_t kOk = 0;
constexpr std::uint32_t kNoEntry = 2;
constexpr std::uint32_t kIoError = 5;

Path ParentOf(const Path& path) {
    const std::size_t slash = path.rfind('/');
    return slash == Path::npos ? "" : path.substr(0, slash);
}
Path NameOf(const Path& path) { return path.substr(path.rfind('/') + 1); }
bool IsBelow(const Path& path, const Path& folder) { return path.starts_with(folder + '/'); }

// ------------------------------------------------------------------------------------------------
// What a client asks for
// ------------------------------------------------------------------------------------------------

enum class Kind {
    Put,        // CREATE, unchecked, and WRITE to the handle that it gives
    Write,      // WRITE to the handle that the client has had longest, as of an open file
    Cut,        // SETATTR of the size, by the same handle
    Remove,     // REMOVE
    MakeDir,    // MKDIR
    RemoveDir,  // RMDIR
    Rename,     // LOOKUP and RENAME
};

struct Step {
    Kind kind;
    Path path;
    Path to = {};  // of a rename
};

std::string Text(const std::vector<Step>& steps) {
    static constexpr const char* kTexts[] = {"put",   "write", "cut",   "remove",
                                             "mkdir", "rmdir", "rename"};
    std::string text;
    for (const Step& step : steps) {
        text += std::string(kTexts[static_cast<int>(step.kind)]) + ' ' + step.path +
                (step.to.empty() ? "" : " -> " + step.to) + "; ";
    }
    return text;
}

// ------------------------------------------------------------------------------------------------
// The plain model
// ------------------------------------------------------------------------------------------------

// A handle that the client has for an object.
struct Held {
    std::uint32_t id = 0;
    Path path;  // what the server takes it for: follows the object, but not when a folder moves
};

struct Object {
    bool folder = false;
    std::string content;
    std::vector<Held> held;  // the oldest first
};

// What the export should hold, by path.
using Tree = std::map<Path, Object>;

bool IsEmptyFolder(const Tree& tree, const Path& path) {
    const auto it = tree.find(path);
    return it != tree.end() && it->second.folder &&
           std::none_of(tree.begin(), tree.end(),
                        [&](const auto& entry) { return IsBelow(entry.first, path); });
}
bool IsFile(const Tree& tree, const Path& path) {
    const auto it = tree.find(path);
    return it != tree.end() && !it->second.folder;
}
bool IsFolder(const Tree& tree, const Path& path) {
    const auto it = tree.find(path);
    return path.empty() || (it != tree.end() && it->second.folder);
}

// The status of a step.
std::uint32_t Expect(const Tree& tree, const Step& step) {
    const bool exists = tree.contains(step.path);
    switch (step.kind) {
        case Kind::Put:
            return exists && tree.at(step.path).folder ? kIoError : kOk;
        case Kind::Write:
        case Kind::Cut:
            // Below a renamed folder a handle means nothing until its file is back.
            return tree.at(step.path).held.front().path == step.path ? kOk : kIoError;
        case Kind::MakeDir:
            return exists ? kIoError : kOk;
        case Kind::Remove:
            return !exists                                                     ? kNoEntry
                   : IsFile(tree, step.path) || IsEmptyFolder(tree, step.path) ? kOk
                                                                               : kIoError;
        case Kind::RemoveDir:
            return !exists ? kNoEntry : IsEmptyFolder(tree, step.path) ? kOk : kIoError;
        case Kind::Rename:
            if (!exists) {
                return kNoEntry;
            }
            if (step.to == step.path) {
                return kOk;
            }
            return IsBelow(step.to, step.path) ||
                           (tree.contains(step.to) && !IsFile(tree, step.to) &&
                            !IsEmptyFolder(tree, step.to))
                       ? kIoError
                       : kOk;
    }
    return kOk;
}

// Whether a step that is done leaves anything else than before.
bool Changes(const Tree& tree, const Step& step) {
    return Expect(tree, step) == kOk && step.to != step.path;
}

// What a rename that is done leaves.
void Rename(Tree& tree, const Path& from, const Path& to) {
    tree.erase(to);
    Tree moved;
    for (auto it = tree.begin(); it != tree.end();) {
        if (it->first != from && !IsBelow(it->first, from)) {
            ++it;
            continue;
        }
        auto node = tree.extract(it++);
        if (node.key() == from) {
            for (Held& held : node.mapped().held) {
                held.path = held.path == from ? to : held.path;
            }
        }
        node.key() = to + node.key().substr(from.size());
        moved.insert(std::move(node));
    }
    tree.merge(moved);
}

// Every step that the client can word: the folders it names are there, and so is a file whose
// handle it uses.
std::vector<Step> AllSteps(const Tree& tree, const std::vector<Path>& innerNames) {
    std::vector<Path> paths;
    for (const Path& name : kNames) {
        paths.push_back(name);
        if (IsFolder(tree, name)) {
            for (const Path& inner : innerNames) {
                paths.push_back(Path(name).append("/").append(inner));
            }
        }
    }
    std::vector<Step> steps;
    for (const Path& path : paths) {
        if (IsFile(tree, path)) {
            steps.push_back({Kind::Write, path});
            steps.push_back({Kind::Cut, path});
        }
        for (const Kind kind : {Kind::Put, Kind::Remove, Kind::MakeDir, Kind::RemoveDir}) {
            steps.push_back({kind, path});
        }
        for (const Path& to : paths) {
            steps.push_back({Kind::Rename, path, to});
        }
    }
    return steps;
}

// ------------------------------------------------------------------------------------------------
// The server, without a network
// ------------------------------------------------------------------------------------------------

class Server {
public:
    Server() : m_program(&m_utilities) {}
    ~Server() { m_utilities.Reset(&m_param, &m_argu); }
    Server(const Server&) = delete;
    Server& operator=(const Server&) = delete;

    void Restart(const std::string& root) {
        char status[STATUS_SIZE] = "";
        m_utilities.Reset(&m_param, &m_argu);
        if (!m_utilities.AddMountInfo(&m_param, &m_argu, root.c_str(), "vm01", "", status)) {
            throw std::runtime_error(status);
        }
        m_root = m_utilities.GetFileID(&m_param, &m_argu, root.c_str());
    }

    std::uint32_t Root() const { return m_root; }
    // Each gives the status.
    std::uint32_t Lookup(std::uint32_t folder, const Path& name, std::uint32_t* id) {
        Begin(folder).String(name);
        const std::uint32_t status = Call(3);
        if (status == kOk) {
            *id = ReadHandle(4);
        }
        return status;
    }
    std::uint32_t Create(std::uint32_t folder, const Path& name, std::uint32_t* id) {
        Begin(folder).String(name).U32(0);
        NoAttributes();
        return NewObject(8, id);
    }
    std::uint32_t MkDir(std::uint32_t folder, const Path& name, std::uint32_t* id) {
        Begin(folder).String(name);
        NoAttributes();
        return NewObject(9, id);
    }
    std::uint32_t Remove(std::uint32_t folder, const Path& name) {
        Begin(folder).String(name);
        return Call(12);
    }
    std::uint32_t RmDir(std::uint32_t folder, const Path& name) {
        Begin(folder).String(name);
        return Call(13);
    }
    std::uint32_t Rename(std::uint32_t from, const Path& name, std::uint32_t to,
                         const Path& newName) {
        Begin(from).String(name);
        PutHandle(to).String(newName);
        return Call(14);
    }
    std::uint32_t Write(std::uint32_t file, const std::string& content) {
        Begin(file).U64(0).U32(static_cast<std::uint32_t>(content.size())).U32(2).String(content);
        return Call(7);
    }
    std::uint32_t SetSize(std::uint32_t file, std::uint64_t size) {
        Begin(file).U32(0).U32(0).U32(0).U32(1).U64(size).U32(0).U32(0).U32(0);
        return Call(2);
    }
    std::uint32_t Read(std::uint32_t file, std::string* content) {
        Begin(file).U64(0).U32(100);
        const std::uint32_t status = Call(6);
        if (status == kOk) {
            content->assign(reinterpret_cast<const char*>(m_out.GetBuffer()) + 20, Word(8));
        }
        return status;
    }

private:
    XdrWriter& Begin(std::uint32_t id) {
        m_arguments = XdrWriter();
        return PutHandle(id);
    }
    XdrWriter& PutHandle(std::uint32_t id) {
        Bytes handle(56);
        for (std::size_t i = 0; i < 4; ++i) {
            handle[i] = static_cast<std::uint8_t>(id >> (8 * i));
        }
        return m_arguments.Opaque(handle);
    }
    void NoAttributes() { m_arguments.U32(0).U32(0).U32(0).U32(0).U32(0).U32(0); }
    std::uint32_t NewObject(std::uint32_t procedure, std::uint32_t* id) {
        const std::uint32_t status = Call(procedure);
        if (status == kOk) {
            EXPECT_EQ(1u, Word(4)) << "no handle";
            *id = ReadHandle(8);
        }
        return status;
    }

    std::uint32_t Call(std::uint32_t procedure) {
        const Bytes& arguments = m_arguments.Data();
        m_in.ResetBuffer();
        m_out.ResetBuffer();
        std::memcpy(m_in.GetFreeBuffer(), arguments.data(), arguments.size());
        m_in.AddFilledBufferSize(static_cast<std::uint32_t>(arguments.size()));
        ProcessParam call{3, procedure, "10.0.0.9", &m_param};
        EXPECT_EQ(PROG_RESULT_DONE, m_program.Process(&m_in, &m_out, &call));
        return Word(0);
    }
    // A word of the reply.
    std::uint32_t Word(std::size_t at) const {
        const unsigned char* word = m_out.GetBuffer() + at;
        return static_cast<std::uint32_t>(word[0]) << 24 |
               static_cast<std::uint32_t>(word[1]) << 16 |
               static_cast<std::uint32_t>(word[2]) << 8 | word[3];
    }
    std::uint32_t ReadHandle(std::size_t at) const {
        const unsigned char* handle = m_out.GetBuffer() + at + 4;
        return static_cast<std::uint32_t>(handle[3]) << 24 |
               static_cast<std::uint32_t>(handle[2]) << 16 |
               static_cast<std::uint32_t>(handle[1]) << 8 | handle[0];
    }

    CUtilities m_utilities;
    CRuntimeParam m_param{"vm01", 0};
    LogArgu m_argu{"Test.Sweep"};
    CNfs3Prog m_program;
    CInputStream m_in;
    COutputStream m_out;
    XdrWriter m_arguments;
    std::uint32_t m_root = 0;
};

// ------------------------------------------------------------------------------------------------
// The sweep
// ------------------------------------------------------------------------------------------------

// What the export holds, by path: whether it is a folder, and what is in a file.
using Content = std::map<Path, std::pair<bool, std::string>>;

void ReadDisk(const std::string& root, const Path& below, Content* content) {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir((root + '/' + below).c_str()), closedir);
    while (const dirent* entry = readdir(dir.get())) {
        const std::string name = entry->d_name;
        if (name == "." || name == "..") {
            continue;
        }
        const Path path = below.empty() ? name : below + '/' + name;
        if (entry->d_type == DT_DIR) {
            (*content)[path] = {true, ""};
            ReadDisk(root, path, content);
        } else {
            char data[100];
            const int file = openat(dirfd(dir.get()), entry->d_name, O_RDONLY | O_CLOEXEC);
            const ssize_t size = read(file, data, sizeof(data));
            close(file);
            (*content)[path] = {false, std::string(data, static_cast<std::size_t>(size))};
        }
    }
}

Content ContentOf(const Tree& tree) {
    Content content;
    for (const auto& [path, object] : tree) {
        content[path] = {object.folder, object.content};
    }
    return content;
}

// The set of sequences is bounded by where they begin, how long they are and how many names there
// are on the second level.
struct Sweep {
    const char* name;
    std::vector<Step> start;  // all of it has been written, so that the server has it open
    std::size_t steps;
    std::vector<Path> innerNames;
};

const std::vector<Step> kFolderAndFile{{Kind::MakeDir, "a"}, {Kind::Put, "a/a"}, {Kind::Put, "b"}};
const std::vector<Step> kTwoFolders{
    {Kind::MakeDir, "a"}, {Kind::Put, "a/a"}, {Kind::MakeDir, "b"}, {Kind::Put, "b/a"}};

const Sweep kSweeps[] = {
    {"FourSteps", kFolderAndFile, 4, {"a"}},
    {"ThreeStepsWithThreeInnerNames", kFolderAndFile, 3, kNames},
    {"ThreeStepsFromTwoFolders", kTwoFolders, 3, {"a"}},
};
constexpr int kShards = 8;  // of each sweep, so that each stays short under a sanitizer

class NamespaceSweepTest : public testing::TestWithParam<std::tuple<Sweep, int>> {
protected:
    // Performs steps on a fresh server; what they must leave stays in m_tree.
    void Perform(const std::vector<Step>& steps) {
        std::filesystem::remove_all(m_root);
        std::filesystem::create_directory(m_root);
        m_server.Restart(m_root);
        m_tree.clear();
        for (const Step& step : TheSweep().start) {
            ASSERT_NO_FATAL_FAILURE(Perform(step));
        }
        for (const Step& step : steps) {
            ASSERT_NO_FATAL_FAILURE(Perform(step));
        }
        ++m_performed;
    }

    // The handle of a folder as a client gets it now.
    std::uint32_t Folder(const Path& path) {
        std::uint32_t id = m_server.Root();
        if (!path.empty()) {
            EXPECT_EQ(kOk, m_server.Lookup(m_server.Root(), path, &id)) << path;
            Hold(path, id);
        }
        return id;
    }

    // The client holds the handle of an object from now on; nothing else may have the same one.
    void Hold(const Path& path, std::uint32_t id) {
        for (const auto& [other, object] : m_tree) {
            if (other != path) {
                for (const Held& held : object.held) {
                    ASSERT_NE(held.id, id) << path << " has the handle of " << other;
                }
            }
        }
        std::vector<Held>& held = m_tree[path].held;
        if (std::none_of(held.begin(), held.end(), [&](const Held& h) { return h.id == id; })) {
            held.push_back({id, path});
        }
    }

    void Perform(const Step& step) {
        const std::uint32_t expected = Expect(m_tree, step);
        const Path name = NameOf(step.path);
        const Path parent = ParentOf(step.path);
        const std::string data = std::to_string(10'000'000 + ++m_written);
        std::uint32_t id = 0;
        switch (step.kind) {
            case Kind::Put:
                ASSERT_EQ(expected, m_server.Create(Folder(parent), name, &id));
                if (expected == kOk) {
                    ASSERT_NO_FATAL_FAILURE(Hold(step.path, id));
                    ASSERT_EQ(kOk, m_server.Write(id, data));
                    m_tree[step.path].content = data;
                }
                break;
            case Kind::Write:
                ASSERT_EQ(expected, m_server.Write(m_tree[step.path].held.front().id, data));
                if (expected == kOk) {
                    m_tree[step.path].content = data;
                }
                break;
            case Kind::Cut:
                ASSERT_EQ(expected, m_server.SetSize(m_tree[step.path].held.front().id, 3));
                if (expected == kOk) {
                    m_tree[step.path].content.resize(3);
                }
                break;
            case Kind::Remove:
                ASSERT_EQ(expected, m_server.Remove(Folder(parent), name));
                if (expected == kOk) {
                    m_tree.erase(step.path);
                }
                break;
            case Kind::MakeDir:
                ASSERT_EQ(expected, m_server.MkDir(Folder(parent), name, &id));
                if (expected == kOk) {
                    m_tree[step.path].folder = true;
                    ASSERT_NO_FATAL_FAILURE(Hold(step.path, id));
                }
                break;
            case Kind::RemoveDir:
                ASSERT_EQ(expected, m_server.RmDir(Folder(parent), name));
                if (expected == kOk) {
                    m_tree.erase(step.path);
                }
                break;
            case Kind::Rename: {
                const std::uint32_t from = Folder(parent);
                if (m_tree.contains(step.path)) {
                    ASSERT_EQ(kOk, m_server.Lookup(from, name, &id));
                    ASSERT_NO_FATAL_FAILURE(Hold(step.path, id));
                }
                ASSERT_EQ(expected,
                          m_server.Rename(from, name, Folder(ParentOf(step.to)), NameOf(step.to)));
                if (expected == kOk && step.to != step.path) {
                    Rename(m_tree, step.path, step.to);
                }
                break;
            }
        }
    }

    void CompareDisk() {
        Content disk;
        ReadDisk(m_root, "", &disk);
        ASSERT_EQ(ContentOf(m_tree), disk);
    }

    // Everything is also read as it lies on the disk, by new handles and, where they count, by old
    // ones.
    void CompareReads() {
        for (const auto& [path, object] : Tree(m_tree)) {
            std::uint32_t parent = m_server.Root();
            std::uint32_t id = 0;
            for (Path rest = path; !rest.empty();) {
                const Path name = rest.substr(0, rest.find('/'));
                rest.erase(0, name.size() + 1);
                ASSERT_EQ(kOk, m_server.Lookup(parent, name, &id)) << path;
                parent = id;
            }
            ASSERT_NO_FATAL_FAILURE(Hold(path, id));
            for (const Held& held : m_tree[path].held) {
                std::string content;
                if (!object.folder) {
                    ASSERT_EQ(held.path == path ? kOk : kIoError, m_server.Read(held.id, &content))
                        << path;
                    ASSERT_EQ(held.path == path ? object.content : "", content) << path;
                }
            }
        }
    }

    // All sequences that begin with these steps.
    void PerformAll(std::vector<Step>& steps) {
        SCOPED_TRACE(Text(steps));
        ASSERT_NO_FATAL_FAILURE(Perform(steps));
        ASSERT_NO_FATAL_FAILURE(CompareDisk());
        const Tree tree = m_tree;
        if (steps.size() == TheSweep().steps) {
            ASSERT_NO_FATAL_FAILURE(CompareReads());
            return;
        }
        // What is refused changes nothing, and is not followed by more.  A cut is neither a change
        // of names nor a write, and comes last.
        const std::vector<Step> all = AllSteps(tree, TheSweep().innerNames);
        for (const Step& step : all) {
            if (step.kind == Kind::Cut || !Changes(tree, step)) {
                SCOPED_TRACE("and " + Text({step}));
                ASSERT_NO_FATAL_FAILURE(Perform(step));
                ASSERT_NO_FATAL_FAILURE(CompareDisk());
            }
        }
        ASSERT_NO_FATAL_FAILURE(CompareReads());
        int number = 0;
        for (const Step& step : all) {
            if (step.kind == Kind::Cut || !Changes(tree, step) ||
                (steps.empty() && number++ % kShards != std::get<int>(GetParam()))) {
                continue;
            }
            steps.push_back(step);
            ASSERT_NO_FATAL_FAILURE(PerformAll(steps));
            steps.pop_back();
        }
    }

    static const Sweep& TheSweep() { return std::get<Sweep>(GetParam()); }

    support::ScopedTempDir m_dir;
    const std::string m_root = m_dir / "vm01";
    Server m_server;
    Tree m_tree;
    std::uint64_t m_written = 0;
    std::uint64_t m_performed = 0;
};

INSTANTIATE_TEST_SUITE_P(Sweeps, NamespaceSweepTest,
                         testing::Combine(testing::ValuesIn(kSweeps), testing::Range(0, kShards)),
                         [](const auto& sweep) {
                             return std::string(std::get<Sweep>(sweep.param).name) + "_" +
                                    std::to_string(std::get<int>(sweep.param));
                         });

}  // namespace

TEST_P(NamespaceSweepTest, EveryByteLandsWhereItWasWritten) {
    std::vector<Step> steps;
    ASSERT_NO_FATAL_FAILURE(PerformAll(steps));
    RecordProperty("sequences", static_cast<int>(m_performed));
    EXPECT_GT(m_performed, 100u) << "hardly anything was performed";
}
