/// @file
#ifndef COM_INCLUDE_VEL_TRANSPORT_H
#define COM_INCLUDE_VEL_TRANSPORT_H

#include "VEL_Err.h"

class VEL_FrameCodec;
class VEL_Message;
class VEL_Socket;

/// VEL_Transport: the abstract base of every framing protocol. A transport turns the byte stream
/// of a socket into a sequence of VEL_Message objects and back: sendMessage writes one message as
/// one frame, recvMessage reads one frame into a message.
///
/// A transport moves bytes only through the socket's virtual transfers (send, recv, recvAvail,
/// writev, readv), so it runs over any VEL_Socket: a TCP socket, a pipe, or a socket that reads
/// from memory.
///
/// After a failed receive the stream is not resynchronised: the rest of the bad frame stays
/// unread, and the caller is expected to close the connection.
///
/// Ownership: the transport does not own its socket; the socket must outlive every call. Copies
/// share the socket.
///
/// Thread safety: distinct objects are independent. One transport object serves one socket and
/// one thread at a time: the protocols keep per-frame state (header blocks, flags) in the object.
class VEL_Transport {
public:
    /// A transport over `socket`, which it does not own.
    explicit VEL_Transport(VEL_Socket* socket) : _socket(socket) {}
    ///@{
    /// The copy shares the socket.
    VEL_Transport(const VEL_Transport& other) = default;
    VEL_Transport& operator=(const VEL_Transport& other) = default;
    ///@}
    virtual ~VEL_Transport();

    /// Sends `message` as one frame. kVELErr_Ok, a protocol's own failure, or the socket's error.
    /// Every transport returns kVELErr_InvalidPointer for a null message and kVELErr_InvalidSocket
    /// without a socket.
    virtual VELErr_t sendMessage(VEL_Message* message) = 0;
    /// Receives one frame into `message`, whose body is resized to the frame's body. kVELErr_Ok,
    /// a protocol's own failure, or the socket's error (the same argument checks as sendMessage).
    virtual VELErr_t recvMessage(VEL_Message* message) = 0;

    /// The socket the transport runs over.
    VEL_Socket* getSocket() const { return _socket; }

protected:
    /// The argument checks every operation starts with: kVELErr_InvalidSocket without a socket,
    /// kVELErr_InvalidPointer for a null message (both traced), otherwise kVELErr_Ok.
    VELErr_t checkArguments(const VEL_Message* message) const;
    /// Reads the rest of the frame under way in `codec` into `message`: the places the codec
    /// names, in one scattered read each time it names some. kVELErr_Ok when the frame is whole;
    /// otherwise the socket's failure (untraced; *fromSocket set true when given) or the codec's
    /// (traced by the codec; *fromSocket false).
    /// REQUIRES: the codec is in a frame (after its header).
    VELErr_t readRest(VEL_FrameCodec& codec, VEL_Message* message,
                      bool* fromSocket = nullptr) const;
    /// Checks the arguments, then sends `message` as `codec` frames it, in one gathered write.
    /// kVELErr_Ok, the argument check's status, the codec's refusal (traced by the codec) or
    /// the socket's failure (traced as from `file` at `line`: the transport that calls).
    VELErr_t sendFramed(VEL_FrameCodec& codec, VEL_Message* message,
                        const char* file = __builtin_FILE(),
                        unsigned long line = __builtin_LINE()) const;
    /// Reads the header `codec` asks for in one recv and hands it to the codec: the codec's
    /// status (kVELErr_Incomplete when the frame goes on past its header). A failed recv is
    /// traced as from `file` at `line`, sets *fromSocket and returns the socket's status.
    /// REQUIRES: the codec is between frames.
    VELErr_t readFrameHeader(VEL_FrameCodec& codec, VEL_Message* message, bool* fromSocket,
                             const char* file = __builtin_FILE(),
                             unsigned long line = __builtin_LINE()) const;

private:
    VEL_Socket* _socket;
};

#endif  // COM_INCLUDE_VEL_TRANSPORT_H
