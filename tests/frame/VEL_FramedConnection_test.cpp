#include "VEL_FramedConnection.h"

#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>
#include <gtest/gtest.h>

#include "FramedTestSupport.h"
#include "TestSupport.h"
#include "VEL_ByteStream.h"
#include "VEL_Encryptor.h"
#include "VEL_HOLM.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"
#include "VEL_TCPSocket.h"
#include "VEL_TN3270.h"

namespace {

using frametest::CloseOf;
using frametest::Encode;
using frametest::Frame;
using frametest::Oxl1;
using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using veltest::Recorder;

constexpr unsigned long kMaxBody = 32 << 20;

// Makes a `Codec` of `arguments`, then runs `setUp` (if any) on it.
template <class Codec, class... Arguments>
std::function<std::unique_ptr<VEL_FrameCodec>()> Maker(std::function<void(Codec&)> setUp = {},
                                                       Arguments... arguments) {
    return [=] {
        std::unique_ptr<Codec> codec(new Codec(arguments...));
        if (setUp) {
            setUp(*codec);
        }
        return std::unique_ptr<VEL_FrameCodec>(std::move(codec));
    };
}

// One wire format as a server and its client meet it: the server's codec as a server makes it,
// the client's set up as the case says, and the bodies the format and its settings take.
struct CodecCase {
    const char* name;
    std::function<std::unique_ptr<VEL_FrameCodec>()> server, client;
    std::size_t smallest, largest;  // body sizes the client can send
    bool text;    // compressible bodies (a compressing sender refuses what does not shrink)
    bool joined;  // no framing: judged on the bytes, joined
};

std::vector<CodecCase> Codecs() {
    const auto holmSecure = [](VEL_HOLMCodec& codec) {
        ASSERT_EQ(codec.openSecureSession(), kVELErr_Ok);
        codec.setCompression(true, kVELHOLMCompAlgo_Default);
    };
    return {
            {"oxl1", Maker<VEL_OXLv1Codec>({}, kMaxBody), Maker<VEL_OXLv1Codec>({}, kMaxBody), 0,
             kMaxBody, false, false},
            {"oxl2", Maker<VEL_OXLv2Codec>({}, kMaxBody), Maker<VEL_OXLv2Codec>({}, kMaxBody), 0,
             kMaxBody, false, false},
            {"oxl2 compressed", Maker<VEL_OXLv2Codec>({}, kMaxBody),
             Maker<VEL_OXLv2Codec>([](VEL_OXLv2Codec& codec) { codec.setCompression(true); },
                                   kMaxBody),
             100, 59000, true, false},
            {"oxl5", Maker<VEL_OXLv5Codec>(), Maker<VEL_OXLv5Codec>(), 0, kVEL_OXLv5MaxBody, false,
             false},
            {"holm", Maker<VEL_HOLMCodec>({}, kMaxBody), Maker<VEL_HOLMCodec>({}, kMaxBody), 0,
             kMaxBody, false, false},
            {"holm secure compressed", Maker<VEL_HOLMCodec>({}, kMaxBody),
             Maker<VEL_HOLMCodec>(holmSecure, kMaxBody), 100, 59000, true, false},
            {"tn3270", Maker<VEL_TN3270Codec>(), Maker<VEL_TN3270Codec>(), 1, kMaxBody, false,
             true},
    };
}

// Words that compress about 3:1, `size` bytes of them.
std::string Text(std::size_t size, unsigned int seed) {
    static const char* const kWords[] = {"frame ", "reactor ", "peer ", "message ", "socket "};
    std::string text;
    while (text.size() < size) {
        text += kWords[(seed = seed * 1103515245u + 12345u) >> 16 & 3];
    }
    text.resize(size);
    return text;
}

// Reads frames from a raw descriptor and decodes them with a client codec.
class FrameReader {
public:
    FrameReader(int fd, std::unique_ptr<VEL_FrameCodec> codec)
        : _fd(fd), _codec(std::move(codec)) {}

