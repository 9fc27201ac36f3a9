#include "VEL_SocketOps.h"

#include <limits.h>
#include <poll.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "SocketSupport.h"

namespace {

using velcom::RecvOp;
using velcom::SendOp;

constexpr VELErr_t kOk = kVELErr_Ok;
constexpr VELErr_t kHalf = kVELErr_SockHalfClosed;
constexpr VELErr_t kSend = kVELErr_Send;
constexpr VELErr_t kRecv = kVELErr_Recv;
constexpr VELErr_t kTime = kVELErr_Timeout;
constexpr VELErr_t kIncomplete = kVELErr_Incomplete;
constexpr VELErr_t kIntr = kVELErr_Interrupted;
constexpr VELErr_t kBad = kVELErr_InvalidSocket;

struct SendRow {
    int err;
    VELErr_t expected[5];  // send, writev, sendAvail, writevAvail, sendTo
};

TEST(SocketOpsTest, SendErrorsMapPerOperation) {
    const SendOp ops[] = {SendOp::kSend, SendOp::kWritev, SendOp::kSendAvail, SendOp::kWritevAvail,
                          SendOp::kSendTo};
    const SendRow rows[] = {
            {EINTR, {kIntr, kIntr, kIntr, kIncomplete, kIntr}},
            {EINVAL, {kHalf, kSend, kSend, kHalf, kHalf}},
            {ENETRESET, {kHalf, kSend, kSend, kHalf, kHalf}},
            {ECONNABORTED, {kHalf, kSend, kSend, kHalf, kHalf}},
            {ECONNRESET, {kHalf, kSend, kSend, kHalf, kHalf}},
            {ECONNREFUSED, {kSend, kSend, kSend, kSend, kHalf}},
            {EPIPE, {kSend, kSend, kSend, kSend, kSend}},
            {ESHUTDOWN, {kSend, kSend, kSend, kSend, kSend}},
            {EAGAIN, {kTime, kTime, kOk, kIncomplete, kTime}},
            {EWOULDBLOCK, {kTime, kTime, kOk, kIncomplete, kTime}},
            {ETIMEDOUT, {kTime, kTime, kOk, kIncomplete, kTime}},
            {ENOTSOCK, {kBad, kBad, kBad, kBad, kBad}},
            {EBADF, {kBad, kBad, kBad, kBad, kBad}},
            {EMSGSIZE, {kSend, kSend, kSend, kSend, kSend}},
            {ENOBUFS, {kSend, kSend, kSend, kSend, kSend}},
    };
    for (const SendRow& row : rows) {
        for (int op = 0; op < 5; ++op) {
            EXPECT_EQ(velcom::mapSendError(row.err, ops[op]), row.expected[op])
                    << "errno " << row.err << ", operation " << op;
        }
    }
}

struct RecvRow {
    int err;
    VELErr_t expected[6];  // recv, readv, recvAvail, readvAvail, recvFrom, recvAvailFrom
};

TEST(SocketOpsTest, ReceiveErrorsMapPerOperation) {
    const RecvOp ops[] = {RecvOp::kRecv,       RecvOp::kReadv,    RecvOp::kRecvAvail,
                          RecvOp::kReadvAvail, RecvOp::kRecvFrom, RecvOp::kRecvAvailFrom};
    const RecvRow rows[] = {
            {EINTR, {kIntr, kIntr, kIntr, kRecv, kIntr, kIntr}},
            {EINVAL, {kHalf, kHalf, kHalf, kHalf, kHalf, kHalf}},
            {ENETRESET, {kHalf, kHalf, kHalf, kHalf, kHalf, kHalf}},
            {ECONNABORTED, {kHalf, kHalf, kHalf, kHalf, kHalf, kHalf}},
            {ECONNRESET, {kHalf, kHalf, kHalf, kHalf, kHalf, kHalf}},
            {EPIPE, {kHalf, kHalf, kHalf, kHalf, kHalf, kHalf}},
            {ESHUTDOWN, {kHalf, kHalf, kHalf, kHalf, kHalf, kHalf}},
            {ECONNREFUSED, {kRecv, kRecv, kRecv, kRecv, kHalf, kHalf}},
            {EAGAIN, {kTime, kTime, kIncomplete, kIncomplete, kTime, kTime}},
            {ETIMEDOUT, {kTime, kTime, kIncomplete, kIncomplete, kTime, kTime}},
            {ENOTSOCK, {kBad, kBad, kBad, kBad, kBad, kBad}},
            {EBADF, {kBad, kBad, kBad, kBad, kBad, kBad}},
            {EMSGSIZE, {kRecv, kRecv, kRecv, kRecv, kRecv, kOk}},
            {ENOMEM, {kRecv, kRecv, kRecv, kRecv, kRecv, kRecv}},
    };
    for (const RecvRow& row : rows) {
        for (int op = 0; op < 6; ++op) {
            EXPECT_EQ(velcom::mapRecvError(row.err, ops[op]), row.expected[op])
                    << "errno " << row.err << ", operation " << op;
        }
    }
}

TEST(SocketOpsTest, ConnectAndAcceptErrorsMap) {
    const std::pair<int, VELErr_t> connectRows[] = {
            {EINPROGRESS, kVELErr_InProgress}, {EINTR, kVELErr_InProgress},
            {EALREADY, kVELErr_InProgress},    {ECONNREFUSED, kVELErr_Connect},
            {ETIMEDOUT, kVELErr_Connect},      {ENETUNREACH, kVELErr_Connect},
            {EAGAIN, kVELErr_Connect},         {EISCONN, kVELErr_Connect},
            {EBADF, kVELErr_Connect}};
    for (const auto& row : connectRows) {
        EXPECT_EQ(velcom::mapConnectError(row.first), row.second) << "errno " << row.first;
    }
    const std::pair<int, VELErr_t> acceptRows[] = {
            {EINTR, kVELErr_Interrupted}, {EAGAIN, kVELErr_Accept}, {EMFILE, kVELErr_Accept},
            {EINVAL, kVELErr_Accept},     {EBADF, kVELErr_Accept},  {ECONNABORTED, kVELErr_Accept}};
    for (const auto& row : acceptRows) {
        EXPECT_EQ(velcom::mapAcceptError(row.first), row.second) << "errno " << row.first;
    }
}

class AdvanceTest : public ::testing::Test {
protected:
    // Elements over one buffer, with the given lengths.
    void build(const std::vector<std::uint32_t>& lengths) {
        _data.assign(64, 'x');
        _elements.clear();
        std::size_t at = 0;
        for (std::uint32_t length : lengths) {
            _elements.push_back(VELIoVec{&_data[at], length});
            at += length;
        }
        _original = _elements;
    }

