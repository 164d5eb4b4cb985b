#include "Descriptor.h"

#include <unistd.h>

#include <cerrno>
#include <utility>

CDescriptor& CDescriptor::operator=(CDescriptor&& other) noexcept {
    if (this != &other) {
        Reset(other.Release());
    }
    return *this;
}

int CDescriptor::Release() { return std::exchange(m_fd, -1); }

void CDescriptor::Reset(int fd) {
    const int fdOld = std::exchange(m_fd, fd);
    if (fdOld != -1) {
        const int iError = errno;
        close(fdOld);  // not tried again after EINTR: the number may already be somebody else's
        errno = iError;
    }
}
