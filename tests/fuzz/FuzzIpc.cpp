// Feeds messages to the local channel as a read would, without a socket: requests and callbacks go
// through the same parser. The first byte chooses what the operations answer (bit 0) and whether
// messages are traced (bit 1).
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "FuzzMain.h"
#include "IpcServer.h"
#include "RuntimeParam.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static const bool dropped = fuzz::DropOutput();
    static fuzz::FuzzMain main;
    if (!dropped || size == 0) {
        return 0;
    }
    main.SetResult((data[0] & 1) == 0);
    main.GetRuntimeParam()->SetLogControl((data[0] & 2) != 0 ? 1023 : 0);
    CIpcServer server(&main);

    // On the heap, where a byte beside it is noticed.
    const auto message = std::make_unique<IpcDataInst>();
    const std::size_t count = std::min(size - 1, sizeof message->request.cBuf);
    std::memcpy(message->request.cBuf, data + 1, count);
    message->request.lDataLen = static_cast<std::int32_t>(count);
    LogArgu label{"Fuzz"};
    server.ParseData(&label, message.get());

    if (message->reply.lDataLen < static_cast<std::int32_t>(sizeof(Ipc_Header)) ||
        message->reply.lDataLen > static_cast<std::int32_t>(sizeof message->reply.cBuf) ||
        message->reply.Get<Ipc_Header>().iGroup != IPC_GROUP_REPLY) {
        __builtin_trap();
    }
    return 0;
}
