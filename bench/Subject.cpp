#include "Subject.h"

#include <fcntl.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "Wire.h"

namespace bench {

namespace {

using support::Transport;

constexpr int kMountPort = 1058;

sockaddr_un ChannelAddress(const std::string& channel) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    Check(channel.size() < sizeof address.sun_path, channel + ": too long");
    std::memcpy(address.sun_path, channel.c_str(), channel.size() + 1);
    return address;
}

std::string Channel(const Subject& subject, const std::string& name) {
    return "/proc/" + std::to_string(subject.pid) + "/root/tmp/nfs-" + name;
}

template <typename Message>
IpcDataBuf Request(int type, const Message& fields) {
    IpcDataBuf data{};
    CIpcBasic::InitialRequestData(&data, type);
    Message message = fields;
    message.header = data.Get<Ipc_Header>();
    data.Put(message);
    return data;
}

template <std::size_t N>
void SetText(char (&field)[N], const std::string& text) {
    Check(SetIpcText(field, text.c_str()), text + ": too long for a message");
}

}  // namespace

Subject ParseSubject(const std::string& text) {
    std::istringstream fields(text);
    Subject subject;
    std::string kind;
    std::string pid;
    Check(std::getline(fields, subject.name, ':') && std::getline(fields, kind, ':') &&
              std::getline(fields, pid, ':') && std::getline(fields, subject.folder),
          "not a subject: " + text);
    Check(kind == "nfs" || kind == "echo" || kind == "echoio", "no such kind: " + kind);
    subject.kind = kind == "nfs"    ? Subject::Kind::Nfs
                   : kind == "echo" ? Subject::Kind::Echo
                                    : Subject::Kind::EchoIo;
    subject.pid = std::stoi(pid);
    return subject;
}

InNetworkOf::InNetworkOf(pid_t pid)
    : m_own(open("/proc/thread-self/ns/net", O_RDONLY | O_CLOEXEC)) {
    const std::string path = "/proc/" + std::to_string(pid) + "/ns/net";
    const int theirs = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    const bool entered = m_own >= 0 && theirs >= 0 && setns(theirs, CLONE_NEWNET) == 0;
    if (!entered) {
        FailErrno(path);
    }
    close(theirs);
}

InNetworkOf::~InNetworkOf() {
    setns(m_own, CLONE_NEWNET);
    close(m_own);
}

