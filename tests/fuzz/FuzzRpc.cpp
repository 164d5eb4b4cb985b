// Feeds bytes to the RPC layer and the programs as a receive would, without a socket. The first
// byte chooses the port and the transport. Nothing is exported, so that every decoder runs and no
// file is touched.
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "InputStream.h"
#include "MountProg.h"
#include "NfsProg.h"
#include "OutputStream.h"
#include "PortmapProg.h"
#include "RpcServer.h"
#include "RuntimeParam.h"
#include "Socket.h"
#include "Utilities.h"

namespace {

constexpr int kPrograms[] = {100000, 100003, 100005};

struct Service {
    Service() {
        rpc.Set(100000, &portmap);
        rpc.Set(100003, &nfs);
        rpc.Set(100005, &mount);
    }
    CUtilities utilities;
    CRuntimeParam param{"fuzz", 0};
    CPortmapProg portmap{&utilities};
    CNfsProg nfs{&utilities};
    CMountProg mount{&utilities};
    CRpcServer rpc{&utilities, &param};
    CInputStream in;
    COutputStream out;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Service service;
    if (size == 0) {
        return 0;
    }
    const int program = kPrograms[data[0] % 3];
    const int type = (data[0] & 0x80) != 0 ? SOCKET_TYPE_UDP : SOCKET_TYPE_TCP;
    const auto count = static_cast<std::uint32_t>(size - 1);
    CInputStream& in = service.in;
    in.ResetBuffer();
    service.out.ResetBuffer();
    if (count > in.GetFreeBufferSize()) {
        return 0;
    }
    std::memcpy(in.GetFreeBuffer(), data + 1, count);
    in.AddFilledBufferSize(count);

    LogArgu label{"Fuzz"};
    int result = PROG_RESULT_DONE;
    while (result == PROG_RESULT_DONE &&
           service.rpc.LookForValidHeader(&service.param, &label,
                                          static_cast<unsigned long>(program), type, &in,
                                          &service.out)) {
        result = service.rpc.Process(&service.param, static_cast<unsigned long>(program), type, &in,
                                     &service.out, "127.0.0.1");
        if (service.out.GetBufferSize() > COutputStream::GetMaxBufferSize()) {
            __builtin_trap();
        }
        service.out.ResetBuffer();
    }
    return 0;
}
