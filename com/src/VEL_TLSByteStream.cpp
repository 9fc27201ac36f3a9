#include "VEL_TLSByteStream.h"

#include <sys/socket.h>

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

#include "Thread.h"
#include "VEL_SocketOps.h"
#include "VEL_StaticInit.h"
#include "VEL_TCPSocket.h"
#include "VEL_TLSContext.h"

namespace {

const VEL_StaticInit kStaticInit;

// The reactor's operation bits (read 1, write 2), which VELTLSWant_t's values are.
constexpr unsigned short kReadOp = kVELTLSWant_Read;
constexpr unsigned short kWriteOp = kVELTLSWant_Write;

}  // namespace

VELErr_t VEL_TLSByteStream::Create(std::unique_ptr<VEL_TCPSocket> socket,
                                   const VEL_TLSContext& context, const char* serverName,
                                   std::unique_ptr<VEL_TLSByteStream>* stream) {
    if (!socket->isValid() || !socket->isConnected()) {
        velcom::traceComError(kVELErr_SockNotConnected, [&] {
            return "Remote address : " + velcom::toText(socket->getRemoteAddr());
        });
        (void)socket->close();
        return kVELErr_SockNotConnected;
    }
    // Without a name, a verifying client checks the address it connected to.
    const char* address = socket->getRemoteAddr().getHostIPAddress();
    const std::string name = serverName != nullptr && *serverName != '\0' ? serverName
                             : address != nullptr                         ? address
                                                                          : "";
    std::unique_ptr<VEL_TLSByteStream> made(new (std::nothrow)
                                                    VEL_TLSByteStream(std::move(socket)));
    if (!made) {
        velcom::traceComError(kVELErr_Alloc, [] { return std::string(); });
        return kVELErr_Alloc;  // `socket` still holds the connection, and closes it as it goes
    }
    const bool client = context.getRole() == kVELTLS_Client;
    const VELErr_t code =
            made->_engine.start(context, made->descriptor(), client ? name.c_str() : nullptr);
    if (code != kVELErr_Ok) {
        velcom::traceComError(code, [&] {
            return "Remote address : " + velcom::toText(made->getRemoteAddr()) + " ; " +
                   made->_engine.failureDetail();
        });
        return code;  // the stream closes its socket as it goes
    }
    made->_handshakeOps = client ? kWriteOp : kReadOp;  // the client speaks first
    *stream = std::move(made);
    return kVELErr_Ok;
}

VEL_TLSByteStream::VEL_TLSByteStream(std::unique_ptr<VEL_TCPSocket> socket)
    : _socket(std::move(socket)),
      _handshakeOps(0),
      _readOps(0),
      _writeOps(0),
      _inputLeft(false),
      _deferred(kVELErr_Ok),
      _deferredErr(0) {}

VEL_TLSByteStream::~VEL_TLSByteStream() {
    (void)close();  // nobody is left to report a failure to
}

int VEL_TLSByteStream::descriptor() const {
    return _socket->isValid() ? static_cast<int>(_socket->getHandle()) : -1;
}

unsigned int VEL_TLSByteStream::getHandle() const {
    return _socket->getHandle();
}

const VEL_SockAddr& VEL_TLSByteStream::getRemoteAddr() const {
    return _socket->getRemoteAddr();
}

VELErr_t VEL_TLSByteStream::advanceHandshake() {
    if (_engine.isEstablished()) {
        return kVELErr_Ok;
    }
    VELTLSWant_t want = kVELTLSWant_Read;
    const VELErr_t code = _engine.handshake(&want);
    if (code == kVELErr_Incomplete) {
        _handshakeOps = want == kVELTLSWant_Write ? kWriteOp : kReadOp;
        return code;
    }
    _handshakeOps = 0;
    if (code != kVELErr_Ok) {
        return failed(code);
    }
    velcom::traceComInfo([&] {
        return "TLS session " + velcom::fdText(getHandle()) +
               " ; Remote address : " + velcom::toText(getRemoteAddr()) + " ; " +
               _engine.describe();
    });
    return kVELErr_Ok;
}

VELErr_t VEL_TLSByteStream::readAvail(const VELIoVec* places, unsigned long count,
                                      std::size_t* moved) {
    *moved = 0;
    _inputLeft = false;
    _readOps = 0;
    if (descriptor() < 0) {
        return kVELErr_SockNotConnected;
    }
    if (_deferred != kVELErr_Ok) {
        basis::Thread::SetLastSystemErr(_deferredErr);
        return _deferred;
    }
    VELErr_t code = advanceHandshake();
    if (code != kVELErr_Ok) {
        return code == kVELErr_Incomplete ? kVELErr_Ok : code;
    }
    for (unsigned long i = 0; i < count && code == kVELErr_Ok; ++i) {
        std::size_t got = 0;
        code = fill(places[i].iov_base, places[i].iov_len, &got);
        *moved += got;
    }
    if (code == kVELErr_Ok) {
        _inputLeft = _engine.hasBufferedInput();  // every place is full: the rest waits inside
        return code;
    }
    if (code == kVELErr_Incomplete) {
        return kVELErr_Ok;  // everything that had arrived is taken
    }
    if (*moved > 0) {
        // The bytes go first; the end or failure behind them is the next read's.
        _deferred = code;
        _deferredErr = basis::Thread::GetLastSystemErr();
        return kVELErr_Ok;
    }
    return code;
}

