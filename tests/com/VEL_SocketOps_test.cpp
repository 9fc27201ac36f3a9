#include "VEL_SocketOps.h"

#include <limits.h>

#include <cerrno>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "VELIoVec.h"

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

TEST(AdvanceTest, SkipsWholeElementsAndAdvancesThePartlyMovedOneInPlace) {
    struct Step {
        std::size_t moved, index;  // bytes moved; element `v` points at afterwards
        std::uint32_t len;         // its length then, and how far its base moved
        std::size_t offset;
    };
    const struct {
        std::vector<std::uint32_t> lengths;
        std::vector<Step> steps;
    } cases[] = {
            {{3, 0, 5}, {{4, 2, 4, 1}, {4, 3, 0, 0}}},
            {{3, 0, 5}, {{2, 0, 1, 2}, {1, 2, 5, 0}, {5, 3, 0, 0}}},  // exactly the rest
            {{0, 0, 2, 0}, {{0, 2, 2, 0}, {2, 4, 0, 0}}},  // 0 skips leading empty elements only
    };
    for (const auto& c : cases) {
        std::string data(64, 'x');
        std::vector<VELIoVec> elements;
        std::size_t at = 0;
        for (std::uint32_t length : c.lengths) {
            elements.push_back(VELIoVec{&data[at], length});
            at += length;
        }
        const std::vector<VELIoVec> original = elements;
        VELIoVec* v = elements.data();
        unsigned long n = elements.size();
        for (std::size_t s = 0; s < c.steps.size(); ++s) {
            const Step& step = c.steps[s];
            SCOPED_TRACE(::testing::Message()
                         << "case " << c.lengths.size() << '/' << c.lengths[0] << ", step " << s);
            velcom::advance(v, n, step.moved);
            ASSERT_EQ(v, elements.data() + step.index);
            EXPECT_EQ(n, elements.size() - step.index);
            if (step.index < elements.size()) {
                EXPECT_EQ(v->iov_len, step.len);
                EXPECT_EQ(v->iov_base, original[step.index].iov_base + step.offset);
            }
            for (std::size_t i = 0; s == 0 && i < step.index; ++i) {  // skipped: left as they were
                EXPECT_EQ(elements[i].iov_len, original[i].iov_len);
                EXPECT_EQ(elements[i].iov_base, original[i].iov_base);
            }
        }
        EXPECT_EQ(velcom::totalLength(original.data(), original.size()), at);
    }
}

TEST(AdvanceTest, FillingKeepsTheUnfilledStateOfTheCurrentElement) {
    std::string data(9, 'x');
    VELIoVec elements[3] = {{&data[0], 2}, {&data[2], 4}, {&data[6], 3}};
    VELIoVec* v = elements;
    unsigned long n = 3;
    VELIoVec startedAs = *v;
    // Element 0 done and 1 byte into element 1; 2 more into element 1; element 1 done exactly.
    const std::size_t moves[] = {3, 2, 1};
    const std::size_t index[] = {1, 1, 2};
    for (int i = 0; i < 3; ++i) {
        velcom::advanceFilling(v, n, moves[i], startedAs);
        EXPECT_EQ(v, &elements[index[i]]) << i;
        EXPECT_EQ(startedAs.iov_base, &data[index[i] == 1 ? 2 : 6]) << i;
        EXPECT_EQ(startedAs.iov_len, index[i] == 1 ? 4u : 3u) << i;
    }
    EXPECT_EQ(elements[2].iov_len, 3u);
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

}  // namespace
