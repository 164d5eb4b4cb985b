// The paths of the sources of a redirected file, which its segments name by number.
#ifndef VELOCAST_SOURCELIST_H
#define VELOCAST_SOURCELIST_H

#include <cstdint>
#include <string>
#include <unordered_map>
#include <vector>

// Thread safety: none.
class CSourceList {
public:
    // The index of the path, which its first use appends.
    std::int32_t Register(const char* pcPath);
    void Clear();
    // In the order of first use.
    const std::vector<std::string>& GetAll() const { return m_vSource; }
    // Null for -1 and for an index that a record of somebody else may hold.  Valid until the next
    // change.
    const std::string* Get(std::int32_t iSource) const;
    // The path as log lines and listings show it: "Null" without one.
    const char* GetText(std::int32_t iSource) const;

private:
    std::vector<std::string> m_vSource;
    std::unordered_map<std::string, std::int32_t> m_mSourceIndex;  // of m_vSource
};

#endif
