#include "VEL_CryptoTools.h"

#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <openssl/evp.h>
#include <openssl/provider.h>

namespace {

// The deployment constants the library was built with.
const unsigned char kInitVector[8] = {VEL_CAST_IV_BYTES};
const unsigned char kKeyMask[16] = {VEL_CAST_KEY_MASK_BYTES};

const char kKey[17] = "0123456789abcdef";

// CAST-128 CBC through OpenSSL's EVP interface, keyed with (key XOR mask), zero padding done by
// hand: an independent path to the bytes the library must produce.
std::vector<unsigned char> referenceEncrypt(const std::string& plain) {
    static OSSL_PROVIDER* legacy = OSSL_PROVIDER_load(nullptr, "legacy");
    EXPECT_NE(legacy, nullptr);
    unsigned char key[16];
    for (int i = 0; i < 16; ++i) {
        key[i] = static_cast<unsigned char>(kKey[i]) ^ kKeyMask[i];
    }
    std::vector<unsigned char> padded(plain.begin(), plain.end());
    padded.resize((plain.size() + 7) & ~std::size_t{7}, 0);
    std::vector<unsigned char> out(padded.size() + 8);
    EVP_CIPHER_CTX* ctx = EVP_CIPHER_CTX_new();
    int written = 0;
    EXPECT_EQ(EVP_EncryptInit_ex(ctx, EVP_cast5_cbc(), nullptr, key, kInitVector), 1);
    EVP_CIPHER_CTX_set_padding(ctx, 0);
    if (!padded.empty()) {
        EXPECT_EQ(EVP_EncryptUpdate(ctx, out.data(), &written, padded.data(),
                                    static_cast<int>(padded.size())),
                  1);
    }
    EVP_CIPHER_CTX_free(ctx);
    out.resize(static_cast<std::size_t>(written));
    return out;
}

// A schedule keyed the way secure sessions key it: GenerateCastKey on a private copy.
char* scheduleFor(const char* key) {
    char copy[16];
    std::memcpy(copy, key, sizeof(copy));
    char* schedule = nullptr;
    VEL_CryptoTools::GenerateCastKey(copy, schedule);
    return schedule;
}

TEST(CryptoToolsTest, EncryptMatchesCast128CbcWithTheMaskedKeyAndDecryptGivesThePaddedPlain) {
    char* schedule = scheduleFor(kKey);
    for (std::size_t length : {0u, 1u, 7u, 8u, 9u, 16u, 1000u}) {
        std::string plain(length, '\0');
        for (std::size_t i = 0; i < length; ++i) {
            plain[i] = static_cast<char>('A' + i % 23);
        }
        char* out = nullptr;
        unsigned long outLength = 99;
        VEL_CryptoTools::Encrypt(plain.data(), out, length, outLength, schedule);
        const std::vector<unsigned char> expected = referenceEncrypt(plain);
        ASSERT_EQ(outLength, expected.size()) << length;
        if (outLength > 0) {
            EXPECT_EQ(std::memcmp(out, expected.data(), outLength), 0) << length;
            char* back = nullptr;
            VEL_CryptoTools::Decrypt(out, back, outLength, schedule);
            plain.resize(outLength, '\0');
            EXPECT_EQ(std::memcmp(back, plain.data(), outLength), 0) << length;
            std::free(back);
        }
        std::free(out);
    }
    std::free(schedule);
}

TEST(CryptoToolsTest, CastKeyMasksInPlaceAndTwoCallsCancel) {
    char key[17];
    std::memcpy(key, kKey, sizeof(key));
    char* first = nullptr;
    VEL_CryptoTools::GenerateCastKey(key, first);
    for (int i = 0; i < 16; ++i) {
        EXPECT_EQ(static_cast<unsigned char>(key[i]),
                  static_cast<unsigned char>(kKey[i]) ^ kKeyMask[i]);
    }
    char* second = nullptr;
    VEL_CryptoTools::GenerateCastKey(key, second);
    EXPECT_EQ(std::memcmp(key, kKey, 16), 0);
    // The second schedule is keyed with the bytes first passed in: the one DecryptSessionKey
    // makes without touching its argument.
    char* direct = nullptr;
    VEL_CryptoTools::DecryptSessionKey(key, direct);
    EXPECT_EQ(std::memcmp(key, kKey, 16), 0);
    EXPECT_EQ(std::memcmp(second, direct, VEL_CryptoTools::kScheduleSize), 0);
    EXPECT_NE(std::memcmp(first, direct, VEL_CryptoTools::kScheduleSize), 0);
    std::free(direct);
    std::free(second);
    std::free(first);
}

TEST(CryptoToolsTest, SourceKeysAreSixteenNonZeroBytesAndLeaveRandAlone) {
    std::srand(5);
    const int expected = std::rand();
    std::srand(5);
    char* a = nullptr;
    char* b = nullptr;
    VEL_CryptoTools::GenerateSrcKey(a);
    VEL_CryptoTools::GenerateSrcKey(b);
    EXPECT_EQ(std::rand(), expected);
    EXPECT_EQ(std::strlen(a), 16u);
    EXPECT_EQ(std::strlen(b), 16u);
    EXPECT_NE(std::memcmp(a, b, 16), 0);
    std::free(a);
    std::free(b);
}

}  // namespace
