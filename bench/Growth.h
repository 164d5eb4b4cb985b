// How the cost of an operation grows with what a server holds.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Subject.h"

namespace bench {

// Each prints a line for every level and operation. The levels ascend.
struct Growth {
    Subject subject;
    std::vector<std::uint64_t> levels;
    int rounds = 3;
    double seconds = 0.3;  // of a round
};

// paths, exports, sessions, descriptors, segments-memory, segments-info, entries, connections, log,
// requests. Throws for another name.
void MeasureGrowth(const std::string& what, const Growth& growth);

// Starts a server program in this network, waits for its first answer, and stops it with `quit`
// while connections are idle.
void MeasureLife(const std::string& program);

}  // namespace bench
