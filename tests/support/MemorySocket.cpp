#include "MemorySocket.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include <zlib.h>

#include "BufferMgr.h"
#include "VEL_Message.h"

namespace veltest {

MemorySocket::MemorySocket() : VEL_Socket(VEL_SockAddr()) {}

void MemorySocket::corrupt(std::size_t offset, unsigned char mask) {
    ASSERT_LT(offset, _input.size());
    _input[offset] = static_cast<char>(_input[offset] ^ mask);
}

void MemorySocket::cut(std::size_t offset) {
    _input.resize(std::max(offset, _readPos));
}

void MemorySocket::failReadAt(std::size_t offset, VELErr_t code) {
    _readFailAt = offset;
    _readFailCode = code;
}

void MemorySocket::failWriteAt(std::size_t offset, VELErr_t code) {
    _writeFailAt = offset;
    _writeFailCode = code;
}

void MemorySocket::clearOutput() {
    _written.clear();
    _writeCalls = 0;
}

std::size_t MemorySocket::readable() const {
    const std::size_t end = std::min(_input.size(), _readFailAt);
    return end > _readPos ? end - _readPos : 0;
}

VELErr_t MemorySocket::readWhole(char* buf, std::size_t len) {
    const std::size_t moved = std::min(len, readable());
    if (moved > 0) {
        std::memcpy(buf, _input.data() + _readPos, moved);
    }
    _readPos += moved;
    if (moved == len) {
        return kVELErr_Ok;
    }
    if (_readPos == _readFailAt) {
        _readFailAt = kNever;
        return _readFailCode;
    }
    return _inputClosed ? kVELErr_SockHalfClosed : kVELErr_Timeout;
}

VELErr_t MemorySocket::write(const char* buf, std::size_t len) {
    const std::size_t room = _writeFailAt > _written.size() ? _writeFailAt - _written.size() : 0;
    const std::size_t moved = std::min(len, room);
    if (moved > 0) {
        _written.append(buf, moved);
    }
    if (moved == len) {
        return kVELErr_Ok;
    }
    _writeFailAt = kNever;
    return _writeFailCode;
}

VELErr_t MemorySocket::send(const char* buf, unsigned int len) {
    ++_writeCalls;
    return write(buf, len);
}

VELErr_t MemorySocket::recv(char* buf, unsigned int len) {
    ++_readCalls;
    return readWhole(buf, len);
}

VELErr_t MemorySocket::recvAvail(char* buf, unsigned int* len) {
    ++_readCalls;
    if (readable() == 0 && _readPos == _readFailAt) {
        _readFailAt = kNever;
        return _readFailCode;
    }
    if (readable() == 0 && _inputClosed) {
        return kVELErr_SockHalfClosed;
    }
    std::size_t moved = std::min<std::size_t>(*len, readable());
    if (_chunk > 0) {
        moved = std::min(moved, _chunk);
    }
    (void)readWhole(buf, moved);  // within what is readable: cannot fail
    if (moved == *len) {
        return kVELErr_Ok;
    }
    *len = static_cast<unsigned int>(moved);
    return kVELErr_Incomplete;
}

VELErr_t MemorySocket::writev(VELIoVec* v, unsigned long n) {
    ++_writeCalls;
    for (unsigned long i = 0; i < n; ++i) {
        const VELErr_t code = write(v[i].iov_base, v[i].iov_len);
        if (code != kVELErr_Ok) {
            return code;
        }
    }
    return kVELErr_Ok;
}

VELErr_t MemorySocket::readv(VELIoVec* v, unsigned long n) {
    ++_readCalls;
    for (unsigned long i = 0; i < n; ++i) {
        const VELErr_t code = readWhole(v[i].iov_base, v[i].iov_len);
        if (code != kVELErr_Ok) {
            return code;
        }
    }
    return kVELErr_Ok;
}

std::string Hex(const char* digits) {
    std::string bytes;
    std::string pair;
    for (const char* at = digits; *at != '\0'; ++at) {
        if (*at == ' ') {
            continue;
        }
        pair += *at;
        if (pair.size() == 2) {
            bytes += static_cast<char>(std::strtoul(pair.c_str(), nullptr, 16));
            pair.clear();
        }
    }
    EXPECT_TRUE(pair.empty()) << "odd number of hexadecimal digits in " << digits;
    return bytes;
}

std::string Be16(std::uint16_t value) {
    return std::string{static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string Be32(std::uint32_t value) {
    return Be16(static_cast<std::uint16_t>(value >> 16)) + Be16(static_cast<std::uint16_t>(value));
}

std::string Deflated(const std::string& plain, int level) {
    uLongf length = compressBound(plain.size());
    std::string stream(length, '\0');
    EXPECT_EQ(compress2(reinterpret_cast<Bytef*>(&stream[0]), &length,
                        reinterpret_cast<const Bytef*>(plain.data()), plain.size(), level),
              Z_OK);
    stream.resize(length);
    return stream;
}

std::string CompressedOXLv2(const std::string& rscv, std::uint32_t announced,
                            const std::string& stream, const char* tag) {
    const auto total = static_cast<std::uint32_t>(12 + rscv.size() + 8 + stream.size());
    return Be32(total) + Be32(~total) + Be16(static_cast<std::uint16_t>(rscv.size() + 4)) + "2C" +
           rscv + Hex(tag) + Be32(announced) + stream;
}

std::string WithHOLMCheck(std::string frame) {
    std::uint16_t check = 0;
    for (std::size_t i = 0; i < 12; i += 2) {
        check ^= static_cast<std::uint16_t>(static_cast<unsigned char>(frame[i]) << 8 |
                                            static_cast<unsigned char>(frame[i + 1]));
    }
    return frame.replace(12, 2, Be16(check));
}

std::string Body(const VEL_Message& message) {
    return message.data() ? std::string(message.data(), message.size()) : std::string();
}

std::string RSCV(const VEL_Message& message) {
    return message.getRSCV() ? std::string(message.getRSCV(), message.getRSCVSize())
                             : std::string();
}

void BufferLeakTest::SetUp() {
    _outstanding = basis::BufferMgr::Default()->getOutstanding();
}

void BufferLeakTest::TearDown() {
    EXPECT_EQ(basis::BufferMgr::Default()->getOutstanding(), _outstanding)
            << "message buffers not given back";
}

}  // namespace veltest
