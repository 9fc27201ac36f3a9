// Internal to the network module (not installed, never included by a public header): what the
// socket classes share around their system calls.
//
// - ScopedFd owns a descriptor until an object takes it over, so that no error path leaks one.
// - The map...Error functions turn the errno of a failed call into the status each operation
//   reports, one function per family of calls (send, receive, connect, accept). Callers capture
//   errno on the line after the failing call and store it with basis::Thread::SetLastSystemErr
//   before mapping it. Option calls need no mapping: each option reports its own status code.
// - pollOne is the single-descriptor wait (poll(), so descriptors above 1023 work).
// - IoVecArray and advance carry out the scatter/gather bookkeeping: the caller's VELIoVec array
//   is copied into a system iovec array for each call, and advanced in place by what moved.
// - traceComError / traceComInfo format their text only when the trace mask is on.
//
// Thread safety: every function is safe from any thread; an IoVecArray or ScopedFd belongs to one.
#ifndef COM_SRC_VEL_SOCKETOPS_H
#define COM_SRC_VEL_SOCKETOPS_H

#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/uio.h>

#include <cstddef>
#include <memory>
#include <string>

#include "TimeValue.h"
#include "VELIoVec.h"
#include "VEL_Err.h"
#include "VEL_Tools.h"

class VEL_SockAddr;

namespace velcom {

// Owns one descriptor (or none, -1) and closes it when destroyed.
class ScopedFd {
public:
    explicit ScopedFd(int fd = -1) : _fd(fd) {}
    ~ScopedFd();
    ScopedFd(const ScopedFd&) = delete;
    ScopedFd& operator=(const ScopedFd&) = delete;

    int get() const { return _fd; }
    bool valid() const { return _fd >= 0; }
    // Hands the descriptor over; the holder owns none afterwards.
    int release();
    // Closes the held descriptor (if any) and holds `fd` instead.
    void reset(int fd = -1);

private:
    int _fd;
};

// The operations of the send family. Their mappings differ on purpose: a reset is "half closed"
// for send but a send failure for writev and sendAvail; would-block is a time-out for the whole
// transfers, Ok for sendAvail and an incomplete result for writevAvail.
enum class SendOp { kSend, kWritev, kSendAvail, kWritevAvail, kSendTo };
// The operations of the receive family. Only the Avail forms report would-block as incomplete;
// only the datagram forms know EMSGSIZE and ECONNREFUSED (an ICMP error of an earlier send).
enum class RecvOp { kRecv, kReadv, kRecvAvail, kReadvAvail, kRecvFrom, kRecvAvailFrom };

// Status for a failed send-side call. EINTR reaches here only from operations that do not retry
// it (writevAvail: kVELErr_Incomplete); for the others it gives kVELErr_Interrupted.
VELErr_t mapSendError(int err, SendOp op);
// Status for a failed receive-side call. EINTR: kVELErr_Recv for readvAvail, which does not
// retry; kVELErr_Interrupted for the others, which retry before mapping.
VELErr_t mapRecvError(int err, RecvOp op);
// Status for a failed non-blocking connect: kVELErr_InProgress when the connection goes on
// (EINPROGRESS, EINTR, EALREADY), kVELErr_Connect otherwise.
VELErr_t mapConnectError(int err);
// Status for a failed accept: kVELErr_Interrupted for EINTR (retried by the caller),
// kVELErr_Accept for anything else.
VELErr_t mapAcceptError(int err);

// The end of a stream (or an empty datagram): clears the thread's last system error, since no
// system call failed, and gives kVELErr_SockHalfClosed.
VELErr_t endOfStream();

// Sends the elements with sendmsg until all are gone, retrying EINTR and advancing `v` and `n`
// in place. `to` is the destination of a datagram (null: the connected peer). No SIGPIPE.
// Returns 0, or the errno of the failure (EAGAIN for a send that took nothing).
int sendAll(int fd, VELIoVec*& v, unsigned long& n, const sockaddr_in* to);
// One sendmsg on the connected peer that does not block (retried on EINTR): takes what fits in
// the socket's buffer now and advances `v` and `n` past it. No SIGPIPE. Returns 0 when some
// bytes were taken, EAGAIN when none, or the errno of the failure.
int sendNow(int fd, VELIoVec*& v, unsigned long& n);

// Waits until `fd` reports one of `events` or `limit` has passed (null: no limit), retrying
// EINTR with the time that remains. Returns 1 with *revents set when the descriptor is ready,
// 0 on time-out, -1 with *err set when poll fails; a descriptor that is not open (POLLNVAL)
// gives -1 with EBADF.
int pollOne(int fd, short events, const basis::TimeValue* limit, short* revents, int* err);

// The system iovec array for one call: on the stack for up to kInline elements, otherwise one
// allocation for the whole transfer (capped at IOV_MAX). Allocation failure falls back to the
// inline array, so a large vector then moves in several calls.
class IoVecArray {
public:
    static constexpr std::size_t kInline = 64;

    explicit IoVecArray(unsigned long count);
    IoVecArray(const IoVecArray&) = delete;
    IoVecArray& operator=(const IoVecArray&) = delete;

    // Copies up to capacity() elements of `v` (count `n`) and returns the array; size() tells
    // how many were copied.
    iovec* fill(const VELIoVec* v, unsigned long n);
    // A message header for sendmsg or recvmsg over the elements fill() copies, no address.
    msghdr message(const VELIoVec* v, unsigned long n);
    std::size_t size() const { return _size; }
    std::size_t capacity() const { return _capacity; }

private:
    iovec _inline[kInline];
    std::unique_ptr<iovec[]> _heap;
    iovec* _array;
    std::size_t _capacity;
    std::size_t _size = 0;
};

// Advances a scatter/gather position past `moved` bytes: every element whose length is at most
// what remains of `moved` is skipped (pointer forward, count down), then the first unfinished
// element is advanced in place (base += rest, length -= rest). With `moved` 0 this skips leading
// empty elements. Returns `rest`, what the element now first in line was advanced by.
std::size_t advance(VELIoVec*& v, unsigned long& n, std::size_t moved);
// advance() for a receive that gives back the element it is filling when it times out:
// `startedAs` follows the first unfinished element as it was before any byte went into it.
void advanceFilling(VELIoVec*& v, unsigned long& n, std::size_t moved, VELIoVec& startedAs);
// Sum of the element lengths.
std::size_t totalLength(const VELIoVec* v, unsigned long n);

// The address as it prints in trace lines.
std::string toText(const VEL_SockAddr& address);
// "<FD = n>" with the descriptor as a signed number (-1 for none).
std::string fdText(unsigned int handle);

// "COM - <status text> ; <detail()>" at the error level when network errors are traced; the
// detail is built only then. An empty detail gives no " ; " suffix.
template <class Detail>
void traceComError(VELErr_t code, const Detail& detail, const char* file = __builtin_FILE(),
                   unsigned long line = __builtin_LINE()) {
    if (VEL_Tools::IsTraceOn(kVELTrace_ComError)) {
        VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("COM", code, detail()), file,
                             line);
    }
}

// "COM - <text()>" at the info level when trace bit 2 is on.
template <class Text>
void traceComInfo(const Text& text, const char* file = __builtin_FILE(),
                  unsigned long line = __builtin_LINE()) {
    if (VEL_Tools::IsTraceOn(kVELTrace_Com)) {
        VEL_Tools::TraceText(kVELLevel_Info, "COM - " + text(), file, line);
    }
}

}  // namespace velcom

#endif  // COM_SRC_VEL_SOCKETOPS_H
