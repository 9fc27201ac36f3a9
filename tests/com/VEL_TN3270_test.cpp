#include "VEL_TN3270.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "SocketSupport.h"
#include "VEL_Message.h"

namespace {

using veltest::MemorySocket;

class TN3270Test : public veltest::BufferLeakTest {};

TEST_F(TN3270Test, ReceiveReturnsWhatArrivedInPiecesOfAtMost10000Bytes) {
    const std::string input = veltest::Pattern(25003, 1);
    const struct {
        std::size_t chunk;
        std::vector<std::size_t> sizes;
    } cases[] = {{0, {10000, 10000, 5003}}, {10001, {10000, 10000, 5003}}, {4096, {4096, 4096}}};
    for (const auto& c : cases) {
        MemorySocket socket;
        socket.feed(input);
        socket.setReadChunk(c.chunk);
        VEL_TN3270 transport(&socket);
        VEL_Message message;
        std::size_t at = 0;
        for (std::size_t size : c.sizes) {
            ASSERT_EQ(transport.recvMessage(&message), kVELErr_Ok) << c.chunk;
            EXPECT_EQ(veltest::Body(message), input.substr(at, size)) << c.chunk;
            at += size;
        }
    }
}

TEST_F(TN3270Test, NothingWaitingAndFailuresLeaveAnEmptyMessage) {
    MemorySocket socket;
    VEL_TN3270 transport(&socket);
    VEL_Message message;
    ASSERT_EQ(message.setData("old", 3), kVELErr_Ok);
    EXPECT_EQ(transport.recvMessage(&message), kVELErr_Incomplete);
    EXPECT_EQ(message.size(), 0u);
    socket.feed("ab");
    socket.failReadAt(2, kVELErr_Recv);
    ASSERT_EQ(transport.recvMessage(&message), kVELErr_Ok);
    EXPECT_EQ(veltest::Body(message), "ab");
    EXPECT_EQ(transport.recvMessage(&message), kVELErr_Recv);
    EXPECT_EQ(message.size(), 0u);
    socket.closeInput();
    EXPECT_EQ(transport.recvMessage(&message), kVELErr_SockHalfClosed);
    EXPECT_EQ(message.size(), 0u);
    socket.failWriteAt(1, kVELErr_Timeout);
    EXPECT_EQ(transport.sendMessage(&message), kVELErr_Ok);  // nothing to send
    ASSERT_EQ(message.setData("xy", 2), kVELErr_Ok);
    EXPECT_EQ(transport.sendMessage(&message), kVELErr_Timeout);
}

}  // namespace
