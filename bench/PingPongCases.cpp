// Request/response over loopback: each connection sends one frame and waits for the echo before
// it sends the next. With several connections, every connection sends its frame, then every
// connection reads its answer, so each has one exchange in flight at a time.
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchRunner.h"
#include "Cases.h"
#include "Clients.h"
#include "EchoServers.h"
#include "VEL_EpollIOReactor.h"
#include "VEL_SelectIOReactor.h"

namespace velbench {

namespace {

constexpr std::uint32_t kBodySize = 64;

// Waits until `server` holds `count` connections (at most 10 s).
void awaitConnections(const EchoServer& server, unsigned long count) {
    const double limit = Now() + 10.0;
    while (server.connections() < count) {
        if (Now() > limit) {
            throw BenchError("the server did not accept every connection");
        }
        std::this_thread::yield();
    }
}

class PingPongCase : public Case {
public:
    // `connections` per variant; with `withFloor` the blocking pair is a reference too. With
    // `nativeTimeouts` the vel sockets use the system's time-outs (an option, shown for
    // information: the targets apply to the default options).
    PingPongCase(unsigned long connections, bool withFloor, bool nativeTimeouts)
        : _connections(connections), _withFloor(withFloor), _nativeTimeouts(nativeTimeouts) {}

    std::string id() const override {
        const std::string base =
                _connections == 1 ? "pingpong" : "pingpong" + std::to_string(_connections);
        return _nativeTimeouts ? base + "-native" : base;
    }
    std::string title() const override {
        return "ping-pong " + std::to_string(_connections) + " conn, 64 B" +
               (_nativeTimeouts ? ", native t/o" : "");
    }
    std::string velName() const override {
        return _nativeTimeouts ? "vel, native time-outs" : "vel";
    }
    std::string unit() const override { return "round trips/s"; }
    std::vector<Reference> references() const override {
        std::vector<Reference> refs;
        if (_withFloor) {
            refs.push_back({"blocking POSIX (floor)", _nativeTimeouts ? 0.0 : 0.85});
        }
        refs.push_back({"libevent bufferevent", _nativeTimeouts ? 0.0 : 1.0});
        if (withEpoll()) {
            refs.push_back({"vel on epoll (information)", 0.0});
        }
        return refs;
    }
    unsigned long workCount(bool quick) const override { return quick ? 400 : 20000; }

    void setUp(bool /*quick*/) override {
        const VEL_SockOptions options = VelOptions(_nativeTimeouts);
        _velServer = StartSelectEchoServer(VEL_SelectIOReactor::kSetSize, options);
        _libeventServer = StartLibeventEchoServer();
        if (_withFloor) {
            _blockingServer = StartBlockingEchoServer();
        }
        if (withEpoll()) {
            _epollServer = StartVelEchoServer(
                    std::make_unique<VEL_EpollIOReactor>(4 * _connections, basis::TimeValue(2, 0)),
                    options);
        }
        for (unsigned long i = 0; i < _connections; ++i) {
            _velClients.push_back(
                    std::make_unique<VelClient>(_velServer->port(), kBodySize, options));
            _libeventClients.push_back(
                    std::make_unique<PlainClient>(_libeventServer->port(), kBodySize));
            if (_withFloor) {
                _blockingClients.push_back(
                        std::make_unique<PlainClient>(_blockingServer->port(), kBodySize));
            }
            if (withEpoll()) {
                _epollClients.push_back(
                        std::make_unique<VelClient>(_epollServer->port(), kBodySize, options));
            }
        }
        awaitConnections(*_velServer, _connections);
        awaitConnections(*_libeventServer, _connections);
        if (_withFloor) {
            awaitConnections(*_blockingServer, _connections);
        }
        if (withEpoll()) {
            awaitConnections(*_epollServer, _connections);
        }
    }

    double run(std::size_t index, unsigned long count) override {
        const std::vector<std::unique_ptr<Client>>& clients = clientsOf(index);
        const unsigned long rounds = std::max(1UL, count / _connections);
        const double start = Now();
        for (unsigned long round = 0; round < rounds; ++round) {
            for (const std::unique_ptr<Client>& client : clients) {
                client->send();
            }
            for (const std::unique_ptr<Client>& client : clients) {
                client->receive();
            }
        }
        const double seconds = Now() - start;
        // The rate is computed for `count` exchanges: scale when rounding changed the count.
        return seconds * static_cast<double>(count) / static_cast<double>(rounds * _connections);
    }

    void tearDown() override {
        // Clients first, so that each server sees its connections end before it stops.
        _velClients.clear();
        _libeventClients.clear();
        _blockingClients.clear();
        _epollClients.clear();
        _velServer.reset();
        _epollServer.reset();
        _libeventServer.reset();
        _blockingServer.reset();
    }

private:
    const std::vector<std::unique_ptr<Client>>& clientsOf(std::size_t index) const {
        if (index == 0) {
            return _velClients;
        }
        if (index == 1 && _withFloor) {
            return _blockingClients;
        }
        return index == (_withFloor ? 2u : 1u) ? _libeventClients : _epollClients;
    }
    // With many connections the same server on the epoll back end is shown too.
    bool withEpoll() const { return _connections > 1; }

    const unsigned long _connections;
    const bool _withFloor;
    const bool _nativeTimeouts;
    std::unique_ptr<EchoServer> _velServer;
    std::unique_ptr<EchoServer> _libeventServer;
    std::unique_ptr<EchoServer> _blockingServer;
    std::unique_ptr<EchoServer> _epollServer;
    std::vector<std::unique_ptr<Client>> _velClients;
    std::vector<std::unique_ptr<Client>> _libeventClients;
    std::vector<std::unique_ptr<Client>> _blockingClients;
    std::vector<std::unique_ptr<Client>> _epollClients;
};

}  // namespace

std::unique_ptr<Case> MakePingPongCase(bool nativeTimeouts) {
    return std::make_unique<PingPongCase>(1, true, nativeTimeouts);
}

std::unique_ptr<Case> MakeManyConnectionsCase() {
    return std::make_unique<PingPongCase>(200, false, false);
}

}  // namespace velbench
