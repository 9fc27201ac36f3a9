// Secure, compressed request/response of 16 KiB compressible bodies over one loopback
// connection, each side on a blocking socket in a thread of its own:
// - vel: VEL_HOLM on both ends (the client opens the secure session and compresses with the
//   default algorithm, zlib level 2; the server follows what the headers say and echoes);
// - the work floor: the same zlib and CAST-128 calls made directly on reused buffers (compress2
//   at level 2, CAST-128 CBC with the same fixed vector, uncompress), a 28-byte header carrying
//   the lengths, writev and blocking reads; the key schedule is made once, as a session's is.
// A round trip compresses, encrypts, decrypts and uncompresses twice in both variants.
#include <arpa/inet.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <zlib.h>

// The CAST functions are deprecated in OpenSSL 3 but are the cipher the wire format uses.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/cast.h>

#include "BenchRunner.h"
#include "BenchSupport.h"
#include "Cases.h"
#include "Clients.h"
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPSocket.h"

namespace velbench {

namespace {

constexpr std::uint32_t kBodySize = 16 * 1024;
constexpr int kZlibLevel = kVELHOLMCompAlgo_Default;
constexpr std::size_t kFloorHeaderSize = 28;  // as large as the HOLM header
const unsigned char kVector[8] = {1, 2, 3, 4, 5, 6, 7, 8};

// Text-like records: compresses several times over, yet not to nothing.
std::vector<char> compressibleBody() {
    std::vector<char> body;
    body.reserve(kBodySize);
    unsigned long seed = 12345;
    const char* const words[] = {"status=ok", "status=retry", "amount=", "currency=EUR",
                                 "account=",  "branch=",      "ref=",    "note=none"};
    for (unsigned long record = 0; body.size() < kBodySize; ++record) {
        std::string line = "record " + std::to_string(record) + ":";
        for (int field = 0; field < 6; ++field) {
            seed = seed * 6364136223846793005UL + 1442695040888963407UL;
            line += ' ';
            line += words[(seed >> 33) % 8];
            line += std::to_string((seed >> 40) % 10000);
        }
        line += '\n';
        body.insert(body.end(), line.begin(), line.end());
    }
    body.resize(kBodySize);
    return body;
}

// ---- vel ---------------------------------------------------------------------------------------

class HolmEndpoint {
public:
    explicit HolmEndpoint(std::unique_ptr<VEL_TCPSocket> socket)
        : _socket(std::move(socket)), _transport(_socket.get(), kBodySize) {}

    VEL_HOLM& transport() { return _transport; }
    VEL_TCPSocket& socket() { return *_socket; }

private:
    std::unique_ptr<VEL_TCPSocket> _socket;
    VEL_HOLM _transport;
};

// ---- the work floor ----------------------------------------------------------------------------

// One end of the floor's exchange: a plain descriptor and the buffers it reuses.
class FloorEndpoint {
public:
    FloorEndpoint(Fd fd, const CAST_KEY& key)
        : _fd(std::move(fd)), _key(key), _wire(compressBound(kBodySize) + 8), _plain(kBodySize) {}

    int fd() const { return _fd.get(); }
    std::vector<char>& plain() { return _plain; }

    // Compresses and encrypts `plainSize` bytes of `plain` and writes the frame.
    void send(const char* plain, std::uint32_t plainSize) {
        uLongf packed = _wire.size() - 8;
        if (compress2(reinterpret_cast<Bytef*>(_wire.data()), &packed,
                      reinterpret_cast<const Bytef*>(plain), plainSize, kZlibLevel) != Z_OK) {
            throw BenchError("compress2 failed");
        }
        const std::uint32_t padded = static_cast<std::uint32_t>((packed + 7) & ~7UL);
        cbc(packed, CAST_ENCRYPT);  // writes `padded` bytes: the last block is zero-padded
        char header[kFloorHeaderSize] = {};
        const std::uint32_t lengths[2] = {htonl(padded), htonl(plainSize)};
        std::memcpy(header, lengths, sizeof(lengths));
        iovec vec[2] = {{header, kFloorHeaderSize}, {_wire.data(), padded}};
        if (!WriteVecFull(_fd.get(), vec, 2)) {
            Fail("floor writev");
        }
    }

    // Reads one frame, decrypts and uncompresses it into plain(); returns the plain size.
    std::uint32_t receive() {
        char header[kFloorHeaderSize];
        if (!ReadFull(_fd.get(), header, kFloorHeaderSize)) {
            Fail("floor read of the header");
        }
        std::uint32_t lengths[2];
        std::memcpy(lengths, header, sizeof(lengths));
        const std::uint32_t padded = ntohl(lengths[0]);
        const std::uint32_t plainSize = ntohl(lengths[1]);
        if (padded > _wire.size() || padded % 8 != 0 || plainSize > _plain.size()) {
            throw BenchError("floor frame too big");
        }
        if (!ReadFull(_fd.get(), _wire.data(), padded)) {
            Fail("floor read of the body");
        }
        cbc(padded, CAST_DECRYPT);
        uLongf unpacked = _plain.size();
        if (uncompress(reinterpret_cast<Bytef*>(_plain.data()), &unpacked,
                       reinterpret_cast<const Bytef*>(_wire.data()), padded) != Z_OK ||
            unpacked != plainSize) {
            throw BenchError("uncompress failed");
        }
        return plainSize;
    }

private:
    // In place over the first `length` bytes of the wire buffer.
    void cbc(std::size_t length, int direction) {
        unsigned char vector[8];
        std::memcpy(vector, kVector, sizeof(vector));
        auto* data = reinterpret_cast<unsigned char*>(_wire.data());
        CAST_cbc_encrypt(data, data, static_cast<long>(length), &_key, vector, direction);
    }