    // The bodies of the next `count` messages; fewer when the stream ends, a frame is bad or
    // `limit` passes.
    std::vector<std::string> read(std::size_t count, milliseconds limit = seconds(20)) {
        std::vector<std::string> bodies;
        const auto deadline = steady_clock::now() + limit;
        while (decodeWaiting(&bodies, count) && bodies.size() < count && fill(deadline)) {
        }
        return bodies;
    }
    // The bodies of the next messages joined, once they hold `size` bytes (fewer when the
    // stream ends, a frame is bad or 20 s pass without a message).
    std::string readBytes(std::size_t size) {
        std::string joined;
        for (std::vector<std::string> next; joined.size() < size && !(next = read(1)).empty();) {
            joined += next[0];
        }
        return joined;
    }
    // True once the peer has ended the stream (within `limit`), whatever came before.
    bool ended(milliseconds limit = seconds(10)) {
        const auto deadline = steady_clock::now() + limit;
        while (fill(deadline)) {
            _waiting.clear();
        }
        return _ended;
    }

    // Gives up the codec without deleting it (it belongs to someone else).
    void release() { (void)_codec.release(); }

private:
    bool decodeWaiting(std::vector<std::string>* bodies, std::size_t count) {
        while (!_waiting.empty() && bodies->size() < count) {
            std::size_t used = 0;
            const VELErr_t code =
                    _codec->decode(_waiting.data(), _waiting.size(), &used, &_message);
            _waiting.erase(0, used);
            if (code == kVELErr_Incomplete) {
                return true;
            }
            if (code != kVELErr_Ok) {
                ADD_FAILURE() << "bad reply frame: " << code;
                return false;
            }
            bodies->emplace_back(_message.data() == nullptr
                                         ? ""
                                         : std::string(_message.data(), _message.size()));
        }
        return true;
    }
    bool fill(steady_clock::time_point deadline) {
        const auto left = std::chrono::duration_cast<milliseconds>(deadline - steady_clock::now());
        pollfd entry{_fd, POLLIN, 0};
        if (left.count() <= 0 || ::poll(&entry, 1, static_cast<int>(left.count())) <= 0) {
            return false;
        }
        char chunk[65536];
        const ssize_t got = ::recv(_fd, chunk, sizeof(chunk), 0);
        if (got <= 0) {
            _ended = true;
            return false;
        }
        _waiting.append(chunk, static_cast<std::size_t>(got));
        return true;
    }