double CpuSeconds(pid_t pid) {
    clockid_t id = 0;
    timespec time{};
    if (clock_getcpuclockid(pid, &id) != 0 || clock_gettime(id, &time) != 0) {
        FailErrno("CPU time of process " + std::to_string(pid));
    }
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

std::size_t ResidentKiB(pid_t pid) { return support::RssKiB(pid); }

std::size_t Threads(pid_t pid) {
    const std::filesystem::directory_iterator tasks("/proc/" + std::to_string(pid) + "/task");
    return static_cast<std::size_t>(std::distance(begin(tasks), end(tasks)));
}

void WaitForThreads(pid_t pid, std::size_t most) {
    static_cast<void>(
        support::WaitFor([&] { return Threads(pid) <= most; }, support::Milliseconds(10'000)));
}

// ------------------------------------------------------------------------------------------------
// Set-up calls
// ------------------------------------------------------------------------------------------------

Session::Session(const Subject& subject) : m_subject(subject) {
    Control(subject).AddExport(subject.Export(), kExportName);
    const InNetworkOf network(subject.pid);
    m_mount = std::make_unique<support::MountClient>(Transport::Tcp, kMountPort);
    m_nfs = std::make_unique<support::Nfs3Client>(Transport::Tcp, kNfsPort);
    m_root = Mount(kExportName);
}

Session::~Session() {
    try {
        for (const std::string& name : m_mounted) {
            m_mount->Umnt(name);
        }
    } catch (const std::exception&) {
        // The server has gone, which whoever used the session has noticed.
    }
}

Handle Session::Mount(const std::string& exportName) {
    m_mount->Umnt(exportName);  // left mounted by an earlier run that failed
    const support::MountResult result = m_mount->Mnt(exportName);
    Check(result.status == 0, "cannot mount " + exportName);
    m_mounted.push_back(exportName);
    return result.handle;
}

Handle Session::Find(const std::string& path) {
    Handle handle = m_root;
    std::istringstream names(path);
    for (std::string name; std::getline(names, name, '/');) {
        const support::LookupResult result = m_nfs->Lookup(handle, name);
        Check(result.status == 0, "cannot find " + path);
        handle = result.handle;
    }
    return handle;
}

void Session::Release() {
    if (m_nfs != nullptr) {
        const std::size_t threads = Threads(m_subject.pid);
        m_nfs.reset();
        WaitForThreads(m_subject.pid, threads - 1);
    }
}

// ------------------------------------------------------------------------------------------------
// The control channel
// ------------------------------------------------------------------------------------------------

Control::Control(const Subject& subject) : m_channel(Channel(subject, IPC_SERVER_NAME)) {}

IpcDataBuf Control::Exchange(const IpcDataBuf& request) const {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const sockaddr_un address = ChannelAddress(m_channel);
    IpcDataBuf reply{};
    const auto size = static_cast<std::size_t>(request.lDataLen);
    ssize_t count = -1;
    if (fd >= 0 && connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0 &&
        send(fd, request.cBuf, size, MSG_NOSIGNAL) == request.lDataLen) {
        count = recv(fd, reply.cBuf, sizeof reply.cBuf, 0);
    }
    const int error = errno;
    close(fd);
    if (count <= 0) {
        errno = error;
        FailErrno(m_channel);
    }
    reply.lDataLen = static_cast<std::int32_t>(count);
    return reply;
}

bool Control::Ask(const IpcDataBuf& request, const std::string& expected) const {
    const IpcDataBuf reply = Exchange(request);
    const auto header = reply.Get<Ipc_Header>();
    if (header.iType == IPC_REPLY_TYPE_EXPT) {
        const std::string text = GetIpcText(reply.Get<IpcReply_Message>().cMsg);
        Check(!expected.empty() && text.find(expected) != std::string::npos, text);
        return false;
    }
    Check(header.iGroup == IPC_GROUP_REPLY && header.iType == IPC_REPLY_TYPE_BOOL,
          "unexpected reply on the control channel");
    return reply.GetBool(offsetof(IpcReply_Bool, bVal));
}

bool Control::IsRunning() const {
    IpcDataBuf request{};
    CIpcBasic::InitialRequestData(&request, IPC_REQUEST_TYPE_IS_SERVER_RUNNING);
    return Ask(request);
}

void Control::AddExport(const std::string& folder, const std::string& name,
                        const std::string& controller) const {
    IpcRequest_AddMountPoint fields{};
    SetText(fields.cLocalMountFolder, folder);
    SetText(fields.cExportName, name);
    SetText(fields.cIpcID, controller);
    Ask(Request(IPC_REQUEST_TYPE_ADD_MOUNT_POINT, fields), "already defined");
}

void Control::AddSession(const std::string& id, const std::string& folder) const {
    IpcRequest_AddSession fields{};
    SetText(fields.cSessionID, id);
    SetText(fields.cLocalMountFolder, folder);
    Ask(Request(IPC_REQUEST_TYPE_ADD_SESSION, fields));
}

bool Control::IsSession(const std::string& id) const {
    IpcRequest_IsSessionExists fields{};
    SetText(fields.cSessionID, id);
    return Ask(Request(IPC_REQUEST_TYPE_IS_SESSION_EXIST, fields));
}

void Control::SetLogControl(int bits) const {
    IpcRequest_SetLogControl fields{};
    fields.iLogControl = bits;
    Ask(Request(IPC_REQUEST_TYPE_SET_LOG_CTRL, fields));
}

void Control::OpenRedirected(const std::string& path, std::int64_t size, bool infoFile) const {
    IpcRequest_OpenRedirectedFile fields{};
    SetText(fields.cPath, path);
    fields.iSize = size;
    fields.bCreateInfoFile = infoFile;
    Ask(Request(IPC_REQUEST_TYPE_OPEN_RD_FILE, fields));
}

void Control::CloseRedirected(const std::string& path) const {
    IpcRequest_CloseRedirectedFile fields{};
    SetText(fields.cPath, path);
    Ask(Request(IPC_REQUEST_TYPE_CLOSE_RD_FILE, fields));
}

void Control::AddSegment(const std::string& path, const std::string& source,
                         std::int64_t sourceOffset, std::int64_t offset,
                         std::int64_t length) const {
    IpcRequest_AddRedirectedFileSegment fields{};
    SetText(fields.cPath, path);
    SetText(fields.cSrcPath, source);
    fields.iSrcFileOffset = sourceOffset;
    fields.iOffset = offset;
    fields.iLength = length;
    Check(Ask(Request(IPC_REQUEST_TYPE_ADD_RD_FILE_SEG, fields)), path + ": segment refused");
}

// ------------------------------------------------------------------------------------------------
// Callbacks
// ------------------------------------------------------------------------------------------------

CallbackListener::CallbackListener(const Subject& subject)
    : m_channel(Channel(subject, "bench")), m_fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    unlink(m_channel.c_str());
    const sockaddr_un address = ChannelAddress(m_channel);
    if (bind(m_fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0 ||
        listen(m_fd, 64) != 0) {
        FailErrno(m_channel);
    }
    m_thread = std::thread(&CallbackListener::Serve, this);
}

CallbackListener::~CallbackListener() {
    m_stop = true;
    shutdown(m_fd, SHUT_RDWR);  // ends the accept
    m_thread.join();
    close(m_fd);
    unlink(m_channel.c_str());
}

void CallbackListener::Serve() {
    IpcDataBuf request{};
    IpcDataBuf reply{};
    while (!m_stop) {
        const int connection = accept4(m_fd, nullptr, nullptr, SOCK_CLOEXEC);
        if (connection < 0) {
            continue;
        }
        if (recv(connection, request.cBuf, sizeof request.cBuf, 0) > 0) {
            if (request.Get<Ipc_Header>().iType == IPC_CALLBACK_TYPE_WRITE_RD_FILE) {
                CIpcBasic::InitialReplyData(&reply, IPC_REPLY_TYPE_INT);
                auto answer = reply.Get<IpcReply_Int>();
                answer.iVal =
                    static_cast<std::int32_t>(request.Get<IpcCb_WriteRedirectedFile>().iLen);
                reply.Put(answer);
                ++m_writes;
            } else {
                CIpcBasic::InitialReplyData(&reply, IPC_REPLY_TYPE_BOOL);
            }
            send(connection, reply.cBuf, static_cast<std::size_t>(reply.lDataLen), MSG_NOSIGNAL);
        }
        close(connection);
    }
}

}  // namespace bench
