/// @file
#ifndef FRAME_INCLUDE_VEL_FRAMEDACCEPTOR_H
#define FRAME_INCLUDE_VEL_FRAMEDACCEPTOR_H

#include <atomic>
#include <memory>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include "ThreadAnnotations.h"
#include "ThreadMutex.h"
#include "VEL_Err.h"
#include "VEL_EventHandler.h"
#include "VEL_SockAddr.h"
#include "VEL_SockOptions.h"

class VEL_ByteStream;
class VEL_FramedConnection;
class VEL_IOReactor;
class VEL_TCPAcceptor;
class VEL_TCPSocket;
class VEL_TLSContext;

/// Makes the connections of a VEL_FramedAcceptor and hears what becomes of the others.
class VEL_ConnectionFactory {
public:
    virtual ~VEL_ConnectionFactory();

    /// The connection over the stream of a freshly accepted connection (a VEL_TLSByteStream when
    /// the acceptor serves TLS, its handshake still to come), not yet started (the acceptor starts
    /// it), or null to turn the peer away. Reactor thread.
    virtual boost::shared_ptr<VEL_FramedConnection> makeConnection(
            VEL_IOReactor& reactor, std::unique_ptr<VEL_ByteStream> stream) = 0;
    /// A connection from `peer` was accepted and closed at once: `reason` is kVELErr_ReactorFull
    /// when the reactor holds as many handlers as its size, kVELErr_InvalidAction when
    /// makeConnection gave none, the failure of start(), of the socket's options or of the TLS
    /// session's set-up (kVELErr_TLSInit) otherwise.
    /// Reactor thread. Here: nothing.
    virtual void connectionRefused(const VEL_SockAddr& peer, VELErr_t reason);
    /// accept failed with the system error `err` (out of descriptors or memory): the acceptor
    /// stops listening for VEL_FramedAcceptor::kPauseSeconds. Reactor thread. Here: nothing.
    virtual void acceptPaused(int err);
};