    const int _fd;
    std::unique_ptr<VEL_FrameCodec> _codec;
    VEL_Message _message;
    std::string _waiting;
    bool _ended = false;
};

class FramedConnectionTest : public frametest::FramedReactorTest {
protected:
    // A started connection on the server end of a fresh loopback pair; the client end (with
    // no-delay) goes to `client`.
    boost::shared_ptr<VEL_FramedConnection> serve(
            const boost::shared_ptr<Recorder>& handler, std::unique_ptr<VEL_TCPSocket>* client,
            const VELFramedLimits_t& limits = VELFramedLimits_t(),
            std::unique_ptr<VEL_FrameCodec> codec = Oxl1(),
            const VEL_SockOptions& serverOptions = VEL_SockOptions()) {
        VEL_SockOptions options = serverOptions;
        options.setNoDelay(true);
        veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair(options);
        EXPECT_EQ(pair.server->setOptions(options), kVELErr_Ok);
        *client = std::move(pair.client);
        auto connection = VEL_FramedConnection::Create(*_reactor, std::move(pair.server),
                                                       std::move(codec), handler, limits);
        EXPECT_TRUE(connection);
        EXPECT_EQ(connection->start(), kVELErr_Ok);
        return connection;
    }
};

// A thread playing a peer on `fd`. If the test ends early it is freed (its descriptor shut
// down) and joined, so that no assertion leaves it running.
class PeerThread {
public:
    PeerThread(int fd, std::function<void()> body) : _fd(fd), _thread(std::move(body)) {}
    ~PeerThread() {
        if (_thread.joinable()) {
            (void)::shutdown(_fd, SHUT_RDWR);
            _thread.join();
        }
    }
    PeerThread(const PeerThread&) = delete;
    PeerThread& operator=(const PeerThread&) = delete;
    void join() { _thread.join(); }

private:
    const int _fd;
    std::thread _thread;
};

// Writes `bytes` in pieces of random sizes (1 byte to 3 KiB, some single bytes), so that frames
// reach the server cut at every kind of place.
void WriteInPieces(int fd, const std::string& bytes, unsigned int seed) {
    std::mt19937 random(seed);
    std::size_t done = 0;
    while (done < bytes.size()) {
        std::size_t piece = random() % 4 == 0 ? 1 : 1 + random() % 3072;
        piece = std::min(piece, bytes.size() - done);
        ASSERT_TRUE(veltest::WriteAll(fd, bytes.data() + done, piece));
        done += piece;
    }
}

// Every codec: a burst of frames of every size (empty, headers cut, bodies larger than the read
// buffer and than the socket's) written in random pieces comes back whole and in order.
TEST_P(FramedConnectionTest, EveryCodecEchoesFramesHoweverTheBytesArrive) {
    const unsigned int seed = std::random_device()();
    SCOPED_TRACE("seed " + std::to_string(seed));
    for (const CodecCase& tested : Codecs()) {
        SCOPED_TRACE(tested.name);
        std::vector<std::string> bodies;
        const auto add = [&](std::size_t size) {
            size = std::max(tested.smallest, std::min(size, tested.largest));
            const auto n = static_cast<unsigned int>(bodies.size());
            bodies.push_back(tested.text ? Text(size, n) : veltest::Pattern(size, n));
        };
        for (unsigned int i = 0; i < 200; ++i) {
            add(1 + i * 7 % 1500);
        }
        for (std::size_t size : {0, 1, 11, 12, 13, 1000, 70000, 300000}) {  // the largest last
            add(size);
        }
        const std::unique_ptr<VEL_FrameCodec> encoder = tested.client();
        std::string stream, sent;
        for (const std::string& body : bodies) {
            stream += Encode(*encoder, body);
            sent += body;
        }
        const std::string tag = tested.name + std::string(":");
        auto handler = boost::make_shared<Recorder>(_log, tag);
        std::unique_ptr<VEL_TCPSocket> client;
        const auto connection = serve(handler, &client, VELFramedLimits_t(), tested.server());
        // The client's codec decodes the echo: it holds the session the secure frames use.
        FrameReader reader(veltest::Fd(*client), std::unique_ptr<VEL_FrameCodec>(encoder.get()));
        PeerThread writer(veltest::Fd(*client),
                          [&] { WriteInPieces(veltest::Fd(*client), stream, seed); });
        if (tested.joined) {
            const std::string echoed = reader.readBytes(sent.size());
            writer.join();
            EXPECT_TRUE(echoed == sent) << echoed.size() << " of " << sent.size() << " bytes";
        } else {
            const std::vector<std::string> echoed = reader.read(bodies.size());
            writer.join();
            ASSERT_EQ(echoed.size(), bodies.size());
            for (std::size_t i = 0; i < bodies.size(); ++i) {
                ASSERT_EQ(echoed[i], bodies[i]) << "message " << i;
            }
        }
        reader.release();
        EXPECT_EQ(handler->queueFull.load(), 0u);
        // Idle again, the connection gives back the storage of its largest body and output.
        EXPECT_TRUE(
                veltest::WaitFor([&] { return connection->heldBytes() <= 64u << 10; }, seconds(2)))
                << connection->heldBytes();
        for (const std::string& event : _log.events()) {
            EXPECT_NE(event.compare(0, tag.size(), tag), 0) << "a send failed, or it closed";
        }
    }
}

// HOLM through a framed connection: the key goes out in the client's first frame, the server
// opens the matching session and answers through it. Once that session has expired (one second
// without a decryption), the server can no longer send on it, and a frame that still uses it
// closes the connection with kVELErr_SecureSession.
TEST_P(FramedConnectionTest, HolmSessionsOpenInBandAndExpireThroughTheConnection) {
    struct Expiry {
        Expiry() { VEL_Encryptor::Instance()->setInactivityTimeout(1); }
        ~Expiry() { VEL_Encryptor::Instance()->setInactivityTimeout(0); }
    } expiry;
    auto handler = boost::make_shared<Recorder>(_log, "holm");
    std::unique_ptr<VEL_TCPSocket> client;
    const auto connection = serve(handler, &client, VELFramedLimits_t(),
                                  std::unique_ptr<VEL_FrameCodec>(new VEL_HOLMCodec(kMaxBody)));
    auto codec = new VEL_HOLMCodec(kMaxBody);
    FrameReader reader(veltest::Fd(*client), std::unique_ptr<VEL_FrameCodec>(codec));
    ASSERT_EQ(codec->openSecureSession(), kVELErr_Ok);
    const std::string first = Encode(*codec, "key exchange");
    EXPECT_EQ(first[21], 16) << "the first secure frame carries the key";
    ASSERT_TRUE(veltest::WriteAll(veltest::Fd(*client), first));
    EXPECT_EQ(reader.read(1), std::vector<std::string>{"key exchange"});
    const std::string late = Encode(*codec, "late");

    ASSERT_TRUE(veltest::WaitFor(
            [&] {
                VEL_Message probe;
                EXPECT_EQ(probe.setData("probe", 5), kVELErr_Ok);
                return connection->send(&probe) == kVELErr_SecureSession;
            },
            seconds(5)));
    EXPECT_TRUE(connection->isOpen()) << "a refused send leaves the connection open";
    EXPECT_EQ(connection->pendingOutput(), 0u);
    ASSERT_TRUE(veltest::WriteAll(veltest::Fd(*client), late));
    EXPECT_TRUE(_log.waitCount("holm close " + std::to_string(kVELErr_SecureSession), 1));
    EXPECT_TRUE(reader.ended());
}

// What the peer does wrong, and the reason the connection gives its handler. Each bad peer is
// closed alone: a well-behaved connection beside it is still served afterwards.
struct BadPeer {
    const char* name;
    std::string bytes;  // written, then the peer ends its stream (or resets it)
    bool reset;
    VELErr_t reason;
};

std::string Oxl1Header(std::uint32_t total, std::uint32_t check, std::uint16_t marker,
                       char version) {
    std::string header(12, '\0');
    for (int i = 0; i < 4; ++i) {
        header[i] = static_cast<char>(total >> (24 - 8 * i));
        header[4 + i] = static_cast<char>(check >> (24 - 8 * i));
    }
    header[8] = static_cast<char>(marker >> 8);
    header[9] = static_cast<char>(marker);
    header[10] = version;
    return header;
}

TEST_P(FramedConnectionTest, ABadPeerIsClosedWithItsReasonAndTheOthersAreServed) {
    const std::string good = Frame("fine");
    const std::vector<BadPeer> peers = {
            {"bad marker", Oxl1Header(20, ~20u, 33, '1') + "12345678", false,
             kVELErr_BadStreamHeader},
            {"bad version", Oxl1Header(20, ~20u, 32, '2') + "12345678", false,
             kVELErr_BadStreamHeader},
            {"body too big", Oxl1Header(kMaxBody + 13, ~std::uint32_t{kMaxBody + 13}, 32, '1'),
             false, kVELErr_MessageTooBig},
            {"ends in a header", good + good.substr(0, 5), false, kVELErr_SockHalfClosed},
            {"ends in a body", good + good.substr(0, 14), false, kVELErr_SockHalfClosed},
            {"resets in a body", good.substr(0, 14), true, kVELErr_SockHalfClosed},
    };
    auto bystander = boost::make_shared<Recorder>(_log, "bystander");
    std::unique_ptr<VEL_TCPSocket> bystanderClient;
    const auto kept = serve(bystander, &bystanderClient);
    FrameReader bystanderReader(veltest::Fd(*bystanderClient), Oxl1());
    for (const BadPeer& peer : peers) {
        SCOPED_TRACE(peer.name);
        auto handler = boost::make_shared<Recorder>(_log, peer.name);
        std::unique_ptr<VEL_TCPSocket> client;
        const auto connection = serve(handler, &client);
        const int fd = veltest::Fd(*client);
        ASSERT_TRUE(veltest::WriteAll(fd, peer.bytes));
        if (peer.reset) {
            const linger abort{1, 0};
            ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_LINGER, &abort, sizeof(abort)), 0);
            (void)client->close();
        } else {
            ASSERT_EQ(::shutdown(fd, SHUT_WR), 0);
        }
        ASSERT_TRUE(_log.waitCount(handler->closeEvent(peer.reason), 1));
        EXPECT_FALSE(connection->isOpen());
        EXPECT_EQ(connection->send(&*std::make_unique<VEL_Message>()), kVELErr_SockNotConnected);
        if (!peer.reset) {
            FrameReader reader(fd, Oxl1());
            EXPECT_TRUE(reader.ended()) << "the server kept the connection";
        }
        ASSERT_TRUE(veltest::WriteAll(veltest::Fd(*bystanderClient), good));
        EXPECT_EQ(bystanderReader.read(1), std::vector<std::string>{"fine"});
    }
    EXPECT_EQ(_log.events().size(), peers.size()) << "one close each, nothing else";
}

