#include "Paths.h"

#include <algorithm>
#include <cstring>

void CopyPath(char* pcDst, const char* pcSrc) {
    const std::size_t iLen = std::min(std::strlen(pcSrc), PATH_SIZE - 1);
    std::memcpy(pcDst, pcSrc, iLen);
    pcDst[iLen] = '\0';
}

bool IsBelow(std::string_view sPath, std::string_view sFolder) {
    if (sFolder.empty()) {
        return true;
    }
    if (sFolder.ends_with('/')) {
        sFolder.remove_suffix(1);
    }
    if (!sPath.starts_with(sFolder)) {
        return false;
    }
    return sPath.size() > sFolder.size() ? sPath[sFolder.size()] == '/'
                                         : !sPath.empty() && !sPath.ends_with('/');
}

std::string WithSlash(std::string_view sPath) {
    std::string sResult(sPath);
    if (!sResult.empty() && sResult.back() != '/') {
        sResult += '/';
    }
    return sResult;
}
