/// @file
#ifndef FRAME_INCLUDE_VEL_PIPE_H
#define FRAME_INCLUDE_VEL_PIPE_H

#include <atomic>
#include <deque>
#include <list>
#include <memory>
#include <string>

#include <boost/shared_ptr.hpp>

#include "ThreadAnnotations.h"
#include "ThreadMutex.h"
#include "TimeValue.h"
#include "VELIoVec.h"
#include "VEL_Err.h"
#include "VEL_EventHandler.h"
#include "VEL_IOReactor.h"
#include "VEL_SelectIOReactor.h"
#include "VEL_SockOptions.h"
#include "VEL_Socket.h"

class VEL_Pipe;
class VEL_PipeEH;

/// One server endpoint of a pipe.
struct VELPipeEndpoint_t {
    unsigned short port;             ///< the server's port
    std::string host;                ///< the server's host name or address
    basis::TimeValue nextRetryTime;  ///< monotonic; no new connection is tried before it
};

/// One live connection of a pipe.
struct VELPipeConnection_t {
    VELPipeEndpoint_t* endpoint;               ///< where it is connected
    VEL_Socket* socket;                        ///< the connected socket, owned by the connection
    boost::shared_ptr<VEL_PipeEH> evtHandler;  ///< registered in the pipe's reactor for input
    /// The peer has shut down its sending side: no more sends; read until drained, then dropped.
    bool draining;
};

/// What a pipe tells its application about its connections, with the host and port of the
/// endpoint concerned. Each operation does nothing here; override those of interest. Called with
/// the pipe lock held, from the thread that calls the pipe: an override must not call the pipe.
class VEL_PipeNotifier {
public:
    virtual ~VEL_PipeNotifier() = default;

    /// A connection was made (open, reconnects).
    virtual void connectionEstablished(const std::string& host, unsigned short port);
    /// The connection to this endpoint carries the next send, or has input for the next read.
    virtual void connectionUsed(const std::string& host, unsigned short port);
    /// A connection attempt to this endpoint failed.
    virtual void connectionFailed(const std::string& host, unsigned short port);
    /// A live connection to this endpoint was dropped.
    virtual void connectionDiscarded(const std::string& host, unsigned short port);
};

/// The handler of one pipe connection in the pipe's reactor: input on the connection puts it on
/// the pipe's ready list.
///
/// Ownership: the reactor and the connection record share it; it points to both without owning
/// them, and the pipe removes it from the reactor before it frees the connection.
///
/// Thread safety: handleInput runs on the thread that drives the pipe's reactor.
class VEL_PipeEH : public VEL_EventHandler {
public:
    /// A handler for the socket of `connection`; null when it cannot be allocated.
    static boost::shared_ptr<VEL_PipeEH> Create(VELPipeConnection_t* connection, VEL_Pipe* pipe);

    /// Tells the pipe that the connection has input. Always true.
    bool handleInput() override;

private:
    VEL_PipeEH(VELPipeConnection_t* connection, VEL_Pipe* pipe);

    VELPipeConnection_t* const _connection;
    VEL_Pipe* const _pipe;
};

/// Builds the private reactor of a pipe (not yet initialised): at most `size` handlers, waits of
/// at most `idleTimeout`. Null or std::bad_alloc when it cannot.
using VELPipeReactorFactory_t =
        std::unique_ptr<VEL_IOReactor> (*)(unsigned long size, const basis::TimeValue& idleTimeout);

