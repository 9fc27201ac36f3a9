/// @file
#ifndef BASE_INCLUDE_VEL_ERR_H
#define BASE_INCLUDE_VEL_ERR_H

/// VELErr_t: the status code every operation of the library returns. 0 (kVELErr_Ok) is the only
/// success. Codes are grouped by hundreds: 0-99 general, 100-199 network ("com"), 200-299 queues
/// and tasks ("thread"), 300-399 reactor and pipes ("frame"), 401-499 TLS ("tls"; 400 is not a
/// code). VEL_Tools::GetErrStr gives the text.
///
/// The underlying type is fixed so that every 32-bit value is a valid VELErr_t: codes that are
/// not listed here (from a newer peer, or a caller's own) reach GetErrStr without undefined
/// behaviour. It is the type compilers already chose for these values.
enum VELErr_t : unsigned int {
    kVELErr_Ok = 0,
    kVELErr_Alloc = 1,
    kVELErr_IllegalAddress = 2,
    kVELErr_BufferTooSmall = 3,
    kVELErr_Timeout = 4,
    kVELErr_Mutex = 5,
    kVELErr_Thread = 6,
    kVELErr_UserCode = 7,
    kVELErr_OpenFile = 8,
    kVELErr_UnknownException = 9,
    kVELErr_StlException = 10,
    kVELErr_InvalidPointer = 11,
    kVELErr_BufferTooLarge = 12,

    kVELErr_ComInit = 100,
    kVELErr_GetHostName = 101,
    kVELErr_InvalidIPAddress = 102,
    kVELErr_InvalidHostName = 103,
    kVELErr_NonBlock = 104,
    kVELErr_RLimit = 105,
    kVELErr_Interrupted = 106,
    kVELErr_BadFd = 107,
    kVELErr_BadValue = 108,
    kVELErr_NetDown = 109,
    kVELErr_Polling = 110,
    kVELErr_ServiceNotFound = 111,
    kVELErr_SocketCreate = 112,
    kVELErr_SocketClose = 113,
    kVELErr_InvalidSocket = 114,
    kVELErr_SockConnected = 115,
    kVELErr_SockNotConnected = 116,
    kVELErr_SockHalfClosed = 117,
    kVELErr_ReuseAddr = 118,
    kVELErr_Debug = 119,
    kVELErr_NoDelay = 120,
    kVELErr_KeepAlive = 121,
    kVELErr_Linger = 122,
    kVELErr_SndBuf = 123,
    kVELErr_RcvBuf = 124,
    kVELErr_Bind = 125,
    kVELErr_GetPort = 126,
    kVELErr_Listen = 127,
    kVELErr_Connect = 128,
    kVELErr_Select = 129,
    kVELErr_Poll = 130,
    kVELErr_DevPoll = 131,
    kVELErr_Accept = 132,
    kVELErr_Send = 133,
    kVELErr_Recv = 134,
    kVELErr_SndTimeOut = 135,
    kVELErr_RcvTimeOut = 136,
    kVELErr_SoError = 137,
    kVELErr_InProgress = 138,
    kVELErr_FdCloExec = 139,
    kVELErr_OverFdSetSize = 140,
    kVELErr_GetSockName = 141,
    kVELErr_InvalidAction = 142,
    kVELErr_BadStreamHeader = 143,
    kVELErr_MessageTooBig = 144,
    kVELErr_Compression = 145,
    kVELErr_Uncompression = 146,
    kVELErr_SecureSession = 147,
    kVELErr_InvalidKey = 148,
    kVELErr_Epoll = 149,
    kVELErr_Incomplete = 150,

    kVELErr_QueueNotActive = 200,
    kVELErr_QueueFull = 201,
    kVELErr_QueueEmpty = 202,
    kVELErr_TaskRunning = 203,
    kVELErr_QueueActive = 204,
    kVELErr_QueueSpawn = 205,
    kVELErr_TimerSpawn = 206,

    kVELErr_ReactorStopped = 300,
    kVELErr_ReactorFull = 301,
    kVELErr_HandlerNotRegistered = 302,
    kVELErr_RecvInProgress = 303,
    kVELErr_IocpCreate = 304,
    kVELErr_IocpPostAccept = 305,
    kVELErr_IocpPostRead = 306,
    kVELErr_ReactorNotStopped = 307,
    kVELErr_FdRegistered = 308,
    kVELErr_InvalidEntry = 309,
    kVELErr_BadReactorSize = 310,
    kVELErr_PipeNoConnection = 311,
    kVELErr_PipeClosed = 312,
    kVELErr_ReactorFdCorrupt = 313,

    /// The TLS handshake did not complete: the peer refused the protocol versions or ciphers
    /// offered, sent an alert, or closed or reset the connection during it.
    kVELErr_TLSHandshake = 401,
    /// A certificate was refused, by this side (the reason is traced) or by the peer.
    kVELErr_TLSCertificate = 402,
    /// The peer sent bytes that are not TLS, or a damaged or unexpected record.
    kVELErr_TLSProtocol = 403,
    /// The connection ended without the peer's close_notify: the data may have been cut short.
    kVELErr_TLSTruncated = 404,
    /// A certificate (chain) given to a TLS context is not PEM or is damaged.
    kVELErr_TLSBadCertificate = 405,
    /// A private key given to a TLS context is not PEM, is damaged, or its password is wrong.
    kVELErr_TLSBadKey = 406,
    /// The private key of a TLS context does not belong to its certificate.
    kVELErr_TLSKeyMismatch = 407,
    /// Trusted certificates could not be loaded (a damaged file, or a missing directory).
    kVELErr_TLSTrustStore = 408,
    /// A TLS server context without its certificate and private key.
    kVELErr_TLSNoCertificate = 409,
    /// The TLS library could not set up a context or a session.
    kVELErr_TLSInit = 410
};

#endif  // BASE_INCLUDE_VEL_ERR_H
