// Makes the main object of an access mode.
#ifndef VELOCAST_MAINFACTORY_H
#define VELOCAST_MAINFACTORY_H

#include <memory>

class CNfsMain;

// Thread safety: any thread may call.
class CMainFactory {
public:
    // Null for an unknown access mode.  pcID may be null and then counts as the empty text.
    static std::unique_ptr<CNfsMain> Create(int iAccessMode, const char* pcID, int iLogControl);
};

#endif
