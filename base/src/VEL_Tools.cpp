#include "VEL_Tools.h"

#include <cstdint>
#include <iomanip>
#include <mutex>
#include <sstream>

#include "ThreadMutex.h"
#include "Tools.h"
#include "VELIoVec.h"
#include "VEL_StaticInit.h"
#include "VEL_TraceHandler.h"

namespace {

const VEL_StaticInit kStaticInit;

// Status texts by group (code / 100) and slot (code % 100). Group 2 declares a seventh slot
// (206) without text: it prints as "Unknown error :206". Group 4 starts at slot 1: 400 is not a
// code and prints as any unknown one.
const char* const kGeneralTexts[] = {"No error",
                                     "Allocation of data failed",
                                     "A variable is pointing to an illegal address",
                                     "Input buffer not large enough",
                                     "Timeout error",
                                     "A mutex system call failed",
                                     "A thread system call failed",
                                     "An error occurred in user implemented code",
                                     "Cannot open file",
                                     "An unknown exception has been caught",
                                     "A STL exception has been caught",
                                     "A pointer has an invalid value",
                                     "Input buffer too large"};

const char* const kComTexts[] = {"Cannot initialize com package",
                                 "gethostname() system call failed",
                                 "Invalid IP address",
                                 "Invalid host name",
                                 "Cannot put the socket in non blocking mode",
                                 "getRlimit or setRlimit operation failed",
                                 "Operation interrupted by a signal",
                                 "Bad file descriptor",
                                 "Bad value",
                                 "Network is down",
                                 "A system call to the polling function failed",
                                 "Service not found",
                                 "Cannot create socket",
                                 "Cannot close socket",
                                 "Invalid socket",
                                 "Invalid operation on connected sock",
                                 "Invalid operation on not connected sock",
                                 "Invalid operation on half closed sock",
                                 "Cannot set ReuseAddr option",
                                 "Cannot set Debug option",
                                 "Cannot set NoDelay option",
                                 "Cannot set KeepAlive option",
                                 "Cannot set Linger option",
                                 "Cannot set SndBuf option",
                                 "Cannot set RcvBuf option",
                                 "Cannot bind the socket",
                                 "Cannot get socket's port number",
                                 "Cannot set the socket passive",
                                 "Cannot set the socket active",
                                 "select() call error",
                                 "poll() call error",
                                 "A system call for /dev/poll failed",
                                 "Cannot accept new connection",
                                 "Cannot send data",
                                 "Cannot receive data",
                                 "Cannot set SndTimeOut option",
                                 "Cannot set RcvTimeOut option",
                                 "SO_ERROR option returned an error",
                                 "Connection is in progress",
                                 "Cannot set FD_CLOEXEC option",
                                 "Handle is over FD_SETSIZE",
                                 "Cannot get the socket name",
                                 "Invalid action",
                                 "Bad stream header",
                                 "Message too big",
                                 "Error during compression",
                                 "Error during uncompression",
                                 "Error while using secure session",
                                 "Invalid encryption key",
                                 "Error during an epoll call",
                                 "Incomplete operation (further function calls needed)"};

const char* const kThreadTexts[] = {"Queue is not active",
                                    "Queue in non blocking mode is full",
                                    "Queue in non blocking mode is empty",
                                    "The task is still running",
                                    "Queue is active",
                                    "Queue is empty,Failed to spawn a thread",
                                    ""};

const char* const kFrameTexts[] = {
        "The reactor is stopped",
        "Maximum number of event handlers reached (reactor size or FD_SETSIZE)",
        "Event handler is not registered in the reactor",
        "Reception of requested data still in progress",
        "Cannot create IO completion port",
        "Cannot post accept event for the IO completion port",
        "Cannot post read event for the IO completion port",
        "The reactor is not stopped",
        "The file descriptor is already registered",
        "Invalid polling entry",
        "Bad reactor size",
        "No connection available within the pipe",
        "The Pipe has been closed",
        "The reactor file descriptor is corrupt"};

const char* const kTLSTexts[] = {nullptr,
                                 "TLS handshake failed",
                                 "TLS certificate refused",
                                 "TLS protocol error",
                                 "TLS peer closed the connection without close_notify",
                                 "Cannot load the TLS certificate",
                                 "Cannot load the TLS private key",
                                 "The TLS private key does not match the certificate",
                                 "Cannot load the trusted TLS certificates",
                                 "No TLS certificate and private key",
                                 "Cannot set up TLS"};

struct TextGroup {
    const char* const* texts;
    int count;
};

template <std::size_t N>
constexpr TextGroup group(const char* const (&texts)[N]) {
    return TextGroup{texts, static_cast<int>(N)};
}

const TextGroup kGroups[] = {group(kGeneralTexts), group(kComTexts), group(kThreadTexts),
                             group(kFrameTexts), group(kTLSTexts)};
constexpr int kGroupCount = static_cast<int>(sizeof(kGroups) / sizeof(kGroups[0]));

constexpr std::uint32_t kNone = 0xFFFFFFFFu;
constexpr unsigned int kBytesPerRow = 16;

// One dump row: address, four groups of four hexadecimal bytes (blank-padded), characters.
std::string dumpRow(const unsigned char* row, unsigned int count) {
    std::ostringstream out;
    out << std::uppercase << std::hex << std::setfill('0') << "MSGDUMP - " << std::setw(8)
        << static_cast<std::uint32_t>(reinterpret_cast<std::uintptr_t>(row)) << "  ";
    for (unsigned int i = 0; i < kBytesPerRow; ++i) {
        if (i < count) {
            out << std::setw(2) << static_cast<unsigned int>(row[i]);
        } else {
            out << "  ";
        }
        if (i % 4 == 3) {
            out << ' ';
        }
    }
    for (unsigned int i = 0; i < count; ++i) {
        const signed char c = static_cast<signed char>(row[i]);
        out << (c >= 0x20 ? static_cast<char>(c) : '.');
    }
    return out.str();
}

}  // namespace

