#include "VEL_Tools.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "Thread.h"
#include "TimeValue.h"
#include "VELIoVec.h"
#include "VEL_TraceHandler.h"

namespace {

using veltest::RecordingSink;
using veltest::ScopedSink;

std::string errStr(int code) {
    return VEL_Tools::GetErrStr(static_cast<VELErr_t>(code));
}

TEST(GetErrStrTest, KnownUnknownAndEmptySlotsWithTheLastSystemError) {
    basis::Thread::SetLastSystemErr(0);
    EXPECT_EQ(errStr(0), "No error {0}");
    basis::Thread::SetLastSystemErr(88);
    EXPECT_EQ(errStr(114), "Invalid socket {88}");
    basis::Thread::SetLastSystemErr(-3);
    EXPECT_EQ(errStr(12), "Input buffer too large {-3}");
    basis::Thread::SetLastSystemErr(7);
    const struct {
        int code;
        const char* text;
    } cases[] = {
            {13, "Unknown error (13) {7}"},
            {150, "Incomplete operation (further function calls needed) {7}"},
            {151, "Unknown error (151) {7}"},
            {205, "Queue is empty,Failed to spawn a thread {7}"},
            {206, "Unknown error :206 {7}"},
            {207, "Unknown error (207) {7}"},
            {301, "Maximum number of event handlers reached (reactor size or FD_SETSIZE) {7}"},
            {313, "The reactor file descriptor is corrupt {7}"},
            {314, "Unknown error (314) {7}"},
            {400, "Unknown error (400) {7}"},
            {401, "TLS handshake failed {7}"},
            {410, "Cannot set up TLS {7}"},
            {411, "Unknown error (411) {7}"},
            {501, "Unknown error (501) {7}"},
            {-1, "Unknown error (-1) {7}"},
            {99, "Unknown error (99) {7}"},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(errStr(c.code), c.text) << "code " << c.code;
    }
}

TEST(GetErrStrTest, EveryDeclaredCodeHasItsOwnText) {
    const int firsts[] = {0, 100, 200, 300, 401};
    const int counts[] = {13, 51, 6, 14, 10};  // 206 is declared without text
    for (int g = 0; g < 5; ++g) {
        for (int slot = 0; slot < counts[g]; ++slot) {
            EXPECT_EQ(errStr(firsts[g] + slot).find("Unknown error"), std::string::npos)
                    << firsts[g] + slot;
        }
    }
}

TEST(TraceTest, IsTraceOnFollowsTheSinkFlags) {
    EXPECT_FALSE(VEL_Tools::IsTraceOn(0xFFFF));
    EXPECT_EQ(VEL_Tools::Trace("f", 1, 0, "lost"), kVELErr_Ok);
    RecordingSink errorsOnly(kVELTrace_Error);
    ScopedSink installed(&errorsOnly);
    EXPECT_TRUE(VEL_Tools::IsTraceOn(kVELTrace_ComError));
    EXPECT_FALSE(VEL_Tools::IsTraceOn(kVELTrace_Com));
    errorsOnly.setTraceFlags(kVELTrace_Com);
    EXPECT_TRUE(VEL_Tools::IsTraceOn(kVELTrace_ComError));
    EXPECT_FALSE(VEL_Tools::IsTraceOn(kVELTrace_Frame | kVELTrace_MsgDump));
}

// Traces from inside its own output, and throws on "boom".
class ReentrantSink : public RecordingSink {
public:
    ReentrantSink() : RecordingSink(0xFFFF) {}
    void output(const char* file, unsigned long line, unsigned short level,
                const char* text) override {
        if (std::string(text) == "boom") {
            throw std::runtime_error("sink failed");
        }
        VEL_Tools::Trace(file, line, level, "nested");
        RecordingSink::output(file, line, level, text);
    }
};

TEST(TraceTest, SinkExceptionPropagatesAndLinesTracedFromInsideTheSinkAreDropped) {
    ReentrantSink sink;
    ScopedSink installed(&sink);
    EXPECT_THROW(VEL_Tools::Trace("f", 1, 0, "boom"), std::runtime_error);
    // The serialiser was released by the throw, and the nested line does not deadlock.
    EXPECT_EQ(VEL_Tools::Trace("f.cpp", 3, 0, "outer"), kVELErr_Ok);
    EXPECT_EQ(sink.texts(), std::vector<std::string>{"outer"});
}

// Later threads that got a muted thread's pthread handle used to be muted too.
TEST(TraceTest, ForbiddenThreadNeverTracesAndLaterThreadsStillDo) {
    RecordingSink sink(0xFFFF);
    ScopedSink installed(&sink);
    std::thread muted([] {
        VEL_Tools::PreventThreadFromTracing(basis::Thread::Self());
        VEL_Tools::Trace("f", 1, 0, "muted");
    });
    muted.join();
    VEL_Tools::Trace("f", 2, 0, "heard");
    for (int i = 0; i < 3; ++i) {  // the system reuses the ended thread's handle
        std::thread([] { VEL_Tools::Trace("f", 3, 0, "later"); }).join();
    }
    EXPECT_FALSE(sink.contains("muted"));
    EXPECT_TRUE(sink.contains("heard"));
    const std::vector<std::string> texts = sink.texts();
    EXPECT_EQ(std::count(texts.begin(), texts.end(), "later"), 3);
}

// A waiter used to start its 2 s wait over each time the sink passed between other threads, and
// so waited for as long as they kept it busy.
TEST(TraceTest, AWaiterGivesUpTwoSecondsAfterItCameHoweverOftenTheSinkChangesHands) {
    RecordingSink sink(0xFFFF);
    ScopedSink installed(&sink);
    std::atomic<bool> holding{false};
    std::atomic<bool> stop{false};
    std::thread holder([&] {
        // Holds the right to trace, and every 100 ms gives it back and takes it again at once,
        // as another thread queued for the sink would.
        const basis::TimeValue wait(10, 0);
        holding.store(VEL_TraceHandler::AtomicWaitAndStartTracing(wait));
        const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(8);
        while (!stop.load() && std::chrono::steady_clock::now() < limit) {
            std::this_thread::sleep_for(std::chrono::milliseconds(100));
            VEL_TraceHandler::StopTracing();
            (void)VEL_TraceHandler::AtomicWaitAndStartTracing(wait);
        }
        VEL_TraceHandler::StopTracing();
    });
    ASSERT_TRUE(veltest::WaitFor([&holding] { return holding.load(); }));
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(VEL_Tools::Trace("f", 2, 0, "waiter"), kVELErr_Ok);
    const auto waited = std::chrono::steady_clock::now() - start;
    stop.store(true);
    holder.join();
    EXPECT_LT(waited, std::chrono::milliseconds(3500));
    if (!sink.contains("waiter")) {  // dropped, rather than let in at a hand-off
        EXPECT_GE(waited, std::chrono::milliseconds(1950));
    }
}

class MemDumpTest : public ::testing::Test {
protected:
    std::vector<std::string> dump(const char* data, unsigned int size, unsigned long maxSize,
                                  unsigned long offset) {
        RecordingSink sink(kVELTrace_MsgDump, maxSize, offset);
        ScopedSink installed(&sink);
        VEL_Tools::MemDump("f.cpp", 7, 3, data, size, 5);
        return sink.texts();
    }
    static std::string address(const void* p) {
        char text[16];
        std::snprintf(text, sizeof(text), "%08X",
                      static_cast<unsigned int>(reinterpret_cast<std::uintptr_t>(p)));
        return text;
    }
    static constexpr const char* kHeader =
            "MSGDUMP - +- ADDR -+--------------- HEX ---------------+---- ASCII ----+";
};

TEST_F(MemDumpTest, SeventeenBytesGiveAFullRowAndAPaddedOne) {
    const char data[17] = {'A',  'B',  'C', 'D', 0x7F, static_cast<char>(0x80),
                           0x0A, 0x00, ' ', '~', '1',  '2',
                           '3',  '4',  '5', '6', 'Z'};
    const auto lines = dump(data, 17, 0xFFFFFFFF, 0xFFFFFFFF);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "MSGDUMP - Dumping buffer number 5, containing 17 bytes");
    EXPECT_EQ(lines[1], kHeader);
    EXPECT_EQ(lines[2], "MSGDUMP - " + address(data) +
                                "  41424344 7F800A00 207E3132 33343536 ABCD\x7F... ~123456");
    EXPECT_EQ(lines[3], "MSGDUMP - " + address(data + 16) + "  5A" + std::string(6, ' ') + " " +
                                std::string(8, ' ') + " " + std::string(8, ' ') + " " +
                                std::string(8, ' ') + " Z");
}

