// A client library that others wrote, for the tests that link it.
#pragma once

#include <sys/time.h>
// libnfs.h takes struct timeval from its includer.
#include <nfsc/libnfs.h>

#include <stdexcept>
#include <string>

namespace support {

// A client with one mounted export. nfs_umount tells the server; a client that goes without it
// leaves the export taken.
class LibnfsClient {
public:
    explicit LibnfsClient(int nfsPort = 2049, int mountPort = 1058) : m_nfs(nfs_init_context()) {
        nfs_set_timeout(m_nfs, 20'000);
        // A lost server shall fail the test and not be waited for.
        nfs_set_autoreconnect(m_nfs, 0);
        const std::string url = "nfs://127.0.0.1/?nfsport=" + std::to_string(nfsPort) +
                                "&mountport=" + std::to_string(mountPort) +
                                "&auto-traverse-mounts=0";
        nfs_url* parsed = nfs_parse_url_incomplete(m_nfs, url.c_str());
        if (parsed == nullptr) {
            throw std::runtime_error(nfs_get_error(m_nfs));
        }
        nfs_destroy_url(parsed);
    }
    ~LibnfsClient() {
        if (m_mounted) {
            Unmount();
        }
        nfs_destroy_context(m_nfs);
    }
    LibnfsClient(const LibnfsClient&) = delete;
    LibnfsClient& operator=(const LibnfsClient&) = delete;

    int Mount(const std::string& exportName) {
        const int result = nfs_mount(m_nfs, "127.0.0.1", exportName.c_str());
        m_mounted = result == 0;
        return result;
    }

    int Unmount() {
        m_mounted = false;
        return nfs_umount(m_nfs);
    }

    nfs_context* operator*() const { return m_nfs; }
    std::string Error() const { return nfs_get_error(m_nfs); }

private:
    nfs_context* m_nfs;
    bool m_mounted = false;
};

}  // namespace support
