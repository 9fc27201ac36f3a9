/// @file
#ifndef COM_INCLUDE_VEL_CONNECTOR_H
#define COM_INCLUDE_VEL_CONNECTOR_H

#include "VEL_Err.h"

class VEL_Socket;

/// VEL_Connector: the base of active-open helpers, which connect a socket to a remote endpoint.
/// It keeps the connect time-out, whole seconds (default 5).
///
/// Thread safety: a connector is used by one thread at a time; distinct connectors are
/// independent.
class VEL_Connector {
public:
    static constexpr unsigned char kDefaultCnctTimeOut = 5;  ///< seconds

    VEL_Connector() = default;
    ///@{
    /// Copies the connect time-out.
    VEL_Connector(const VEL_Connector&) = default;
    VEL_Connector& operator=(const VEL_Connector&) = default;
    ///@}
    virtual ~VEL_Connector();

    ///@{
    /// Prepares the connector for connect(), or releases what it prepared.
    virtual VELErr_t open() = 0;
    virtual VELErr_t close() = 0;
    ///@}
    /// Connects `socket` (null: a new socket that the caller then owns).
    virtual VELErr_t connect(VEL_Socket*& socket) = 0;

    ///@{
    /// The connect time-out, whole seconds.
    unsigned char getCnctTimeOut() const { return _cnctTimeOut; }
    void setCnctTimeOut(unsigned char seconds) { _cnctTimeOut = seconds; }
    ///@}

private:
    unsigned char _cnctTimeOut = kDefaultCnctTimeOut;
};

#endif  // COM_INCLUDE_VEL_CONNECTOR_H
