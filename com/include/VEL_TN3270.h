/// @file
#ifndef COM_INCLUDE_VEL_TN3270_H
#define COM_INCLUDE_VEL_TN3270_H

#include "VELIoVec.h"
#include "VEL_FrameCodec.h"
#include "VEL_Transport.h"

constexpr unsigned int kVEL_TN3270RecvSize = 10000;  ///< the most bytes one receive takes

/// The TN3270 rules as a VEL_FrameCodec (see VEL_TN3270): a frame is whatever bytes have arrived.
class VEL_TN3270Codec : public VEL_FrameCodec {
public:
    VEL_TN3270Codec();
    ~VEL_TN3270Codec() override;

    /// The body as it is (no part for an empty body). Always kVELErr_Ok.
    VELErr_t encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) override;
    /// The target's body, sized to kVEL_TN3270RecvSize bytes; 0 when no such buffer can be had.
    unsigned long nextParts(VEL_Message* target, VELIoVec* parts, unsigned long* count) override;
    /// Completes the message with the bytes received, however few: kVELErr_Ok. kVELErr_Alloc
    /// (traced) when nextParts found no buffer.
    VELErr_t received(VEL_Message* target, unsigned long received) override;
    bool takesPartial() const override { return true; }
    void reset() override;
    /// A frame ends with its first byte.
    bool inFrame() const override { return false; }

private:
    VELErr_t _prepared;  ///< how nextParts' body allocation went
};

/// VEL_TN3270: the transport of TN3270 terminal streams. It adds no framing: a send writes the
/// message's bytes as they are, and a receive returns the bytes that have arrived, at most
/// kVEL_TN3270RecvSize at a time. Record boundaries are the application's business.
///
/// VEL_TN3270Codec holds these rules for any engine (a frame is whatever bytes have arrived);
/// VEL_TN3270 reads and writes them on a blocking socket.
///
/// Ownership: the socket is not owned (see VEL_Transport).
///
/// Thread safety: the format keeps no protocol state, but like every transport and codec an
/// object serves one socket and one thread at a time.
class VEL_TN3270 : public VEL_Transport {
public:
    /// A transport over `socket`, which it does not own.
    explicit VEL_TN3270(VEL_Socket* socket);
    ///@{
    /// Copies share the socket; each has a codec of its own (the format has no state to share).
    VEL_TN3270(const VEL_TN3270& other);
    VEL_TN3270& operator=(const VEL_TN3270& other);
    ///@}
    ~VEL_TN3270() override;

    /// Sends the message's bytes. kVELErr_Ok or the socket's error (traced).
    VELErr_t sendMessage(VEL_Message* message) override;
    /// Receives what is waiting, up to kVEL_TN3270RecvSize bytes, into the message's body; the
    /// message's size is the number of bytes received. kVELErr_Ok when at least one byte arrived;
    /// kVELErr_Incomplete (size 0, not traced) when none was waiting; kVELErr_Alloc; or the
    /// socket's error (size 0, traced), e.g. kVELErr_SockHalfClosed once the peer has closed.
    VELErr_t recvMessage(VEL_Message* message) override;

private:
    VEL_TN3270Codec _codec;
};

#endif  // COM_INCLUDE_VEL_TN3270_H