// The worst peers of a listener that gives a frame, output progress and silence 2 s each: three
// stop in the middle of a frame, five drip a frame one byte every 100 ms, one says nothing; beside
// them, a connection held to its output deadline alone sends a large frame and never reads the
// echo. A client that connects after them all is served at once, before any of them reaches its
// deadline, and with a round trip every 200 ms it is never closed. Each bad peer is closed with
// kVELErr_Timeout, no sooner than its deadline (less the timers' granularity) and within it
// plus 2.5 s.
TEST_P(FramedConnectionTest, BadPeersAreClosedForTheirDeadlinesAndDelayNobody) {
    VELFramedLimits_t limits;
    limits.frameDeadline = 2;
    limits.outputDeadline = 2;
    limits.idleTimeout = 2;
    limits.highWater = 64 << 10;
    limits.lowWater = 16 << 10;
    auto factory = boost::make_shared<frametest::EchoFactory>(_log, limits);
    _acceptor = VEL_FramedAcceptor::Create(*_reactor, VEL_SockAddr(0, "127.0.0.1"), factory);
    ASSERT_EQ(_acceptor->open(), kVELErr_Ok);
    const unsigned short port = _acceptor->getLocalAddr().getPort();
    const std::string frame = Frame(veltest::Pattern(100, 1));
    const auto started = steady_clock::now();
    std::vector<veltest::RawFd> bad;  // 0-2 stalled, 3-7 dripping, 8 silent
    for (int i = 0; i < 9; ++i) {
        bad.push_back(veltest::RawConnect(port));
    }
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(veltest::WriteAll(bad[i].get(), frame.substr(0, 13)));
    }
    std::size_t at = 0;
    const veltest::Paced dripping(milliseconds(100), seconds(10), [&bad, &frame, &at] {
        for (int i = 3; i < 8; ++i) {
            (void)::send(bad[i].get(), &frame[at], 1, MSG_NOSIGNAL);  // may be closed
        }
        at = (at + 1) % frame.size();
        return true;
    });
    VELFramedLimits_t outputOnly;
    outputOnly.frameDeadline = 0;
    outputOnly.idleTimeout = 0;
    outputOnly.outputDeadline = 2;
    outputOnly.highWater = 64 << 10;
    VEL_SockOptions small;  // so that the system's buffers cannot take the echo
    small.setSndBufSize(32 << 10);
    small.setRcvBufSize(32 << 10);
    auto deafHandler = boost::make_shared<Recorder>(_log, "deaf");
    std::unique_ptr<VEL_TCPSocket> deaf;
    const auto deafConnection = serve(deafHandler, &deaf, outputOnly, Oxl1(), small);
    PeerThread deafWriter(veltest::Fd(*deaf), [&deaf] {
        (void)veltest::WriteAll(veltest::Fd(*deaf), Frame(veltest::Pattern(4 << 20, 2)));
    });
    ASSERT_TRUE(veltest::WaitFor([&] { return factory->made.load() == 9; }));

    veltest::RawFd good = veltest::RawConnect(port);
    FrameReader reader(good.get(), Oxl1());
    const auto roundTrip = [&](int i) {
        const std::string body = "round trip " + std::to_string(i);
        ASSERT_TRUE(veltest::WriteAll(good.get(), Frame(body)));
        ASSERT_EQ(reader.read(1), std::vector<std::string>{body});
    };
    for (int i = 0; i < 20; ++i) {
        roundTrip(i);
    }
    _log.add("good client served");
    const auto closes = [this] {
        const std::vector<std::string> events = _log.events();
        return std::count_if(events.begin(), events.end(), [](const std::string& event) {
            return event.find(" close ") != std::string::npos;
        });
    };
    for (int i = 20; steady_clock::now() < started + milliseconds(4500); ++i) {
        const bool early = closes() > 0;
        EXPECT_FALSE(early && steady_clock::now() < started + milliseconds(1750))
                << "closed before its deadline";
        roundTrip(i);
        std::this_thread::sleep_for(milliseconds(200));  // the pace of a steady peer
    }
    std::vector<std::string> expected = {deafHandler->closeEvent(kVELErr_Timeout)};
    for (const veltest::RawFd& peer : bad) {
        expected.push_back(CloseOf(peer.get(), kVELErr_Timeout));
    }
    for (const std::string& close : expected) {
        EXPECT_EQ(_log.count(close), 1u) << "not closed for its deadline: " << close;
    }
    EXPECT_EQ(closes(), static_cast<long>(expected.size())) << "the good client was closed";
    deafWriter.join();
    const std::vector<std::string> events = _log.events();
    const auto served = std::find(events.begin(), events.end(), "good client served");
    for (auto event = events.begin(); event != served; ++event) {
        ADD_FAILURE() << "before the good client was served: " << *event;
    }
    EXPECT_EQ(factory->made.load(), 10u);
}

