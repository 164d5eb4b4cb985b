#include "PortSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstdint>

#include "Socket.h"

CDescriptor MakeSocket(int iKind) { return CDescriptor(socket(AF_INET, iKind | SOCK_CLOEXEC, 0)); }

bool BindToPort(const CDescriptor& socket, int iPort) {
    if (iPort < 0 || iPort > UINT16_MAX) {
        errno = EINVAL;
        return false;
    }
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_ANY);
    addr.sin_port = htons(static_cast<std::uint16_t>(iPort));
    return bind(socket.Get(), reinterpret_cast<const sockaddr*>(&addr), sizeof(addr)) == 0;
}

CSocketErrorText::CSocketErrorText() {
    CUtilities::GetLastErrorText(m_cText, SocketGetLastError());
}
