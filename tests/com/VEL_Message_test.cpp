#include "VEL_Message.h"

#include <cstring>
#include <new>

#include <gtest/gtest.h>

#include "BufferMgr.h"
#include "MemorySocket.h"
#include "TestSupport.h"
#include "VEL_Tools.h"

namespace {

class MessageTest : public veltest::BufferLeakTest {};

TEST_F(MessageTest, SetDataCopiesAllocateResizesKeepingTheContentsAndZeroDropsTheBody) {
    VEL_Message message(3);
    std::memcpy(message.data(), "abc", 3);
    ASSERT_EQ(message.allocate(50000), kVELErr_Ok);
    EXPECT_EQ(message.size(), 50000u);
    EXPECT_EQ(std::memcmp(message.data(), "abc", 3), 0);
    ASSERT_EQ(message.allocate(2), kVELErr_Ok);
    EXPECT_EQ(std::memcmp(message.data(), "ab", 2), 0);
    ASSERT_EQ(message.setData("hello", 5), kVELErr_Ok);
    ASSERT_EQ(message.size(), 5u);
    EXPECT_EQ(std::memcmp(message.data(), "hello", 5), 0);
    EXPECT_EQ(message.setData("x", 0), kVELErr_Ok);
    EXPECT_EQ(message.data(), nullptr);
    EXPECT_EQ(message.size(), 0u);
    EXPECT_EQ(message.buffer(), nullptr);
}

TEST_F(MessageTest, SideBuffersAreOptionalAndReportTheirSizeModulo256) {
    VEL_Message message;
    EXPECT_EQ(message.allocateRSCV(0), kVELErr_Ok);
    EXPECT_FALSE(message.checkRSCV());
    EXPECT_EQ(message.getRSCVSize(), 0);
    ASSERT_EQ(message.setRSCV("route", 5), kVELErr_Ok);
    ASSERT_EQ(message.setSSCV("s", 1), kVELErr_Ok);
    EXPECT_TRUE(message.checkRSCV());
    EXPECT_EQ(std::memcmp(message.getRSCV(), "route", 5), 0);
    EXPECT_EQ(message.getSSCVSize(), 1);
    message.getRSCVBuffer()->resize(300);
    EXPECT_EQ(message.getRSCVSize(), 300 % 256);
    message.reset();
    EXPECT_FALSE(message.checkRSCV());
    EXPECT_FALSE(message.checkSSCV());
}

TEST_F(MessageTest, OversizeBodyIsRefusedTracedAndLeavesTheMessageUsable) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    VEL_Message message;
    EXPECT_EQ(message.allocate(67108865), kVELErr_Alloc);
    EXPECT_EQ(message.data(), nullptr);
    ASSERT_EQ(sink.texts().size(), 1u);
    EXPECT_EQ(sink.texts()[0].rfind("COM - Allocation of data failed {", 0), 0u);
    EXPECT_EQ(sink.lines()[0].level, 3);

    ASSERT_EQ(message.setData("keep", 4), kVELErr_Ok);
    sink.clear();
    EXPECT_EQ(message.allocate(0xFFFFFFFFul), kVELErr_Alloc);  // a failed resize
    EXPECT_EQ(message.size(), 4u);
    EXPECT_EQ(std::memcmp(message.data(), "keep", 4), 0);
    EXPECT_EQ(sink.texts().size(), 1u);
}

TEST_F(MessageTest, ShallowCopySharesBuffersAndDetachLetsTheOriginalOwnThem) {
    VEL_Message original;
    ASSERT_EQ(original.setData("shared", 6), kVELErr_Ok);
    ASSERT_EQ(original.setRSCV("r", 1), kVELErr_Ok);
    VEL_Message copy(original);
    EXPECT_EQ(copy.buffer(), original.buffer());
    EXPECT_EQ(copy.getRSCVBuffer(), original.getRSCVBuffer());
    copy.detach();  // the original gives the buffers back
    EXPECT_EQ(copy.data(), nullptr);
    EXPECT_EQ(std::memcmp(original.data(), "shared", 6), 0);
}

TEST_F(MessageTest, ReleaseReturnsBuffersAndTheMessageToItsPool) {
    basis::ObjectMgr<VEL_Message> pool(2);
    basis::Object<VEL_Message>* wrapper = nullptr;
    ASSERT_EQ(pool.getFreeObject(&wrapper), basis::kErr_Ok);
    VEL_Message* message = wrapper->get();
    message->setObj(wrapper);
    ASSERT_EQ(message->setData("pooled", 6), kVELErr_Ok);
    EXPECT_EQ(pool.getFreeCount(), 1u);
    message->release();
    EXPECT_EQ(message->getObj(), nullptr);
    EXPECT_EQ(message->data(), nullptr);
    EXPECT_EQ(pool.getFreeCount(), 2u);
}

}  // namespace
