/// @file
#ifndef COM_INCLUDE_VEL_TLSACCEPTOR_H
#define COM_INCLUDE_VEL_TLSACCEPTOR_H

#include <atomic>
#include <string>

#include "VEL_TCPAcceptor.h"
#include "VEL_TLSContext.h"

/// VEL_TLSAcceptor: listens like VEL_TCPAcceptor and hands out VEL_TLSSockets, by default once
/// their handshake has completed and the client has been verified as the context asks.
///
/// @verbatim
///   VEL_TLSContext context(kVELTLS_Server);
///   context.useCertificateChainFile("server-chain.pem");
///   context.usePrivateKeyFile("server-key.pem");
///   VEL_TLSAcceptor acceptor(7001, nullptr, context);
///   acceptor.open();
///   VEL_Socket* peer = nullptr;
///   if (acceptor.accept(peer) == kVELErr_Ok) { ...; delete peer; }
/// @endverbatim
///
/// accept() waits for the client's handshake for at most the handshake time-out (default 5 s): a
/// client that connects and stays silent holds the accepting thread that long. A server that
/// hands each connection to a thread of its own can defer the handshake (setDeferHandshake): the
/// socket then comes back at once, and its handshake runs in its first transfer or wait, or in
/// VEL_TLSSocket::handshake, on the connection's thread. A failed handshake affects that
/// connection only: the acceptor goes on listening.
///
/// Ownership and thread safety: see VEL_Acceptor. The context is shared, not copied.
class VEL_TLSAcceptor : public VEL_TCPAcceptor {
public:
    ///@{
    /// The endpoint to listen on (`host` null: all interfaces), the server context, and the
    /// listening options (as VEL_TCPAcceptor's).
    VEL_TLSAcceptor(unsigned short port, const char* host, const VEL_TLSContext& context);
    VEL_TLSAcceptor(const VEL_SockAddr& listen, const VEL_TLSContext& context);
    VEL_TLSAcceptor(const VEL_SockAddr& listen, const VEL_TLSContext& context,
                    const VEL_SockOptions& options);
    ///@}

    /// As VEL_TCPAcceptor::open, after checking the context: kVELErr_TLSNoCertificate when it is
    /// not a server context with a certificate and its key, kVELErr_TLSInit when it is invalid.
    VELErr_t open() override;
    /// Accepts a connection and, unless deferred, runs its handshake. The codes of
    /// VEL_TCPAcceptor::accept, then those of VEL_TLSSocket::handshake (kVELErr_Timeout,
    /// kVELErr_TLSHandshake, kVELErr_TLSCertificate, kVELErr_TLSProtocol, ...); on such a failure
    /// the connection is closed and no socket is handed out.
    VELErr_t accept(VEL_Socket*& out) override;

    ///@{
    /// The handshake time-out, whole seconds (default 5). Also given to the sockets handed out,
    /// for a deferred handshake. Any thread.
    unsigned char getHandshakeTimeOut() const { return _handshakeTimeOut.load(); }
    void setHandshakeTimeOut(unsigned char seconds) { _handshakeTimeOut.store(seconds); }
    ///@}
    ///@{
    /// When set, accept hands out sockets whose handshake is still to run (see above). Any
    /// thread.
    bool isDeferHandshake() const { return _deferHandshake.load(); }
    void setDeferHandshake(bool defer) { _deferHandshake.store(defer); }
    ///@}
    /// The context sessions are made from.
    const VEL_TLSContext& getContext() const { return _context; }
    /// Why the last accept's handshake failed (see VEL_TLSSocket::getFailureDetail); empty after
    /// an accept that succeeded. The thread that accepts.
    const std::string& getFailureDetail() const { return _failureDetail; }

private:
    VEL_TLSContext _context;
    std::string _failureDetail;
    std::atomic<unsigned char> _handshakeTimeOut;
    std::atomic<bool> _deferHandshake;
};

#endif  // COM_INCLUDE_VEL_TLSACCEPTOR_H
