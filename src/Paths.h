// Paths as text.
#ifndef VELOCAST_PATHS_H
#define VELOCAST_PATHS_H

#include <cstddef>
#include <string_view>

// Bytes of a path buffer, its NUL included.
inline constexpr std::size_t PATH_SIZE = 4096;

// Copies a text into a buffer of PATH_SIZE bytes, cut to fit.
void CopyPath(char* pcDst, const char* pcSrc);

// Whether a path is that of the folder, or lies below it.  Folders are compared whole ("/a" is not
// above "/ab"); a '/' at the end of either changes nothing.  Everything lies below the empty
// folder.
bool IsBelow(std::string_view sPath, std::string_view sFolder);

// A path with a '/' at its end, unless it is empty, and cut to fit; needs no memory of the heap.
class CSlashedPath {
public:
    explicit CSlashedPath(std::string_view sPath);
    const char* Get() const { return m_cPath; }

private:
    char m_cPath[PATH_SIZE];
};

#endif
