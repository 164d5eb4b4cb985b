#include "MainFactory.h"

#include "NfsIpcClientMain.h"
#include "NfsIpcServerMain.h"
#include "NfsMain.h"

std::unique_ptr<CNfsMain> CMainFactory::Create(int iAccessMode, const char* pcID, int iLogControl) {
    switch (iAccessMode) {
        case ACCESS_MODE_INTERNAL:
            return std::make_unique<CNfsMain>(pcID, iLogControl);
        case ACCESS_MODE_IPC_SERVER:
            return std::make_unique<CNfsIpcServerMain>(pcID, iLogControl);
        case ACCESS_MODE_IPC_CLIENT:
            return std::make_unique<CNfsIpcClientMain>(pcID, iLogControl);
        default:
            return nullptr;
    }
}