/// VEL_Pipe: a client-side message channel to a list of server endpoints, kept open by itself.
///
/// @verbatim
///   VEL_TCPPipe pipe(false);                      // multi-connection mode
///   pipe.addConnection(7001, "10.0.0.1");
///   pipe.addConnection(7001, "10.0.0.2");
///   pipe.setRetryTime(30);
///   if (pipe.open() == kVELErr_Ok) {
///       pipe.send(request, length);                // over one live connection, in turn
///       pipe.recv(answer, size);                   // from whichever connection has input
///   }
/// @endverbatim
///
/// Two modes, chosen at construction:
/// - multi-connection (false): connects to every endpoint; sends take the live connections in
///   turn, in the order in which they were made; after each successful send or receive the pipe
///   tries to bring back the endpoints it lost, each once its retry time has passed.
/// - failover (true): open() starts at an endpoint chosen at random (the primary) and holds one
///   connection; while it is connected elsewhere, every send first tries the primary again once
///   the primary's retry time has passed, and moves over to it when it answers.
/// A connection that fails (a reset, the end of its stream, a send or receive error) is discarded
/// as soon as the pipe notices it, in both modes, and traffic goes on over the others; its
/// endpoint waits for its retry time (setRetryTime, default 600 s) before the background reconnect
/// tries it again. A connection whose peer has shut down its sending side carries no more sends
/// (the probe made before each send sees it, even behind unread input): the input it brought
/// stays readable by recv() until consumed, then the connection is discarded. A send or receive
/// that finds no live connection at all tries every endpoint at once, whatever its retry time.
///
/// The pipe is a VEL_Socket, so a framing transport runs over it as over a socket: send() sends
/// one buffer over one connection; writev() gathers its elements into one buffer and sends that,
/// so a frame never straddles connections; recv() reads from a connection that has input, and
/// readv() reads every element from the connection that served the previous recv(). Transports
/// that read a header with recv() and the rest with readv() (OXLv1, OXLv2, HOLM) therefore work in
/// both modes. Transports that read a frame with two recv() calls (OXLv5) work in failover mode
/// only, where one connection carries everything. recvAvail() reads what has arrived on one
/// connection; TN3270, which reads its records that way, works in failover mode only too.
///
/// Waiting for input: the pipe owns a private reactor (a select reactor unless the constructor is
/// given another factory) that recv() drives from the calling thread; the reactor's own thread is
/// never started. A receive waits in the reactor at most 2 s at a time (less with a receive
/// time-out below 3 s) and at most until its deadline; a receive time-out of 0 still polls once,
/// so that input already waiting is read. recv() has one contract that callers must know: when it
/// finds no live connection and manages to reconnect, it returns kVELErr_Timeout without reading,
/// and the caller calls it again.
///
/// Time-outs (whole seconds, deadlines on the monotonic clock, as retry times): the send time-out
/// (default 10 s) bounds a whole send, over however many connections it tries and however many
/// partial writes a slow peer accepts, plus one connect time-out when it must reconnect. The
/// receive time-out (default 10 s) bounds a whole recv (and each readv) the same way, whatever
/// the peers do: a peer that trickles its message or stops in the middle of it has its
/// connection dropped at the deadline (kVELErr_Timeout), since the rest of its stream could no
/// longer be framed. Connections are made with the pipe's socket options (setSockOptions), by
/// default native time-outs on with the pipe's send and receive time-outs (at least 1 s, at most
/// 254 s); the pipe's own transfers do not depend on them.
///
/// Ownership: the pipe owns its endpoint records, its connections with their sockets and event
/// handlers, and its reactor; it does not own the notifier. A subclass supplies the transport
/// (doConnect, doSend, doRecv, doHasRecv, doCheckPeer, doPurge): see VEL_TCPPipe.
///
/// Thread safety: distinct pipes are independent. Any thread may call send, recv, purge and the
/// setters; the pipe lock serialises them, except that a thread waiting in recv() for input holds
/// only the reactor lock, so that sends go on meanwhile. A recv() holds the pipe lock while it
/// reads a message, at most until its deadline: a send or close() from another thread waits no
/// longer than that. A transport object over a pipe is used by one thread at a time, as over a
/// socket. close() ends a recv() waiting in another thread (kVELErr_PipeClosed). Stop every call
/// before destroying the pipe. The notifier is called with the pipe lock held: it must not call
/// the pipe.
class VEL_Pipe : public VEL_Socket {
public:
    /// The factory of a reactor back end, e.g. &VEL_Pipe::MakeReactor<VEL_SelectIOReactor>.
    template <class Reactor>
    static std::unique_ptr<VEL_IOReactor> MakeReactor(unsigned long size,
                                                      const basis::TimeValue& idleTimeout) {
        return std::unique_ptr<VEL_IOReactor>(new Reactor(size, idleTimeout));
    }

    ///@{
    /// Handlers the private reactor takes, and its longest wait.
    static constexpr unsigned long kReactorSize = 1000;
    static constexpr long kMaxWaitSeconds = 2;
    ///@}

    /// Calls close().
    ~VEL_Pipe() override;

    /// Adds an endpoint, tried at the next open() or reconnect. kVELErr_InvalidPointer for a null
    /// host, kVELErr_Alloc. Any thread.
    VELErr_t addConnection(unsigned short port, const char* host);