// A peer that sends without reading: once pending output reaches the high-water mark the
// connection stops reading (the peer's writes block) and send reports kVELErr_QueueFull; once
// the peer reads, reading resumes, onDrained runs, and every frame comes back in order.
TEST_P(FramedConnectionTest, BackPressureStopsReadingUntilThePeerReads) {
    VELFramedLimits_t limits;
    limits.highWater = 64 << 10;
    limits.lowWater = 16 << 10;
    VEL_SockOptions small;  // so that the system's buffers do not hide the queue
    small.setSndBufSize(32 << 10);
    small.setRcvBufSize(32 << 10);
    auto handler = boost::make_shared<Recorder>(_log, "x");
    std::unique_ptr<VEL_TCPSocket> client;
    const auto connection = serve(handler, &client, limits, Oxl1(), small);
    const int fd = veltest::Fd(*client);
    constexpr unsigned long kFrames = 2000;  // 16 MiB
    std::vector<std::string> bodies;
    for (unsigned long i = 0; i < kFrames; ++i) {
        bodies.push_back(veltest::Pattern(8 << 10, static_cast<unsigned int>(i)));
    }
    std::atomic<pid_t> writerTid{0};
    PeerThread writer(fd, [&] {
        writerTid = veltest::CurrentTid();
        for (const std::string& body : bodies) {
            ASSERT_TRUE(veltest::WriteAll(fd, Frame(body)));
        }
    });
    ASSERT_TRUE(veltest::WaitFor([&] { return writerTid.load() != 0; }));
    ASSERT_TRUE(veltest::WaitFor([&] { return !connection->isReading(); }));
    EXPECT_TRUE(veltest::WaitUntilSleeping(writerTid.load())) << "the writer was never held";
    EXPECT_TRUE(veltest::WaitFor([&] { return handler->queueFull.load() >= 1; }));
    // Once reading stops, what the last dispatch had read is all that is queued.
    EXPECT_LE(connection->pendingOutput(), limits.highWater + limits.readBudget);
    EXPECT_LT(handler->messages.load(), kFrames);
    EXPECT_EQ(_log.count("x drained"), 0u);

    FrameReader reader(fd, Oxl1());
    EXPECT_EQ(reader.read(kFrames), bodies);
    writer.join();
    EXPECT_GE(_log.count("x drained"), 1u);
    EXPECT_EQ(connection->pendingOutput(), 0u);
}

