// The one exception of the design: the input ended inside an item.
#ifndef VELOCAST_DATAEXCEPTION_H
#define VELOCAST_DATAEXCEPTION_H

#include <cstdint>
#include <stdexcept>

// Thrown by CInputStream, caught in the RPC layer and in the programs.
class CDataTruncatedExpt : public std::runtime_error {
public:
    // Both in bytes; iRequested is larger than iAvailable.
    CDataTruncatedExpt(std::uint32_t iRequested, std::uint32_t iAvailable);

    const char* what() const noexcept override { return m_cMessage; }

private:
    char m_cMessage[255];
};

#endif
