// What velcat's client and listener share: one protocol's transport over a socket or pipe, the
// printing of received bodies, and a trace sink on standard error.
#ifndef TOOLS_VELCAT_FRAMING_H
#define TOOLS_VELCAT_FRAMING_H

#include <memory>
#include <string>

#include "Options.h"
#include "VEL_Err.h"
#include "VEL_TraceHandler.h"

class VEL_FrameCodec;
class VEL_HOLM;
class VEL_Message;
class VEL_OXLv2;
class VEL_Socket;
class VEL_Transport;

namespace velcat {

// The transport of one protocol over `socket` (not owned). Thread safety: one thread at a time,
// as every transport.
class Framing {
public:
    Framing(Protocol protocol, VEL_Socket* socket, unsigned long maxSize);
    ~Framing();
    Framing(const Framing&) = delete;
    Framing& operator=(const Framing&) = delete;

    // The transport's recvMessage; kVELErr_MessageTooBig for a body above `maxSize` (the
    // transports that know the limit refuse it before reading it).
    VELErr_t receive(VEL_Message& message);
    // The transport's sendMessage. While compression is on (asked with -z, or following the
    // peer), a body that cannot be compressed (kVELErr_Compression: empty, or a stream that does
    // not fit its room) is sent plain for this one message.
    VELErr_t send(VEL_Message& message);
    // OXLv2 and HOLM; nothing for the other protocols.
    void setCompression(bool on);
    // HOLM: opens a session as initiator (kVELErr_InvalidAction for the other protocols).
    VELErr_t openSecureSession();
    // HOLM: closes the session and opens a new one, announced in the next frame (for a peer
    // that has never seen this side's key). Ok without a session to renew.
    VELErr_t renewSecureSession();

private:
    bool compressing() const;

    const unsigned long _maxSize;
    std::unique_ptr<VEL_Transport> _transport;
    VEL_OXLv2* _oxl2 = nullptr;  // _transport, when it is one
    VEL_HOLM* _holm = nullptr;   // _transport, when it is one
};

// The codec of `protocol` (bodies of at most `maxSize` bytes where the format has a limit), as a
// server starts it: no compression, no session of its own.
std::unique_ptr<VEL_FrameCodec> MakeCodec(Protocol protocol, unsigned long maxSize);
// Switches the compression of the codecs that have one (oxl2, holm); nothing for the others.
void SetCompression(VEL_FrameCodec& codec, bool on);

// Writes the body, raw or as lowercase hex, and a newline to standard output in one write.
// False when standard output refuses it.
bool PrintBody(const VEL_Message& message, bool hex);

// Writes one line to standard error, prefixed "velcat: ".
void Say(const std::string& text);

// "<host = a.b.c.d, port = n>" of the socket's peer.
std::string PeerText(const VEL_Socket& socket);

// A trace sink that writes "<file #line> <TID #n> LEVEL - text" lines to standard error, so that
// standard output carries nothing but message bodies.
class StderrTraceSink : public VEL_TraceHandler {
public:
    explicit StderrTraceSink(unsigned short flags)
        : VEL_TraceHandler(flags, 0xFFFFFFFF, 0xFFFFFFFF) {}
    void output(const char* file, unsigned long line, unsigned short level,
                const char* text) override;
};

// Traces "velcat - <status text> ; <detail>" at the error level when network errors are traced.
void TraceFailure(VELErr_t code, const std::string& detail);

}  // namespace velcat

#endif  // TOOLS_VELCAT_FRAMING_H