// A stream that, like a TLS stream, keeps input of its own: the bytes it holds were taken off the
// descriptor before the connection asked for them. The descriptor rings once (one byte, which a
// read drains); then every read serves the held bytes. Writes go to the descriptor.
class HoldingStream : public VEL_ByteStream {
public:
    HoldingStream(veltest::RawFd fd, std::string held)
        : _fd(std::move(fd)), _held(std::move(held)) {}

    unsigned int getHandle() const override { return static_cast<unsigned int>(_fd.get()); }
    const VEL_SockAddr& getRemoteAddr() const override { return _peer; }
    VELErr_t readAvail(const VELIoVec* places, unsigned long count, std::size_t* moved) override {
        char doorbell[16];
        (void)::recv(_fd.get(), doorbell, sizeof(doorbell), MSG_DONTWAIT);
        *moved = 0;
        for (unsigned long i = 0; i < count && _at < _held.size(); ++i) {
            const std::size_t take = std::min<std::size_t>(places[i].iov_len, _held.size() - _at);
            std::memcpy(places[i].iov_base, _held.data() + _at, take);
            _at += take;
            *moved += take;
        }
        return kVELErr_Ok;
    }
    VELErr_t writeAvail(const VELIoVec* pieces, unsigned long count, std::size_t* moved) override {
        std::vector<iovec> vector;
        for (unsigned long i = 0; i < count; ++i) {
            vector.push_back(iovec{pieces[i].iov_base, pieces[i].iov_len});
        }
        msghdr message{};
        message.msg_iov = vector.data();
        message.msg_iovlen = vector.size();
        const ssize_t sent = ::sendmsg(_fd.get(), &message, MSG_DONTWAIT | MSG_NOSIGNAL);
        *moved = sent > 0 ? static_cast<std::size_t>(sent) : 0;
        return sent >= 0 || errno == EAGAIN ? kVELErr_Ok : kVELErr_Send;
    }
    bool hasBufferedInput() const override { return _at < _held.size(); }
    void shutdown() override { (void)::shutdown(_fd.get(), SHUT_RDWR); }
    VELErr_t close() override {
        _fd.reset();
        return kVELErr_Ok;
    }

private:
    veltest::RawFd _fd;
    const std::string _held;
    std::size_t _at = 0;
    const VEL_SockAddr _peer;
};

