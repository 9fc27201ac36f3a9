// The Wireshark dissector's expert warnings against the library itself: for each kind of bad
// frame, a library client sends a good frame, the test writes the bad one on the client's
// socket, a library server receives both, and tshark must report, on the same connection of
// the recorded capture, the status that the server's recvMessage returned, with the bytes the
// server never read shown as such.
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "SocketSupport.h"
#include "Tshark.h"
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_Socket.h"
#include "VEL_TCPAcceptor.h"
#include "WireCapture.h"

namespace {

using veltest::Be16;
using veltest::Be32;
using veltest::DissectedFrame;
using veltest::ShownBytes;

constexpr unsigned long kMaxSize = 1024;  // the receivers' maximum message size

// An OXL header: total length, length check, the 16-bit word (marker or extension length),
// version and flag byte.
std::string oxl(std::uint32_t total, std::uint32_t check, std::uint16_t word, char version,
                char flag = 0) {
    return Be32(total) + Be32(check) + Be16(word) + version + flag;
}

// A HOLM frame: the check word is computed (then `checkFlip` is XORed into it) and the total
// length counts the parts (then `totalAdjust` is added).
struct Holm {
    std::uint16_t magic = 0x484F;
    std::uint16_t version = 0x0100;
    std::uint32_t plain = 0;
    int totalAdjust = 0;
    unsigned char checkFlip = 0;  // XORed into the check word's low byte
    unsigned char security = 0;
    unsigned char session = 0;
    unsigned char compression = 0;
    std::string rscv, field, sscv, body;

    std::string header() const {
        const auto total = static_cast<std::uint32_t>(28 + rscv.size() + field.size() +
                                                      sscv.size() + body.size() + totalAdjust);
        std::string bytes = veltest::WithHOLMCheck(
                Be16(magic) + Be16(version) + Be32(total) + Be32(plain) + std::string(4, '\0') +
                static_cast<char>(security) + static_cast<char>(session) +
                static_cast<char>(compression) + '\0' + static_cast<char>(rscv.size()) +
                static_cast<char>(field.size()) + static_cast<char>(sscv.size()) +
                std::string(5, '\0'));
        bytes[13] = static_cast<char>(bytes[13] ^ checkFlip);
        return bytes;
    }
    std::string rest() const { return rscv + field + sscv + body; }
};

// One bad (or boundary) frame: what the receiver reads before it decides (`decided`) goes in
// one segment and the rest in the next, so that the bytes it never reads stand apart.
struct Case {
    const char* what = "";
    std::string decided;
    std::string rest;
    VELErr_t status = kVELErr_Ok;  // what the library's recvMessage returns
    const char* expert = "";       // the dissector's warning, "" when it accepts the frame
    std::string unread;            // the bytes the dissector shows as not read
    bool session = false;          // HOLM: the good frame opens a secure session (its key frame)
    const char* field = "";        // a field the dissector must show for the frame, and its value
    std::string value;
};

// Refused once the header has been read: the rest is never read.
Case atHeader(const char* what, const std::string& header, const std::string& rest, VELErr_t status,
              const char* expert) {
    return Case{what, header, rest, status, expert, rest, false, "", ""};
}

// Decided once the whole frame, one segment, has been read.
Case whole(const char* what, const std::string& frame, VELErr_t status, const char* expert,
           const std::string& unread = "") {
    return Case{what, frame, "", status, expert, unread, false, "", ""};
}

class DissectorRefusalTest : public veltest::DissectorTest {
protected:
    using MakeTransport = std::function<std::unique_ptr<VEL_Transport>(VEL_Socket*)>;

