/// @file
#ifndef COM_INCLUDE_VEL_TLSENGINE_H
#define COM_INCLUDE_VEL_TLSENGINE_H

#include <cstddef>
#include <string>

#include "VEL_Err.h"

struct bio_st;
struct bio_method_st;
struct ssl_st;
class VEL_TLSContext;

/// What a step that could not finish needs from the descriptor. The values are those of the
/// reactor's read and write operations.
enum VELTLSWant_t { kVELTLSWant_Read = 1, kVELTLSWant_Write = 2 };

/// VEL_TLSEngine: one TLS session over a connected stream descriptor, moved one step at a time and
/// never waiting. It is the part that blocking TLS sockets (VEL_TLSSocket, which adds the waits
/// and time-outs) and reactor-driven connections share: each step does what the descriptor
/// allows now and, when it cannot finish, says whether it needs the descriptor readable or
/// writable before it is called again.
///
/// @verbatim
///   VEL_TLSEngine engine;
///   engine.start(context, fd, "server.example");    // client: name for SNI and verification
///   VELTLSWant_t want;
///   while (engine.handshake(&want) == kVELErr_Incomplete) { wait until `want`, then again }
/// @endverbatim
///
/// The engine reads and writes the descriptor itself, with recv and send and MSG_DONTWAIT
/// whatever the descriptor's mode (never raising SIGPIPE), and reads ahead: once a record has
/// arrived, its bytes may sit inside the session while the descriptor reports nothing to read.
/// hasBufferedInput() tells when a read step can make progress without the descriptor; a caller
/// that waits for readability first asks it (or peek()).
///
/// Step results (handshake, read, peek, write, shutdown):
/// - kVELErr_Ok: done (read and write report the bytes moved, at least one);
/// - kVELErr_Incomplete: call the same step again once the descriptor is readable
///   (*want = kVELTLSWant_Read) or writable (kVELTLSWant_Write); a write must then be given the
///   same bytes again (at least as many; the buffer may move);
/// - kVELErr_SockHalfClosed: the peer ended the session in order (close_notify; last system
///   error 0), or the connection was reset (the system error is stored);
/// - kVELErr_TLSHandshake, kVELErr_TLSCertificate, kVELErr_TLSProtocol, kVELErr_TLSTruncated,
///   kVELErr_Send, kVELErr_Recv, ...: the session failed. failureDetail() gives the reason
///   (OpenSSL's, or the certificate verification result). A failed session reports the same
///   status from every later step.
/// No step traces; the caller traces with what it knows of the connection.
///
/// Ownership: the engine owns its session, not the descriptor; it must not outlive the
/// descriptor's use by it (reset() or destroy it before the descriptor is closed).
///
/// Thread safety: one thread at a time drives an engine; distinct engines are independent.
class VEL_TLSEngine {
public:
    VEL_TLSEngine();
    ~VEL_TLSEngine();
    VEL_TLSEngine(const VEL_TLSEngine&) = delete;
    VEL_TLSEngine& operator=(const VEL_TLSEngine&) = delete;

    /// Begins a session of `context`'s role on the connected descriptor `fd`, dropping any
    /// session held before. A client gives the server's name: sent for SNI when it is a host
    /// name, and checked against the certificate (a host name, or a dotted IPv4 address against
    /// the certificate's addresses) when the context verifies the peer; null or empty: no name is
    /// checked. kVELErr_TLSInit (invalid context, or the session could not be made).
    VELErr_t start(const VEL_TLSContext& context, int fd, const char* serverName);
    /// Drops the session (no close_notify). The engine can start again.
    void reset();

    /// True from start() until reset().
    bool isStarted() const { return _ssl != nullptr; }
    /// True once the handshake has completed.
    bool isEstablished() const { return _established; }

    /// Advances the handshake: Ok once it has completed.
    VELErr_t handshake(VELTLSWant_t* want);
    /// Reads up to `size` decrypted bytes into `buf` (one record's worth at most): Ok with *got
    /// >= 1. REQUIRES: size >= 1.
    VELErr_t read(char* buf, std::size_t size, std::size_t* got, VELTLSWant_t* want);
    /// Processes what has arrived without taking any byte: Ok when decrypted input is waiting.
    VELErr_t peek(VELTLSWant_t* want);
    /// Writes up to `size` bytes (one record at most): Ok with *put >= 1. REQUIRES: size >= 1.
    VELErr_t write(const char* buf, std::size_t size, std::size_t* put, VELTLSWant_t* want);
    /// Sends close_notify (without waiting for the peer's): Ok once it has gone, and at once when
    /// there is no established session or it has failed (nothing may be sent then).
    VELErr_t shutdown(VELTLSWant_t* want);

    /// True once no more input can come: the session has failed, or the peer's close_notify has
    /// been read.
    bool isOver() const;
    /// Decrypted bytes waiting to be read.
    std::size_t decrypted() const;
    /// True when decrypted bytes, or received bytes not yet decrypted, wait inside the session.
    bool hasBufferedInput() const;
    /// True when the last read from the descriptor took less than it asked for: the descriptor
    /// had nothing more then, and a read that finds nothing inside the session would only learn
    /// that it has nothing now.
    bool descriptorDrained() const { return _ioDrained; }

    /// Why the last step failed ("certificate verify failed: certificate has expired", OpenSSL's
    /// reason, or the system error's text).
    const std::string& failureDetail() const { return _detail; }
    /// "TLSv1.3 TLS_AES_256_GCM_SHA384" once established, else empty.
    std::string describe() const;
    /// The one-line subject of the peer's certificate, empty when it sent none.
    std::string peerSubject() const;

private:
    enum Step { kHandshake, kRead, kWrite, kShutdown };

    /// Sets up the session of `context` and its descriptor BIO. kVELErr_TLSInit.
    VELErr_t makeSession(const VEL_TLSContext& context, int fd);
    VELErr_t setServerName(const char* serverName);
    /// The status of an OpenSSL call that returned `result` <= 0 in `step`.
    VELErr_t outcome(int result, Step step, VELTLSWant_t* want);
    /// The status for a failure that OpenSSL queued, read from the error queue.
    VELErr_t libraryFailure(Step step);
    VELErr_t systemFailure(Step step);
    VELErr_t fail(VELErr_t code, const std::string& detail);

    /// The BIO that moves the session's records through the descriptor.
    static bio_method_st* DescriptorMethod();
    static int BioWrite(bio_st* bio, const char* data, int size);
    static int BioRead(bio_st* bio, char* data, int size);
    static long BioCtrl(bio_st* bio, int command, long number, void* pointer);

    ssl_st* _ssl;
    int _fd;
    int _ioError;     ///< errno of the BIO's last failed system call, 0 when none
    bool _ioEnd;      ///< the BIO has read the end of the stream
    bool _ioDrained;  ///< the BIO's last read took less than it asked for: the descriptor was empty
    bool _established;
    VELErr_t _failure;  ///< Ok until the session fails; then what every step reports
    std::string _detail;
};

#endif  // COM_INCLUDE_VEL_TLSENGINE_H
