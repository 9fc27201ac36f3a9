// Pipelined load on one connection: 1 KiB bodies with 64 frames in flight. The same plain client
// drives every server: it writes the first 64 frames at once, then one more for each answer that
// comes back, reading the answers in 64 KiB reads, so that the servers see reads full of frames
// and can answer each read with one write.
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "BenchRunner.h"
#include "BenchSupport.h"
#include "Cases.h"
#include "EchoServers.h"
#include "VEL_EpollIOReactor.h"

namespace velbench {

namespace {

constexpr std::uint32_t kBodySize = 1024;
constexpr unsigned int kInFlight = 64;
constexpr std::size_t kFrameSize = kHeaderSize + kBodySize;

class PipelinedClient {
public:
    explicit PipelinedClient(unsigned short port)
        : _fd(Connect(port)), _frames(kInFlight * kFrameSize, 'q'), _input(64 << 10) {
        for (unsigned int i = 0; i < kInFlight; ++i) {
            PutHeader(_frames.data() + i * kFrameSize, kBodySize);
        }
    }

    // Exchanges `count` frames, keeping kInFlight in flight.
    void run(unsigned long count) {
        unsigned long sent = std::min<unsigned long>(kInFlight, count);
        send(sent);
        unsigned long received = 0;
        std::size_t used = 0;
        while (received < count) {
            const ssize_t got = ::read(_fd.get(), _input.data() + used, _input.size() - used);
            if (got <= 0) {
                Fail("pipelined read");
            }
            used += static_cast<std::size_t>(got);
            std::size_t at = 0;
            unsigned long whole = 0;
            while (used - at >= kFrameSize) {
                if (CheckHeader(_input.data() + at, kBodySize) != kBodySize) {
                    throw BenchError("pipelined answer of the wrong size");
                }
                at += kFrameSize;
                ++whole;
            }
            std::copy(_input.begin() + static_cast<long>(at),
                      _input.begin() + static_cast<long>(used), _input.begin());
            used -= at;
            received += whole;
            const unsigned long more = std::min(whole, count - sent);
            send(more);
            sent += more;
        }
    }

private:
    void send(unsigned long frames) {
        std::size_t done = 0;
        const std::size_t size = frames * kFrameSize;
        while (done < size) {
            const ssize_t written = ::send(_fd.get(), _frames.data() + done, size - done, 0);
            if (written < 0 && errno == EINTR) {
                continue;
            }
            if (written <= 0) {
                Fail("pipelined write");
            }
            done += static_cast<std::size_t>(written);
        }
    }

    Fd _fd;
    std::vector<char> _frames;  // kInFlight frames, back to back
    std::vector<char> _input;
};

class PipelineCase : public Case {
public:
    std::string id() const override { return "pipeline"; }
    std::string title() const override { return "pipelined 1 conn, 1 KiB x 64"; }
    std::string unit() const override { return "frames/s"; }
    std::string velName() const override { return "vel framed connection"; }
    std::vector<Reference> references() const override {
        return {{"libevent bufferevent", 2.0}, {"plain epoll, buffered", 0.5}};
    }
    unsigned long workCount(bool quick) const override { return quick ? 2000 : 300000; }

    void setUp(bool /*quick*/) override {
        _servers.push_back(StartFramedEchoServer(
                std::make_unique<VEL_EpollIOReactor>(64, basis::TimeValue(2, 0)),
                VELFramedLimits_t()));
        _servers.push_back(StartLibeventEchoServer());
        _servers.push_back(StartPlainEpollEchoServer());
        for (const auto& server : _servers) {
            _clients.push_back(std::make_unique<PipelinedClient>(server->port()));
        }
    }
    double run(std::size_t index, unsigned long count) override {
        const double start = Now();
        _clients[index]->run(count);
        return Now() - start;
    }
    void tearDown() override {
        _clients.clear();
        _servers.clear();
    }

private:
    std::vector<std::unique_ptr<EchoServer>> _servers;
    std::vector<std::unique_ptr<PipelinedClient>> _clients;
};

}  // namespace

std::unique_ptr<Case> MakePipelineCase() {
    return std::make_unique<PipelineCase>();
}

}  // namespace velbench