std::atomic<VEL_TraceHandler*> VEL_Tools::_TraceHandler{nullptr};
basis::ThreadMutex* VEL_Tools::_HandlerMutex = nullptr;
std::set<basis::ThreadID_t>* VEL_Tools::_ForbiddenThreadsSet = nullptr;
std::atomic<bool> VEL_Tools::_AnyForbidden{false};

std::string VEL_Tools::GetErrStr(VELErr_t code) {
    const int value = static_cast<int>(code);
    const int groupIndex = value / 100;
    const int slot = value % 100;
    std::ostringstream out;
    const char* text = nullptr;  // null: not a declared slot
    if (groupIndex >= 0 && groupIndex < kGroupCount && slot >= 0 &&
        slot < kGroups[groupIndex].count) {
        text = kGroups[groupIndex].texts[slot];
    }
    if (text != nullptr) {
        if (*text != '\0') {
            out << text;
        } else {
            out << "Unknown error :" << value;
        }
    } else {
        out << "Unknown error (" << value << ")";
    }
    out << " {" << basis::Thread::GetLastSystemErr() << "}";
    return out.str();
}

VELErr_t VEL_Tools::SetTraceHandler(VEL_TraceHandler* handler) {
    if (_HandlerMutex != nullptr) {
        std::lock_guard<basis::ThreadMutex> hold(*_HandlerMutex);
        _TraceHandler.store(handler);
    } else {
        _TraceHandler.store(handler);
    }
    return kVELErr_Ok;
}

VEL_TraceHandler* VEL_Tools::GetTraceHandler() {
    return _TraceHandler.load();
}

bool VEL_Tools::IsTraceOn(unsigned short mask) {
    const VEL_TraceHandler* sink = _TraceHandler.load(std::memory_order_acquire);
    return sink != nullptr && (sink->getTraceFlags() & mask) != 0;
}

void VEL_Tools::PreventThreadFromTracing(basis::ThreadID_t id) {
    if (_HandlerMutex == nullptr || _ForbiddenThreadsSet == nullptr) {
        return;
    }
    std::lock_guard<basis::ThreadMutex> hold(*_HandlerMutex);
    _ForbiddenThreadsSet->insert(id);
    _AnyForbidden.store(true);
}

