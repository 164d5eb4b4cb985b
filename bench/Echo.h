// The bare pair: what the machine can do at best with messages of the same sizes. The server
// receives like the measured one (a thread a connection, a large buffer, one `send` a reply) and
// does nothing else, or one `pread` or `pwrite` with the data.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Workload.h"

namespace bench {

// What an echo call holds behind its record mark and xid, in the place of the call's header.
struct EchoCall {
    std::uint32_t replySize = 0;  // with the mark
    Io io = Io::None;
    std::uint32_t fileIndex = 0;  // 0: the read file, else one more than a write file's
    std::uint32_t count = 0;      // bytes, at the end of the reply or of the call
    std::uint64_t offset = 0;
};
inline constexpr std::size_t kEchoCallSize = 8 + 24;  // mark and xid included
void PutEchoCall(std::uint8_t* record, const EchoCall& call);

// Serves TCP and UDP on the echo port, with the files of a subject's folder, until it is killed.
[[noreturn]] void ServeEcho(const std::string& folder);

}  // namespace bench
