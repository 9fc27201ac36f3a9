#include "Clients.h"

#include <cstring>

#include "BenchRunner.h"
#include "VEL_SockOptions.h"
#include "VEL_TCPConnector.h"

namespace velbench {

VEL_SockOptions VelOptions(bool nativeTimeouts) {
    VEL_SockOptions options;
    options.setNoDelay(true);
    if (nativeTimeouts) {
        options.setNonBlock(true);
    }
    return options;
}

std::unique_ptr<VEL_TCPSocket> ConnectVel(unsigned short port, const VEL_SockOptions& options) {
    VEL_TCPConnector connector(port, "127.0.0.1", options);
    VEL_Socket* socket = nullptr;
    const VELErr_t code = connector.connect(socket);
    if (code != kVELErr_Ok) {
        FailStatus("vel connect", code);
    }
    return std::unique_ptr<VEL_TCPSocket>(static_cast<VEL_TCPSocket*>(socket));
}

VelClient::VelClient(unsigned short port, std::uint32_t bodySize, const VEL_SockOptions& options)
    : _socket(ConnectVel(port, options)), _transport(_socket.get(), bodySize) {
    if (_request.allocate(bodySize) != kVELErr_Ok) {
        throw BenchError("no buffer for the request");
    }
    std::memset(_request.data(), 'v', bodySize);
}

void VelClient::send() {
    const VELErr_t code = _transport.sendMessage(&_request);
    if (code != kVELErr_Ok) {
        FailStatus("vel sendMessage", code);
    }
}

void VelClient::receive() {
    const VELErr_t code = _transport.recvMessage(&_reply);
    if (code != kVELErr_Ok) {
        FailStatus("vel recvMessage", code);
    }
    if (_reply.size() != _request.size()) {
        throw BenchError("vel answer of the wrong size");
    }
}

PlainClient::PlainClient(unsigned short port, std::uint32_t bodySize)
    : _fd(Connect(port)),
      _bodySize(bodySize),
      _request(kHeaderSize + bodySize, 'p'),
      _reply(bodySize) {
    PutHeader(_request.data(), bodySize);
}

void PlainClient::send() {
    iovec vec[2] = {{_request.data(), kHeaderSize}, {_request.data() + kHeaderSize, _bodySize}};
    if (!WriteVecFull(_fd.get(), vec, 2)) {
        Fail("plain writev");
    }
}

void PlainClient::receive() {
    char header[kHeaderSize];
    if (!ReadFull(_fd.get(), header, kHeaderSize)) {
        Fail("plain read of the header");
    }
    if (CheckHeader(header, _bodySize) != _bodySize) {
        throw BenchError("plain answer of the wrong size");
    }
    if (!ReadFull(_fd.get(), _reply.data(), _bodySize)) {
        Fail("plain read of the body");
    }
}

}  // namespace velbench
