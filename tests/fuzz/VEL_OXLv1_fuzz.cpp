// Fuzzes VEL_OXLv1::recvMessage over a memory socket. Input: a settings byte (FuzzSupport.h),
// then the byte stream. Each good frame must hold a body within the limit, and sending that body
// must give the same frame back (the unchecked reserved byte aside).
#include "FuzzSupport.h"
#include "VEL_OXLv1.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    unsigned long limit = 0;
    return velfuzz::FuzzFrames(
            data, size, velfuzz::WithLimit<VEL_OXLv1>(limit),
            [&limit](VEL_OXLv1&, VEL_Message& message, const std::string& frame) {
                VEL_FUZZ_CHECK(message.size() <= limit);
                veltest::MemorySocket out;
                VEL_FUZZ_CHECK(VEL_OXLv1(&out, limit).sendMessage(&message) == kVELErr_Ok);
                std::string expected = frame;
                expected[11] = 0;
                VEL_FUZZ_CHECK(out.written() == expected);
            });
}