    /// Prepares the reactor (a new one after close()), then connects: in failover mode to the
    /// first endpoint that answers, starting at a random one, which becomes the primary; otherwise
    /// to every endpoint. An endpoint that does not answer waits for its retry time. The pipe is
    /// open from here on, even when no endpoint answered (sends and receives reconnect), until
    /// close(); every connection it holds is registered for input.
    /// kVELErr_PipeNoConnection (traced) when no connection is live, the reactor's failure, or a
    /// registration's failure (traced).
    VELErr_t open() override;
    /// Stops the reactor (a recv() waiting in it returns kVELErr_PipeClosed), closes every
    /// connection, forgets every endpoint (add them again before the next open()) and deletes the
    /// reactor. Always kVELErr_Ok. Until the next open() the pipe makes no connection.
    VELErr_t close() override;
    /// Sends `length` bytes over the next live connection. A connection that fails, or whose peer
    /// has shut down its sending side, is left for the next one, until the send time-out has
    /// passed: kVELErr_Timeout (traced). kVELErr_PipeNoConnection when no endpoint answers
    /// (traced). Before open() and after close(), no connection is made: kVELErr_PipeClosed, or
    /// kVELErr_PipeNoConnection (traced) while no endpoint has been added (close() forgets them).
    VELErr_t send(const char* data, unsigned int length) override;
    /// Receives exactly `length` bytes from a connection that has input. kVELErr_Timeout when
    /// nothing came within the receive time-out, and also, without reading, when the pipe had no
    /// live connection and has just reconnected (call again). A message still incomplete at the
    /// deadline drops its connection: kVELErr_Timeout. kVELErr_PipeClosed before open() and after
    /// close(), kVELErr_PipeNoConnection when no endpoint answers. A connection that fails is
    /// discarded.
    VELErr_t recv(char* buffer, unsigned int length) override;
    /// As recv(), but takes what has arrived on one connection with input, up to `*length` bytes,
    /// and sets `*length` to the count read: kVELErr_Ok when it filled the buffer,
    /// kVELErr_Incomplete when it read less. On other statuses `*length` is 0.
    VELErr_t recvAvail(char* buffer, unsigned int* length) override;
    /// Waits until a live connection has input, without reading it, or until `limit` has passed
    /// (null: no limit). A connection found closed or failed meanwhile is discarded at once and the
    /// wait goes on over the others. A pipe without a live connection first reconnects, as recv()
    /// does. kVELErr_Ok; kVELErr_Timeout;
    /// kVELErr_PipeClosed once closed (close() ends a wait in progress); kVELErr_PipeNoConnection
    /// when no endpoint answers; a failure of the reactor's wait. Like recv(), it holds only the
    /// reactor lock while it waits, so that another thread may send meanwhile.
    VELErr_t waitForRead(const basis::TimeValue* limit) override;
    /// Gathers the elements and sends them as one buffer (as send()). kVELErr_MessageTooBig above
    /// 4 GiB - 1 in all, kVELErr_Alloc.
    VELErr_t writev(VELIoVec* v, unsigned long n) override;
    /// Fills every element from the connection that served the previous recv(), within the receive
    /// time-out; on a failure (kVELErr_Timeout included) that connection is discarded.
    /// kVELErr_PipeNoConnection when there is none (nothing read yet, or discarded since).
    VELErr_t readv(VELIoVec* v, unsigned long n) override;
    /// Drains the input waiting on every live connection (see doPurge). kVELErr_Ok when each
    /// ended with nothing more waiting; otherwise the first other status. A connection whose
    /// purge failed is discarded, except for kVELErr_Incomplete (more input than one purge reads:
    /// purge again).
    VELErr_t purge();

    ///@{
    /// Seconds. Each applies to the next operation; the send and receive time-outs also become
    /// the native time-outs of connections made afterwards.
    void setRetryTime(unsigned long seconds);
    void setSendTimeout(unsigned long seconds);
    unsigned long getSendTimeout() const { return _sendTimeout.load(); }
    void setRecvTimeout(unsigned long seconds);
    unsigned long getRecvTimeout() const { return _recvTimeout.load(); }
    ///@}
    /// The options of connections made afterwards (replacing the defaults described above).
    void setSockOptions(const VEL_SockOptions& options);
    /// The notifier told about connections (null: none); the pipe does not own it.
    void setPipeNotifier(VEL_PipeNotifier* notifier);

protected:
    friend class VEL_PipeEH;

    /// `failover` chooses the mode. Builds the reactor with `reactorFactory`; std::bad_alloc
    /// when it cannot.
    explicit VEL_Pipe(bool failover,
                      VELPipeReactorFactory_t reactorFactory = &MakeReactor<VEL_SelectIOReactor>);