    void check(const std::string& protocol, const MakeTransport& make,
               const std::vector<Case>& cases) {
        VEL_TCPAcceptor acceptor(0, "127.0.0.1");
        ASSERT_EQ(acceptor.open(), kVELErr_Ok);
        const unsigned short port = acceptor.getLocalAddr().getPort();
        veltest::CaptureFile capture;
        veltest::RecordingRelay relay(capture, port);
        std::vector<VELErr_t> statuses;
        for (const Case& each : cases) {
            statuses.push_back(converse(relay, acceptor, make, each));
        }
        ASSERT_TRUE(relay.waitForEnded(cases.size()));
        const std::vector<std::string> options{"-o", protocol + ".ports:" + std::to_string(port),
                                               "-o", protocol + ".max_size:1024"};
        const auto frames = dissect(capture, options);
        // A second pass over the capture, as Wireshark makes when a frame is clicked, shows
        // what the first pass decided.
        std::vector<std::string> twoPass(options);
        twoPass.push_back("-2");
        const auto again = dissect(capture, twoPass);
        ASSERT_EQ(again.size(), frames.size());
        for (std::size_t i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(again[i].fields, frames[i].fields) << "frame " << i;
        }
        for (std::size_t i = 0; i < cases.size(); ++i) {
            const Case& each = cases[i];
            SCOPED_TRACE(each.what);
            EXPECT_EQ(statuses[i], each.status) << "the library's receiver";
            expectFrames(protocol, each, statuses[i], veltest::OfStream(frames, i));
        }
    }

private:
    // A good frame from a library client, then the case's bytes written on the client's
    // socket; returns what the library server's second recvMessage returned.
    VELErr_t converse(veltest::RecordingRelay& relay, VEL_TCPAcceptor& acceptor,
                      const MakeTransport& make, const Case& each) {
        const veltest::RelayedSockets sockets = veltest::ConnectThrough(relay, acceptor);
        if (!sockets.client || !sockets.server) {
            return kVELErr_InvalidSocket;
        }
        std::unique_ptr<VEL_Transport> sender = make(sockets.client.get());
        std::unique_ptr<VEL_Transport> receiver = make(sockets.server.get());
        if (each.session) {
            EXPECT_EQ(static_cast<VEL_HOLM*>(sender.get())->openSecureSession(), kVELErr_Ok);
        }
        VEL_Message good;
        EXPECT_EQ(good.setData("good", 4), kVELErr_Ok);
        EXPECT_EQ(good.setRSCV("rs", 2), kVELErr_Ok);
        EXPECT_EQ(good.setSSCV("ss", 2), kVELErr_Ok);
        EXPECT_EQ(sender->sendMessage(&good), kVELErr_Ok);
        VEL_Message received;
        EXPECT_EQ(receiver->recvMessage(&received), kVELErr_Ok);
        // Each part waits at the server before the next is written: two segments.
        const int clientFd = veltest::Fd(*sockets.client);
        const int serverFd = veltest::Fd(*sockets.server);
        EXPECT_TRUE(veltest::WriteAll(clientFd, each.decided));
        EXPECT_TRUE(veltest::WaitForPending(serverFd, static_cast<int>(each.decided.size())));
        if (!each.rest.empty()) {
            EXPECT_TRUE(veltest::WriteAll(clientFd, each.rest));
            EXPECT_TRUE(veltest::WaitForPending(
                    serverFd, static_cast<int>(each.decided.size() + each.rest.size())));
        }
        return receiver->recvMessage(&received);
    }

