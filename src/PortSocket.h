// What every socket of a port needs: a descriptor, the port itself, and words for a failure.
#ifndef VELOCAST_PORTSOCKET_H
#define VELOCAST_PORTSOCKET_H

#include "Descriptor.h"
#include "Utilities.h"

// An IPv4 socket of that kind (SOCK_STREAM, SOCK_DGRAM) that child processes do not inherit.  Not
// open, with errno set, on failure.
CDescriptor MakeSocket(int iKind);

// Binds the socket to the port on the wildcard address.  False, with errno set, on failure; a
// number that is no port is refused, as cut to 16 bits it would be another one.
bool BindToPort(const CDescriptor& socket, int iPort);

// The words of the system for the error that errno holds at construction.
class CSocketErrorText {
public:
    CSocketErrorText();

    const char* Get() const { return m_cText; }

private:
    char m_cText[STATUS_SIZE] = "";
};

#endif
