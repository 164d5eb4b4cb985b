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

CSlashedPath::CSlashedPath(std::string_view sPath) {
    std::size_t iLen = std::min(sPath.size(), PATH_SIZE - 1);
    std::memcpy(m_cPath, sPath.data(), iLen);
    if (iLen > 0 && m_cPath[iLen - 1] != '/' && iLen + 1 < PATH_SIZE) {
        m_cPath[iLen++] = '/';
    }
    m_cPath[iLen] = '\0';
}
