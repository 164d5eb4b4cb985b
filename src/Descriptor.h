// Owns an open file descriptor.
#ifndef VELOCAST_DESCRIPTOR_H
#define VELOCAST_DESCRIPTOR_H

// Closes what it owns when it ends; -1 is none.  Errors of close(2) are not told here: who must
// know of them (a file that was written to) closes through the file access layer.
//
// Thread safety: none.
class CDescriptor {
public:
    CDescriptor() = default;
    explicit CDescriptor(int fd) : m_fd(fd) {}
    ~CDescriptor() { Reset(); }
    CDescriptor(CDescriptor&& other) noexcept : m_fd(other.Release()) {}
    CDescriptor& operator=(CDescriptor&& other) noexcept;
    CDescriptor(const CDescriptor&) = delete;
    CDescriptor& operator=(const CDescriptor&) = delete;

    int Get() const { return m_fd; }
    bool IsOpen() const { return m_fd != -1; }

    // Gives the descriptor up without closing it.
    [[nodiscard]] int Release();
    // Closes what it owns and takes over fd.  errno stays as it was: callers close on their way out
    // of a failure.
    void Reset(int fd = -1);

private:
    int m_fd = -1;
};

#endif
