#include "DataException.h"

#include <cstdio>

CDataTruncatedExpt::CDataTruncatedExpt(std::uint32_t iRequested, std::uint32_t iAvailable)
    : std::runtime_error("") {
    std::snprintf(m_cMessage, sizeof(m_cMessage), "Data is truncated.Missing %u data",
                  iRequested - iAvailable);
}
