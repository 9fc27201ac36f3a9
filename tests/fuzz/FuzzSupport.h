// What the fuzz targets share: the first input byte as a settings byte, tracing of every category
// into a sink that drops the lines (so that failure traces and message dumps run on fuzzed
// bytes), a check that aborts, and the loop that feeds frames to a transport.
#ifndef TESTS_FUZZ_FUZZSUPPORT_H
#define TESTS_FUZZ_FUZZSUPPORT_H

#include <climits>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "BufferMgr.h"
#include "MemorySocket.h"
#include "VEL_Message.h"
#include "VEL_Tools.h"
#include "VEL_TraceHandler.h"

// Aborts (a finding) when `condition` does not hold; unlike assert it stays in every build.
#define VEL_FUZZ_CHECK(condition)                                                              \
    do {                                                                                       \
        if (!(condition)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #condition); \
            std::abort();                                                                      \
        }                                                                                      \
    } while (false)

namespace velfuzz {

// Formats every line like a real sink would, then drops it.
class DropSink : public VEL_TraceHandler {
public:
    DropSink() : VEL_TraceHandler(0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF) {}
    void output(const char*, unsigned long, unsigned short, const char* text) override {
        _lastLength = std::string(text).size();
    }

private:
    std::size_t _lastLength = 0;
};

// The settings byte: bits 0-1 pick the receiver's maximum message size, bit 2 turns tracing on.
struct Settings {
    unsigned long maxMessageSize;
    bool tracing;
};

inline Settings ReadSettings(std::uint8_t byte) {
    static const unsigned long kLimits[4] = {0, 64, 65536, ULONG_MAX};
    return Settings{kLimits[byte & 3], (byte & 4) != 0};
}

inline void SetTracing(bool on) {
    static DropSink sink;
    VEL_Tools::SetTraceHandler(on ? &sink : nullptr);
}

// A `make` for FuzzFrames: a T(socket, limit) with the settings' limit, also left in `limit`.
template <class T>
auto WithLimit(unsigned long& limit) {
    return [&limit](VEL_Socket* socket, const Settings& settings) {
        limit = settings.maxMessageSize;
        return std::make_unique<T>(socket, limit);
    };
}

// The fuzz entry of a transport. `make(socket, settings)` builds the receiver over a memory socket
// fed with the bytes after the settings byte. Frames are received until one fails or the input
// is used up (at most `maxFrames`); after each good one `onFrame(transport, message, frame)` runs
// with the bytes the frame took from the input. Every buffer the messages took must be back with
// the manager at the end.
template <class Make, class OnFrame>
int FuzzFrames(const std::uint8_t* data, std::size_t size, Make make, OnFrame onFrame,
               int maxFrames = 8) {
    if (size == 0) {
        return 0;
    }
    const Settings settings = ReadSettings(data[0]);
    SetTracing(settings.tracing);
    const std::string input(reinterpret_cast<const char*>(data) + 1, size - 1);
    veltest::MemorySocket socket;
    socket.feed(input);
    const auto transport = make(&socket, settings);
    const unsigned long outstanding = basis::BufferMgr::Default()->getOutstanding();
    for (int i = 0; i < maxFrames && socket.unread() > 0; ++i) {
        const std::size_t start = input.size() - socket.unread();
        VEL_Message message;
        if (transport->recvMessage(&message) != kVELErr_Ok) {
            break;
        }
        const std::size_t end = input.size() - socket.unread();
        onFrame(*transport, message, input.substr(start, end - start));
    }
    VEL_FUZZ_CHECK(basis::BufferMgr::Default()->getOutstanding() == outstanding);
    return 0;
}

}  // namespace velfuzz

#endif  // TESTS_FUZZ_FUZZSUPPORT_H