// Input that the stream holds, which the descriptor no longer shows, is read all the same when a
// dispatch stops at its read budget or when back-pressure lifts: every frame comes back.
TEST_P(FramedConnectionTest, InputHeldByTheStreamIsReadWithoutTheDescriptor) {
    std::string frames;
    std::vector<std::string> bodies;
    for (unsigned int i = 0; i < 256; ++i) {
        bodies.push_back(veltest::Pattern(8 << 10, i));
        frames += Frame(bodies.back());
    }
    VELFramedLimits_t budget;
    budget.readBudget = 1;  // one read per dispatch
    VELFramedLimits_t pressure;
    pressure.highWater = 64 << 10;
    pressure.lowWater = 16 << 10;
    for (const VELFramedLimits_t& limits : {budget, pressure}) {
        SCOPED_TRACE(limits.readBudget == 1 ? "read budget" : "back-pressure");
        veltest::RawPair pair = veltest::MakeRawPair();
        const int client = pair.client.get();
        for (const int fd : {client, pair.server.get()}) {
            const int size = 32 << 10;  // so that the system's buffers do not hide the queue
            ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &size, sizeof(size)), 0);
            ASSERT_EQ(::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size)), 0);
        }
        auto handler = boost::make_shared<Recorder>(_log, "x");
        const auto connection = VEL_FramedConnection::Create(
                *_reactor,
                std::unique_ptr<VEL_ByteStream>(new HoldingStream(std::move(pair.server), frames)),
                Oxl1(), handler, limits);
        ASSERT_EQ(connection->start(), kVELErr_Ok);
        ASSERT_TRUE(veltest::WriteAll(client, "!"));
        if (limits.highWater == pressure.highWater) {
            ASSERT_TRUE(veltest::WaitFor([&] { return !connection->isReading(); }));
        }
        FrameReader reader(client, Oxl1());
        EXPECT_EQ(reader.read(bodies.size(), seconds(10)), bodies);
        connection->close();
    }
}

// Several threads send at once, most while output is pending: every frame arrives whole, and
// each thread's frames in the order it sent them.
TEST_P(FramedConnectionTest, SendsFromManyThreadsArriveWholeAndInOrder) {
    auto handler = boost::make_shared<Recorder>(_log, "x");
    std::unique_ptr<VEL_TCPSocket> client;
    const auto connection = serve(handler, &client);
    constexpr int kThreads = 4;
    constexpr int kEach = 250;
    std::vector<std::thread> senders;
    for (int t = 0; t < kThreads; ++t) {
        senders.emplace_back([&, t] {
            for (int i = 0; i < kEach; ++i) {
                const std::string body = std::to_string(t) + " " + std::to_string(i) + " " +
                                         veltest::Pattern(1 + (i * 7919) % 60000, t * kEach + i);
                VEL_Message message;
                ASSERT_EQ(message.setData(body.data(), body.size()), kVELErr_Ok);
                const VELErr_t code = connection->send(&message);
                ASSERT_TRUE(code == kVELErr_Ok || code == kVELErr_QueueFull) << code;
            }
        });
    }
    FrameReader reader(veltest::Fd(*client), Oxl1());
    const std::vector<std::string> bodies = reader.read(kThreads * kEach);
    for (std::thread& sender : senders) {
        sender.join();
    }
    ASSERT_EQ(bodies.size(), static_cast<std::size_t>(kThreads * kEach));
    std::vector<int> next(kThreads, 0);
    for (const std::string& body : bodies) {
        const int t = std::stoi(body);
        const std::size_t space = body.find(' ', 2);
        const int i = std::stoi(body.substr(2));
        ASSERT_EQ(i, next[t]) << "thread " << t << " out of order";
        ASSERT_EQ(body.substr(space + 1), veltest::Pattern(1 + (i * 7919) % 60000, t * kEach + i));
        ++next[t];
    }
    EXPECT_EQ(connection->pendingOutput(), 0u);
}

