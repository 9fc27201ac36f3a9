#include "VEL_TLSByteStream.h"

#include <poll.h>
#include <sys/socket.h>

#include <chrono>
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "SocketSupport.h"
#include "TLSSupport.h"
#include "TestSupport.h"
#include "Thread.h"
#include "VEL_EventHandler.h"
#include "VEL_SockOptions.h"
#include "VEL_TCPSocket.h"

namespace {

using std::chrono::milliseconds;
using veltest::TLSFiles;

// The two ends of a loopback TCP connection, each inside a TLS stream, driven by the test
// alone: every step is one call that never waits.
class TLSByteStreamTest : public veltest::SocketLeakTest {
protected:
    void SetUp() override {
        veltest::SocketLeakTest::SetUp();
        ASSERT_TRUE(TLSFiles::Get().made);
    }
    void TearDown() override {
        client.reset();
        server.reset();
        veltest::SocketLeakTest::TearDown();
    }

    void makePair(const VEL_SockOptions& clientOptions = VEL_SockOptions()) {
        veltest::TCPSocketPair pair = veltest::MakeTCPSocketPair(clientOptions);
        ASSERT_TRUE(pair.client && pair.server);
        ASSERT_EQ(VEL_TLSByteStream::Create(std::move(pair.client), veltest::ClientContext(),
                                            "localhost", &client),
                  kVELErr_Ok);
        ASSERT_EQ(VEL_TLSByteStream::Create(std::move(pair.server), veltest::ServerContext(),
                                            nullptr, &server),
                  kVELErr_Ok);
    }

    // Waits (a little) for what `stream` asks, then lets it take one step each way.
    static VELErr_t step(VEL_TLSByteStream& stream, std::string* received) {
        const short events = (stream.extraOps() & kVELOp_Write) != 0 ? POLLOUT : POLLIN;
        pollfd entry{static_cast<int>(stream.getHandle()), events, 0};
        (void)::poll(&entry, 1, 10);
        char buffer[65536];
        VELIoVec place{buffer, sizeof(buffer)};
        std::size_t moved = 0;
        VELErr_t code = stream.readAvail(&place, 1, &moved);
        received->append(buffer, moved);
        if (code == kVELErr_Ok) {
            VELIoVec nothing{buffer, 0};
            code = stream.writeAvail(&nothing, 1, &moved);
        }
        return code;
    }

    // Steps both streams until both have completed their handshake (at most 2 s).
    void handshake() {
        std::string ignored;
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(2);
        while (!(client->isEstablished() && server->isEstablished()) &&
               std::chrono::steady_clock::now() < deadline) {
            ASSERT_EQ(step(*client, &ignored), kVELErr_Ok) << client->failureDetail();
            ASSERT_EQ(step(*server, &ignored), kVELErr_Ok) << server->failureDetail();
        }
        ASSERT_TRUE(client->isEstablished() && server->isEstablished());
    }

    // Everything `stream` delivers within `limit` until it holds `size` bytes.
    static std::string readUpTo(VEL_TLSByteStream& stream, std::size_t size,
                                milliseconds limit = milliseconds(5000)) {
        std::string received;
        const auto deadline = std::chrono::steady_clock::now() + limit;
        while (received.size() < size && std::chrono::steady_clock::now() < deadline) {
            if (step(stream, &received) != kVELErr_Ok) {
                break;
            }
        }
        return received;
    }

