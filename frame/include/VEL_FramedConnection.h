/// @file
#ifndef FRAME_INCLUDE_VEL_FRAMEDCONNECTION_H
#define FRAME_INCLUDE_VEL_FRAMEDCONNECTION_H

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <boost/enable_shared_from_this.hpp>
#include <boost/shared_ptr.hpp>

#include "ThreadAnnotations.h"
#include "ThreadMutex.h"
#include "TimeValue.h"
#include "VELIoVec.h"
#include "VEL_Err.h"
#include "VEL_EventHandler.h"
#include "VEL_Message.h"

class VEL_ByteStream;
class VEL_FrameCodec;
class VEL_FramedConnection;
class VEL_IOReactor;
class VEL_SockAddr;
class VEL_TCPSocket;

/// The limits of one connection. The defaults suit a server on a network it does not trust.
struct VELFramedLimits_t {
    std::size_t highWater = 1 << 20;          ///< pending output at which reading stops
    std::size_t lowWater = 256 << 10;         ///< pending output below which reading resumes
    std::size_t maxPendingOutput = 64 << 20;  ///< pending output that no send may exceed
    std::size_t readBudget = 256 << 10;       ///< bytes read per dispatch at most
    unsigned long frameDeadline = 30;         ///< seconds for a started frame to be whole
    unsigned long outputDeadline = 30;        ///< seconds for pending output to make progress
    unsigned long idleTimeout = 1800;         ///< seconds without traffic either way
    unsigned long handshakeDeadline = 10;     ///< seconds for a secure stream's handshake
};

/// What the application hears of a framed connection. One handler may serve many connections.
class VEL_ConnectionHandler {
public:
    virtual ~VEL_ConnectionHandler();

    /// A whole message arrived. `message` is the connection's: it may be changed (sent back, for
    /// instance) but not kept; copy what must outlive the call. Reactor thread.
    virtual void onMessage(VEL_FramedConnection& connection, VEL_Message& message) = 0;
    /// The connection has closed, for `reason` (see VEL_FramedConnection). Runs once; no call-back
    /// follows. Reactor thread (see VEL_FramedConnection for the exceptions).
    virtual void onClose(VEL_FramedConnection& connection, VELErr_t reason) = 0;
    /// Pending output has fallen below the low-water mark after a send reported
    /// kVELErr_QueueFull; reading has resumed. Reactor thread. Here: nothing.
    virtual void onDrained(VEL_FramedConnection& connection);
};

