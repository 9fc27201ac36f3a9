/// @file
#ifndef COM_INCLUDE_VEL_SOCKOPTIONS_H
#define COM_INCLUDE_VEL_SOCKOPTIONS_H

/// VEL_SockOptions: a set of socket options that a caller asks for and a socket applies with
/// VEL_Socket::setOptions (a connector applies its set before connecting, an acceptor its set to
/// the listening socket).
///
/// Every tri-state byte uses kUnspecified (255) for "leave the socket as it is"; a buffer size of
/// 0 leaves the system's size. The time-outs are whole seconds: timeOut fills whichever of
/// sendTimeOut and recvTimeOut is unspecified. nonBlock does not make the handle non-blocking: it
/// switches the socket's native send and receive time-outs (SO_SNDTIMEO / SO_RCVTIMEO) on or off.
/// A socket records the values in force in the same structure (VEL_Socket::getOptions).
///
/// Thread safety: a value type; distinct objects are independent, a shared object is safe for
/// concurrent reads only.
class VEL_SockOptions {
public:
    /// "Leave the socket as it is", for the tri-state options and the time-outs.
    static constexpr unsigned char kUnspecified = 255;

    VEL_SockOptions() = default;
    ///@{
    /// A plain copy.
    VEL_SockOptions(const VEL_SockOptions&) = default;
    VEL_SockOptions& operator=(const VEL_SockOptions&) = default;
    ///@}
    virtual ~VEL_SockOptions() = default;

    /// On: TCP_NODELAY (no coalescing of small segments).
    void setNoDelay(bool on) { _noDelay = on ? 1 : 0; }
    /// On: SO_KEEPALIVE (the system probes an idle connection).
    void setKeepAlive(bool on) { _keepAlive = on ? 1 : 0; }
    /// On: close resets the connection at once (linger time 0).
    void setLinger(bool on) { _linger = on ? 1 : 0; }
    /// On: the descriptor is closed in programs this process executes.
    void setFdCloExec(bool on) { _fdCloExec = on ? 1 : 0; }
    ///@{
    /// The send (receive) buffer size in bytes; 0 leaves the system's.
    void setSndBufSize(unsigned int size) { _sndBufSize = size; }
    void setRcvBufSize(unsigned int size) { _rcvBufSize = size; }
    ///@}

    /// On: the native send/receive time-outs limit blocking calls.
    void setNonBlock(bool on) { _nonBlock = on ? 1 : 0; }
    /// The general time-out: fills whichever of the send and receive time-outs is unspecified.
    void setTimeOut(unsigned char seconds) { _timeOut = seconds; }
    ///@{
    /// The send (receive) time-out in whole seconds.
    void setSendTimeOut(unsigned char seconds) { _sendTimeOut = seconds; }
    void setRecvTimeOut(unsigned char seconds) { _recvTimeOut = seconds; }
    ///@}

    ///@{
    /// The raw values: 0, 1 or kUnspecified for the tri-states, seconds or kUnspecified for the
    /// time-outs, bytes (0: the system's) for the buffer sizes.
    unsigned char getNoDelay() const { return _noDelay; }
    unsigned char getKeepAlive() const { return _keepAlive; }
    unsigned char getLinger() const { return _linger; }
    unsigned char getFdCloExec() const { return _fdCloExec; }
    unsigned int getSndBufSize() const { return _sndBufSize; }
    unsigned int getRcvBufSize() const { return _rcvBufSize; }
    unsigned char getNonBlock() const { return _nonBlock; }
    unsigned char getTimeOut() const { return _timeOut; }
    unsigned char getSendTimeOut() const { return _sendTimeOut; }
    unsigned char getRecvTimeOut() const { return _recvTimeOut; }
    ///@}

private:
    unsigned char _noDelay = kUnspecified;
    unsigned char _keepAlive = kUnspecified;
    unsigned char _linger = kUnspecified;
    unsigned char _fdCloExec = kUnspecified;
    unsigned int _sndBufSize = 0;
    unsigned int _rcvBufSize = 0;
    unsigned char _nonBlock = kUnspecified;
    unsigned char _timeOut = kUnspecified;
    unsigned char _sendTimeOut = kUnspecified;
    unsigned char _recvTimeOut = kUnspecified;
};

#endif  // COM_INCLUDE_VEL_SOCKOPTIONS_H
