// One-way streaming of 1 MiB frames over one loopback connection: a sender thread writes frames
// as fast as the connection takes them while the calling thread reads them; the time runs from
// the start of the sender to the last byte received.
#include <sys/socket.h>

#include <cstring>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchRunner.h"
#include "BenchSupport.h"
#include "Cases.h"
#include "Clients.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPSocket.h"

namespace velbench {

namespace {

constexpr std::uint32_t kBodySize = 1 << 20;

class StreamCase : public Case {
public:
    std::string id() const override { return "stream"; }
    std::string title() const override { return "streaming 1 MiB bodies one way"; }
    std::string unit() const override { return "MiB/s"; }
    std::vector<Reference> references() const override { return {{"plain writev/read", 0.9}}; }
    unsigned long workCount(bool quick) const override { return quick ? 16 : 1000; }

    void setUp(bool /*quick*/) override {
        VEL_TCPAcceptor acceptor(0, "127.0.0.1");
        VELErr_t code = acceptor.open();
        if (code != kVELErr_Ok) {
            FailStatus("vel acceptor open", code);
        }
        _velSender = ConnectVel(acceptor.getLocalAddr().getPort());
        VEL_Socket* accepted = nullptr;
        code = acceptor.accept(accepted);
        if (code != kVELErr_Ok) {
            FailStatus("vel accept", code);
        }
        _velReceiver.reset(static_cast<VEL_TCPSocket*>(accepted));
        if (_outgoing.allocate(kBodySize) != kVELErr_Ok) {
            throw BenchError("no buffer for the outgoing body");
        }
        std::memset(_outgoing.data(), 's', kBodySize);

        unsigned short port = 0;
        const Fd listener = Listen(&port);
        _plainSender = Connect(port);  // no-delay on, as the vel sender
        _plainReceiver = Accept(listener.get());
        _plainBody.assign(kBodySize, 's');
        _plainIncoming.resize(kBodySize);
    }

    double run(std::size_t index, unsigned long count) override {
        return index == 0 ? runVel(count) : runPlain(count);
    }

    void tearDown() override {
        _velSender.reset();
        _velReceiver.reset();
        _outgoing.reset();
        _incoming.reset();
        _plainSender.reset();
        _plainReceiver.reset();
    }

private:
    // Runs `send` on a thread and `receive` here; a failure on either side shuts the receiving
    // descriptor down so that the other side ends too, then is thrown here.
    static double timed(int receivingFd, const std::function<void()>& send,
                        const std::function<void()>& receive) {
        std::string senderError;
        const double start = Now();
        std::thread sender([&] {
            try {
                send();
            } catch (const std::exception& e) {
                senderError = e.what();
                (void)::shutdown(receivingFd, SHUT_RDWR);
            }
        });
        std::string receiverError;
        try {
            receive();
        } catch (const std::exception& e) {
            receiverError = e.what();
            (void)::shutdown(receivingFd, SHUT_RDWR);
        }
        const double seconds = Now() - start;
        sender.join();
        if (!senderError.empty() || !receiverError.empty()) {
            throw BenchError(senderError.empty() ? receiverError : senderError);
        }
        return seconds;
    }

    double runVel(unsigned long count) {
        VEL_OXLv1 out(_velSender.get(), kBodySize);
        VEL_OXLv1 in(_velReceiver.get(), kBodySize);
        return timed(
                static_cast<int>(_velReceiver->getHandle()),
                [&] {
                    for (unsigned long i = 0; i < count; ++i) {
                        const VELErr_t code = out.sendMessage(&_outgoing);
                        if (code != kVELErr_Ok) {
                            FailStatus("vel sendMessage", code);
                        }
                    }
                },
                [&] {
                    for (unsigned long i = 0; i < count; ++i) {
                        const VELErr_t code = in.recvMessage(&_incoming);
                        if (code != kVELErr_Ok) {
                            FailStatus("vel recvMessage", code);
                        }
                        if (_incoming.size() != kBodySize) {
                            throw BenchError("vel frame of the wrong size");
                        }
                    }
                });
    }

    double runPlain(unsigned long count) {
        return timed(
                _plainReceiver.get(),
                [&] {
                    char header[kHeaderSize];
                    PutHeader(header, kBodySize);
                    for (unsigned long i = 0; i < count; ++i) {
                        iovec vec[2] = {{header, kHeaderSize}, {_plainBody.data(), kBodySize}};
                        if (!WriteVecFull(_plainSender.get(), vec, 2)) {
                            Fail("plain writev");
                        }
                    }
                },
                [&] {
                    char header[kHeaderSize];
                    for (unsigned long i = 0; i < count; ++i) {
                        if (!ReadFull(_plainReceiver.get(), header, kHeaderSize)) {
                            Fail("plain read of the header");
                        }
                        const std::uint32_t size = CheckHeader(header, kBodySize);
                        if (size != kBodySize ||
                            !ReadFull(_plainReceiver.get(), _plainIncoming.data(), size)) {
                            Fail("plain read of the body");
                        }
                    }
                });
    }

    std::unique_ptr<VEL_TCPSocket> _velSender;
    std::unique_ptr<VEL_TCPSocket> _velReceiver;
    VEL_Message _outgoing;
    VEL_Message _incoming;
    Fd _plainSender;
    Fd _plainReceiver;
    std::vector<char> _plainBody;
    std::vector<char> _plainIncoming;
};

}  // namespace

std::unique_ptr<Case> MakeStreamCase() {
    return std::make_unique<StreamCase>();
}

}  // namespace velbench
