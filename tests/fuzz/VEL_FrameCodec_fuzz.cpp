// Fuzzes the frame codecs' incremental decoding. Input: a settings byte (FuzzSupport.h; bits 3-5
// pick the format, modulo their number), a byte that seeds the split points, then the byte
// stream. A new codec decodes the stream once whole and once in pieces whose sizes the seed
// draws (single bytes, short runs and long ones mixed); both runs must give the same messages,
// then the same status after the same number of bytes. The blocking transport of the format,
// reading the same bytes, must agree too. A format without framing is judged on the bytes it
// delivers, in pieces of 1 to 10000 bytes.
#include <random>

#include "CodecSupport.h"
#include "FuzzSupport.h"
#include "VEL_FrameCodec.h"
#include "VEL_HOLM.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"
#include "VEL_TN3270.h"
#include "VEL_Transport.h"

namespace {

struct Format {
    std::unique_ptr<VEL_FrameCodec> (*codec)(unsigned long limit);
    std::unique_ptr<VEL_Transport> (*transport)(VEL_Socket* socket, unsigned long limit);
};

template <class Codec, class Transport>
constexpr Format WithLimit() {
    return {[](unsigned long limit) -> std::unique_ptr<VEL_FrameCodec> {
                return std::make_unique<Codec>(limit);
            },
            [](VEL_Socket* socket, unsigned long limit) -> std::unique_ptr<VEL_Transport> {
                return std::make_unique<Transport>(socket, limit);
            }};
}

template <class Codec, class Transport>
constexpr Format WithoutLimit() {
    return {[](unsigned long) -> std::unique_ptr<VEL_FrameCodec> {
                return std::make_unique<Codec>();
            },
            [](VEL_Socket* socket, unsigned long) -> std::unique_ptr<VEL_Transport> {
                return std::make_unique<Transport>(socket);
            }};
}

// In the order of the format numbers (the seed generator writes them).
const Format kFormats[] = {
        WithLimit<VEL_OXLv1Codec, VEL_OXLv1>(),      WithLimit<VEL_OXLv2Codec, VEL_OXLv2>(),
        WithoutLimit<VEL_OXLv5Codec, VEL_OXLv5>(),   WithLimit<VEL_HOLMCodec, VEL_HOLM>(),
        WithoutLimit<VEL_TN3270Codec, VEL_TN3270>(),
};
constexpr std::size_t kFormatCount = sizeof(kFormats) / sizeof(kFormats[0]);

// Pieces of 1 byte, of up to 16 bytes, or of up to the whole stream, in a mix the seed draws.
std::function<std::size_t()> Splits(std::uint8_t seed, std::size_t size) {
    auto random = std::make_shared<std::minstd_rand>(seed + 1u);
    return [random, size] {
        const unsigned long draw = (*random)();
        switch (draw % 3) {
            case 0:
                return std::size_t{1};
            case 1:
                return std::size_t{1 + draw / 3 % 16};
            default:
                return std::size_t{1 + draw / 3 % (size + 1)};
        }
    };
}

veltest::DecodeOutcome Judged(const veltest::DecodeOutcome& outcome, bool partial) {
    if (!partial) {
        return outcome;
    }
    for (const veltest::Received& message : outcome.messages) {
        VEL_FUZZ_CHECK(!message[2].empty() && message[2].size() <= kVEL_TN3270RecvSize);
    }
    return veltest::Joined(outcome);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const velfuzz::Settings settings = velfuzz::ReadSettings(data[0]);
    velfuzz::SetTracing(settings.tracing);
    const Format& format = kFormats[(data[0] >> 3 & 7) % kFormatCount];
    const std::string stream(reinterpret_cast<const char*>(data) + 2, size - 2);
    const unsigned long outstanding = basis::BufferMgr::Default()->getOutstanding();
    {
        const unsigned long limit = settings.maxMessageSize;
        const std::unique_ptr<VEL_FrameCodec> whole = format.codec(limit);
        const bool partial = whole->takesPartial();
        const veltest::DecodeOutcome expected =
                Judged(veltest::DecodeInPieces(*whole, stream, [&stream] { return stream.size(); }),
                       partial);
        const veltest::DecodeOutcome split =
                Judged(veltest::DecodeInPieces(*format.codec(limit), stream, Splits(data[1], size)),
                       partial);
        VEL_FUZZ_CHECK(split == expected);
        const veltest::DecodeOutcome blocking =
                Judged(veltest::ReadBlocking(
                               [&format, limit](VEL_Socket* socket) {
                                   return format.transport(socket, limit);
                               },
                               stream),
                       partial);
        VEL_FUZZ_CHECK(blocking == expected);
    }
    VEL_FUZZ_CHECK(basis::BufferMgr::Default()->getOutstanding() == outstanding);
    return 0;
}
