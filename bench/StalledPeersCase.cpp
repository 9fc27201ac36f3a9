// Peers that hold a server up if it lets them, and a well-behaved client beside them.
//
// stalled: a ping-pong client (64-byte bodies) against a framed-connection server that also holds
// 50 peers dripping a frame one byte a second each (spread over the second) and 3 that stopped in
// the middle of a frame, against the same server without them. Besides the rates, the client's
// median and 99th percentile round trip with and without the bad peers (the target: p99 at most
// twice as long).
//
// largeecho: 16 MiB bodies echoed on a connection of a framed-connection server (and of the
// libevent server, for information); afterwards, the buffer storage that connection holds while
// idle (the target: at most 64 KiB).
#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "BenchRunner.h"
#include "BenchSupport.h"
#include "Cases.h"
#include "Clients.h"
#include "EchoServers.h"
#include "VEL_EpollIOReactor.h"

namespace velbench {

namespace {

constexpr std::uint32_t kBodySize = 64;
constexpr int kDrippers = 50;
constexpr int kStalled = 3;

// Writes one byte of a frame to each dripping peer every second, until destroyed.
class Drippers {
public:
    explicit Drippers(unsigned short port) : _frame(kHeaderSize + kBodySize, 'd') {
        PutHeader(&_frame[0], kBodySize);
        for (int i = 0; i < kDrippers; ++i) {
            _peers.push_back(Connect(port));
        }
        _thread = std::thread([this] { drip(); });
    }
    ~Drippers() {
        {
            std::lock_guard<std::mutex> hold(_lock);
            _stop = true;
        }
        _changed.notify_all();
        _thread.join();
    }

private:
    // Each peer sends its next byte once a second, the peers spread evenly over the second.
    void drip() {
        const auto gap = std::chrono::microseconds(1000000 / kDrippers);
        std::unique_lock<std::mutex> hold(_lock);
        for (std::size_t at = 0; !_stop; at = (at + 1) % _frame.size()) {
            for (std::size_t peer = 0; peer < _peers.size() && !_stop; ++peer) {
                (void)::send(_peers[peer].get(), &_frame[at], 1, MSG_NOSIGNAL);  // closed: nothing
                _changed.wait_for(hold, gap, [this] { return _stop; });
            }
        }
    }

