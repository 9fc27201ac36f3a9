// VEL_TN3270: the transport of TN3270 terminal streams. It adds no framing: a send writes the
// message's bytes as they are, and a receive returns the bytes that have arrived, at most
// kVEL_TN3270RecvSize at a time. Record boundaries are the application's business.
//
// Ownership: the socket is not owned (see VEL_Transport).
//
// Thread safety: the object keeps no per-frame state, but like every transport it serves one
// socket and one thread at a time.
#ifndef COM_INCLUDE_VEL_TN3270_H
#define COM_INCLUDE_VEL_TN3270_H

#include "VEL_Transport.h"

constexpr unsigned int kVEL_TN3270RecvSize = 10000;

class VEL_TN3270 : public VEL_Transport {
public:
    explicit VEL_TN3270(VEL_Socket* socket) : VEL_Transport(socket) {}

    // Sends the message's bytes. kVELErr_Ok or the socket's error (traced).
    VELErr_t sendMessage(VEL_Message* message) override;
    // Receives what is waiting, up to kVEL_TN3270RecvSize bytes, into the message's body; the
    // message's size is the number of bytes received. kVELErr_Ok when at least one byte arrived;
    // kVELErr_Incomplete (size 0, not traced) when none was waiting; kVELErr_Alloc; or the
    // socket's error (size 0, traced), e.g. kVELErr_SockHalfClosed once the peer has closed.
    VELErr_t recvMessage(VEL_Message* message) override;
};

#endif  // COM_INCLUDE_VEL_TN3270_H