    std::unique_ptr<VEL_TLSByteStream> client, server;
};

// The client's first step writes and the server's reads; each side then moves one step at each
// readiness, and data flows once both have completed. The close_notify that follows data reaches
// the peer after it (an orderly end, last system error 0).
TEST_F(TLSByteStreamTest, HandshakeRunsStepByStepInBothRolesThenDataAndTheEnd) {
    makePair();
    EXPECT_EQ(client->extraOps(), kVELOp_Write);
    EXPECT_EQ(server->extraOps(), kVELOp_Read);
    EXPECT_FALSE(client->isEstablished());
    char header[4] = {'a', 'b', 'c', 'd'};
    VELIoVec pieces[2] = {{header, sizeof(header)}, {const_cast<char*>("-body"), 5}};
    std::size_t moved = 0;
    ASSERT_EQ(client->writeAvail(pieces, 2, &moved), kVELErr_Ok);
    EXPECT_EQ(moved, 0u) << "no data before the handshake";
    handshake();
    EXPECT_EQ(client->extraOps(), 0);
    EXPECT_EQ(client->getProtocol().substr(0, 7), "TLSv1.3");
    EXPECT_NE(client->getPeerSubject().find("localhost"), std::string::npos)
            << client->getPeerSubject();
    ASSERT_EQ(client->writeAvail(pieces, 2, &moved), kVELErr_Ok);
    EXPECT_EQ(moved, 9u);
    EXPECT_EQ(readUpTo(*server, 9), "abcd-body");
    EXPECT_FALSE(server->hasBufferedInput());

    ASSERT_EQ(client->writeAvail(pieces, 1, &moved), kVELErr_Ok);
    (void)readUpTo(*client, 1, milliseconds(50));  // the server's session tickets: no reset
    ASSERT_EQ(client->close(), kVELErr_Ok);        // close_notify right behind the data
    ASSERT_TRUE(veltest::WaitFor([&] {
        pollfd entry{static_cast<int>(server->getHandle()), POLLRDHUP, 0};
        return ::poll(&entry, 1, 0) == 1;
    }));
    char buffer[64];
    VELIoVec place{buffer, sizeof(buffer)};
    ASSERT_EQ(server->readAvail(&place, 1, &moved), kVELErr_Ok);
    EXPECT_EQ(std::string(buffer, moved), "abcd");
    EXPECT_TRUE(server->hasBufferedInput()) << "the end waits behind the data";
    basis::Thread::SetLastSystemErr(99);
    EXPECT_EQ(server->readAvail(&place, 1, &moved), kVELErr_SockHalfClosed);
    EXPECT_EQ(basis::Thread::GetLastSystemErr(), 0);
    EXPECT_EQ(moved, 0u);
}

// A sender whose descriptor fills takes what fits, in whole records, and is offered the rest
// again, small pieces gathered with large ones: every byte arrives once, in order, whatever the
// records were cut into.
TEST_F(TLSByteStreamTest, WritesThatFillTheDescriptorGoOnWhereTheyStopped) {
    VEL_SockOptions small;
    small.setSndBufSize(16 << 10);
    makePair(small);
    handshake();
    const std::string body = veltest::Pattern(2 << 20, 2);
    std::string sent, received;
    for (unsigned int frame = 0; frame < 8; ++frame) {
        const std::string header = "frame " + std::to_string(frame) + ":";
        const std::string part = body.substr(frame * 1000, 200000 + frame * 7919);
        VELIoVec pieces[3] = {
                {const_cast<char*>(header.data()), static_cast<std::uint32_t>(header.size())},
                {const_cast<char*>(part.data()), static_cast<std::uint32_t>(part.size())},
                {const_cast<char*>("!"), 1}};
        const std::string whole = header + part + "!";
        sent += whole;
        std::size_t done = 0;
        for (int round = 0; done < whole.size() && round < 100000; ++round) {
            // The pieces from where the last call stopped, as an output queue offers them.
            VELIoVec rest[3];
            unsigned long count = 0;
            std::size_t skip = done;
            for (const VELIoVec& piece : pieces) {
                if (skip >= piece.iov_len) {
                    skip -= piece.iov_len;
                    continue;
                }
                rest[count++] = {piece.iov_base + skip,
                                 static_cast<std::uint32_t>(piece.iov_len - skip)};
                skip = 0;
            }
            std::size_t moved = 0;
            ASSERT_EQ(client->writeAvail(rest, count, &moved), kVELErr_Ok)
                    << client->failureDetail();
            done += moved;
            received += readUpTo(*server, 1, milliseconds(20));
        }
        ASSERT_EQ(done, whole.size());
    }
    received += readUpTo(*server, sent.size() - received.size());
    EXPECT_TRUE(received == sent) << received.size() << " of " << sent.size() << " bytes";
}

}  // namespace
