#include "VEL_TraceHandler.h"

#include <unistd.h>

#include <fstream>
#include <sstream>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "Thread.h"
#include "VEL_Tools.h"

namespace {

std::string tid() {
    return std::to_string(basis::Thread::ToNumber(basis::Thread::Self()));
}

std::string traceToStdout(VEL_TraceHandler& sink) {
    veltest::ScopedSink installed(&sink);
    testing::internal::CaptureStdout();
    VEL_Tools::Trace("VEL_Socket.cpp", 42, 3, "COM - text");
    VEL_Tools::Trace("VEL_Socket.cpp", 43, 0, "info");
    return testing::internal::GetCapturedStdout();
}

std::string readFile(const std::string& path) {
    std::ifstream in(path);
    std::stringstream all;
    all << in.rdbuf();
    return all.str();
}

TEST(TraceHandlerTest, PlainSinkPrintsTheLevelAsANumber) {
    VEL_TraceHandler sink(0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF);
    EXPECT_EQ(traceToStdout(sink),
              "<VEL_Socket.cpp #42> (3) COM - text\n<VEL_Socket.cpp #43> (0) info\n");
}

TEST(TraceHandlerTest, MultiThreadSinkPrintsThreadAndLevelText) {
    VEL_TraceHandlerMt sink(0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF);
    EXPECT_EQ(traceToStdout(sink), "<VEL_Socket.cpp #42> <TID #" + tid() +
                                           "> ERROR - COM - text\n<VEL_Socket.cpp #43> <TID #" +
                                           tid() + "> INFO - info\n");
}

TEST(TraceHandlerTest, FileSinksTruncateAndWriteTheirFormats) {
    const std::string path = testing::TempDir() + "vel_trace_" + std::to_string(getpid());
    {
        std::ofstream old(path);
        old << "stale line\n";
    }
    {
        VEL_FileTraceHandler sink(path.c_str(), 0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF);
        veltest::ScopedSink installed(&sink);
        VEL_Tools::Trace("a.cpp", 1, 2, "warned");
    }
    EXPECT_EQ(readFile(path), "<a.cpp #1> WARN - warned\n");
    {
        VEL_FileTraceHandlerMt sink(path.c_str(), 0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF);
        veltest::ScopedSink installed(&sink);
        VEL_Tools::Trace("a.cpp", 9, 1, "debugged");
    }
    EXPECT_EQ(readFile(path), "<a.cpp #9> <TID #" + tid() + "> DEBUG - debugged\n");
    unlink(path.c_str());
}

TEST(TraceHandlerTest, DumpLimitsAreThirtyTwoBitsWide) {
    VEL_TraceHandler sink(0x22, static_cast<unsigned long>(-1), 16);
    EXPECT_EQ(sink.getMsgDumpMaxSize(), 0xFFFFFFFFu);
    EXPECT_EQ(VEL_TraceHandler(sink).getMsgDumpMaxSize(), 0xFFFFFFFFu);
}

}  // namespace
