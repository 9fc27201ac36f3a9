// Test doubles for what is built on sockets (transports, decoders, fuzz targets): a socket that
// reads and writes memory, a fixture that checks that message buffers are given back, and a way
// to write frames byte by byte.
#ifndef TESTS_SUPPORT_MEMORYSOCKET_H
#define TESTS_SUPPORT_MEMORYSOCKET_H

#include <cstddef>
#include <cstdint>
#include <string>

#include <gtest/gtest.h>

#include "VEL_Socket.h"

class VEL_Message;

namespace veltest {

// A VEL_Socket whose transfers go to and from memory.
//
// Input: the bytes given to feed() are read in order. Offsets count from the first byte ever fed.
// A whole read (recv, readv) that runs past the end of the input ends as a blocked read on a
// silent peer does, with kVELErr_Timeout, or with kVELErr_SockHalfClosed once closeInput() has
// said that the peer closed; the bytes that were there stay in the caller's buffer. recvAvail
// takes at most setReadChunk() bytes per call (0: no limit), as a stream hands over what has
// arrived: kVELErr_Incomplete with the count when it is short of *len (0 when nothing is there).
// Output: every byte sent is appended to written().
// Faults: failReadAt / failWriteAt make the first transfer that reaches the offset move the
// bytes before it and return the given status (once). corrupt and cut change input
// that has not been read yet.
//
// Thread safety: one thread at a time.
class MemorySocket : public VEL_Socket {
public:
    MemorySocket();

    VELErr_t open() override { return kVELErr_Ok; }
    VELErr_t send(const char* buf, unsigned int len) override;
    VELErr_t recv(char* buf, unsigned int len) override;
    VELErr_t recvAvail(char* buf, unsigned int* len) override;
    VELErr_t writev(VELIoVec* v, unsigned long n) override;
    VELErr_t readv(VELIoVec* v, unsigned long n) override;

    void feed(const std::string& bytes) { _input += bytes; }
    void setReadChunk(std::size_t chunk) { _chunk = chunk; }
    void closeInput() { _inputClosed = true; }
    void corrupt(std::size_t offset, unsigned char mask = 0x01);
    // Drops the input from `offset` on (a frame cut short).
    void cut(std::size_t offset);
    void failReadAt(std::size_t offset, VELErr_t code);
    void failWriteAt(std::size_t offset, VELErr_t code);

    const std::string& written() const { return _written; }
    std::size_t unread() const { return _input.size() - _readPos; }
    // Calls of recv, readv and recvAvail; calls of send and writev.
    std::size_t readCalls() const { return _readCalls; }
    std::size_t writeCalls() const { return _writeCalls; }
    // Forgets what was written and the counters.
    void clearOutput();

private:
    // One element of a whole read or a write: Ok, or the status that ended it.
    VELErr_t readWhole(char* buf, std::size_t len);
    VELErr_t write(const char* buf, std::size_t len);
    // Input bytes that can move now, before the end or a fault point.
    std::size_t readable() const;

    static constexpr std::size_t kNever = static_cast<std::size_t>(-1);

    std::string _input;
    std::size_t _readPos = 0;
    std::size_t _chunk = 0;
    bool _inputClosed = false;
    std::size_t _readFailAt = kNever;
    VELErr_t _readFailCode = kVELErr_Ok;
    std::string _written;
    std::size_t _writeFailAt = kNever;
    VELErr_t _writeFailCode = kVELErr_Ok;
    std::size_t _readCalls = 0;
    std::size_t _writeCalls = 0;
};

// Bytes written as hexadecimal digit pairs; blanks are ignored: Hex("0000000C 0020 31").
std::string Hex(const char* digits);
// `value` as 2 or 4 bytes in network order.
std::string Be16(std::uint16_t value);
std::string Be32(std::uint32_t value);
// A zlib stream of `plain` at `level` (-1: zlib's default), made by zlib itself, independently
// of the library.
std::string Deflated(const std::string& plain, int level = -1);
// A compressed OXLv2 frame built by hand: header, RSCV, the compression record (`tag`, then
// `announced`), then `stream`.
std::string CompressedOXLv2(const std::string& rscv, std::uint32_t announced,
                            const std::string& stream, const char* tag = "02000000");
// `frame`, a HOLM frame from its header on, with the check word (bytes 12-13) that makes its
// first seven words XOR to zero.
std::string WithHOLMCheck(std::string frame);
// A message's body and RSCV bytes ("" when absent).
std::string Body(const VEL_Message& message);
std::string RSCV(const VEL_Message& message);

// Base fixture: after each test the buffer manager has as many buffers handed out as before it.
class BufferLeakTest : public ::testing::Test {
protected:
    void SetUp() override;
    void TearDown() override;

private:
    unsigned long _outstanding = 0;
};

}  // namespace veltest

#endif  // TESTS_SUPPORT_MEMORYSOCKET_H