    std::string _frame;
    std::vector<Fd> _peers;
    std::mutex _lock;  // guards _stop
    std::condition_variable _changed;
    bool _stop = false;
    std::thread _thread;
};

double median(std::vector<double> values) {
    if (values.empty()) {
        return 0.0;
    }
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

double percentile(std::vector<double> samples, double fraction) {
    if (samples.empty()) {
        return 0.0;
    }
    std::sort(samples.begin(), samples.end());
    const auto at = static_cast<std::size_t>(fraction * static_cast<double>(samples.size() - 1));
    return samples[at];
}

class StalledPeersCase : public Case {
public:
    std::string id() const override { return "stalled"; }
    std::string title() const override { return "ping-pong beside 53 bad peers"; }
    std::string unit() const override { return "round trips/s"; }
    std::string velName() const override { return "vel, 50 dripping + 3 stalled"; }
    std::vector<Reference> references() const override { return {{"vel, no bad peer", 0.5}}; }
    unsigned long workCount(bool quick) const override { return quick ? 400 : 20000; }

    void setUp(bool /*quick*/) override {
        VELFramedLimits_t limits;
        limits.frameDeadline = 3600;  // the bad peers stay for the whole case
        limits.outputDeadline = 3600;
        for (int i = 0; i < 2; ++i) {
            _servers.push_back(StartFramedEchoServer(
                    std::make_unique<VEL_EpollIOReactor>(256, basis::TimeValue(2, 0)), limits));
        }
        const unsigned short port = _servers[0]->port();
        _drippers = std::make_unique<Drippers>(port);
        std::string cut(kHeaderSize + 1, 's');
        PutHeader(&cut[0], kBodySize);
        for (int i = 0; i < kStalled; ++i) {
            _stalled.push_back(Connect(port));
            if (::send(_stalled.back().get(), cut.data(), cut.size(), MSG_NOSIGNAL) !=
                static_cast<ssize_t>(cut.size())) {
                Fail("stalled peer");
            }
        }
        for (const auto& server : _servers) {
            _clients.push_back(std::make_unique<PlainClient>(server->port(), kBodySize));
        }
        _samples.assign(_servers.size(), {});
    }
    double run(std::size_t index, unsigned long count) override {
        _samples[index].emplace_back();  // one list per run; the first is the warm-up
        std::vector<double>& samples = _samples[index].back();
        const double start = Now();
        for (unsigned long i = 0; i < count; ++i) {
            const double sent = Now();
            _clients[index]->send();
            _clients[index]->receive();
            samples.push_back(Now() - sent);
        }
        return Now() - start;
    }
    // The round trips' median and p99 over the timed runs of each side, and the median of the
    // p99 ratios of neighbouring runs (as the table's ratios are taken).
    std::vector<std::string> notes() const override {
        if (_samples.size() < 2 || _samples[0].size() < 2 || _samples[1].size() < 2) {
            return {};
        }
        std::vector<double> all[2];
        std::vector<double> ratios;
        for (std::size_t run = 1; run < std::min(_samples[0].size(), _samples[1].size()); ++run) {
            for (int side = 0; side < 2; ++side) {
                all[side].insert(all[side].end(), _samples[side][run].begin(),
                                 _samples[side][run].end());
            }
            ratios.push_back(percentile(_samples[0][run], 0.99) /
                             percentile(_samples[1][run], 0.99));
        }
        const double ratio = median(ratios);
        char line[260];
        std::snprintf(line, sizeof(line),
                      "round trip with bad peers: median %.1f us, p99 %.1f us; without: median "
                      "%.1f us, p99 %.1f us; p99 ratio, median of the runs %.2f (target <= "
                      "2.00: %s)",
                      percentile(all[0], 0.5) * 1e6, percentile(all[0], 0.99) * 1e6,
                      percentile(all[1], 0.5) * 1e6, percentile(all[1], 0.99) * 1e6, ratio,
                      ratio <= 2.0 ? "met" : "NOT met");
        return {line};
    }
    void tearDown() override {
        _clients.clear();
        _drippers.reset();
        _stalled.clear();
        _servers.clear();
    }

private:
    std::vector<std::unique_ptr<EchoServer>> _servers;  // [0] with the bad peers
    std::unique_ptr<Drippers> _drippers;
    std::vector<Fd> _stalled;
    std::vector<std::unique_ptr<PlainClient>> _clients;
    // Seconds per round trip, by side and run (the first run of each side is its warm-up).
    std::vector<std::vector<std::vector<double>>> _samples;
};

constexpr std::uint32_t kLargeBody = 16 << 20;

class LargeEchoCase : public Case {
public:
    std::string id() const override { return "largeecho"; }
    std::string title() const override { return "echo of 16 MiB bodies"; }
    std::string unit() const override { return "MiB/s"; }
    std::string velName() const override { return "vel framed connection"; }
    std::vector<Reference> references() const override { return {{"libevent bufferevent", 0.0}}; }
    unsigned long workCount(bool quick) const override { return quick ? 1 : 20; }
    double unitScale() const override { return 16.0; }

    void setUp(bool /*quick*/) override {
        _servers.push_back(StartFramedEchoServer(
                std::make_unique<VEL_EpollIOReactor>(64, basis::TimeValue(2, 0)),
                VELFramedLimits_t()));
        _servers.push_back(StartLibeventEchoServer());
        for (const auto& server : _servers) {
            _clients.push_back(std::make_unique<PlainClient>(server->port(), kLargeBody));
        }
    }
    double run(std::size_t index, unsigned long count) override {
        const double start = Now();
        for (unsigned long i = 0; i < count; ++i) {
            _clients[index]->send();
            _clients[index]->receive();
        }
        return Now() - start;
    }
    std::vector<std::string> notes() const override {
        if (_servers.empty()) {
            return {};
        }
        const std::size_t held = _servers[0]->heldBytes();
        char line[200];
        std::snprintf(line, sizeof(line),
                      "buffers held by the vel connection, idle after its echoes: %zu bytes "
                      "(target <= 65536: %s)",
                      held, held <= 65536 ? "met" : "NOT met");
        return {line};
    }
    void tearDown() override {
        _clients.clear();
        _servers.clear();
    }

private:
    std::vector<std::unique_ptr<EchoServer>> _servers;
    std::vector<std::unique_ptr<PlainClient>> _clients;
};

}  // namespace

std::unique_ptr<Case> MakeStalledPeersCase() {
    return std::make_unique<StalledPeersCase>();
}

std::unique_ptr<Case> MakeLargeEchoCase() {
    return std::make_unique<LargeEchoCase>();
}

}  // namespace velbench
