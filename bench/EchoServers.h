// Servers that answer every frame (12-byte header, then the body) with the same frame, on
// 127.0.0.1 with a port chosen by the system, each in threads of its own:
// - vel: VEL_TCPAcceptor and one VEL_OXLv1 transport per connection, driven by a vel reactor
//   (recvMessage, then sendMessage of the same message, from the handler's handleInput);
// - vel, framed: a VEL_FramedAcceptor and one VEL_FramedConnection per connection with an OXLv1
//   codec, whose handler sends every message back;
// - libevent: an evconnlistener and one bufferevent per connection on one event base, the way
//   libevent's own documentation writes an echo server; whole frames are moved from the input to
//   the output buffer once their header has been checked;
// - blocking: one thread per connection, blocking read of the header and the body, one writev;
// - plain epoll: one thread, non-blocking descriptors, reads of up to 64 KiB into a buffer per
//   connection and every whole frame written back from it at once (EpollEchoServer.cpp).
#ifndef BENCH_ECHOSERVERS_H
#define BENCH_ECHOSERVERS_H

#include <cstddef>
#include <cstdint>
#include <memory>

#include "VEL_FramedConnection.h"

class VEL_IOReactor;
class VEL_SockOptions;

namespace velbench {

// Largest body the servers accept.
constexpr std::uint32_t kMaxEchoBody = 16 << 20;

class EchoServer {
public:
    virtual ~EchoServer() = default;
    unsigned short port() const { return _port; }
    // Connections the server holds now (accepted and not yet closed).
    virtual unsigned long connections() const = 0;
    // The most buffer storage one of its connections holds now (framed server only; 0 others).
    virtual std::size_t heldBytes() const { return 0; }

protected:
    unsigned short _port = 0;
};

// Takes over `reactor` (not initialised yet), initialises and opens it; accepted sockets get
// `options`. Throws BenchError.
std::unique_ptr<EchoServer> StartVelEchoServer(std::unique_ptr<VEL_IOReactor> reactor,
                                               const VEL_SockOptions& options);
std::unique_ptr<EchoServer> StartSelectEchoServer(unsigned long size,
                                                  const VEL_SockOptions& options);
std::unique_ptr<EchoServer> StartFramedEchoServer(std::unique_ptr<VEL_IOReactor> reactor,
                                                  const VELFramedLimits_t& limits);
std::unique_ptr<EchoServer> StartLibeventEchoServer();
std::unique_ptr<EchoServer> StartPlainEpollEchoServer();
std::unique_ptr<EchoServer> StartBlockingEchoServer();

}  // namespace velbench

#endif  // BENCH_ECHOSERVERS_H
