// The two client sides of the exchanges: a vel client (VEL_TCPConnector, VEL_TCPSocket and a
// VEL_OXLv1 transport) and a plain client (a blocking descriptor, writev of the header and the
// body, blocking reads of the header and then of the body). Both send the same 12-byte header
// and body and check the answer's header the same way.
#ifndef BENCH_CLIENTS_H
#define BENCH_CLIENTS_H

#include <cstdint>
#include <memory>
#include <vector>

#include "BenchSupport.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_SockOptions.h"
#include "VEL_TCPSocket.h"

namespace velbench {

// A client of one connection. send() writes one frame; receive() reads one frame and checks
// that its body has the size sent. Both throw BenchError.
class Client {
public:
    virtual ~Client() = default;
    virtual void send() = 0;
    virtual void receive() = 0;
};

class VelClient : public Client {
public:
    VelClient(unsigned short port, std::uint32_t bodySize, const VEL_SockOptions& options);
    void send() override;
    void receive() override;

    VEL_TCPSocket& socket() { return *_socket; }

private:
    std::unique_ptr<VEL_TCPSocket> _socket;
    VEL_OXLv1 _transport;
    VEL_Message _request;
    VEL_Message _reply;
};

class PlainClient : public Client {
public:
    PlainClient(unsigned short port, std::uint32_t bodySize);
    void send() override;
    void receive() override;

private:
    Fd _fd;
    std::uint32_t _bodySize;
    std::vector<char> _request;  // header and body
    std::vector<char> _reply;
};

// The options of the vel sockets: no-delay on and, with `nativeTimeouts`, the system's own send
// and receive time-outs instead of a readiness wait before each send.
VEL_SockOptions VelOptions(bool nativeTimeouts);
// A VEL_TCPSocket connected to 127.0.0.1:port with `options`.
std::unique_ptr<VEL_TCPSocket> ConnectVel(unsigned short port,
                                          const VEL_SockOptions& options = VelOptions(false));

}  // namespace velbench

#endif  // BENCH_CLIENTS_H