VELErr_t VEL_Tools::Trace(const char* file, unsigned long line, unsigned short level,
                          const char* text) {
    if (_AnyForbidden.load() && _HandlerMutex != nullptr) {
        std::lock_guard<basis::ThreadMutex> hold(*_HandlerMutex);
        if (_ForbiddenThreadsSet->count(basis::Thread::Self()) != 0) {
            return kVELErr_Ok;
        }
    }
    if (VEL_TraceHandler::IsInRecursiveTrace()) {
        return kVELErr_Ok;
    }
    VEL_TraceHandler* sink = _TraceHandler.load(std::memory_order_acquire);
    if (sink == nullptr) {
        return kVELErr_Ok;
    }
    if (!VEL_TraceHandler::AtomicWaitAndStartTracing(basis::TimeValue(2, 0))) {
        return kVELErr_Ok;  // the serialiser stayed busy for 2 seconds: the line is dropped
    }
    try {
        sink->output(file, line, level, text);
    } catch (...) {
        VEL_TraceHandler::StopTracing();
        throw;
    }
    VEL_TraceHandler::StopTracing();
    return kVELErr_Ok;
}

void VEL_Tools::MemDump(const char* file, unsigned long line, unsigned short level,
                        const char* data, unsigned int size, unsigned long bufferNumber) {
    if (VEL_TraceHandler::IsInRecursiveTrace()) {
        return;
    }
    const VEL_TraceHandler* sink = _TraceHandler.load(std::memory_order_acquire);
    if (sink == nullptr || (sink->getTraceFlags() & kVELTrace_MsgDump) == 0) {
        return;
    }
    const std::uint32_t offset = static_cast<std::uint32_t>(sink->getMsgDumpOffset());
    const std::uint32_t maxSize = static_cast<std::uint32_t>(sink->getMsgDumpMaxSize());
    std::uint32_t shown = size;
    if (offset != kNone) {
        // An offset beyond the buffer shows nothing rather than reading past it.
        shown = offset < shown ? shown - offset : 0;
        data += offset < size ? offset : 0;
    }
    if (maxSize != kNone && shown > maxSize) {
        if (offset == kNone) {
            data += shown - maxSize;  // no offset: show the last maxSize bytes
        }
        shown = maxSize;
    }
    std::ostringstream title;
    title << "MSGDUMP - Dumping buffer number " << bufferNumber << ", containing " << shown
          << " bytes";
    Trace(file, line, level, title.str().c_str());
    Trace(file, line, level,
          "MSGDUMP - +- ADDR -+--------------- HEX ---------------+---- ASCII ----+");
    if (shown == 0) {
        Trace(file, line, level, "MSGDUMP - Buffer size is 0.");
        return;
    }
    const unsigned char* bytes = reinterpret_cast<const unsigned char*>(data);
    for (std::uint32_t at = 0; at < shown; at += kBytesPerRow) {
        const unsigned int count = shown - at < kBytesPerRow ? shown - at : kBytesPerRow;
        Trace(file, line, level, dumpRow(bytes + at, count).c_str());
    }
}

void VEL_Tools::MemDumpVec(const char* file, unsigned long line, unsigned short level,
                           const VELIoVec* vec, unsigned long count) {
    if (VEL_TraceHandler::IsInRecursiveTrace() || !IsTraceOn(kVELTrace_MsgDump)) {
        return;
    }
    for (unsigned long i = 0; i < count; ++i) {
        MemDump(file, line, level, vec[i].iov_base, vec[i].iov_len, i);
    }
}

void VEL_Tools::TraceText(unsigned short level, const std::string& text, const char* file,
                          unsigned long line) {
    Trace(basis::Tools::Basename(file), line, level, text.c_str());
}

std::string VEL_Tools::ErrText(const char* module, VELErr_t code, const std::string& detail) {
    std::string text = std::string(module) + " - " + GetErrStr(code);
    if (!detail.empty()) {
        text += " ; " + detail;
    }
    return text;
}
