// Fuzzes VEL_HOLM::recvMessage over a memory socket: plain, compressed and secure frames. Input:
// a settings byte (FuzzSupport.h), then the byte stream. The receiver starts without a session;
// a frame with a 16-byte key field makes it the responder of a session under that key, so later
// frames reach decryption (the seeds carry such a stream). Each good frame's body is within the
// limit, and is echoed on the receiving transport with the compression and encryption that the
// peer's header switched on.
#include "FuzzSupport.h"
#include "VEL_HOLM.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    unsigned long limit = 0;
    return velfuzz::FuzzFrames(
            data, size, velfuzz::WithLimit<VEL_HOLM>(limit),
            [&limit](VEL_HOLM& transport, VEL_Message& message, const std::string&) {
                VEL_FUZZ_CHECK(message.size() <= limit);
                (void)transport.sendMessage(&message);  // any status: a body may not compress
            });
}
