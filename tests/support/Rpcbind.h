// A real system portmapper for the test's namespaces, and what it tells.
#pragma once

#include <set>
#include <string>

#include "support/Process.h"

namespace support {

// rpcbind, which serves while this lives.
class Rpcbind {
public:
    Rpcbind();
    ~Rpcbind() { m_process.Stop(); }
    void Stop() { m_process.Stop(); }

private:
    Process m_process;
};

// The lines of `rpcinfo -p` for our programs, as "program version protocol port".
std::multiset<std::string> Mappings();

}  // namespace support