/// VEL_FramedConnection: one connection of a reactor server that never waits on its peer. It is the
/// event handler of a non-blocking byte stream and owns that stream, a frame codec (one wire
/// format, VEL_FrameCodec), the message being received and a queue of output; the application
/// hears of it through a VEL_ConnectionHandler.
///
/// @verbatim
///   class Echo : public VEL_ConnectionHandler {
///       void onMessage(VEL_FramedConnection& connection, VEL_Message& message) override {
///           (void)connection.send(&message);  // queued; written without waiting
///       }
///       void onClose(VEL_FramedConnection&, VELErr_t) override {}
///   };
///   auto connection = VEL_FramedConnection::Create(reactor, std::move(socket),
///           std::unique_ptr<VEL_FrameCodec>(new VEL_OXLv1Codec(1 << 20)),
///           boost::make_shared<Echo>());
///   connection->start();
/// @endverbatim
///
/// Input. When the stream is readable the connection reads what is there, at most
/// readBudget bytes per dispatch (so that one busy peer cannot hold the reactor from the others),
/// decodes every whole frame and calls onMessage for each, in order; a frame cut anywhere is kept
/// in the codec until the rest arrives. A body larger than the read buffer is read straight into
/// the message. Bodies above kKeptBodyBytes are released once onMessage has returned, and every
/// body once a dispatch ends between frames; output storage is released once it has been written:
/// a connection between frames with nothing to write holds no buffer, whatever it moved before.
/// Input that the stream holds itself (a TLS stream's decrypted bytes), which the descriptor no
/// longer reports, is not left behind when the budget ends a dispatch or back-pressure lifts: the
/// connection asks its reactor to dispatch it again at the next pass (VEL_IOReactor::redispatch).
///
/// Secure streams. Over a VEL_TLSByteStream (a VEL_FramedAcceptor with a TLS context makes them
/// for a server; a client makes one over the socket it connected) the handshake runs in the
/// reactor like the rest, one step at each readiness it waits for; messages sent before it has
/// completed wait in the output queue. A handshake that fails closes the connection with its
/// status (kVELErr_TLSHandshake, kVELErr_TLSCertificate, kVELErr_TLSProtocol, ...; the reason is
/// in the close trace and getFailureDetail()).
///
/// Output. send() encodes the message and, when nothing is queued ahead of it, writes what the
/// stream takes at once; the rest goes to the output queue, which the reactor thread writes when
/// the stream becomes writable (the connection asks the reactor for writability only while output
/// is pending, and writes everything pending in one gathered write).
/// Sends made from onMessage are gathered while more of the bytes read wait to be decoded, and
/// written with the answer to the last message of the read.
///
/// Back-pressure. When pending output reaches highWater the connection stops reading its input
/// and send() returns kVELErr_QueueFull (the message is queued all the same); once the peer has
/// taken enough for pending output to fall below lowWater, reading resumes and the handler's
/// onDrained() runs. A send that would take pending output beyond maxPendingOutput is refused.
///
/// Time limits, each closing the connection with kVELErr_Timeout (0 switches one off): a secure
/// stream's handshake must complete within handshakeDeadline seconds of start(); a frame that
/// has started must be whole within frameDeadline seconds (a peer that drips its bytes or stops in
/// the middle of a frame is closed); pending output must make progress within outputDeadline
/// seconds once the stream carries data (a peer that stops reading is closed); a connection with
/// no traffic either way for idleTimeout seconds is closed. The connection keeps these limits with
/// the process's timer manager (VEL_TimerManager, which must not be closed while connections are
/// open), to within one second. It registers with the reactor with no inactivity time-out of the
/// reactor's own: a change of operations made from another thread (a send that leaves output
/// pending) would switch that check off.
///
/// Closing. The connection closes, once, when the peer ends the stream or fails, when a frame is
/// refused by the codec, when a time limit passes, when the application calls close(), or when
/// the reactor is cleaned; onClose then runs once with the reason (kVELErr_SockHalfClosed for the
/// end of the stream, the stream's failure (a TLS status among them), the codec's status for a bad
/// frame, kVELErr_Timeout, kVELErr_Ok for close(), kVELErr_ReactorStopped for the reactor's
/// clean()). Output queued before the close goes out if the stream takes it at once; the rest is
/// dropped. The connection leaves the reactor before its
/// descriptor is given back. A close asked from another thread (close(), a time limit) shuts the
/// stream down, and the reactor thread completes it. A handler that throws from onMessage or
/// onDrained closes its connection with kVELErr_UserCode.
///
/// Ownership: the connection owns its stream (and descriptor), its codec and its queues; it holds
/// the handler by shared pointer until onClose has returned, and the reactor holds the connection
/// while it is registered. Create it through Create (it is shared: enable_shared_from_this). A
/// connection may be destroyed once it is closed or was never started.
///
/// Thread safety: call-backs run on the reactor thread, one at a time (onClose on the thread that
/// calls the reactor's clean() when that closes it). send(), close(),
/// useCodec() and the accessors may be called from any thread, also from the call-backs; the
/// codec is used under the connection's lock, so encoding and decoding never overlap.
class VEL_FramedConnection : public VEL_EventHandler,
                             public boost::enable_shared_from_this<VEL_FramedConnection> {
public:
    /// Bodies above this size are released as soon as they are delivered.
    static constexpr std::size_t kKeptBodyBytes = 16 << 10;
    /// The read buffer of each reactor thread: smaller frames are copied out of it.
    static constexpr std::size_t kReadBufferBytes = 64 << 10;

    /// A connection over `stream` speaking `codec`'s format, for `reactor`, not yet started.
    /// Returns null when memory runs out. REQUIRES: every pointer is set; the stream is open.
    static boost::shared_ptr<VEL_FramedConnection> Create(
            VEL_IOReactor& reactor, std::unique_ptr<VEL_ByteStream> stream,
            std::unique_ptr<VEL_FrameCodec> codec, boost::shared_ptr<VEL_ConnectionHandler> handler,
            const VELFramedLimits_t& limits = VELFramedLimits_t());
    /// The same over a connected TCP socket (a VEL_TCPByteStream).
    static boost::shared_ptr<VEL_FramedConnection> Create(
            VEL_IOReactor& reactor, std::unique_ptr<VEL_TCPSocket> socket,
            std::unique_ptr<VEL_FrameCodec> codec, boost::shared_ptr<VEL_ConnectionHandler> handler,
            const VELFramedLimits_t& limits = VELFramedLimits_t());
    ~VEL_FramedConnection() override;

    /// Registers the connection with its reactor for input and starts its time limits. The
    /// reactor's codes (kVELErr_ReactorFull, kVELErr_FdRegistered, ...), kVELErr_InvalidAction when
    /// already started or closed. A connection that fails to start is closed without onClose.
    /// Any thread.
    VELErr_t start();
    /// Encodes `message` and queues its frame, writing what the stream takes now (from onMessage,
    /// with the answer to the read's last message). The codec may transform the body in place (the
    /// message is then as the format's transport leaves it after a send). kVELErr_Ok;
    /// kVELErr_QueueFull: queued, and pending output has reached the high-water mark (reading has
    /// stopped; onDrained follows); kVELErr_BufferTooLarge: refused, pending output plus the body
    /// would exceed maxPendingOutput; kVELErr_SockNotConnected once closed (or before start()); the
    /// codec's refusal (nothing queued); kVELErr_Alloc. A failure of the stream closes the
    /// connection (its reason goes to onClose) and is returned. Any thread. REQUIRES: `message` is
    /// not null.
    VELErr_t send(VEL_Message* message);
    /// Closes the connection with the reason kVELErr_Ok. From a call-back of this connection the
    /// close happens when the call-back returns, after a last write of what is queued; from
    /// another thread the stream is shut down at once (pending output is dropped) and the reactor
    /// thread completes the close (onClose there). A connection never started closes here without
    /// onClose. Closing twice does nothing. Any thread.
    void close();
    /// Runs `action` with the codec, serialised with the connection's encoding and decoding (to
    /// change a setting of the format, such as compression). Must not call back into this
    /// connection. Any thread.
    void useCodec(const std::function<void(VEL_FrameCodec&)>& action);

    /// Bytes queued and not yet written. Any thread.
    std::size_t pendingOutput() const;
    /// Between a successful start() and the close. Any thread.
    bool isOpen() const;
    /// False while back-pressure holds the input (from the high-water mark until pending output
    /// falls below the low one). Any thread.
    bool isReading() const;
    /// Bytes of buffer storage the connection holds now (message body, output queue). Any thread.
    std::size_t heldBytes() const;
    /// Why the stream failed, beyond the status given to onClose (a TLS session's reason, such as
    /// "certificate verify failed: certificate has expired"); empty when it did not. Any thread.
    std::string getFailureDetail() const;
    /// The peer. Any thread.
    const VEL_SockAddr& getRemoteAddr() const;
    /// The limits given at construction.
    const VELFramedLimits_t& getLimits() const { return _limits; }

    ///@{
    /// Reactor call-backs.
    bool handleInput() override;
    bool handleOutput(void* arg) override;
    ///@}
    /// Closes the connection (reason kVELErr_ReactorStopped unless one is pending).
    bool handleClose() override;

private:
    class DeadlineTimer;
    class Dispatch;
    enum class State { kNew, kOpen, kClosing, kClosed };
    struct ArmedTimer {
        unsigned long id;           ///< 0 while being subscribed
        basis::TimeValue fireTime;  ///< monotonic
    };
    /// What a dispatch leaves to do once the lock is released.
    struct Followup {
        bool finish = false;
        bool drained = false;  ///< then `handler` is set, for onDrained
        unsigned long armSeconds = 0;
        boost::shared_ptr<VEL_ConnectionHandler> handler;
    };

    VEL_FramedConnection(VEL_IOReactor& reactor, std::unique_ptr<VEL_ByteStream> stream,
                         std::unique_ptr<VEL_FrameCodec> codec,
                         boost::shared_ptr<VEL_ConnectionHandler> handler,
                         const VELFramedLimits_t& limits);

    /// Cancels the timers (outside the connection's lock: a running one may wait for it).
    static void CancelTimers(const std::vector<ArmedTimer>& armed);

    bool inCallback() const;
    // Input (VEL_FramedConnectionInput.cpp). `hold` is released around each onMessage.
    VELErr_t readInput(std::unique_lock<basis::ThreadMutex>& hold) VEL_REQUIRES(_lock);
    VELErr_t readAndDeliver(std::unique_lock<basis::ThreadMutex>& hold) VEL_REQUIRES(_lock);
    VELErr_t readOnce(std::unique_lock<basis::ThreadMutex>& hold, char* buffer, bool* more,
                      std::size_t* got) VEL_REQUIRES(_lock);
    VELErr_t decodeBuffered(std::unique_lock<basis::ThreadMutex>& hold, const char* data,
                            std::size_t size) VEL_REQUIRES(_lock);
    /// `last`: no byte of this read follows the message.
    VELErr_t deliver(std::unique_lock<basis::ThreadMutex>& hold, bool last) VEL_REQUIRES(_lock);
    // Output.
    VELErr_t queueFrame(VEL_Message* message, bool own) VEL_REQUIRES(_lock);
    VELErr_t appendOutput(const VELIoVec* parts, unsigned long count, std::size_t skip)
            VEL_REQUIRES(_lock);
    VELErr_t flush() VEL_REQUIRES(_lock);
    void consumed(std::size_t bytes) VEL_REQUIRES(_lock);
    void releaseOutput() VEL_REQUIRES(_lock);
    void noteProgress(const basis::TimeValue& now) VEL_REQUIRES(_lock);
    // Operations and back-pressure.
    unsigned short wantedOps() const VEL_REQUIRES(_lock);
    VELErr_t applyOps(bool force) VEL_REQUIRES(_lock);
    bool pauseOrResume(const basis::TimeValue& now) VEL_REQUIRES(_lock);
    // Closing.
    void requestClose(VELErr_t reason) VEL_REQUIRES(_lock);
    Followup endDispatch(VELErr_t failure) VEL_REQUIRES(_lock);
    void runFollowup(const Followup& followup);
    void failCallback();
    void finish();
    // Time limits.
    bool deadlinePassed(const basis::TimeValue& now, const char** which) const VEL_REQUIRES(_lock);
    unsigned long armSecondsFor(const basis::TimeValue& now) VEL_REQUIRES(_lock);
    void arm(unsigned long seconds);
    void timerFired(unsigned long timerId);

    VEL_IOReactor& _reactor;
    const VELFramedLimits_t _limits;
    const std::unique_ptr<VEL_ByteStream> _stream;
    const std::unique_ptr<VEL_FrameCodec> _codec;
    boost::shared_ptr<DeadlineTimer> _timer;  ///< set once by Create
    /// The message being decoded; the reactor thread's alone (the codec writes it under _lock).
    VEL_Message _input;
    /// The thread running a call-back of this connection (a pthread handle), 0 when none.
    std::atomic<unsigned long> _callbackThread{0};

    /// Guards everything below, the codec and the stream's use. Lock order: before the reactor's
    /// locks: changes of operations are made under it, so that the reactor receives them in the
    /// order of the states they reflect (the reactor and the codec may trace under it). Never
    /// held while a handler call-back or a timer call-back runs, nor while a timer is subscribed
    /// or cancelled (the timer manager holds its own locks while it calls back).
    mutable basis::ThreadMutex _lock;
    boost::shared_ptr<VEL_ConnectionHandler> _handler VEL_GUARDED_BY(_lock);
    State _state VEL_GUARDED_BY(_lock) = State::kNew;
    VELErr_t _reason VEL_GUARDED_BY(_lock) = kVELErr_Ok;
    bool _registered VEL_GUARDED_BY(_lock) = false;    ///< start() registered it with the reactor
    std::size_t _inputHeld VEL_GUARDED_BY(_lock) = 0;  ///< storage of _input after the last read
    /// Output: bytes [_outHead, _outTail) of _outData are pending.
    std::unique_ptr<char[]> _outData VEL_GUARDED_BY(_lock);
    std::size_t _outCapacity VEL_GUARDED_BY(_lock) = 0;
    std::size_t _outHead VEL_GUARDED_BY(_lock) = 0;
    std::size_t _outTail VEL_GUARDED_BY(_lock) = 0;
    bool _corked VEL_GUARDED_BY(_lock) = false;     ///< inside a dispatch: writes wait for its end
    bool _paused VEL_GUARDED_BY(_lock) = false;     ///< reading stopped by back-pressure
    bool _congested VEL_GUARDED_BY(_lock) = false;  ///< a send reported kVELErr_QueueFull
    unsigned short _registeredOps VEL_GUARDED_BY(_lock) = 0;
    /// A thread other than the reactor's has queued a change of operations: the reactor may apply
    /// it after a later change of the reactor thread's, so every dispatch restates the operations.
    bool _foreignChanges VEL_GUARDED_BY(_lock) = false;
    bool _inFrame VEL_GUARDED_BY(_lock) = false;
    basis::TimeValue _frameSince VEL_GUARDED_BY(_lock);   ///< first byte of the frame under way
    basis::TimeValue _outputSince VEL_GUARDED_BY(_lock);  ///< last progress of pending output
    basis::TimeValue _lastTraffic VEL_GUARDED_BY(_lock);  ///< last byte read or written
    basis::TimeValue _pausedSince VEL_GUARDED_BY(_lock);
    basis::TimeValue _startedAt VEL_GUARDED_BY(_lock);  ///< start(): the handshake's clock
    std::vector<ArmedTimer> _armed VEL_GUARDED_BY(_lock);
};

#endif  // FRAME_INCLUDE_VEL_FRAMEDCONNECTION_H
