#include "VEL_EpollIOReactor.h"

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <boost/weak_ptr.hpp>
#include <gtest/gtest.h>

#include "ReactorSupport.h"
#include "SocketSupport.h"
#include "TestSupport.h"
#include "VEL_Tools.h"

namespace {

using veltest::ScriptedHandler;

// Counts its loop's passes (the hook runs at the top of each and before each dispatch).
class CountingEpollReactor : public VEL_EpollIOReactor {
public:
    explicit CountingEpollReactor(unsigned long size)
        : VEL_EpollIOReactor(size, basis::TimeValue(1, 0)) {}
    ~CountingEpollReactor() override { stopLoop(); }
    void notifyActivity() override { ++passes; }

    std::atomic<long> passes{0};
};

class EpollReactorTest : public veltest::SocketLeakTest {
protected:
    void start(unsigned long size) {
        _reactor.reset(new CountingEpollReactor(size));
        ASSERT_EQ(_reactor->init(), kVELErr_Ok);
        ASSERT_EQ(_reactor->open(), basis::kErr_Ok);
    }
    void TearDown() override {
        if (_reactor) {
            veltest::StopAndClean(*_reactor);
            _reactor.reset();
        }
        SocketLeakTest::TearDown();
    }
    VELErr_t add(const boost::shared_ptr<VEL_EventHandler>& handler, unsigned short ops = 1) {
        return _reactor->addEventHandler(handler, basis::TimeValue(), ops);
    }

    std::unique_ptr<CountingEpollReactor> _reactor;
};

// Handles above 1023 too: the duplicates follow every descriptor already open.
TEST_F(EpollReactorTest, HoldsItsSizeAbove2048AndDisarmsHandlesWithoutOperations) {
    constexpr unsigned long kHandles = 2100;
    const veltest::ScopedFdLimit limit(kHandles + 200);
    if (!limit.applied()) {
        GTEST_SKIP() << "the hard descriptor limit is below " << kHandles + 200;
    }
    start(kHandles + 1);  // and the wake-up socket
    veltest::RawPair pair = veltest::MakeRawPair();
    veltest::RawPair other = veltest::MakeRawPair();
    std::vector<veltest::RawFd> fds;
    std::vector<boost::shared_ptr<ScriptedHandler>> handlers;
    for (unsigned long i = 0; i < kHandles; ++i) {
        fds.emplace_back(::dup(pair.server.get()));
        handlers.push_back(ScriptedHandler::Make(fds.back().get()));
        const boost::weak_ptr<ScriptedHandler> self = handlers.back();
        // Reads nothing: a handle left armed would be called again at every pass.
        handlers.back()->onInput = [this, self] {
            return _reactor->changeEventHandlerOps(self.lock(), 0) == kVELErr_Ok;
        };
        ASSERT_EQ(add(handlers.back()), kVELErr_Ok);
    }
    const auto sentinel = ScriptedHandler::Make(other.server.get());
    EXPECT_EQ(add(sentinel), kVELErr_ReactorFull);
    ASSERT_TRUE(veltest::WriteAll(pair.client.get(), "x"));
    ASSERT_TRUE(veltest::WaitFor([&handlers] {
        return std::all_of(handlers.begin(), handlers.end(),
                           [](const auto& handler) { return handler->count("in") >= 1; });
    }));
    ASSERT_EQ(_reactor->setSize(kHandles + 2), kVELErr_Ok);
    sentinel->onOutput = [this, &sentinel] {
        return _reactor->changeEventHandlerOps(sentinel, 0) == kVELErr_Ok;
    };
    ASSERT_EQ(add(sentinel, 2), kVELErr_Ok);  // writable at once: one more pass
    ASSERT_TRUE(sentinel->waitFor("out", 1));
    for (const auto& handler : handlers) {
        EXPECT_EQ(handler->count("in"), 1) << handler->getHandle();
    }
    veltest::StopAndClean(*_reactor);  // remove, then close
}

TEST_F(EpollReactorTest, HandlesTheKernelRefusesAreTracedAndUnregistered) {
    veltest::RecordingSink sink(kVELTrace_FrameError);
    veltest::ScopedSink installed(&sink);
    start(16);
    ASSERT_EQ(::fcntl(901, F_GETFD), -1);
    veltest::RawFd devNull(::open("/dev/null", O_RDONLY | O_CLOEXEC));
    // A number closed before its registration reached the kernel, and a file it cannot poll.
    const std::pair<int, std::string> refused[] = {{901, "{9}"}, {devNull.get(), "{1}"}};
    for (const auto& handle : refused) {
        const auto handler = ScriptedHandler::Make(handle.first);
        ASSERT_EQ(add(handler), kVELErr_Ok);
        EXPECT_TRUE(veltest::WaitFor([&] { return handler.use_count() == 1; })) << handle.first;
        EXPECT_TRUE(sink.contains("FRAME - Error during an epoll call " + handle.second +
                                  " ; <FD = " + std::to_string(handle.first) + ">"));
        EXPECT_EQ(_reactor->getNbElement(), 1u);
    }
    EXPECT_EQ(_reactor->getLastError(), kVELErr_Epoll);
    EXPECT_FALSE(sink.contains("not registered"));
}

TEST_F(EpollReactorTest, HandleWithoutOperationsStaysQuietAfterAHangUpUntilChanged) {
    start(16);
    veltest::RawPair pair = veltest::MakeRawPair();
    const linger reset{1, 0};
    ASSERT_EQ(::setsockopt(pair.client.get(), SOL_SOCKET, SO_LINGER, &reset, sizeof(reset)), 0);
    pair.client.reset();  // the server end gets an error and a hang-up
    const auto handler = ScriptedHandler::Make(pair.server.get());
    ASSERT_EQ(add(handler, 0), kVELErr_Ok);
    const long before = _reactor->passes.load();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // time to spin, if it does
    EXPECT_LT(_reactor->passes.load() - before, 20);
    EXPECT_TRUE(handler->calls().empty());
    ASSERT_EQ(_reactor->changeEventHandlerOps(handler, kVELOp_Read), kVELErr_Ok);
    EXPECT_TRUE(handler->waitFor("in", 1));  // the hang-up, as input
    veltest::RemoveAndWait(*_reactor, handler);
}

// The epoll descriptors open in this process.
std::vector<int> epollDescriptors() {
    std::vector<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code ignored;  // the iterator's own descriptor may be gone
        if (std::filesystem::read_symlink(entry.path(), ignored) == "anon_inode:[eventpoll]") {
            found.push_back(std::stoi(entry.path().filename().string()));
        }
    }
    return found;
}

