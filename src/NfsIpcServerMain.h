// A server process that other processes drive over the local channel.
#ifndef VELOCAST_NFSIPCSERVERMAIN_H
#define VELOCAST_NFSIPCSERVERMAIN_H

#include <memory>

#include "IpcWaits.h"
#include "NfsMain.h"

class CIpcServerThread;
struct LogArgu;

class CNfsIpcServerMain : public CNfsMain {
public:
    CNfsIpcServerMain(const char* pcID, int iLogControl);
    ~CNfsIpcServerMain() override;

    // Refuses an identity that cannot name a channel.
    bool Initial(char* pcStatus) override;
    // Opens the channel, unless a living process answers on it.  After a failure to open it,
    // further calls do nothing and succeed.
    bool StartRemoteController(char* pcStatus) override;
    void StopRemoteController() override;
    int GetAccessMode() const override;
    void GetDescription(char* pcDescription) const override;
    void InitMemberVaribles(const char* pcID, int iLogControl) override;
    std::unique_ptr<CUtilities> CreateUtilities() override;

    // The channel that this process listens on, in IPC_CHANNEL_SIZE bytes.
    virtual void GetIpcServerThreadChannel(char* pcChannel);

protected:
    // For a variant, which calls its own InitMemberVaribles.
    CNfsIpcServerMain();

    // Ends the serving of the channel, which calls this object's operations.
    void CloseIpcServerThread();

private:
    bool OpenIpcServerThread(const LogArgu& logArgu, char* pcStatus);

    CIpcWaits m_ProbeWaits;  // of the question whether somebody else owns the channel
    std::unique_ptr<CIpcServerThread> m_pIpcServerThread;  // null until the controller starts
};

#endif