    std::string _data;
    std::vector<VELIoVec> _elements;
    std::vector<VELIoVec> _original;
};

TEST_F(AdvanceTest, PartialMoveSkipsWholeElementsAndAdvancesTheNextInPlace) {
    build({3, 0, 5});
    VELIoVec* v = _elements.data();
    unsigned long n = 3;
    velcom::advance(v, n, 4);
    EXPECT_EQ(v, &_elements[2]);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(_elements[2].iov_base, _original[2].iov_base + 1);
    EXPECT_EQ(_elements[2].iov_len, 4u);
    EXPECT_EQ(_elements[0].iov_len, 3u);  // skipped elements are left as they were
    EXPECT_EQ(_elements[0].iov_base, _original[0].iov_base);
}

TEST_F(AdvanceTest, BoundariesOfAnElement) {
    build({3, 0, 5});
    VELIoVec* v = _elements.data();
    unsigned long n = 3;
    velcom::advance(v, n, 2);  // one byte short of the first element
    EXPECT_EQ(v, &_elements[0]);
    EXPECT_EQ(n, 3u);
    EXPECT_EQ(_elements[0].iov_len, 1u);
    EXPECT_EQ(_elements[0].iov_base, _original[0].iov_base + 2);
    velcom::advance(v, n, 1);  // exactly the rest: the empty element goes too
    EXPECT_EQ(v, &_elements[2]);
    EXPECT_EQ(n, 1u);
    EXPECT_EQ(_elements[2].iov_len, 5u);
    velcom::advance(v, n, 5);
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(v, _elements.data() + 3);
}

TEST_F(AdvanceTest, ZeroSkipsOnlyLeadingEmptyElements) {
    build({0, 0, 2, 0});
    VELIoVec* v = _elements.data();
    unsigned long n = 4;
    velcom::advance(v, n, 0);
    EXPECT_EQ(v, &_elements[2]);
    EXPECT_EQ(n, 2u);
    EXPECT_EQ(_elements[2].iov_len, 2u);
    velcom::advance(v, n, 2);  // the trailing empty element is done as well
    EXPECT_EQ(n, 0u);
    EXPECT_EQ(velcom::totalLength(_elements.data(), 4), 2u);
}

TEST_F(AdvanceTest, FillingKeepsTheUnfilledStateOfTheCurrentElement) {
    // A receive that times out gives back the element it was filling: its state must be the one
    // from before the first byte went into it, however many receives that took.
    build({2, 4, 3});
    VELIoVec* v = _elements.data();
    unsigned long n = 3;
    VELIoVec startedAs = *v;
    velcom::advanceFilling(v, n, 3, startedAs);  // element 0 done, element 1 got 1 byte
    EXPECT_EQ(v, &_elements[1]);
    EXPECT_EQ(startedAs.iov_base, _original[1].iov_base);
    EXPECT_EQ(startedAs.iov_len, 4u);
    velcom::advanceFilling(v, n, 2, startedAs);  // still element 1
    EXPECT_EQ(_elements[1].iov_len, 1u);
    EXPECT_EQ(startedAs.iov_base, _original[1].iov_base);
    EXPECT_EQ(startedAs.iov_len, 4u);
    velcom::advanceFilling(v, n, 1, startedAs);  // element 1 done exactly: element 2 untouched
    EXPECT_EQ(v, &_elements[2]);
    EXPECT_EQ(startedAs.iov_base, _original[2].iov_base);
    EXPECT_EQ(startedAs.iov_len, 3u);
}

TEST(IoVecArrayTest, StagesOnTheStackUpToTheInlineCountThenAllocatesUpToIovMax) {
    std::string data(10000, 'a');
    std::vector<VELIoVec> elements(5000);
    for (std::size_t i = 0; i < elements.size(); ++i) {
        elements[i] = VELIoVec{&data[i], static_cast<std::uint32_t>(i % 7)};
    }
    const unsigned long counts[] = {
            1,   velcom::IoVecArray::kInline, velcom::IoVecArray::kInline + 1, IOV_MAX, IOV_MAX + 1,
            5000};
    for (unsigned long count : counts) {
        velcom::IoVecArray staged(count);
        const std::size_t expected = count < IOV_MAX ? count : IOV_MAX;
        EXPECT_EQ(staged.capacity(), std::max<std::size_t>(expected, velcom::IoVecArray::kInline))
                << count;
        const iovec* copied = staged.fill(elements.data(), count);
        ASSERT_EQ(staged.size(), expected) << count;
        for (std::size_t i = 0; i < staged.size(); ++i) {
            ASSERT_EQ(copied[i].iov_base, elements[i].iov_base);
            ASSERT_EQ(copied[i].iov_len, elements[i].iov_len);
        }
    }
}

class PollOneTest : public veltest::SocketLeakTest {};

TEST_F(PollOneTest, TimesOutAfterItsLimitAndSeesInput) {
    veltest::RawPair pair = veltest::MakeRawPair();
    ASSERT_GE(pair.server.get(), 0);
    short revents = 0;
    int err = 0;
    const basis::TimeValue limit(0, 200000);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(velcom::pollOne(pair.server.get(), POLLIN, &limit, &revents, &err), 0);
    const auto elapsed = std::chrono::steady_clock::now() - start;
    EXPECT_GE(elapsed, std::chrono::milliseconds(190));
    EXPECT_LT(elapsed, std::chrono::milliseconds(1200));

    ASSERT_TRUE(veltest::WriteAll(pair.client.get(), "x"));
    EXPECT_EQ(velcom::pollOne(pair.server.get(), POLLIN, nullptr, &revents, &err), 1);
    EXPECT_NE(revents & POLLIN, 0);
}

TEST_F(PollOneTest, DescriptorThatIsNotOpenFailsWithBadDescriptor) {
    int pipeFds[2];
    ASSERT_EQ(pipe(pipeFds), 0);
    close(pipeFds[0]);
    close(pipeFds[1]);
    short revents = 0;
    int err = 0;
    EXPECT_EQ(velcom::pollOne(pipeFds[0], POLLIN, &basis::TimeValue::kZero, &revents, &err), -1);
    EXPECT_EQ(err, EBADF);
}

}  // namespace
