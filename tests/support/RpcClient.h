// An ONC RPC client (RFC 5531) that shows every byte of what a server answers.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "support/Files.h"
#include "support/Xdr.h"

namespace support {

enum class Transport { Tcp, Udp };

inline constexpr std::uint32_t kPortmapProgram = 100000;
inline constexpr std::uint32_t kNfsProgram = 100003;
inline constexpr std::uint32_t kMountProgram = 100005;

// accept_stat of RFC 5531, section 9.
inline constexpr std::uint32_t kSuccess = 0;
inline constexpr std::uint32_t kProgUnavail = 1;
inline constexpr std::uint32_t kProgMismatch = 2;
inline constexpr std::uint32_t kProcUnavail = 3;
inline constexpr std::uint32_t kGarbageArgs = 4;

// opaque_auth of RFC 5531, section 8.2.
struct OpaqueAuth {
    std::uint32_t flavor = 0;  // AUTH_NONE
    Bytes body;
};
// An AUTH_SYS credential (RFC 5531, appendix A).
OpaqueAuth AuthSys(std::uint32_t uid, std::uint32_t gid,
                   const std::vector<std::uint32_t>& gids = {},
                   const std::string& machine = "test-host");

// A reply, decoded up to the results.
struct RpcReply {
    std::uint32_t recordMark = 0;  // TCP only, of the last fragment
    std::uint32_t xid = 0;
    std::uint32_t messageType = 0;  // 1 in a reply
    std::uint32_t replyStat = 0;    // 0 = MSG_ACCEPTED
    // The two words of the verifier. This server echoes them from the call without the body that
    // the length announces, so no body is skipped here.
    std::uint32_t verifierFlavor = 0;
    std::uint32_t verifierLength = 0;
    std::uint32_t acceptStat = 0;
    Bytes body;  // what follows accept_stat
    Bytes raw;   // everything received, on TCP with the record mark
};

// Decodes a reply message without its record mark; throws XdrError when it is too short.
RpcReply ParseReply(const Bytes& message);
// A call message without a record mark.
Bytes BuildCall(std::uint32_t xid, std::uint32_t program, std::uint32_t version,
                std::uint32_t procedure, const Bytes& arguments = {},
                const OpaqueAuth& credential = {}, const OpaqueAuth& verifier = {});
// A message behind the mark of a last fragment.
Bytes WithRecordMark(const Bytes& message);

// One connection (TCP) or one socket with a fixed peer (UDP). Whatever goes wrong with the socket
// throws std::runtime_error; a reply that does not come is an empty result of the Try functions and
// an exception of the others.
class RpcClient {
public:
    RpcClient(Transport transport, int port, const std::string& address = "127.0.0.1");
    ~RpcClient();
    RpcClient(RpcClient&& other) noexcept;
    RpcClient(const RpcClient&) = delete;
    RpcClient& operator=(const RpcClient&) = delete;

    // Used for every call from now on; both are AUTH_NONE at first.
    void SetCredential(OpaqueAuth credential) { m_credential = std::move(credential); }
    void SetVerifier(OpaqueAuth verifier) { m_verifier = std::move(verifier); }

    // Sends a call again, with the same xid, each time this long has passed without a reply, as NFS
    // clients do. Zero, the initial value, for never.
    void SetRetransmission(Milliseconds interval) { m_retransmission = interval; }

    // A call and its reply. Replies to other calls (late datagrams, leftovers) are passed over.
    RpcReply Call(std::uint32_t program, std::uint32_t version, std::uint32_t procedure,
                  const Bytes& arguments = {}, Milliseconds timeout = kPatience);
    std::optional<RpcReply> TryCall(std::uint32_t program, std::uint32_t version,
                                    std::uint32_t procedure, const Bytes& arguments = {},
                                    Milliseconds timeout = kPatience);

    // The two halves of a call, for pipelining. SendCall returns the xid.
    std::uint32_t SendCall(std::uint32_t program, std::uint32_t version, std::uint32_t procedure,
                           const Bytes& arguments = {});
    // The next reply, whatever its xid.
    RpcReply ReceiveReply(Milliseconds timeout = kPatience);
    std::optional<RpcReply> TryReceiveReply(Milliseconds timeout = kPatience);

    // Bytes as they are: on TCP without a record mark of ours, on UDP one datagram.
    void SendRaw(const Bytes& bytes);
    // False when the peer takes no more bytes in time or has gone.
    [[nodiscard]] bool TrySendRaw(const Bytes& bytes, Milliseconds timeout);
    // What comes next: on TCP at most `most` bytes, on UDP one datagram. Empty when nothing comes
    // in time or the peer has closed.
    Bytes ReceiveRaw(std::size_t most, Milliseconds timeout = kPatience);
    // True when the peer has closed the connection, within the time.
    bool PeerClosed(Milliseconds timeout = kPatience);

    void ShutdownWrite();
    void Close();
    int Fd() const { return m_fd; }
    int LocalPort() const;

private:
    void SendMessage(const Bytes& call);
    bool WaitReady(short events, Milliseconds timeout) const;

    Transport m_transport;
    int m_fd = -1;
    std::uint32_t m_nextXid;
    OpaqueAuth m_credential;
    OpaqueAuth m_verifier;
    Milliseconds m_retransmission{0};
    Bytes m_received;  // TCP: bytes of a record that is not complete yet
};

}  // namespace support
