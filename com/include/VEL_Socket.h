/// @file
#ifndef COM_INCLUDE_VEL_SOCKET_H
#define COM_INCLUDE_VEL_SOCKET_H

#include <atomic>
#include <string>

#include "RWThreadMutex.h"
#include "ThreadAnnotations.h"
#include "TimeValue.h"
#include "VELIoVec.h"
#include "VEL_Err.h"
#include "VEL_SockAddr.h"
#include "VEL_SockOptions.h"

namespace basis {
class ThreadMutex;
}  // namespace basis

/// VEL_Socket: the abstract base of every socket object (TCP stream sockets, UDP sockets,
/// acceptors, and anything else that moves bytes the way a socket does, such as pipes or a test
/// double).
///
/// It owns one descriptor (kVEL_NoHandle when there is none), the local and remote endpoints, the
/// option values in force on the descriptor, and three flags: connected, closed, and closing
/// (true while close() is releasing the descriptor). Subclasses obtain the descriptor in open()
/// (or an acceptor or connector gives them one) and hand it over with takeHandle(), which counts
/// it in the process-wide GetNbInstances(); close() releases and uncounts it.
///
/// The virtual slots, in this order, are the contract that transports and reactors build on:
/// destructor, open, close, send, recv, recvAvail, writev, readv, waitForRead, waitForWrite. The
/// five transfers return kVELErr_InvalidAction here; a subclass overrides those it supports. A
/// subclass that needs none of the descriptor machinery may override only the transfers.
///
/// A new socket records: no-delay, keep-alive, linger, close-on-exec and native time-outs off,
/// both buffer sizes 0 (the system's), and send, receive and general time-outs of 2 seconds.
///
/// Ownership: the socket owns its descriptor and closes it when destroyed. Sockets handed out by
/// acceptors and connectors belong to the caller.
///
/// Thread safety: distinct objects are independent. One thread at a time transfers on and
/// configures a socket. Any thread may read getHandle(), isValid() and isClosing(), and one other
/// thread may call close() while the owner is blocked in a transfer, a wait or accept: close()
/// shuts both directions down, which ends the owner's call at once with a failure
/// (kVELErr_SockHalfClosed, kVELErr_Send, kVELErr_Accept, ...), waits until that call has left the
/// descriptor, and only then gives the number back to the system, so that the owner can never
/// touch a descriptor that has been reused. GetNbInstances() is safe from any thread.
class VEL_Socket {
public:
    /// The handle value that means "no descriptor" (descriptor -1).
    static constexpr unsigned int kVEL_NoHandle = 0xFFFFFFFF;

    /// Calls close() and ignores its result.
    virtual ~VEL_Socket();
    VEL_Socket(const VEL_Socket&) = delete;
    VEL_Socket& operator=(const VEL_Socket&) = delete;

    /// Obtains and prepares the descriptor; Ok at once when the socket already has one.
    virtual VELErr_t open() = 0;
    /// Releases the descriptor and uncounts it. When another thread is inside a call on it, the
    /// connection is first shut down in both directions, which ends that call (a transfer, a wait,
    /// accept) at once; the descriptor is closed once the call has left it. With linger on the
    /// close resets the connection. The local address goes back to any interface, port 0; the
    /// socket is no longer connected and is closed. A second call returns Ok and does nothing.
    /// kVELErr_SocketClose when the system reports a failure; the descriptor is released anyway.
    /// Traces "COM - Closing socket <FD = n> ; Remote address : <address>" (trace bit 2).
    virtual VELErr_t close();
    ///@{
    /// Transfers; see the subclasses. Here: kVELErr_InvalidAction.
    virtual VELErr_t send(const char* buf, unsigned int len);
    virtual VELErr_t recv(char* buf, unsigned int len);
    virtual VELErr_t recvAvail(char* buf, unsigned int* len);
    virtual VELErr_t writev(VELIoVec* v, unsigned long n);
    virtual VELErr_t readv(VELIoVec* v, unsigned long n);
    ///@}
    ///@{
    /// Waits until the descriptor is readable (writable) or `limit` has passed; null waits without
    /// limit (the socket's own time-outs do not apply). kVELErr_Timeout when the limit passed,
    /// kVELErr_Select when the wait fails (also for a socket without a descriptor).
    virtual VELErr_t waitForRead(const basis::TimeValue* limit);
    virtual VELErr_t waitForWrite(const basis::TimeValue* limit);
    ///@}

    /// Applies `options` in this order, stopping at the first failure, whose code it returns:
    /// no-delay, keep-alive, linger, close-on-exec, send buffer, receive buffer, time-outs (see
    /// setOptTimeout). Unspecified values and values already in force make no system call.
    /// kVELErr_InvalidSocket without a descriptor, kVELErr_SockHalfClosed once closed.
    VELErr_t setOptions(const VEL_SockOptions& options);