    static void expectFrames(const std::string& protocol, const Case& each, VELErr_t status,
                             const std::vector<DissectedFrame>& frames) {
        const bool unreadSegment = !each.rest.empty() && status != kVELErr_Ok;
        ASSERT_EQ(frames.size(), unreadSegment ? 3u : 2u);
        const DissectedFrame& good = frames[0];
        EXPECT_TRUE(good.experts().empty() || each.session);
        if (each.session) {
            EXPECT_EQ(good["holm.field_length"], "16");
        } else {
            EXPECT_EQ(good[protocol + ".body"], ShownBytes("good"));
        }
        const DissectedFrame& judged = frames[1];
        if (*each.expert == '\0') {
            EXPECT_TRUE(judged.experts().empty());
            EXPECT_FALSE(judged.has(protocol + ".status"));
        } else {
            EXPECT_EQ(judged.experts(), std::vector<std::string>{each.expert});
            EXPECT_EQ(judged.number(protocol + ".status"), static_cast<unsigned long>(status));
            EXPECT_NE(judged["_ws.expert.message"].find("(" + std::to_string(status) + ")"),
                      std::string::npos);
        }
        if (*each.field != '\0') {
            EXPECT_EQ(judged[each.field], each.value);
        }
        std::string unread = judged[protocol + ".unread"];
        if (unreadSegment) {
            EXPECT_EQ(frames[2].experts(), std::vector<std::string>{protocol + ".unread.expert"});
            unread = frames[2][protocol + ".unread"];
        }
        EXPECT_EQ(unread, ShownBytes(each.unread));
    }
};

TEST_F(DissectorRefusalTest, OXLv1HeadersAreJudgedAsTheLibraryJudgesThem) {
    const std::string body = "abcde";
    const std::vector<Case> cases{
            atHeader("length check off by one bit", oxl(17, ~17u ^ 1, 32, '1'), body,
                     kVELErr_BadStreamHeader, "oxlv1.bad_check"),
            atHeader("marker 33", oxl(17, ~17u, 33, '1'), body, kVELErr_BadStreamHeader,
                     "oxlv1.bad_marker"),
            atHeader("version '2'", oxl(17, ~17u, 32, '2'), body, kVELErr_BadStreamHeader,
                     "oxlv1.bad_version"),
            whole("total length 11, below the header", oxl(11, ~11u, 32, '1'),
                  kVELErr_MessageTooBig, "oxlv1.short_total"),
            atHeader("body one byte above the maximum", oxl(1037, ~1037u, 32, '1'),
                     std::string(1025, 'x'), kVELErr_MessageTooBig, "oxlv1.too_big"),
            whole("body at the maximum", oxl(1036, ~1036u, 32, '1') + std::string(1024, 'x'),
                  kVELErr_Ok, ""),
    };
    check(
            "oxlv1",
            [](VEL_Socket* socket) { return std::make_unique<VEL_OXLv1>(socket, kMaxSize); },
            cases);
}

TEST_F(DissectorRefusalTest, OXLv2HeadersAndBodiesAreJudgedAsTheLibraryJudgesThem) {
    const std::string body = "abcde";
    const std::string stream = veltest::Deflated(std::string(10, 'q'), 2);
    const std::vector<Case> cases{
            atHeader("length check off by one bit", oxl(17, ~17u ^ 1, 4, '2'), body,
                     kVELErr_BadStreamHeader, "oxlv2.bad_check"),
            atHeader("extension length 3", oxl(17, ~17u, 3, '2'), body, kVELErr_BadStreamHeader,
                     "oxlv2.bad_extension"),
            atHeader("extension length 260", oxl(273, ~273u, 260, '2'), std::string(261, 'r'),
                     kVELErr_BadStreamHeader, "oxlv2.bad_extension"),
            atHeader("version '1'", oxl(17, ~17u, 4, '1'), body, kVELErr_BadStreamHeader,
                     "oxlv2.bad_version"),
            atHeader("total length below the RSCV bytes", oxl(13, ~13u, 6, '2'), "r",
                     kVELErr_BadStreamHeader, "oxlv2.short_total"),
            atHeader("compressed frame too short for its record", oxl(19, ~19u, 4, '2', 'C'),
                     std::string(7, 'z'), kVELErr_MessageTooBig, "oxlv2.too_big"),
            atHeader("body one byte above the maximum", oxl(1037, ~1037u, 4, '2'),
                     std::string(1025, 'x'), kVELErr_MessageTooBig, "oxlv2.too_big"),
            whole("uncompressed length above the maximum",
                  veltest::CompressedOXLv2("", 1025, stream), kVELErr_MessageTooBig,
                  "oxlv2.record_too_big", stream),
            whole("compressed body that is not zlib", veltest::CompressedOXLv2("", 10, "not zlib"),
                  kVELErr_Uncompression, "oxlv2.not_inflated"),
            whole("compressed body larger than announced", veltest::CompressedOXLv2("", 3, stream),
                  kVELErr_Uncompression, "oxlv2.not_inflated"),
            whole("body at the maximum", oxl(1036, ~1036u, 4, '2') + std::string(1024, 'x'),
                  kVELErr_Ok, ""),
    };
    check(
            "oxlv2",
            [](VEL_Socket* socket) { return std::make_unique<VEL_OXLv2>(socket, kMaxSize); },
            cases);
}

TEST_F(DissectorRefusalTest, HOLMHeadersAreJudgedAsTheLibraryJudgesThem) {
    Holm plain;  // a plain frame of 5 bytes
    plain.plain = 5;
    plain.body = "abcde";
    Holm badCheck = plain, badVersion = plain, badMagic = plain, mismatch = plain;
    badCheck.checkFlip = 1;
    badVersion.version = 0x0101;
    badMagic.magic = 0x4858;  // "HX"
    mismatch.body = "abcdef";
    Holm tooBig;
    tooBig.plain = 1025;
    tooBig.body = std::string(1025, 'x');
    Holm shortTotal;
    shortTotal.rscv = "ab";
    shortTotal.totalAdjust = -3;
    Holm secure;  // an encrypted frame of 5 plain bytes with a session ID
    secure.plain = 5;
    secure.security = 0x41;
    secure.session = 0x06;
    secure.field = "\x01\x02\x03\x04";
    secure.body = std::string(8, 'e');
    Holm noKey = secure, secondKey = secure, ragged = secure, padded = secure, accepted = secure;
    noKey.field.clear();
    secondKey.field = std::string(16, 'k');
    ragged.plain = 12;
    ragged.body = std::string(12, 'e');
    padded.body = std::string(16, 'e');
    Holm compressed;
    compressed.plain = 10;
    compressed.compression = 0x42;
    Holm overBound = compressed, garbage = compressed;
    overBound.body = std::string(1041, 'z');  // the bound of 1024 bytes is 1037, 1040 in blocks
    garbage.body = "not zlib";

    auto refused = [](const char* what, const Holm& frame, VELErr_t status, const char* expert) {
        return atHeader(what, frame.header(), frame.rest(), status, expert);
    };
    auto withSession = [](Case each) {
        each.session = true;
        return each;
    };
    Case sessionID = whole("session ID from the initiator", accepted.header() + accepted.rest(),
                           kVELErr_Ok, "");
    sessionID.session = true;
    sessionID.field = "holm.session_id";  // least significant byte first
    sessionID.value = "67305985";
    const std::vector<Case> cases{
            refused("check word off by one bit", badCheck, kVELErr_BadStreamHeader,
                    "holm.bad_check"),
            refused("version 0x0101", badVersion, kVELErr_BadStreamHeader, "holm.bad_version"),
            refused("magic \"HX\"", badMagic, kVELErr_BadStreamHeader, "holm.bad_magic"),
            refused("plain size one above the maximum", tooBig, kVELErr_MessageTooBig,
                    "holm.too_big"),
            refused("session ID to a side without a key", secure, kVELErr_BadStreamHeader,
                    "holm.bad_field"),
            refused("encrypted frame without a key", noKey, kVELErr_BadStreamHeader, "holm.no_key"),
            refused("total length below the RSCV bytes", shortTotal, kVELErr_BadStreamHeader,
                    "holm.short_total"),
            refused("plain body longer than the plain size", mismatch, kVELErr_BadStreamHeader,
                    "holm.length_mismatch"),
            refused("compressed body above the bound", overBound, kVELErr_BadStreamHeader,
                    "holm.too_long"),
            whole("compressed body that is not zlib", garbage.header() + garbage.rest(),
                  kVELErr_Uncompression, "holm.not_inflated"),
            withSession(refused("second key to a side that holds one", secondKey,
                                kVELErr_BadStreamHeader, "holm.bad_field")),
            withSession(refused("encrypted body not in whole blocks", ragged,
                                kVELErr_BadStreamHeader, "holm.bad_padding")),
            withSession(refused("encrypted body longer than the padded plain size", padded,
                                kVELErr_BadStreamHeader, "holm.length_mismatch")),
            sessionID,
    };
    check(
            "holm", [](VEL_Socket* socket) { return std::make_unique<VEL_HOLM>(socket, kMaxSize); },
            cases);
}

}  // namespace