VELErr_t VEL_TLSByteStream::fill(char* place, std::size_t size, std::size_t* got) {
    while (*got < size) {
        std::size_t taken = 0;
        VELTLSWant_t want = kVELTLSWant_Read;
        const VELErr_t code = _engine.read(place + *got, size - *got, &taken, &want);
        *got += taken;
        if (code == kVELErr_Incomplete) {
            _readOps = want == kVELTLSWant_Write ? kWriteOp : 0;
            return code;
        }
        if (code != kVELErr_Ok) {
            return failed(code);
        }
        if (*got < size && !_engine.hasBufferedInput() && _engine.descriptorDrained()) {
            // Everything that had arrived is taken: another read would only find the descriptor
            // empty (the reactor reports what comes next).
            return kVELErr_Incomplete;
        }
    }
    return kVELErr_Ok;
}

VELErr_t VEL_TLSByteStream::writeAvail(const VELIoVec* pieces, unsigned long count,
                                       std::size_t* moved) {
    *moved = 0;
    _writeOps = 0;
    if (descriptor() < 0) {
        return kVELErr_SockNotConnected;
    }
    VELErr_t code = advanceHandshake();
    if (code != kVELErr_Ok) {
        return code == kVELErr_Incomplete ? kVELErr_Ok : code;
    }
    const std::size_t total = velcom::totalLength(pieces, count);
    while (*moved < total) {
        std::size_t size = 0;
        const char* data = nextRecord(pieces, count, *moved, &size);
        if (data == nullptr) {
            return kVELErr_Alloc;
        }
        std::size_t put = 0;
        VELTLSWant_t want = kVELTLSWant_Write;
        // A record that could not go out whole is offered again by the next call, from the same
        // place: `*moved` counts whole records only.
        code = _engine.write(data, size, &put, &want);
        if (code == kVELErr_Incomplete) {
            _writeOps = want == kVELTLSWant_Read ? kReadOp : 0;
            return kVELErr_Ok;
        }
        if (code != kVELErr_Ok) {
            return failed(code);
        }
        *moved += put;
    }
    return kVELErr_Ok;
}

const char* VEL_TLSByteStream::nextRecord(const VELIoVec* pieces, unsigned long count,
                                          std::size_t done, std::size_t* size) {
    unsigned long first = 0;
    while (first < count && done >= pieces[first].iov_len) {
        done -= pieces[first].iov_len;
        ++first;
    }
    const std::size_t rest = pieces[first].iov_len - done;
    bool later = false;  // bytes in the pieces after this one
    for (unsigned long i = first + 1; i < count && !later; ++i) {
        later = pieces[i].iov_len > 0;
    }
    if (rest >= kRecordBytes || !later) {
        *size = rest;
        return pieces[first].iov_base + done;
    }
    if (!_stage) {
        _stage.reset(new (std::nothrow) char[kRecordBytes]);
        if (!_stage) {
            return nullptr;
        }
    }
    std::size_t gathered = 0;
    for (unsigned long i = first; i < count && gathered < kRecordBytes; ++i) {
        const std::size_t skip = i == first ? done : 0;
        const std::size_t take = std::min(pieces[i].iov_len - skip, kRecordBytes - gathered);
        std::memcpy(_stage.get() + gathered, pieces[i].iov_base + skip, take);
        gathered += take;
    }
    *size = gathered;
    return _stage.get();
}

VELErr_t VEL_TLSByteStream::failed(VELErr_t code) {
    if (!_engine.failureDetail().empty()) {
        _detail = _engine.failureDetail();
    }
    return code;
}

unsigned short VEL_TLSByteStream::extraOps() const {
    if (!_engine.isEstablished()) {
        return _handshakeOps;
    }
    return static_cast<unsigned short>(_readOps | _writeOps);
}

bool VEL_TLSByteStream::hasBufferedInput() const {
    return _deferred != kVELErr_Ok || (_inputLeft && _engine.hasBufferedInput());
}

bool VEL_TLSByteStream::isEstablished() const {
    return _engine.isEstablished();
}

std::string VEL_TLSByteStream::failureDetail() const {
    return _detail;
}

void VEL_TLSByteStream::shutdown() {
    const int fd = descriptor();
    if (fd >= 0) {
        // ENOTCONN once the peer has gone: both directions are over either way.
        (void)::shutdown(fd, SHUT_RDWR);
    }
}

VELErr_t VEL_TLSByteStream::close() {
    if (descriptor() >= 0) {
        // One attempt, without waiting: a peer that does not read would not see it anyway. The
        // engine sends nothing when the session is not established or has failed.
        VELTLSWant_t want = kVELTLSWant_Write;
        (void)_engine.shutdown(&want);
    }
    _engine.reset();  // before the descriptor goes: the session must not outlive it
    return _socket->close();
}

std::string VEL_TLSByteStream::getProtocol() const {
    return _engine.describe();
}

std::string VEL_TLSByteStream::getPeerSubject() const {
    return _engine.peerSubject();
}
