// Helpers shared by the cases: plain loopback sockets for the references, and the 12-byte frame
// header the plain references write and check by hand (the same layout VEL_OXLv1 puts on the
// wire, so that every variant moves the same bytes).
#ifndef BENCH_BENCHSUPPORT_H
#define BENCH_BENCHSUPPORT_H

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>
#include <string>

namespace velbench {

constexpr std::size_t kHeaderSize = 12;

// Owns one descriptor and closes it when destroyed.
class Fd {
public:
    explicit Fd(int fd = -1) : _fd(fd) {}
    ~Fd();
    Fd(Fd&& other) noexcept : _fd(other.release()) {}
    Fd& operator=(Fd&& other) noexcept;
    Fd(const Fd&) = delete;
    Fd& operator=(const Fd&) = delete;

    int get() const { return _fd; }
    int release();
    void reset(int fd = -1);

private:
    int _fd;
};

// A listening socket on 127.0.0.1 with a port chosen by the system; `port` receives it.
Fd Listen(unsigned short* port);
// A blocking connection to 127.0.0.1:port with TCP_NODELAY (when `noDelay`).
Fd Connect(unsigned short port, bool noDelay = true);
// accept() on a blocking listener, TCP_NODELAY on the result.
Fd Accept(int listener);
void SetNoDelay(int fd);

// Writes the header of a frame whose body is `bodySize` bytes.
void PutHeader(char* header, std::uint32_t bodySize);
// Checks a header as a receiver must (length and its complement, marker, version, body size at
// most `maxBody`) and gives the body size. False for a header to refuse.
bool ParseHeader(const char* header, std::uint32_t maxBody, std::uint32_t* bodySize);
// ParseHeader, throwing BenchError for a header to refuse.
std::uint32_t CheckHeader(const char* header, std::uint32_t maxBody);

// Whole transfers on a blocking descriptor; false on an error or the end of the stream.
bool ReadFull(int fd, char* buf, std::size_t len);
bool WriteVecFull(int fd, iovec* vec, int count);

// Throws BenchError with `what` and the text of errno.
[[noreturn]] void Fail(const std::string& what);
// Throws BenchError with `what` and the text of a vel status.
[[noreturn]] void FailStatus(const std::string& what, int status);

}  // namespace velbench

#endif  // BENCH_BENCHSUPPORT_H
