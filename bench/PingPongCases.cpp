// Request/response over loopback: each connection sends one frame and waits for the echo before
// it sends the next. With several connections, every connection sends its frame, then every
// connection reads its answer, so each has one exchange in flight at a time.
//
// The vel variant is the framed-connection server (VEL_FramedAcceptor and VEL_FramedConnection on
// the select back end) with vel clients; the references are the per-frame handler that reactor
// servers were written with before (recvMessage and sendMessage from handleInput, on the same back
// end), libevent, and, with one connection, the blocking floor.
#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
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

// One side of the case: a server and the clients that drive it.
struct Variant {
    Variant(std::string variantName, double least,
            std::function<std::unique_ptr<EchoServer>()> starter, bool vel)
        : name(std::move(variantName)), target(least), start(std::move(starter)), velClients(vel) {}

    std::string name;
    double target;
    std::function<std::unique_ptr<EchoServer>()> start;
    bool velClients;

    std::unique_ptr<EchoServer> server;
    std::vector<std::unique_ptr<Client>> clients;
};

std::unique_ptr<VEL_IOReactor> selectReactor() {
    return std::make_unique<VEL_SelectIOReactor>(VEL_SelectIOReactor::kSetSize,
                                                 basis::TimeValue(2, 0));
}

class PingPongCase : public Case {
public:
    // `connections` per variant; with one, the blocking pair is a reference too. With
    // `nativeTimeouts` the vel sockets use the system's time-outs (shown for information: the
    // targets apply to the default options).
    PingPongCase(unsigned long connections, bool nativeTimeouts)
        : _connections(connections), _nativeTimeouts(nativeTimeouts) {
        const VEL_SockOptions options = VelOptions(nativeTimeouts);
        const double target = nativeTimeouts ? 0.0 : 1.0;
        _variants.emplace_back(
                nativeTimeouts ? "vel, native time-outs" : "vel", 0.0,
                [] { return StartFramedEchoServer(selectReactor(), {}); }, true);
        _variants.emplace_back(
                "per-frame handler (before)", target,
                [options] { return StartVelEchoServer(selectReactor(), options); }, true);
        if (connections == 1) {
            _variants.emplace_back(
                    "blocking POSIX (floor)", nativeTimeouts ? 0.0 : 0.85,
                    [] { return StartBlockingEchoServer(); }, false);
        }
        _variants.emplace_back(
                "libevent bufferevent", target, [] { return StartLibeventEchoServer(); }, false);
        if (connections > 1) {
            _variants.emplace_back(
                    "vel on epoll (information)", 0.0,
                    [connections] {
                        return StartFramedEchoServer(
                                std::make_unique<VEL_EpollIOReactor>(4 * connections,
                                                                     basis::TimeValue(2, 0)),
                                {});
                    },
                    true);
        }
    }

    std::string id() const override {
        const std::string base =
                _connections == 1 ? "pingpong" : "pingpong" + std::to_string(_connections);
        return _nativeTimeouts ? base + "-native" : base;
    }
    std::string title() const override {
        return "ping-pong " + std::to_string(_connections) + " conn, 64 B" +
               (_nativeTimeouts ? ", native t/o" : "");
    }
    std::string velName() const override { return _variants[0].name; }
    std::string unit() const override { return "round trips/s"; }
    std::vector<Reference> references() const override {
        std::vector<Reference> refs;
        for (std::size_t i = 1; i < _variants.size(); ++i) {
            refs.push_back({_variants[i].name, _variants[i].target});
        }
        return refs;
    }
    unsigned long workCount(bool quick) const override { return quick ? 400 : 20000; }

    void setUp(bool /*quick*/) override {
        const VEL_SockOptions options = VelOptions(_nativeTimeouts);
        for (Variant& variant : _variants) {
            variant.server = variant.start();
            for (unsigned long i = 0; i < _connections; ++i) {
                if (variant.velClients) {
                    variant.clients.push_back(std::make_unique<VelClient>(variant.server->port(),
                                                                          kBodySize, options));
                } else {
                    variant.clients.push_back(
                            std::make_unique<PlainClient>(variant.server->port(), kBodySize));
                }
            }
        }
        for (const Variant& variant : _variants) {
            awaitConnections(*variant.server, _connections);
        }
    }
    double run(std::size_t index, unsigned long count) override {
        const std::vector<std::unique_ptr<Client>>& clients = _variants[index].clients;
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
        for (Variant& variant : _variants) {
            variant.clients.clear();
        }
        for (Variant& variant : _variants) {
            variant.server.reset();
        }
    }

private:
    const unsigned long _connections;
    const bool _nativeTimeouts;
    std::vector<Variant> _variants;
};

}  // namespace

std::unique_ptr<Case> MakePingPongCase(bool nativeTimeouts) {
    return std::make_unique<PingPongCase>(1, nativeTimeouts);
}

std::unique_ptr<Case> MakeManyConnectionsCase() {
    return std::make_unique<PingPongCase>(200, false);
}

}  // namespace velbench
