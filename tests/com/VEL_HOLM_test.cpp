#include "VEL_HOLM.h"

#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "SocketSupport.h"
#include "TestSupport.h"
#include "VEL_CryptoTools.h"
#include "VEL_Encryptor.h"
#include "VEL_Message.h"
#include "VEL_TimerManager.h"
#include "VEL_Tools.h"

namespace {

using veltest::Be32;
using veltest::Body;
using veltest::Hex;
using veltest::MemorySocket;

class EncryptorProbe : public VEL_Encryptor {
public:
    using VEL_Encryptor::SetLastSessionID;
};

// CAST-128 CBC of `plain` under a 16-byte session key, as a peer holding that key computes it.
std::string castOf(const std::string& key, const std::string& plain) {
    std::string masked = key;
    char* schedule = nullptr;
    VEL_CryptoTools::GenerateCastKey(&masked[0], schedule);
    char* cipher = nullptr;
    unsigned long length = 0;
    VEL_CryptoTools::Encrypt(plain.data(), cipher, plain.size(), length, schedule);
    std::string result(cipher, length);
    std::free(cipher);
    std::free(schedule);
    return result;
}

std::string sscvOf(const VEL_Message& message) {
    return message.checkSSCV() ? std::string(message.getSSCV(), message.getSSCVSize()) : "";
}

class HOLMTest : public veltest::BufferLeakTest {
protected:
    // Sends `body` from one side, hands the frame to the other side's input and receives it
    // there. Returns the frame.
    static std::string relay(VEL_HOLM& sender, MemorySocket& out, VEL_HOLM& receiver,
                             MemorySocket& in, const std::string& body) {
        VEL_Message message;
        EXPECT_EQ(message.setData(body.data(), body.size()), kVELErr_Ok);
        out.clearOutput();
        EXPECT_EQ(sender.sendMessage(&message), kVELErr_Ok) << body;
        in.feed(out.written());
        VEL_Message received;
        EXPECT_EQ(receiver.recvMessage(&received), kVELErr_Ok) << body;
        EXPECT_EQ(Body(received), body);
        return out.written();
    }
    std::string toB(const std::string& body) { return relay(_a, _aOut, _b, _bOut, body); }
    std::string toA(const std::string& body) { return relay(_b, _bOut, _a, _aOut, body); }

