#include "VEL_Zlib.h"

#include <string>

#include <gtest/gtest.h>

namespace {

const std::string kText = "the quick brown fox jumps over the lazy dog; the quick brown fox again";

std::string compressed(unsigned long algorithm, int format = velcom::kZlibStream) {
    std::string stream(256, '\0');
    unsigned long length = stream.size();
    if (velcom::zlibCompress(kText.data(), kText.size(), &stream[0], &length, algorithm, format) !=
        0) {
        return "failed";
    }
    return stream.substr(0, length);
}

TEST(ZlibTest, AlgorithmIsTheLevelAndValuesAboveNineMeanNine) {
    EXPECT_GT(compressed(0).size(), kText.size());  // level 0 only stores
    EXPECT_LT(compressed(2).size(), kText.size());
    EXPECT_EQ(compressed(10), compressed(9));
    EXPECT_EQ(compressed(0xFFFFFFFFul), compressed(9));
    EXPECT_EQ(compressed(2, 2), "failed");
}

TEST(ZlibTest, UncompressIgnoresBytesAfterTheStream) {
    const std::string stream = compressed(2) + std::string(7, '\0');  // e.g. cipher padding
    std::string plain(kText.size() + 10, '\0');
    unsigned long length = plain.size();
    ASSERT_EQ(velcom::zlibUncompress(stream.data(), stream.size(), &plain[0], &length, 2), 0);
    EXPECT_EQ(plain.substr(0, length), kText);
}

}  // namespace
