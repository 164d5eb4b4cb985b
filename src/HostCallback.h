// What a host that runs the server in its own process offers: it takes log lines, and is told of
// changes to redirected files.
#ifndef VELOCAST_HOSTCALLBACK_H
#define VELOCAST_HOSTCALLBACK_H

// Thread safety: any thread may call; calls are not serialised.
class IHostCallback {
public:
    IHostCallback() = default;
    virtual ~IHostCallback() = default;
    IHostCallback(const IHostCallback&) = delete;
    IHostCallback& operator=(const IHostCallback&) = delete;

    // True when the line was delivered.
    virtual bool LogInfo(const char* pcID, const char* pcText) = 0;
    virtual bool LogError(const char* pcID, const char* pcText) = 0;
    virtual bool LogRaw(const char* pcID, const char* pcText) = 0;

    // The host's answer, -1 when it could not be asked.  0 is success; of a write it is the number
    // of bytes that the client is told.  Times are seconds, sizes and positions bytes.
    virtual int UpdateRedirectedFileAttributes(const char* pcID, const char* pcPath, bool bSize,
                                               unsigned long long iSize, bool bAccessTime,
                                               unsigned long lAccessTimeSec, bool bLastModifiedTime,
                                               unsigned long lLastModifiedTimeSec) = 0;
    virtual int RemoveRedirectedFile(const char* pcID, const char* pcPath) = 0;
    virtual int RenameRedirectedFile(const char* pcID, const char* pcPathFrom,
                                     const char* pcPathTo) = 0;
    virtual int WriteRedirectedFile(const char* pcID, const char* pcPath, unsigned long long iSeek,
                                    int iSeekType, unsigned int iLen) = 0;
};

#endif