TEST_F(EpollReactorTest, InitCreatesItsDescriptorCloseOnExecOrTracesTheFailure) {
#ifdef VEL_TEST_CLANG_ASAN  // UBSan cannot run out of descriptors (TestSupport.h)
    GTEST_SKIP() << "exhausts the descriptor limit, which clang's UBSan cannot run without";
#endif
    veltest::RecordingSink sink(kVELTrace_FrameError);
    veltest::ScopedSink installed(&sink);
    VEL_EpollIOReactor reactor(4, basis::TimeValue());
    const int lowestFree = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
    ASSERT_GE(lowestFree, 0);
    ::close(lowestFree);
    // UBSan's first type checks on the trace path open a pipe, which the exhausted limit would
    // refuse: a trace made the same way lets them happen now.
    VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("FRAME", kVELErr_Ok, "warm-up"));
    VELErr_t refused = kVELErr_Ok;
    {
        const veltest::ScopedFdLimit exhausted(static_cast<rlim_t>(lowestFree));
        ASSERT_TRUE(exhausted.applied());
        refused = reactor.init();
    }
    EXPECT_EQ(refused, kVELErr_Epoll);
    EXPECT_TRUE(sink.contains("FRAME - Error during an epoll call {24} ; epoll_create1"));
    EXPECT_TRUE(epollDescriptors().empty());
    ASSERT_EQ(reactor.init(), kVELErr_Ok);
    const std::vector<int> created = epollDescriptors();
    ASSERT_EQ(created.size(), 1u);
    EXPECT_EQ(::fcntl(created[0], F_GETFD) & FD_CLOEXEC, FD_CLOEXEC);
    EXPECT_EQ(reactor.clean(), kVELErr_Ok);
}

}  // namespace