    Fd _fd;
    const CAST_KEY& _key;
    std::vector<char> _wire;   // compressed, then encrypted, bytes
    std::vector<char> _plain;  // the last body received
};

class HolmCase : public Case {
public:
    std::string id() const override { return "holm"; }
    std::string title() const override { return "HOLM secure+zlib 16 KiB"; }
    std::string unit() const override { return "round trips/s"; }
    std::vector<Reference> references() const override {
        return {{"direct zlib + CAST (floor)", 0.9}};
    }
    unsigned long workCount(bool quick) const override { return quick ? 40 : 600; }

    void setUp(bool /*quick*/) override {
        _body = compressibleBody();
        setUpVel();
        setUpFloor();
    }

    double run(std::size_t index, unsigned long count) override {
        const double start = Now();
        if (index == 0) {
            for (unsigned long i = 0; i < count; ++i) {
                velRoundTrip();
            }
        } else {
            for (unsigned long i = 0; i < count; ++i) {
                _floorClient->send(_body.data(), kBodySize);
                if (_floorClient->receive() != kBodySize ||
                    std::memcmp(_floorClient->plain().data(), _body.data(), 64) != 0) {
                    throw BenchError("floor answer differs");
                }
            }
        }
        return Now() - start;
    }

    void tearDown() override {
        // Closing the client ends each server's blocking receive, and with it its thread.
        _velClient.reset();
        _floorClient.reset();
        for (std::thread* server : {&_velServer, &_floorServer}) {
            if (server->joinable()) {
                server->join();
            }
        }
    }

private:
    void setUpVel() {
        VEL_TCPAcceptor acceptor(0, "127.0.0.1");
        VELErr_t code = acceptor.open();
        if (code != kVELErr_Ok) {
            FailStatus("vel acceptor open", code);
        }
        _velClient = std::make_unique<HolmEndpoint>(ConnectVel(acceptor.getLocalAddr().getPort()));
        VEL_Socket* accepted = nullptr;
        code = acceptor.accept(accepted);
        if (code != kVELErr_Ok) {
            FailStatus("vel accept", code);
        }
        auto server = std::make_shared<HolmEndpoint>(
                std::unique_ptr<VEL_TCPSocket>(static_cast<VEL_TCPSocket*>(accepted)));
        _velClient->transport().setCompression(true, kVELHOLMCompAlgo_Default);
        code = _velClient->transport().openSecureSession();
        if (code != kVELErr_Ok) {
            FailStatus("openSecureSession", code);
        }
        // The server echoes until the client goes away.
        _velServer = std::thread([server] {
            VEL_Message message;
            while (server->transport().recvMessage(&message) == kVELErr_Ok &&
                   server->transport().sendMessage(&message) == kVELErr_Ok) {
            }
        });
    }

    void setUpFloor() {
        const unsigned char key[16] = {11, 22,  33,  44,  55,  66,  77,  88,
                                       99, 111, 122, 133, 144, 155, 166, 177};
        CAST_set_key(&_key, sizeof(key), key);
        unsigned short port = 0;
        const Fd listener = Listen(&port);
        _floorClient = std::make_unique<FloorEndpoint>(Connect(port), _key);
        auto server = std::make_shared<FloorEndpoint>(Accept(listener.get()), _key);
        _floorServer = std::thread([server] {
            try {
                for (;;) {
                    const std::uint32_t size = server->receive();
                    server->send(server->plain().data(), size);
                }
            } catch (const BenchError&) {
                // The client closed the connection: the exchange is over.
            }
        });
    }

    void velRoundTrip() {
        // sendMessage leaves the compressed, encrypted body in the message: refill it each time.
        if (_request.setData(_body.data(), kBodySize) != kVELErr_Ok) {
            throw BenchError("no buffer for the request");
        }
        VELErr_t code = _velClient->transport().sendMessage(&_request);
        if (code != kVELErr_Ok) {
            FailStatus("HOLM sendMessage", code);
        }
        code = _velClient->transport().recvMessage(&_reply);
        if (code != kVELErr_Ok) {
            FailStatus("HOLM recvMessage", code);
        }
        if (_reply.size() != kBodySize || std::memcmp(_reply.data(), _body.data(), 64) != 0) {
            throw BenchError("HOLM answer differs");
        }
    }

    std::vector<char> _body;
    CAST_KEY _key{};
    std::unique_ptr<HolmEndpoint> _velClient;
    std::thread _velServer;
    VEL_Message _request;
    VEL_Message _reply;
    std::unique_ptr<FloorEndpoint> _floorClient;
    std::thread _floorServer;
};

}  // namespace

std::unique_ptr<Case> MakeHolmCase() {
    return std::make_unique<HolmCase>();
}

}  // namespace velbench