    MemorySocket _aOut;  // what A writes, B reads from the other socket, and back
    MemorySocket _bOut;
    VEL_HOLM _a{&_aOut, 100000};
    VEL_HOLM _b{&_bOut, 100000};
};

TEST_F(HOLMTest, PlainFramesCarryRSCVSessionFieldAndSSCVInOrder) {
    const struct {
        std::string rscv, sscv, body, frame;
    } cases[] = {
            {"", "", "", Hex("484F 0100 0000001C 00000000 4953 0000 00000000 000000 0000000000")},
            {"", "", "hello",
             Hex("484F 0100 00000021 00000005 496B 0000 00000000 000000 0000000000") + "hello"},
            {"ab", "xyz", "hi",
             Hex("484F 0100 00000023 00000002 496E 0000 00000000 020003 0000000000") + "abxyzhi"},
    };
    for (const auto& c : cases) {
        VEL_Message message;
        ASSERT_EQ(message.setData(c.body.data(), c.body.size()), kVELErr_Ok);
        ASSERT_EQ(message.setRSCV(c.rscv.data(), static_cast<unsigned char>(c.rscv.size())),
                  kVELErr_Ok);
        ASSERT_EQ(message.setSSCV(c.sscv.data(), static_cast<unsigned char>(c.sscv.size())),
                  kVELErr_Ok);
        _aOut.clearOutput();
        ASSERT_EQ(_a.sendMessage(&message), kVELErr_Ok);
        EXPECT_EQ(_aOut.written(), c.frame);
        _bOut.feed(c.frame);
        VEL_Message received;
        ASSERT_EQ(_b.recvMessage(&received), kVELErr_Ok);
        EXPECT_EQ(Body(received), c.body);
        EXPECT_EQ(veltest::RSCV(received), c.rscv);
        EXPECT_EQ(sscvOf(received), c.sscv);
    }
    // Compressed at the chosen level: bit 6 and the level in byte 18, then the zlib stream.
    const std::string plain(600, 'z');
    _a.setCompression(true, kVELHOLMCompAlgo_Best);
    const std::string frame = toB(plain);
    EXPECT_EQ(frame.substr(4, 8), Be32(static_cast<std::uint32_t>(frame.size())) + Be32(600));
    EXPECT_EQ(frame.substr(16, 8), Hex("00 00 49 00 00 00 00 00"));
    EXPECT_EQ(frame.substr(28), veltest::Deflated(plain, 9));
    EXPECT_TRUE(_b.getCompression());  // taken over from the header
}

TEST_F(HOLMTest, KeyGoesOutOnceThenSessionIDsThenTheResetBitOnce) {
    EncryptorProbe::SetLastSessionID(0xABCDEE);  // A gets 0xABCDEF, B 0xABCDF0
    ASSERT_EQ(_a.openSecureSession(), kVELErr_Ok);
    EXPECT_EQ(_a.openSecureSession(), kVELErr_SecureSession);
    std::string frame = toB("secret");
    EXPECT_EQ(frame.substr(4, 8), Be32(28 + 16 + 8) + Be32(6));
    EXPECT_EQ(frame.substr(16, 8), Hex("41 04 80 00 00 10 00 00"));  // secure, level 1, initiator
    const std::string key = frame.substr(28, 16);
    EXPECT_EQ(key.find('\0'), std::string::npos);
    EXPECT_EQ(frame.substr(44), castOf(key, "secret"));
    EXPECT_TRUE(_b.isSecureSession());

    frame = toA("reply, nine");  // the responder sends its own session ID
    EXPECT_EQ(frame.substr(16, 8), Hex("41 06 00 00 00 04 00 00"));
    EXPECT_EQ(frame.substr(28, 4), Hex("F0CDAB00"));
    EXPECT_EQ(frame.substr(32), castOf(key, "reply, nine"));
    frame = toB("again");  // the initiator sends the ID it received
    EXPECT_EQ(frame.substr(16, 8), Hex("41 06 80 00 00 04 00 00"));
    EXPECT_EQ(frame.substr(28, 4), Hex("F0CDAB00"));

    ASSERT_EQ(_a.closeSecureSession(), kVELErr_Ok);
    EXPECT_EQ(_a.closeSecureSession(), kVELErr_SecureSession);
    EXPECT_EQ(toB("bye").substr(16, 8), Hex("00 01 00 00 00 00 00 00"));
    EXPECT_FALSE(_b.isSecureSession());
    EXPECT_EQ(toB("plain").substr(16, 3), Hex("00 00 00"));
    EXPECT_EQ(toA("not bounced").substr(16, 3), Hex("00 00 00"));

    // A new session; then a close followed at once by an open: reset bit and new key together.
    ASSERT_EQ(_a.openSecureSession(), kVELErr_Ok);
    EXPECT_EQ(toB("new key")[21], 16);
    ASSERT_EQ(_a.closeSecureSession(), kVELErr_Ok);
    ASSERT_EQ(_a.openSecureSession(), kVELErr_Ok);
    frame = toB("reset and key");
    EXPECT_EQ(frame.substr(16, 8), Hex("41 05 80 00 00 10 00 00"));
    EXPECT_EQ(frame.substr(44), castOf(frame.substr(28, 16), "reset and key"));
    toA("still both ways");
}

TEST_F(HOLMTest, ASessionClosedBehindTheTransportFailsWithoutThrowing) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    EncryptorProbe::SetLastSessionID(100);  // A gets 101, B 102
    ASSERT_EQ(_a.openSecureSession(), kVELErr_Ok);
    toB("open");
    VEL_Encryptor::Instance()->closeSession(102);  // B's session, behind B's back

    VEL_Message message;
    ASSERT_EQ(message.setData("x", 1), kVELErr_Ok);
    _bOut.clearOutput();
    EXPECT_EQ(_b.sendMessage(&message), kVELErr_SecureSession);
    EXPECT_EQ(_bOut.written().size(), 0u);
    EXPECT_EQ(Body(message), "x");
    _aOut.clearOutput();
    ASSERT_EQ(_a.sendMessage(&message), kVELErr_Ok);
    _bOut.feed(_aOut.written());
    EXPECT_EQ(_b.recvMessage(&message), kVELErr_SecureSession);
    EXPECT_TRUE(sink.contains("Unknown secure session ID"));
    EXPECT_TRUE(sink.contains("Error receiving a HOLM message"));
}

