/// @file
#ifndef COM_INCLUDE_VEL_ACCEPTOR_H
#define COM_INCLUDE_VEL_ACCEPTOR_H

#include "VEL_Socket.h"

/// VEL_Acceptor: the base of listening sockets. It is a VEL_Socket (its descriptor can be waited
/// on, registered with a reactor and closed like any other), whose transfers are not supported
/// (kVELErr_InvalidAction), and which hands out connected sockets through accept().
///
/// The listening options are given at construction and applied by open(); the socket base's
/// setOptions is hidden, so options reach a listening socket only that way.
///
/// Ownership: sockets returned by accept() belong to the caller, and closing the acceptor does not
/// affect them.
///
/// Thread safety: as VEL_Socket. accept() blocks its thread; another thread may close() the
/// acceptor to end it (kVELErr_Accept).
class VEL_Acceptor : public VEL_Socket {
public:
    ~VEL_Acceptor() override;

    /// Waits for a connection; on Ok `out` holds a new connected socket that the caller deletes.
    virtual VELErr_t accept(VEL_Socket*& out) = 0;

    /// The options open() applies to the listening socket.
    const VEL_SockOptions& getListenOptions() const { return _listenOptions; }

protected:
    /// `listen` is the address to listen on (any interface for a null host); no option is asked.
    explicit VEL_Acceptor(const VEL_SockAddr& listen);
    /// The same, with the options asked for the listening socket.
    VEL_Acceptor(const VEL_SockAddr& listen, const VEL_SockOptions& options);

private:
    /// Hides VEL_Socket::setOptions: does nothing. Always kVELErr_Ok.
    VELErr_t setOptions(const VEL_SockOptions& options);

    VEL_SockOptions _listenOptions;
};

#endif  // COM_INCLUDE_VEL_ACCEPTOR_H