    /// Descriptors obtained by the library's sockets and not yet closed, process-wide.
    static unsigned long GetNbInstances();

    /// The descriptor, kVEL_NoHandle when there is none. Any thread.
    unsigned int getHandle() const { return _handle.load(std::memory_order_relaxed); }
    /// True while the socket has a descriptor. Any thread.
    bool isValid() const { return getHandle() != kVEL_NoHandle; }
    /// The local endpoint: the one to bind before open(), the bound one after.
    const VEL_SockAddr& getLocalAddr() const { return _localAddr; }
    /// The peer's endpoint, once connected.
    const VEL_SockAddr& getRemoteAddr() const { return _remoteAddr; }
    /// Marks the socket connected; acceptors and connectors do it for the sockets they hand out.
    void setConnected() { _connected.store(true); }
    /// True once connected (until close()).
    bool isConnected() const { return _connected.load(); }
    ///@{
    /// True when this option is on on the descriptor.
    bool isNoDelay() const { return _options.getNoDelay() != 0; }
    bool isKeepAlive() const { return _options.getKeepAlive() != 0; }
    bool isLinger() const { return _options.getLinger() != 0; }
    bool isFdCloExec() const { return _options.getFdCloExec() != 0; }
    ///@}
    /// True when the native send/receive time-outs are on.
    bool isNonBlock() const { return _options.getNonBlock() != 0; }
    ///@{
    /// The buffer size in force (0: the system's).
    unsigned int getSndBufSize() const { return _options.getSndBufSize(); }
    unsigned int getRcvBufSize() const { return _options.getRcvBufSize(); }
    ///@}
    ///@{
    /// The time-out in force, in seconds.
    unsigned char getSendTimeOut() const { return _options.getSendTimeOut(); }
    unsigned char getRecvTimeOut() const { return _options.getRecvTimeOut(); }
    ///@}
    /// The option values in force.
    VEL_SockOptions getOptions() const { return _options; }
    /// True while close() is releasing the descriptor. Any thread.
    bool isClosing() const;
    /// Sets the flag that isClosing() reads; close() raises it while it releases the descriptor.
    void setClosing(bool closing);

protected:
    /// Marks a use of the descriptor for the span of one call: close() from another thread waits
    /// until no use is left before it releases the number. fd() is the descriptor, read after the
    /// use was marked (-1 when there is none). REQUIRES: the thread holding one does not call
    /// close() on the same socket.
    class HandleUse {
    public:
        /// Marks a use of `socket`'s descriptor until destruction.
        explicit HandleUse(const VEL_Socket& socket) : _socket(socket) { ++_socket._users; }
        ~HandleUse() { --_socket._users; }
        HandleUse(const HandleUse&) = delete;
        HandleUse& operator=(const HandleUse&) = delete;

        /// The descriptor, -1 when there is none.
        int fd() const { return static_cast<int>(_socket._handle.load()); }

    private:
        const VEL_Socket& _socket;
    };

    /// `local` is the endpoint to bind (or to listen on); its resolve flag is kept.
    explicit VEL_Socket(const VEL_SockAddr& local);

    // Each setter below returns Ok without a system call when the value is unspecified (255, or
    // 0 for buffer sizes) or already in force, records the new value on success, and on failure
    // stores errno as the thread's last system error, traces, and returns its own code
    // (kVELErr_NoDelay, kVELErr_KeepAlive, kVELErr_Linger, kVELErr_FdCloExec, kVELErr_SndBuf,
    // kVELErr_RcvBuf, kVELErr_NonBlock, kVELErr_SndTimeOut / kVELErr_RcvTimeOut).

    /// SO_REUSEADDR on a socket that is not connected yet. kVELErr_InvalidSocket,
    /// kVELErr_SockHalfClosed, kVELErr_ReuseAddr.
    VELErr_t setCommonOptions();
    /// TCP_NODELAY.
    VELErr_t setOptNoDelay(unsigned char value);
    /// SO_KEEPALIVE.
    VELErr_t setOptKeepAlive(unsigned char value);
    /// On: linger with a time of 0 (close resets the connection).
    VELErr_t setOptLinger(unsigned char value);
    /// FD_CLOEXEC.
    VELErr_t setOptFdCloExec(unsigned char value);
    ///@{
    /// SO_SNDBUF (SO_RCVBUF). The size is recorded only when the system grants at least what was
    /// asked (Linux reports twice the size it was given); otherwise a warning is traced (trace
    /// bit 2) and the code is returned.
    VELErr_t setOptSndBufSize(unsigned int size);
    VELErr_t setOptRcvBufSize(unsigned int size);
    ///@}
    /// Makes the descriptor itself non-blocking or blocking again (not recorded).
    VELErr_t setOptNonBlock(bool on);
    /// Native time-outs from the recorded send/receive time-outs (0 s gives 1 ms), or none.
    VELErr_t setOptNatTimeout(bool on);
    /// kVELErr_SoError when the descriptor has a pending error (stored as the thread's last
    /// system error, not traced) or the error cannot be read (traced).
    VELErr_t getOptError();
    /// Records the time-outs `options` gives (its general time-out fills the unspecified ones),
    /// switches the native time-outs on or off as its nonBlock asks, and brings changed time-outs
    /// to the descriptor when native time-outs are on.
    VELErr_t setOptTimeout(const VEL_SockOptions* options);

