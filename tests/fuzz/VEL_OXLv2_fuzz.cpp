// Fuzzes VEL_OXLv2::recvMessage over a memory socket. Input: a settings byte (FuzzSupport.h),
// then the byte stream. A good frame's body, uncompressed, is within the limit; a plain frame
// comes back unchanged when its body and RSCV are sent again (the flag byte aside). Each good
// frame is also echoed on the receiving transport, which compresses when the frame was
// compressed.
#include "FuzzSupport.h"
#include "VEL_OXLv2.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    unsigned long limit = 0;
    return velfuzz::FuzzFrames(
            data, size, velfuzz::WithLimit<VEL_OXLv2>(limit),
            [&limit](VEL_OXLv2& transport, VEL_Message& message, const std::string& frame) {
                VEL_FUZZ_CHECK(message.size() <= limit);
                if (!transport.getCompression()) {
                    veltest::MemorySocket out;
                    VEL_FUZZ_CHECK(VEL_OXLv2(&out, limit).sendMessage(&message) == kVELErr_Ok);
                    std::string expected = frame;
                    expected[11] = 0;
                    VEL_FUZZ_CHECK(out.written() == expected);
                }
                (void)transport.sendMessage(&message);  // any status: a body may not compress
            });
}