// close() from onMessage: what was queued before goes out, the messages after it in the same
// read are not delivered, onClose runs once with kVELErr_Ok, and send then fails. close() from
// another thread completes on the reactor thread. A connection never started closes without
// onClose. The reactor's clean() closes what is still open with kVELErr_ReactorStopped.
TEST_P(FramedConnectionTest, ClosingRunsOnCloseOnceWhateverClosesIt) {
    auto fromCallback = boost::make_shared<Recorder>(_log, "callback");
    VELErr_t sentAfter = kVELErr_Ok;
    fromCallback->onMessageHook = [&](VEL_FramedConnection& connection, VEL_Message& message) {
        if (std::string(message.data(), message.size()) == "close") {
            connection.close();
            connection.close();
            sentAfter = connection.send(&message);
        } else {
            EXPECT_EQ(connection.send(&message), kVELErr_Ok);
        }
    };
    std::unique_ptr<VEL_TCPSocket> client;
    auto connection = serve(fromCallback, &client);
    ASSERT_TRUE(veltest::WriteAll(veltest::Fd(*client),
                                  Frame("one") + Frame("close") + Frame("three")));
    FrameReader reader(veltest::Fd(*client), Oxl1());
    EXPECT_EQ(reader.read(1), std::vector<std::string>{"one"});
    EXPECT_TRUE(reader.ended());
    ASSERT_TRUE(_log.waitCount("callback close 0", 1));
    EXPECT_EQ(fromCallback->messages.load(), 2u);
    EXPECT_EQ(sentAfter, kVELErr_SockNotConnected);

    auto fromOutside = boost::make_shared<Recorder>(_log, "outside");
    connection = serve(fromOutside, &client);
    connection->close();
    connection->close();
    ASSERT_TRUE(_log.waitCount("outside close 0", 1));
    EXPECT_FALSE(pthread_equal(fromOutside->closedOn.load(), pthread_self()));
    EXPECT_TRUE(FrameReader(veltest::Fd(*client), Oxl1()).ended());

    auto never = boost::make_shared<Recorder>(_log, "never");
    veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair();
    connection = VEL_FramedConnection::Create(*_reactor, std::move(pair.server), Oxl1(), never);
    VEL_Message message;
    EXPECT_EQ(connection->send(&message), kVELErr_SockNotConnected);
    connection->close();
    EXPECT_EQ(connection->start(), kVELErr_InvalidAction);
    EXPECT_TRUE(FrameReader(veltest::Fd(*pair.client), Oxl1()).ended());

    auto open = boost::make_shared<Recorder>(_log, "open");
    connection = serve(open, &client);
    veltest::StopAndClean(*_reactor);
    EXPECT_EQ(_log.count("open close " + std::to_string(kVELErr_ReactorStopped)), 1u);
    EXPECT_EQ(_log.count("callback close 0") + _log.count("outside close 0"), 2u);
    EXPECT_EQ(_log.events().size(), 3u) << "one close each; none for the connection never started";
}

// The acceptor takes every connection that comes; those beyond the reactor's size are closed at
// once and reported as refused, and the others are served.
TEST_P(FramedConnectionTest, TheAcceptorRefusesConnectionsBeyondTheReactorSize) {
    ASSERT_EQ(_reactor->setSize(8), kVELErr_Ok);
    _acceptor = VEL_FramedAcceptor::Create(*_reactor, VEL_SockAddr(0, "127.0.0.1"),
                                           boost::make_shared<frametest::EchoFactory>(_log));
    ASSERT_EQ(_acceptor->open(), kVELErr_Ok);
    std::vector<veltest::RawFd> clients;
    for (int i = 0; i < 10; ++i) {
        clients.push_back(veltest::RawConnect(_acceptor->getLocalAddr().getPort()));
    }
    ASSERT_TRUE(veltest::WaitFor(
            [&] { return _acceptor->getAccepted() + _acceptor->getRefused() == 10; }));
    EXPECT_EQ(_acceptor->getAccepted(), 6u);  // 8 less the wake-up socket and the acceptor
    EXPECT_EQ(_log.count("refused " + std::to_string(kVELErr_ReactorFull)), 4u);
    int served = 0;
    for (const veltest::RawFd& client : clients) {
        FrameReader reader(client.get(), Oxl1());
        ASSERT_TRUE(veltest::WriteAll(client.get(), Frame("hi")));
        const std::vector<std::string> reply = reader.read(1, seconds(2));
        served += reply.size() == 1 ? 1 : 0;
        EXPECT_TRUE(reply.size() == 1 || reader.ended()) << "a refused peer was kept";
    }
    EXPECT_EQ(served, 6);
}

INSTANTIATE_TEST_SUITE_P(BackEnds, FramedConnectionTest,
                         ::testing::Values(&veltest::MakeSelectReactor, &veltest::MakeEpollReactor),
                         veltest::BackEndName);

}  // namespace
