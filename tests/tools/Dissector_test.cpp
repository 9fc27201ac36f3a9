// The Wireshark dissector (tools/wireshark/vel.lua) on conversations that velcat and the library
// really held over loopback, recorded by a relay (see WireCapture.h) and read back from tshark's
// JSON, frame by frame.
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Tshark.h"
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_TCPAcceptor.h"
#include "VelcatProcess.h"
#include "WireCapture.h"

namespace {

using veltest::CaptureFile;
using veltest::Cutting;
using veltest::DissectedFrame;
using veltest::RecordingRelay;
using veltest::ShownBytes;
using veltest::VelcatProcess;
using Strings = std::vector<std::string>;
using Frames = std::vector<DissectedFrame>;

// The bytes a frame takes on the wire, from its own header.
unsigned long frameSize(const DissectedFrame& frame) {
    if (frame.protocol == "oxlv5") {
        return frame.number("oxlv5.length") + 2;
    }
    return frame.number(frame.protocol + ".total_length");
}

// The message a frame carries: its inflated body when it has one, else its body.
std::string message(const DissectedFrame& frame) {
    const std::string inflated = frame[frame.protocol + ".inflated"];
    return inflated.empty() ? frame[frame.protocol + ".body"] : inflated;
}

class DissectorConversationTest : public veltest::DissectorTest {
protected:
    // A velcat echo listener of `protocol` on 127.0.0.1 and a velcat client with `options`
    // converse through a relay that records into `capture`, cutting both directions as asked:
    // the client sends `lines` one at a time, each once the echo of the previous one has come
    // back (so that the capture holds request, echo, request, echo...), or all at once when
    // `together`. Returns the listener's port.
    static unsigned short recordEcho(CaptureFile& capture, const std::string& protocol,
                                     const Strings& options, const Strings& lines,
                                     Cutting cutting = Cutting(), bool together = false) {
        VelcatProcess listener({"-l", "-s", "127.0.0.1", "-e", "-p", protocol, "0"});
        const unsigned short port = listener.listeningPort();
        EXPECT_NE(port, 0) << listener.errors();
        RecordingRelay relay(capture, port);
        relay.setCutting(cutting, cutting);
        Strings args{"-p", protocol, "-c", std::to_string(lines.size())};
        args.insert(args.end(), options.begin(), options.end());
        args.insert(args.end(), {"127.0.0.1", std::to_string(relay.port())});
        VelcatProcess client(args);
        std::string echoed;
        for (const std::string& line : lines) {
            EXPECT_TRUE(client.write(line + "\n"));
            echoed += line + "\n";
            if (!together) {
                EXPECT_EQ(client.readOutput(echoed.size()), echoed) << client.errors();
            }
        }
        EXPECT_EQ(client.readOutput(echoed.size()), echoed) << client.errors();
        client.closeInput();
        EXPECT_EQ(client.wait(), 0) << client.errors();
        EXPECT_TRUE(relay.waitForEnded(1));
        return port;
    }