    /// Takes the first live connection that may carry sends (not draining) and moves it to the
    /// back of the list. kVELErr_PipeNoConnection when there is none.
    VELErr_t getNextConnection(VELPipeConnection_t*& connection);
    /// Drops a live connection: out of the reactor and the ready list, socket closed, endpoint
    /// back on the endpoint list until now + retry time. Nothing for an unknown connection.
    void discardConnection(VELPipeConnection_t* connection);
    /// Makes `socket` (now owned by the pipe) a live connection to `endpoint`, which leaves the
    /// endpoint list, and registers it for input. `connection` is the new record whenever one was
    /// made, even if a later step failed (kVELErr_Alloc, traced; the reactor's failure;
    /// kVELErr_PipeClosed after close()).
    VELErr_t registerConnection(VEL_Socket* socket, VELPipeEndpoint_t* endpoint,
                                VELPipeConnection_t*& connection);
    /// Puts the connection on the ready list. Called by its handler.
    void notifyInput(VELPipeConnection_t* connection);
    /// Tries the endpoints in order, whatever their retry times, and registers the first that
    /// answers; stops once `deadline` has passed (after one attempt at least).
    /// kVELErr_PipeNoConnection (traced) when none answered, kVELErr_PipeClosed when the pipe is
    /// not open.
    VELErr_t forceReconnect(VELPipeConnection_t*& connection, const basis::TimeValue& deadline);
    /// Multi-connection mode: tries once each endpoint whose retry time has passed, until
    /// `deadline`. kVELErr_PipeNoConnection when no connection is live afterwards; kVELErr_Ok in
    /// failover mode.
    VELErr_t tryMultipleReconnect(const basis::TimeValue& deadline);

    // The transport. Each returns the status of what it does. Called with the pipe lock held.
    /// Connects to `endpoint` with `options`; on Ok `socket` is the new connected socket.
    virtual VELErr_t doConnect(const VELPipeEndpoint_t& endpoint, VEL_Socket*& socket,
                               const VEL_SockOptions& options) = 0;
    ///@{
    /// Send and receive all `length` bytes by transferDeadline(); kVELErr_Timeout after it.
    virtual VELErr_t doSend(VEL_Socket* socket, const char* data, unsigned int length) = 0;
    virtual VELErr_t doRecv(VEL_Socket* socket, char* buffer, unsigned int length) = 0;
    ///@}
    /// Without waiting: kVELErr_Ok when input is waiting, kVELErr_Timeout when none is; anything
    /// else means the connection is broken (or its peer closed, with nothing left to read).
    virtual VELErr_t doHasRecv(VEL_Socket* socket) = 0;
    /// Without waiting: kVELErr_Ok while the connection may carry sends; anything else once its
    /// peer has shut down its sending side (even with input left to read) or it has failed.
    /// Here: from doHasRecv, which cannot see a peer that closed behind unread input.
    virtual VELErr_t doCheckPeer(VEL_Socket* socket);
    /// Reads and drops the input waiting. kVELErr_Timeout when nothing more is waiting.
    virtual VELErr_t doPurge(VEL_Socket* socket) = 0;
    /// Without waiting: true when input (or an end or failure that a read reports) waits where
    /// the descriptor does not show it, such as bytes a TLS session has already decrypted; the
    /// pipe then reads the connection without waiting for its descriptor. Here: false.
    virtual bool doHasBufferedInput(VEL_Socket* socket);

    /// The date (basis::TimeValue::GetHRTime) by which the doSend or doRecv in progress must end.
    /// For the transport operations, which run under the pipe lock (a subclass cannot name it).
    const basis::TimeValue& transferDeadline() const VEL_NO_THREAD_SAFETY_ANALYSIS {
        return _deadline;
    }

private:
    class Driving;

