#include "VEL_CryptoTools.h"

#include <sys/random.h>

#include <cstdlib>
#include <cstring>

// OpenSSL 3 marks the CAST functions deprecated; they remain in libcrypto and are the cipher the
// wire format uses. This is the only file that calls them.
#define OPENSSL_SUPPRESS_DEPRECATED
#include <openssl/cast.h>

#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

// Deployment constants, set at build time (see CMake cache variables VEL_CAST_IV and
// VEL_CAST_KEY_MASK).
const unsigned char kInitVector[8] = {VEL_CAST_IV_BYTES};
const unsigned char kKeyMask[VEL_CryptoTools::kKeySize] = {VEL_CAST_KEY_MASK_BYTES};

static_assert(sizeof(CAST_KEY) == VEL_CryptoTools::kScheduleSize, "CAST_KEY layout");
static_assert(sizeof(kInitVector) == 8, "VEL_CAST_IV must be 8 bytes");
static_assert(sizeof(kKeyMask) == 16, "VEL_CAST_KEY_MASK must be 16 bytes");

char* allocateIfNull(char*& block, unsigned long size) {
    if (block == nullptr) {
        block = static_cast<char*>(std::calloc(size, 1));
    }
    return block;
}

void cbc(const char* in, char* out, unsigned long length, const char* schedule, int direction) {
    unsigned char vector[8];
    std::memcpy(vector, kInitVector, sizeof(vector));
    CAST_cbc_encrypt(reinterpret_cast<const unsigned char*>(in),
                     reinterpret_cast<unsigned char*>(out), static_cast<long>(length),
                     reinterpret_cast<const CAST_KEY*>(schedule), vector, direction);
}

// 16 bytes from the kernel's random source, each redrawn until it is not 0 (so a key never ends
// early when read as a string).
void fillRandomNonZero(unsigned char* bytes, unsigned long count) {
    unsigned long filled = 0;
    while (filled < count) {
        unsigned char draw[32];
        const ssize_t got = getrandom(draw, sizeof(draw), 0);
        if (got < 0) {
            // Without flags, getrandom fails only when a signal interrupts it (EINTR): the other
            // errors mean a bad buffer, bad flags or a kernel older than 3.17.
            continue;
        }
        for (ssize_t i = 0; i < got && filled < count; ++i) {
            if (draw[i] != 0) {
                bytes[filled++] = draw[i];
            }
        }
    }
}

}  // namespace

void VEL_CryptoTools::Encrypt(const char* in, char*& out, unsigned long length,
                              unsigned long& outLength, const char* schedule) {
    outLength = (length + 7) & ~7ul;
    // Without a block to write to, nothing is written: the caller finds `out` still null.
    if (allocateIfNull(out, outLength + 1) != nullptr && length > 0) {
        cbc(in, out, length, schedule, CAST_ENCRYPT);  // zero-pads the last partial block
    }
}

void VEL_CryptoTools::Decrypt(const char* in, char*& out, unsigned long length,
                              const char* schedule) {
    if (allocateIfNull(out, length + 1) != nullptr && length > 0) {
        cbc(in, out, length, schedule, CAST_DECRYPT);
    }
}

void VEL_CryptoTools::GenerateCastKey(const char* key, char*& schedule) {
    // The key is masked in place: callers pass a block they own.
    unsigned char* bytes = reinterpret_cast<unsigned char*>(const_cast<char*>(key));
    for (unsigned long i = 0; i < kKeySize; ++i) {
        bytes[i] ^= kKeyMask[i];
    }
    if (allocateIfNull(schedule, kScheduleSize) == nullptr) {
        return;  // out of memory: `schedule` stays null
    }
    CAST_set_key(reinterpret_cast<CAST_KEY*>(schedule), static_cast<int>(kKeySize), bytes);
}

void VEL_CryptoTools::GenerateSrcKey(char*& key) {
    if (allocateIfNull(key, kKeySize + 1) == nullptr) {
        return;
    }
    fillRandomNonZero(reinterpret_cast<unsigned char*>(key), kKeySize);
    key[kKeySize] = '\0';
}

void VEL_CryptoTools::DecryptSessionKey(const char* key, char*& schedule) {
    char masked[kKeySize];
    for (unsigned long i = 0; i < kKeySize; ++i) {
        masked[i] = static_cast<char>(key[i] ^ kKeyMask[i]);
    }
    GenerateCastKey(masked, schedule);  // applies the mask again: the two cancel
}