/// VEL_FramedAcceptor: the listening side of a reactor server built on framed connections. It
/// listens on an address with a non-blocking socket, registered with a reactor; each time the
/// socket is readable it accepts every pending connection (at most kAcceptsPerDispatch per
/// dispatch, so that a flood of connections cannot hold the reactor), makes its byte stream, gives
/// that to a factory that makes its VEL_FramedConnection, and starts it.
///
/// @verbatim
///   class Factory : public VEL_ConnectionFactory {
///       boost::shared_ptr<VEL_FramedConnection> makeConnection(
///               VEL_IOReactor& reactor, std::unique_ptr<VEL_ByteStream> stream) override {
///           return VEL_FramedConnection::Create(reactor, std::move(stream),
///                   std::unique_ptr<VEL_FrameCodec>(new VEL_OXLv1Codec(1 << 20)), _handler);
///       }
///       ...
///   };
///   auto acceptor = VEL_FramedAcceptor::Create(reactor, VEL_SockAddr(7000, "127.0.0.1"), factory);
///   acceptor->useTLS(serverContext);                 // optional: TLS on every connection
///   acceptor->open();
/// @endverbatim
///
/// The stream is a VEL_TCPByteStream, or with useTLS a VEL_TLSByteStream whose server handshake
/// runs in the connection's first dispatches (within its handshakeDeadline): accepting never
/// waits on a peer, and a peer that fails its handshake costs the others nothing.
///
/// A connection that cannot be served (the reactor is full, the factory declines, start() fails)
/// is closed at once and reported to the factory's connectionRefused. When accept runs out of
/// descriptors or memory (EMFILE, ENFILE, ENOBUFS, ENOMEM), the pending connection would be
/// reported again at once and fail again: the acceptor stops listening for kPauseSeconds instead
/// (a timer of the process's VEL_TimerManager brings it back) and tells acceptPaused.
///
/// Ownership: the acceptor owns its listening socket; it holds the factory by shared pointer.
/// Connections belong to their reactor (and to whoever else holds them): closing the acceptor
/// leaves them open. Create it through Create (it is shared: enable_shared_from_this).
///
/// Thread safety: open() and close() from any thread; the factory is called on the reactor thread.
class VEL_FramedAcceptor : public VEL_EventHandler,
                           public boost::enable_shared_from_this<VEL_FramedAcceptor> {
public:
    /// Seconds without accepting after running out of descriptors or memory.
    static constexpr unsigned long kPauseSeconds = 1;
    /// Connections accepted per dispatch at most; the rest at the next one.
    static constexpr unsigned int kAcceptsPerDispatch = 128;

    /// Accepted sockets get no-delay: request/response traffic must not wait on Nagle's algorithm.
    static VEL_SockOptions DefaultConnectionOptions();

    /// An acceptor of `reactor` listening on `listen` (port 0: the system chooses, see
    /// getLocalAddr() after open()); accepted sockets get `options`. Null when memory runs out.
    static boost::shared_ptr<VEL_FramedAcceptor> Create(
            VEL_IOReactor& reactor, const VEL_SockAddr& listen,
            boost::shared_ptr<VEL_ConnectionFactory> factory,
            const VEL_SockOptions& options = DefaultConnectionOptions());
    ~VEL_FramedAcceptor() override;

    /// Serves TLS from now on: each accepted connection's stream is a VEL_TLSByteStream of
    /// `context`, a server context with its certificate and private key (its client verification
    /// applies). kVELErr_TLSNoCertificate when it is not such a context, kVELErr_TLSInit when it is
    /// invalid, kVELErr_InvalidAction once open, kVELErr_Alloc. Any thread.
    VELErr_t useTLS(const VEL_TLSContext& context);
    /// Listens and registers with the reactor for input. The listening socket's codes
    /// (kVELErr_Bind, kVELErr_Listen, ...), kVELErr_NonBlock, the reactor's (traced);
    /// kVELErr_InvalidAction when open already. Any thread.
    VELErr_t open();
    /// Leaves the reactor and closes the listening socket; accepted connections go on. Ok when
    /// not open. Any thread.
    VELErr_t close();

    /// The listening address (the port chosen by the system after open()).
    const VEL_SockAddr& getLocalAddr() const;
    ///@{
    /// Connections started, and connections accepted but refused, since creation. Any thread.
    unsigned long getAccepted() const { return _accepted.load(); }
    unsigned long getRefused() const { return _refused.load(); }
    ///@}

    ///@{
    /// Reactor call-backs: accept what is pending; close (the reactor's clean()).
    bool handleInput() override;
    bool handleClose() override;
    ///@}

private:
    class Resume;

    VEL_FramedAcceptor(VEL_IOReactor& reactor, const VEL_SockAddr& listen,
                       boost::shared_ptr<VEL_ConnectionFactory> factory,
                       const VEL_SockOptions& options);

    /// Accepts what is pending into `accepted`; `tls` gets the context they are served with.
    unsigned int acceptPending(std::unique_ptr<VEL_TCPSocket>* accepted, int* pausedFor,
                               std::shared_ptr<const VEL_TLSContext>* tls);
    void serve(std::unique_ptr<VEL_TCPSocket> socket, const VEL_TLSContext* tls);
    /// The stream of an accepted socket (TCP, or TLS of `tls`); null with *code set on failure.
    static std::unique_ptr<VEL_ByteStream> MakeStream(std::unique_ptr<VEL_TCPSocket> socket,
                                                      const VEL_TLSContext* tls, VELErr_t* code);
    void pause(int err);
    void resume();

    VEL_IOReactor& _reactor;
    const boost::shared_ptr<VEL_ConnectionFactory> _factory;
    const VEL_SockOptions _options;
    std::atomic<unsigned long> _accepted{0};
    std::atomic<unsigned long> _refused{0};
    /// Guards the listening socket's use and state: held while accepting and while opening or
    /// closing, so that the descriptor is never given back under an accept. Lock order: before
    /// the reactor's locks; never held while the factory runs or a timer is subscribed.
    mutable basis::ThreadMutex _lock;
    const std::unique_ptr<VEL_TCPAcceptor> _listener VEL_PT_GUARDED_BY(_lock);
    bool _open VEL_GUARDED_BY(_lock) = false;
    bool _paused VEL_GUARDED_BY(_lock) = false;
    /// The context of the TLS connections (null: plain TCP); the reactor thread serves a batch
    /// of connections with the one it copied under the lock.
    std::shared_ptr<const VEL_TLSContext> _tls VEL_GUARDED_BY(_lock);
};

#endif  // FRAME_INCLUDE_VEL_FRAMEDACCEPTOR_H
