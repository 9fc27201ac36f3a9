// Fuzzes VEL_OXLv5::recvMessage over a memory socket. Input: a settings byte (FuzzSupport.h; OXLv5
// has no limit of its own), then the byte stream. Sending a received body must give the same
// frame back.
#include "FuzzSupport.h"
#include "VEL_OXLv5.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    return velfuzz::FuzzFrames(
            data, size,
            [](VEL_Socket* socket, const velfuzz::Settings&) {
                return std::make_unique<VEL_OXLv5>(socket);
            },
            [](VEL_OXLv5&, VEL_Message& message, const std::string& frame) {
                veltest::MemorySocket out;
                VEL_FUZZ_CHECK(VEL_OXLv5(&out).sendMessage(&message) == kVELErr_Ok);
                VEL_FUZZ_CHECK(out.written() == frame);
            });
}