    bool takeReady(VELPipeConnection_t*& connection);
    bool isReadyEmpty();
    VELErr_t prepareReactor() VEL_REQUIRES(_pipeLock);
    void configureReactor() VEL_REQUIRES(_pipeLock);
    /// For recv() and waitForRead(): kVELErr_PipeClosed once closed; without a live connection,
    /// the status of a forced reconnect, *reconnected telling whether it made one.
    VELErr_t checkLive(const basis::TimeValue& deadline, bool* reconnected);
    VELErr_t waitForInput(const basis::TimeValue& deadline);
    /// Puts on the ready list the connections whose transport holds input that their descriptor
    /// does not show (doHasBufferedInput). True when the ready list holds any connection.
    bool takeBuffered();
    /// waitForRead(): keeps on the ready list the connections that have input; discards those
    /// found closed or failed. True when input is waiting.
    bool settleReady();
    /// A connection that can no longer carry sends: kept while it has input, else discarded.
    void retire(VELPipeConnection_t* connection) VEL_REQUIRES(_pipeLock);
    /// Reads from one connection's socket for recv() and recvAvail().
    /// `read(socket)` returns a status; a template, so that a receive costs no allocation.
    template <class Read>
    VELErr_t receive(const Read& read);
    template <class Read>
    VELErr_t readReady(const Read& read, const basis::TimeValue& deadline);
    VELErr_t returnToPrimary(VELPipeConnection_t*& connection, const basis::TimeValue& deadline)
            VEL_REQUIRES(_pipeLock);
    /// Connects to the endpoint and registers the connection: registerConnection's status, or
    /// kVELErr_PipeNoConnection when the endpoint did not answer (it then waits for its retry
    /// time).
    VELErr_t connectEndpoint(VELPipeEndpoint_t& endpoint, VELPipeConnection_t*& connection)
            VEL_REQUIRES(_pipeLock);
    void connectFailed(VELPipeEndpoint_t& endpoint) VEL_REQUIRES(_pipeLock);
    void unregister(VELPipeConnection_t* connection) VEL_REQUIRES(_pipeLock);
    bool isWaiting(const VELPipeEndpoint_t* endpoint) const VEL_REQUIRES(_pipeLock);
    using NotifierCall = void (VEL_PipeNotifier::*)(const std::string&, unsigned short);
    void notify(const VELPipeEndpoint_t& endpoint, NotifierCall call) const VEL_REQUIRES(_pipeLock);

    /// Lock order: _pipeLock, then _reactorLock. _readyLock is a leaf: taken alone or under
    /// either of the others, and nothing is taken under it.
    /// Guards the endpoint lists, the endpoint records, _primary, the connection list, _lastRead,
    /// _opened, _deadline, _retryTime, _sockOptions and _notifier. Held by send, purge, open and
    /// close throughout and by recv except while it waits for input. The notifier and the
    /// transport operations run under it.
    mutable basis::RecursiveThreadMutex _pipeLock;
    /// Endpoints without a live connection, in the order in which they are tried; records move
    /// (splice) to _endpointsInUse while connected, so that pointers to them stay valid.
    std::list<VELPipeEndpoint_t> _endpoints VEL_GUARDED_BY(_pipeLock);
    std::list<VELPipeEndpoint_t> _endpointsInUse VEL_GUARDED_BY(_pipeLock);
    VELPipeEndpoint_t* _primary VEL_GUARDED_BY(_pipeLock);  ///< failover mode
    /// Live connections, in the order in which they take turns.
    std::list<VELPipeConnection_t> _connections VEL_GUARDED_BY(_pipeLock);
    /// The connection that served the last recv(), read on by readv().
    VELPipeConnection_t* _lastRead VEL_GUARDED_BY(_pipeLock);
    /// Between open() and close(): connections may be made.
    bool _opened VEL_GUARDED_BY(_pipeLock);
    /// The deadline of the doSend or doRecv in progress.
    basis::TimeValue _deadline VEL_GUARDED_BY(_pipeLock);
    basis::ThreadMutex _readyLock;
    /// Connections reported with input, each once, oldest first.
    std::deque<VELPipeConnection_t*> _ready VEL_GUARDED_BY(_readyLock);
    const bool _failover;
    basis::TimeValue _retryTime VEL_GUARDED_BY(_pipeLock);
    VEL_SockOptions _sockOptions VEL_GUARDED_BY(_pipeLock);
    std::atomic<unsigned long> _sendTimeout;  ///< seconds
    std::atomic<unsigned long> _recvTimeout;  ///< seconds
    const VELPipeReactorFactory_t _reactorFactory;
    /// Serialises the use of the reactor: one thread at a time drives it (waits, dispatches,
    /// applies registrations), under this lock.
    basis::ThreadMutex _reactorLock;
    /// Replaced (open after close) and reset (close) only with both locks held; read under
    /// either.
    std::unique_ptr<VEL_IOReactor> _reactor;
    VEL_PipeNotifier* _notifier VEL_GUARDED_BY(_pipeLock);
};

#endif  // FRAME_INCLUDE_VEL_PIPE_H