    // One echo conversation per protocol, each through its own relay (one byte per segment,
    // or each direction's frames joined into one segment when `together`), into one capture.
    // Returns each protocol's frames in capture order.
    std::map<std::string, Frames> echoEveryProtocol(const Strings& lines, bool together) {
        struct Run {
            const char* velcat;
            const char* dissector;
            Strings options;
            std::size_t overhead;  // header bytes of a plain frame
        };
        const Run runs[] = {{"oxl1", "oxlv1", {}, 12},
                            {"oxl2", "oxlv2", {"-z"}, 12},
                            {"oxl5", "oxlv5", {}, 2},
                            {"holm", "holm", {"-z"}, 28}};
        CaptureFile capture;
        Strings options;
        for (const Run& run : runs) {
            Cutting cutting;
            cutting.kind = together ? Cutting::kJoined : Cutting::kOneByte;
            for (const std::string& line : lines) {
                cutting.joined += run.overhead + line.size();
            }
            const unsigned short port =
                    recordEcho(capture, run.velcat, together ? Strings{} : run.options, lines,
                               cutting, together);
            options.insert(options.end(),
                           {"-o", std::string(run.dissector) + ".ports:" + std::to_string(port)});
        }
        std::map<std::string, Frames> byProtocol;
        for (const DissectedFrame& frame : dissect(capture, options)) {
            byProtocol[frame.protocol].push_back(frame);
        }
        return byProtocol;
    }
};

TEST_F(DissectorConversationTest, OXLv1FramesShowEveryFieldUnderPortPreferenceOrDecodeAs) {
    CaptureFile capture;
    const Strings lines{"hello", "vel over TCP"};
    const unsigned short port = recordEcho(capture, "oxl1", {}, lines);

    const Frames frames = dissect(capture, {"-o", "oxlv1.ports:" + std::to_string(port)});
    ASSERT_EQ(frames.size(), 4u);
    for (std::size_t i = 0; i < frames.size(); ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const DissectedFrame& frame = frames[i];
        const std::string& body = lines[i / 2];
        EXPECT_EQ(frame.sourcePort == port, i % 2 == 1);  // request, then its echo
        EXPECT_EQ(frame.number("oxlv1.total_length"), body.size() + 12);
        EXPECT_EQ(frame.number("oxlv1.length_check"), ~(body.size() + 12) & 0xFFFFFFFFul);
        EXPECT_EQ(frame["oxlv1.marker"], "32");
        EXPECT_EQ(frame["oxlv1.version"], "0x31");
        EXPECT_EQ(frame["oxlv1.reserved"], "0x00");
        EXPECT_EQ(frame.number("oxlv1.body_length"), body.size());
        EXPECT_EQ(frame["oxlv1.body"], ShownBytes(body));
        EXPECT_TRUE(frame.experts().empty());
    }
    // Decode As shows the same; with neither, no port is claimed.
    const Frames decodedAs =
            dissect(capture, {"-d", "tcp.port==" + std::to_string(port) + ",oxlv1"});
    ASSERT_EQ(decodedAs.size(), frames.size());
    for (std::size_t i = 0; i < frames.size(); ++i) {
        EXPECT_EQ(decodedAs[i].fields, frames[i].fields);
    }
    EXPECT_TRUE(dissect(capture, {}).empty());
}

TEST_F(DissectorConversationTest, OXLv2CompressedBodiesAreInflatedIntoTheirOwnDataSource) {
    CaptureFile capture;
    // The short line does not fit its compression room and goes plain; the echo follows.
    const std::string compressible = std::string(300, 'a') + "xyz";
    const unsigned short port = recordEcho(capture, "oxl2", {"-z"}, {compressible, "hi"});

    const std::string ports = "oxlv2.ports:" + std::to_string(port);
    const Frames frames = dissect(capture, {"-o", ports});
    ASSERT_EQ(frames.size(), 4u);
    for (int i = 0; i < 2; ++i) {
        const DissectedFrame& frame = frames[i];
        EXPECT_EQ(frame["oxlv2.compression"], "0x43");
        EXPECT_EQ(frame["oxlv2.extension_length"], "4");
        EXPECT_EQ(frame["oxlv2.record_tag"], "2");
        EXPECT_EQ(frame.number("oxlv2.uncompressed_length"), compressible.size());
        EXPECT_EQ(frame.number("oxlv2.total_length"), 20 + frame.number("oxlv2.body_length"));
        EXPECT_LT(frame.number("oxlv2.body_length"), compressible.size());
        EXPECT_EQ(frame["oxlv2.inflated"], ShownBytes(compressible));
        EXPECT_EQ(frame.number("oxlv2.inflated_length"), compressible.size());
        EXPECT_TRUE(frame.experts().empty());
    }
    for (int i = 2; i < 4; ++i) {
        const DissectedFrame& frame = frames[i];
        EXPECT_EQ(frame["oxlv2.compression"], "0x00");
        EXPECT_EQ(frame["oxlv2.total_length"], "14");
        EXPECT_FALSE(frame.has("oxlv2.record_tag"));
        EXPECT_FALSE(frame.has("oxlv2.inflated"));
        EXPECT_EQ(frame["oxlv2.body"], ShownBytes("hi"));
    }
    // The hex dump lists the inflated body as a data source of its own, once per frame.
    const veltest::TsharkResult dump = run({"-r", capturePath(), "-o", ports, "-x"});
    ASSERT_EQ(dump.status, 0) << dump.errors;
    const std::string source = "Inflated OXLv2 body (303 bytes):";
    const std::size_t first = dump.output.find(source);
    ASSERT_NE(first, std::string::npos) << dump.output;
    EXPECT_NE(dump.output.find(source, first + 1), std::string::npos);
}

TEST_F(DissectorConversationTest, OXLv5FrameOverManySegmentsIsShownOnceWhole) {
    CaptureFile capture;
    std::string large(60000, ' ');
    for (std::size_t i = 0; i < large.size(); ++i) {
        large[i] = static_cast<char>('a' + i % 26);
    }
    const unsigned short port = recordEcho(capture, "oxl5", {}, {large, "x"});

    const Frames frames = dissect(capture, {"-o", "oxlv5.ports:" + std::to_string(port)});
    ASSERT_EQ(frames.size(), 4u);
    for (int i = 0; i < 2; ++i) {
        EXPECT_EQ(frames[i].number("oxlv5.length"), large.size());
        EXPECT_EQ(frames[i]["oxlv5.body"], ShownBytes(large));
        EXPECT_GE(frames[i].segments, 8u);  // the relay forwards at most 8192 bytes at a time
    }
    EXPECT_EQ(frames[2]["oxlv5.body"], ShownBytes("x"));
    EXPECT_EQ(frames[3]["oxlv5.body"], ShownBytes("x"));
}

TEST_F(DissectorConversationTest, EveryProtocolReassemblesOneByteSegmentsBothWays) {
    const Strings lines{std::string(200, 'c') + "!", "ok"};
    auto byProtocol = echoEveryProtocol(lines, false);
    for (const char* protocol : {"oxlv1", "oxlv2", "oxlv5", "holm"}) {
        SCOPED_TRACE(protocol);
        const Frames& frames = byProtocol[protocol];
        ASSERT_EQ(frames.size(), 4u);
        for (std::size_t i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(message(frames[i]), ShownBytes(lines[i / 2])) << "frame " << i;
            EXPECT_EQ(frames[i].segments, frameSize(frames[i])) << "frame " << i;
            EXPECT_TRUE(frames[i].experts().empty());
        }
    }
    // The compressing protocols did compress the long line.
    EXPECT_TRUE(byProtocol.at("oxlv2")[0].has("oxlv2.inflated"));
    EXPECT_TRUE(byProtocol.at("holm")[0].has("holm.inflated"));
}

TEST_F(DissectorConversationTest, EveryProtocolShowsEachOfManyFramesInOneSegment) {
    const Strings lines{"one", "two", "three"};
    auto byProtocol = echoEveryProtocol(lines, true);
    for (const char* protocol : {"oxlv1", "oxlv2", "oxlv5", "holm"}) {
        SCOPED_TRACE(protocol);
        const Frames& frames = byProtocol[protocol];
        ASSERT_EQ(frames.size(), 6u);
        // The requests share one packet, the echoes the next one.
        for (std::size_t i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(frames[i].packet, frames[i < 3 ? 0 : 3].packet) << "frame " << i;
            EXPECT_EQ(message(frames[i]), ShownBytes(lines[i % 3])) << "frame " << i;
            EXPECT_TRUE(frames[i].experts().empty());
        }
        EXPECT_NE(frames[0].packet, frames[3].packet);
    }
}

TEST_F(DissectorConversationTest, HOLMSecureSessionShowsKeyExchangeRolesAndOpaqueBodies) {
    CaptureFile capture;
    // The long line compresses before it is encrypted; the short one goes plain, then encrypted.
    const std::string compressible = std::string(200, 'k');
    const unsigned short port = recordEcho(capture, "holm", {"-S", "-z"}, {compressible, "short"});

    const std::string ports = "holm.ports:" + std::to_string(port);
    const Frames frames = dissect(capture, {"-o", ports});
    ASSERT_EQ(frames.size(), 4u);
    const DissectedFrame& key = frames[0];
    EXPECT_EQ(key["holm.security.secure"], "1");
    EXPECT_EQ(key["holm.security.cipher"], "1");
    EXPECT_EQ(key["holm.session.level"], "1");
    EXPECT_EQ(key["holm.session.key_sent"], "0");
    EXPECT_EQ(key["holm.compression.initiator"], "1");
    EXPECT_EQ(key["holm.compression.compressed"], "1");
    EXPECT_EQ(key["holm.field_length"], "16");
    EXPECT_EQ(key["holm.session_key"].size(), 16u * 3 - 1);
    EXPECT_EQ(key.experts(), Strings{"holm.key_exchange"});
    EXPECT_EQ(key.number("holm.key_frame"), key.packet);
    const std::string sessionID = frames[1]["holm.session_id"];
    ASSERT_FALSE(sessionID.empty());
    for (std::size_t i = 0; i < frames.size(); ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const DissectedFrame& frame = frames[i];
        EXPECT_EQ(frame["holm.direction"],
                  i % 2 == 0 ? "initiator to responder" : "responder to initiator");
        EXPECT_EQ(frame["holm.session_number"], "1");
        EXPECT_EQ(frame.number("holm.key_frame"), key.packet);
        // Encrypted bodies stay opaque, in whole CAST blocks.
        EXPECT_TRUE(frame.has("holm.encrypted"));
        EXPECT_FALSE(frame.has("holm.body"));
        EXPECT_FALSE(frame.has("holm.inflated"));
        EXPECT_EQ(frame.number("holm.body_length") % 8, 0u);
        if (i > 0) {
            // Both sides carry the responder's session ID.
            EXPECT_EQ(frame["holm.field_length"], "4");
            EXPECT_EQ(frame["holm.session_id"], sessionID);
            EXPECT_EQ(frame["holm.session.key_sent"], "1");
            EXPECT_TRUE(frame.experts().empty());
        }
    }
    EXPECT_EQ(frames[2]["holm.compression.compressed"], "0");
    EXPECT_EQ(frames[2]["holm.plain_size"], "5");
    EXPECT_EQ(frames[2]["holm.body_length"], "8");

    // A capture that starts after the key exchange, read as such, judges no session field it
    // cannot know.
    const Frames late = dissect(capture, {"-o", ports, "-o", "holm.from_start:FALSE"}, 4);
    ASSERT_EQ(late.size(), 3u);
    for (const DissectedFrame& frame : late) {
        EXPECT_TRUE(frame.experts().empty());
        EXPECT_EQ(frame["holm.session_id"], sessionID);
    }
}

TEST_F(DissectorConversationTest, HOLMSessionsClosedAndReopenedAreFollowed) {
    VEL_TCPAcceptor acceptor(0, "127.0.0.1");
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    const unsigned short port = acceptor.getLocalAddr().getPort();
    CaptureFile capture;
    RecordingRelay relay(capture, port);
    {
        veltest::RelayedSockets sockets = veltest::ConnectThrough(relay, acceptor);
        ASSERT_TRUE(sockets.client && sockets.server);
        VEL_HOLM client(sockets.client.get(), 1024);
        VEL_HOLM server(sockets.server.get(), 1024);
        // Each step: what the client does to its session, then a message each way.
        enum Step { kOpen, kCloseAndReopen, kClose };
        for (Step step : {kOpen, kCloseAndReopen, kClose}) {
            if (step != kOpen) {
                ASSERT_EQ(client.closeSecureSession(), kVELErr_Ok);
            }
            if (step != kClose) {
                ASSERT_EQ(client.openSecureSession(), kVELErr_Ok);
            }
            VEL_Message request;
            ASSERT_EQ(request.setData("request", 7), kVELErr_Ok);
            ASSERT_EQ(request.setRSCV("rs", 2), kVELErr_Ok);
            ASSERT_EQ(request.setSSCV("ssc", 3), kVELErr_Ok);
            ASSERT_EQ(client.sendMessage(&request), kVELErr_Ok);
            VEL_Message received;
            ASSERT_EQ(server.recvMessage(&received), kVELErr_Ok);
            VEL_Message reply;
            ASSERT_EQ(reply.setData("reply", 5), kVELErr_Ok);
            ASSERT_EQ(server.sendMessage(&reply), kVELErr_Ok);
            ASSERT_EQ(client.recvMessage(&received), kVELErr_Ok);
        }
    }
    ASSERT_TRUE(relay.waitForEnded(1));

    const Frames frames = dissect(capture, {"-o", "holm.ports:" + std::to_string(port)});
    ASSERT_EQ(frames.size(), 6u);
    // Request 2 brings a reset and a new key at once: the responder dropped its key first, so
    // the key is accepted. Request 3 closes the session: plain frames follow.
    const char* const fieldLengths[] = {"16", "4", "16", "4", "0", "0"};
    const char* const resets[] = {"0", "0", "1", "0", "1", "0"};
    const char* const sessions[] = {"1", "1", "2", "2", "", ""};
    for (std::size_t i = 0; i < frames.size(); ++i) {
        SCOPED_TRACE("frame " + std::to_string(i));
        const DissectedFrame& frame = frames[i];
        EXPECT_EQ(frame["holm.field_length"], fieldLengths[i]);
        EXPECT_EQ(frame["holm.session.reset"], resets[i]);
        EXPECT_EQ(frame["holm.session_number"], sessions[i]);
        EXPECT_EQ(frame["holm.security.secure"], i < 4 ? "1" : "0");
        EXPECT_EQ(frame["holm.direction"],
                  i % 2 == 0 ? "initiator to responder" : "responder to initiator");
        EXPECT_FALSE(frame.has("holm.status"));
        if (i % 2 == 0) {
            EXPECT_EQ(frame["holm.rscv"], ShownBytes("rs"));
            EXPECT_EQ(frame["holm.sscv"], ShownBytes("ssc"));
        }
    }
    EXPECT_EQ(frames[4]["holm.body"], ShownBytes("request"));
    EXPECT_EQ(frames[5]["holm.body"], ShownBytes("reply"));
    EXPECT_EQ(frames[2].experts(), (Strings{"holm.session_reset", "holm.key_exchange"}));
    EXPECT_EQ(frames[4].experts(), Strings{"holm.session_reset"});
}

}  // namespace