    /// Takes over `fd`, counts it, and clears the closed flag.
    void takeHandle(int fd);
    /// Takes over the connection of `from`: its descriptor (still counted once), endpoints,
    /// options in force and connected flag. `from` is left closed without a descriptor and the
    /// connection goes on through this socket. For a socket that layers a protocol over an
    /// established stream. REQUIRES: this socket has no descriptor; no other thread uses `from`.
    void adoptConnection(VEL_Socket& from);
    /// Records the local endpoint (no system call).
    void setLocalAddr(const VEL_SockAddr& address) { (void)_localAddr.set(address); }
    /// Records the peer's endpoint (no system call).
    void setRemoteAddr(const VEL_SockAddr& address) { _remoteAddr = address; }
    /// bind() to the local address. kVELErr_Bind, errno stored; not traced.
    VELErr_t bindLocalAddr();
    /// Reads the bound address back into the local address. kVELErr_GetSockName, errno stored;
    /// not traced.
    VELErr_t readLocalAddr();
    /// The checks every transfer starts with: `notReady` when `ready` is false, otherwise
    /// kVELErr_SockHalfClosed once closed; failures traced with the remote address.
    VELErr_t checkUse(bool ready, VELErr_t notReady) const;
    /// checkUse for stream transfers: kVELErr_SockNotConnected without a descriptor or connection.
    VELErr_t checkTransfer() const;
    /// Whether the peer of the connected descriptor `fd` has ended its side, asked without
    /// waiting (POLLRDHUP reports the end even while input sent before it is unread): Ok when it
    /// has not, kVELErr_SockHalfClosed when it has, with the thread's last system error set to
    /// the pending error of a reset, 0 after an orderly end.
    VELErr_t peerEndStatus(int fd);
    /// Creates the descriptor (socket(AF_INET, type, 0)) and takes it over. On failure the error
    /// is stored, the socket closed and kVELErr_SocketCreate traced with `label` and the local
    /// address.
    VELErr_t createHandle(int type, const char* label);
    /// True once close() has released the descriptor (until a new one is taken over).
    bool isClosed() const { return _closed.load(); }
    /// Without native time-outs a blocking send could hang on a full buffer for ever: waits for
    /// room, at most the send time-out. Ok at once with native time-outs on; otherwise the code
    /// of waitForWrite, traced with the remote address.
    VELErr_t waitBeforeSend();
    /// Closes a half-made socket, then traces `code` with `label` followed by `address` as it was
    /// before closing (close() resets the local address). Returns `code`.
    VELErr_t abortOpen(VELErr_t code, const char* label, const VEL_SockAddr& address);
    /// "Remote address : <remote address>", the detail of most transfer traces.
    std::string remoteText() const;
    /// An accepted descriptor carries the listener's options (`inherited`, the values in force on
    /// the listener): brings no-delay, keep-alive, linger and the native time-outs back to what
    /// this socket records. Buffer sizes cannot be handed back to the system's automatic sizing,
    /// so the listener's sizes are recorded instead.
    VELErr_t resetInheritedOptions(const VEL_SockOptions& inherited);

private:
    friend class VEL_StaticInit;

    VELErr_t waitFor(short events, const basis::TimeValue* limit);
    VELErr_t optionFailed(int err, VELErr_t code) const;
    VELErr_t setBufSize(unsigned int size, bool sendSide);

    std::atomic<unsigned int> _handle;
    VEL_SockOptions _options;
    std::atomic<bool> _connected;
    std::atomic<bool> _closed;
    bool _closing VEL_GUARDED_BY(_lock);
    VEL_SockAddr _localAddr;
    VEL_SockAddr _remoteAddr;
    /// Guards _closing only. Taken alone (never with _Mutex).
    mutable basis::RWThreadMutex _lock;
    /// Calls inside the descriptor (HandleUse). Paired with _handle: a call marks its use, then
    /// reads the handle; close() forgets the handle, then waits for the uses to end.
    mutable std::atomic<unsigned int> _users;

    /// Created at library start-up; guards _NbSockets. A leaf lock: nothing is taken under it.
    static basis::ThreadMutex* _Mutex;
    static unsigned long _NbSockets;
};

#endif  // COM_INCLUDE_VEL_SOCKET_H