TEST_F(HOLMTest, SecureAndCompressedRoundTripsInBothDirections) {
    const struct {
        bool secure, compressed;
        std::size_t sizes[3];
    } modes[] = {
            {true, false, {1, 9, 40000}},  // 40000 x 2 overflows a 16-bit capacity
            {true, true, {100, 16384, 40000}},
            {false, true, {100, 16384, 40000}},
            {false, false, {0, 7, 16384}},
    };
    unsigned int seed = 0;
    for (const auto& mode : modes) {
        if (mode.secure) {
            ASSERT_EQ(_a.openSecureSession(), kVELErr_Ok);
        }
        _a.setCompression(mode.compressed);
        for (std::size_t size : mode.sizes) {
            std::string body = veltest::Pattern(size, ++seed);
            for (std::size_t i = 0; mode.compressed && i < size; ++i) {
                body[i] = static_cast<char>('a' + (i / 5 + seed) % 7);
            }
            toB(body);  // B answers with the settings A's header gave it
            toA(body);
            EXPECT_EQ(_b.isSecureSession(), mode.secure) << size;
            EXPECT_EQ(_b.getCompression(), mode.compressed) << size;
        }
        if (mode.secure) {
            ASSERT_EQ(_a.closeSecureSession(), kVELErr_Ok);
        }
    }
}

// Sessions that expire after one second of not being used for decryption.
class HOLMExpiryTest : public HOLMTest {
protected:
    void SetUp() override {
        HOLMTest::SetUp();
        VEL_Encryptor::Instance()->setInactivityTimeout(1);
    }
    void TearDown() override {
        VEL_Encryptor::Instance()->setInactivityTimeout(0);
        VEL_TimerManager::CloseSingleton();
        HOLMTest::TearDown();
    }

    // Waits until `side` can no longer send, its session having expired.
    static bool expires(VEL_HOLM& side, MemorySocket& out) {
        return veltest::WaitFor(
                [&] {
                    VEL_Message probe;
                    out.clearOutput();
                    return side.sendMessage(&probe) == kVELErr_SecureSession &&
                           out.written().empty();
                },
                std::chrono::seconds(5));
    }
};

// Empty secure frames used to bypass the session: they kept no session alive, and were still
// sent and received as secure after the session had expired.
TEST_F(HOLMExpiryTest, EmptySecureFramesGoThroughTheSession) {
    ASSERT_EQ(_a.openSecureSession(), kVELErr_Ok);
    toB("key");
    toA("joined");
    std::string emptyFrame;
    for (int round = 0; round < 5; ++round) {  // 1.5 s of empty keep-alives both ways
        std::this_thread::sleep_for(std::chrono::milliseconds(300));
        emptyFrame = toB("");
        toA("");
    }
    EXPECT_EQ(emptyFrame.substr(16, 6), Hex("41 06 80 00 00 04"));
    toB("still open");
    toA("both ways");

    ASSERT_TRUE(expires(_a, _aOut));
    ASSERT_TRUE(expires(_b, _bOut));
    _bOut.feed(emptyFrame);
    VEL_Message message;
    EXPECT_EQ(_b.recvMessage(&message), kVELErr_SecureSession);
}

// After its session expired, a transport kept the bare ID: once the encryptor gave that ID to
// another session, the transport encrypted with the other session's key, and its close and its
// destructor closed the other owner's session.
TEST_F(HOLMExpiryTest, AnExpiredSessionsIDGivenToAnotherIsNeverUsedOrClosed) {
    VEL_Encryptor* encryptor = VEL_Encryptor::Instance();
    const auto isOpen = [encryptor](unsigned long id) {
        char block[8] = {};
        char* out = block;
        unsigned long length = 0;
        return encryptor->encrypt("12345678", out, 8, length, id) == kVELErr_Ok;
    };
    EncryptorProbe::SetLastSessionID(500);  // A gets 501, C 502
    MemorySocket cOut;
    auto c = std::make_unique<VEL_HOLM>(&cOut, 100);
    ASSERT_EQ(_a.openSecureSession(), kVELErr_Ok);
    ASSERT_EQ(c->openSecureSession(), kVELErr_Ok);
    ASSERT_TRUE(veltest::WaitFor([&] { return !isOpen(501) && !isOpen(502); },
                                 std::chrono::seconds(5)));
    encryptor->setInactivityTimeout(0);
    EncryptorProbe::SetLastSessionID(500);
    const unsigned long others[] = {
            encryptor->openSession(basis::BoundedString<16>("another one's k", 16)),
            encryptor->openSession(basis::BoundedString<16>("and a third key", 16))};
    ASSERT_EQ(others[0], 501u);
    ASSERT_EQ(others[1], 502u);

    VEL_Message message;
    ASSERT_EQ(message.setData("x", 1), kVELErr_Ok);
    EXPECT_EQ(_a.sendMessage(&message), kVELErr_SecureSession);
    EXPECT_EQ(_aOut.written(), "");
    EXPECT_EQ(_a.closeSecureSession(), kVELErr_Ok);
    c.reset();
    EXPECT_TRUE(isOpen(501));
    EXPECT_TRUE(isOpen(502));
    for (unsigned long id : others) {
        encryptor->closeSession(id);
    }
}

}  // namespace