TEST_F(MemDumpTest, MaximumAndOffsetChooseTheBytesShown) {
    const char data[] = "0123456789";
    const struct {
        unsigned int size;
        unsigned long maxSize, offset;
        const char* shown;  // nullptr: nothing is dumped
        std::size_t from;
    } cases[] = {
            {10, 4, 0xFFFFFFFF, "6789", 6},  // a maximum alone shows the last bytes
            {10, 4, 2, "2345", 2},
            {0, 0xFFFFFFFF, 0xFFFFFFFF, nullptr, 0},
            {3, 0xFFFFFFFF, 3, nullptr, 0},  // offset at the end, and past it
            {3, static_cast<unsigned long>(-1), 99, nullptr, 0},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(::testing::Message() << c.size << " " << c.maxSize << " " << c.offset);
        const auto lines = dump(data, c.size, c.maxSize, c.offset);
        ASSERT_EQ(lines.size(), 3u);
        EXPECT_EQ(lines[1], kHeader);
        if (c.shown == nullptr) {
            EXPECT_EQ(lines[0], "MSGDUMP - Dumping buffer number 5, containing 0 bytes");
            EXPECT_EQ(lines[2], "MSGDUMP - Buffer size is 0.");
            continue;
        }
        EXPECT_EQ(lines[0], "MSGDUMP - Dumping buffer number 5, containing 4 bytes");
        EXPECT_EQ(lines[2].substr(lines[2].size() - 4), c.shown);
        EXPECT_EQ(lines[2].substr(10, 8), address(data + c.from));
    }
}

TEST_F(MemDumpTest, DumpNeedsTheMessageDumpBitAndVectorsAreNumbered) {
    RecordingSink sink(kVELTrace_Error);
    ScopedSink installed(&sink);
    VEL_Tools::MemDump("f", 1, 3, "abc", 3, 0);
    EXPECT_TRUE(sink.texts().empty());
    sink.setTraceFlags(kVELTrace_MsgDump);
    char a[] = "ab";
    char b[] = "xyz";
    VELIoVec vec[] = {{a, 2}, {b, 3}};
    VEL_Tools::MemDumpVec("f", 1, 3, vec, 2);
    EXPECT_TRUE(sink.contains("Dumping buffer number 0, containing 2 bytes"));
    EXPECT_TRUE(sink.contains("Dumping buffer number 1, containing 3 bytes"));
}

}  // namespace
