#include "VEL_IOReactor.h"

#include <cerrno>
#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ReactorSupport.h"
#include "TestSupport.h"
#include "Thread.h"
#include "VEL_Tools.h"

namespace {

using veltest::ScriptedHandler;
using Calls = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::steady_clock;

const basis::TimeValue kDefault;  // zero: the reactor's inactivity time-out

// The core over the in-memory back end, driven from the test thread: each pass() applies what
// the calls queued.
class ReactorCoreTest : public ::testing::Test {
protected:
    void SetUp() override { _reactor.start(); }
    VELErr_t pass() { return _reactor.processEvents(); }
    VELErr_t add(const boost::shared_ptr<VEL_EventHandler>& handler, unsigned short ops = 1) {
        return _reactor.addEventHandler(handler, kDefault, ops);
    }
    // Reports the handles ready for reading and dispatches them.
    VELErr_t readyAndDispatch(std::initializer_list<unsigned int> handles) {
        for (const unsigned int handle : handles) {
            _reactor.script(handle, kVELOp_Read);
        }
        EXPECT_EQ(_reactor.waitEvents(), kVELErr_Ok);
        return pass();
    }

    veltest::FakeIOReactor _reactor{4};
    const boost::shared_ptr<ScriptedHandler> _h5 = ScriptedHandler::Make(5);
    const boost::shared_ptr<ScriptedHandler> _h6 = ScriptedHandler::Make(6);
    const boost::shared_ptr<ScriptedHandler> _h7 = ScriptedHandler::Make(7);
};

TEST_F(ReactorCoreTest, RegistrationStatusCodes) {
    veltest::RecordingSink sink(kVELTrace_FrameError);
    veltest::ScopedSink installed(&sink);
    EXPECT_EQ(add(boost::shared_ptr<VEL_EventHandler>()), kVELErr_InvalidPointer);
    EXPECT_EQ(add(VEL_EventHandler::Create(0xFFFFFFFF)), kVELErr_InvalidSocket);
    EXPECT_EQ(_reactor.removeEventHandler(_h5), kVELErr_HandlerNotRegistered);
    EXPECT_EQ(_reactor.changeEventHandlerOps(_h5, 2), kVELErr_HandlerNotRegistered);
    EXPECT_EQ(add(_h5), kVELErr_Ok);
    EXPECT_EQ(add(ScriptedHandler::Make(5)), kVELErr_FdRegistered);
    EXPECT_TRUE(sink.contains("FRAME - The file descriptor is already registered {"));
    EXPECT_TRUE(sink.contains("} ; <FD = 5>"));
    EXPECT_EQ(pass(), kVELErr_Ok);
    EXPECT_EQ(add(_h5), kVELErr_FdRegistered);
    EXPECT_EQ(_reactor.getNbElement(), 1u);
    EXPECT_EQ(_reactor.wakeUps(), 1);  // failed calls do not wake the reactor
    EXPECT_EQ(_reactor.backEndCalls(), Calls{"add 5 1"});
}

TEST_F(ReactorCoreTest, ReAddBeforeTheRemovalIsAppliedBecomesAChange) {
    ASSERT_EQ(add(_h5), kVELErr_Ok);
    ASSERT_EQ(pass(), kVELErr_Ok);
    EXPECT_EQ(_reactor.removeEventHandler(_h5), kVELErr_Ok);
    EXPECT_EQ(_reactor.removeEventHandler(_h5), kVELErr_HandlerNotRegistered);
    const boost::shared_ptr<ScriptedHandler> successor = ScriptedHandler::Make(5);
    EXPECT_EQ(add(successor, kVELOp_Write), kVELErr_Ok);
    EXPECT_EQ(pass(), kVELErr_Ok);
    EXPECT_EQ(_reactor.backEndCalls(), (Calls{"add 5 1", "change 5 2"}));
    EXPECT_EQ(_reactor.getNbElement(), 1u);
    EXPECT_EQ(_h5.use_count(), 1);
    _reactor.script(5, kVELOp_Write);
    ASSERT_EQ(_reactor.waitEvents(), kVELErr_Ok);
    ASSERT_EQ(pass(), kVELErr_Ok);
    EXPECT_EQ(successor->calls(), Calls{"out"});
}

TEST_F(ReactorCoreTest, RemovingAnAddNotYetAppliedNeedsNoBackEndCall) {
    ASSERT_EQ(add(_h5), kVELErr_Ok);
    ASSERT_EQ(_reactor.changeEventHandlerOps(_h5, 3), kVELErr_Ok);  // still an add
    EXPECT_EQ(_reactor.removeEventHandler(_h5), kVELErr_Ok);
    EXPECT_EQ(_reactor.getNbElement(), 0u);
    EXPECT_EQ(pass(), kVELErr_Ok);
    EXPECT_TRUE(_reactor.backEndCalls().empty());
    EXPECT_EQ(_h5.use_count(), 1);
    EXPECT_EQ(add(_h5), kVELErr_Ok);
    EXPECT_EQ(pass(), kVELErr_Ok);
    EXPECT_EQ(_reactor.backEndCalls(), Calls{"add 5 1"});
}

TEST_F(ReactorCoreTest, FullReactorAndBadSizes) {
    veltest::RecordingSink sink(kVELTrace_FrameError);
    veltest::ScopedSink installed(&sink);
    veltest::FakeIOReactor reactor(2);
    EXPECT_EQ(reactor.addEventHandler(_h5, kDefault, 1), kVELErr_Ok);
    EXPECT_EQ(reactor.addEventHandler(_h6, kDefault, 1), kVELErr_Ok);
    EXPECT_EQ(reactor.addEventHandler(_h7, kDefault, 1), kVELErr_ReactorFull);
    EXPECT_TRUE(sink.contains("FRAME - Maximum number of event handlers reached"));
    EXPECT_EQ(reactor.setSize(0), kVELErr_BadReactorSize);
    EXPECT_EQ(reactor.setSize(1), kVELErr_BadReactorSize);
    EXPECT_TRUE(sink.contains("FRAME - Bad reactor size {"));
    EXPECT_EQ(reactor.getSize(), 2u);
    EXPECT_EQ(reactor.setSize(3), kVELErr_Ok);
    EXPECT_EQ(reactor.addEventHandler(_h7, kDefault, 1), kVELErr_Ok);
    EXPECT_EQ(reactor.processEvents(), kVELErr_Ok);
    EXPECT_EQ(reactor.backEndCalls(), (Calls{"add 5 1", "add 6 1", "resize", "add 7 1"}));
    EXPECT_EQ(reactor.getNbElement(), 3u);
}

TEST_F(ReactorCoreTest, FailedDispatchKeepsTheRestPendingAndWakesForQueuedChanges) {
    for (const auto& handler : {_h5, _h6, _h7}) {
        ASSERT_EQ(add(handler), kVELErr_Ok);
    }
    ASSERT_EQ(pass(), kVELErr_Ok);
    const int wakeUps = _reactor.wakeUps();
    const boost::shared_ptr<ScriptedHandler> late = ScriptedHandler::Make(8);
    _h6->onInput = [this, &late] {
        EXPECT_EQ(add(late), kVELErr_Ok);
        return false;
    };
    _h6->onClose = [] { return false; };
    // The pending list is dispatched from the most recently reported entry.
    EXPECT_EQ(readyAndDispatch({5, 6, 7}), kVELErr_UserCode);
    EXPECT_EQ(_h7->calls(), Calls{"in"});
    EXPECT_EQ(_h6->calls(), (Calls{"in", "close"}));
    EXPECT_TRUE(_h5->calls().empty());
    EXPECT_EQ(_reactor.wakeUps(), wakeUps + 1);  // the queued add is not left waiting
    EXPECT_EQ(pass(), kVELErr_Ok);
    EXPECT_EQ(_h5->calls(), Calls{"in"});
    EXPECT_EQ(_h6->calls().size(), 2u);
    EXPECT_EQ(_reactor.backEndCalls().back(), "add 8 1");
}

TEST_F(ReactorCoreTest, InactivityChecksRunPerPeriodAndEvery2000Passes) {
    struct Row {
        unsigned short frequency;
        bool checked;
    };
    for (const Row row : {Row{3600, true}, Row{0, false}}) {
        SCOPED_TRACE("frequency " + std::to_string(row.frequency));
        veltest::RecordingSink sink(kVELTrace_Frame);
        veltest::ScopedSink installed(&sink);
        veltest::FakeIOReactor reactor;
        reactor.setInactivityCheckFreq(row.frequency);
        reactor.setSpin(true);  // a busy reactor: every wait returns at once
        const auto quiet = ScriptedHandler::Make(5);
        const auto unchecked = ScriptedHandler::Make(6);
        const auto changed = ScriptedHandler::Make(7);
        const basis::TimeValue timeout(0, 100000);
        const auto registered = steady_clock::now();
        ASSERT_EQ(reactor.addEventHandler(quiet, timeout, 1), kVELErr_Ok);
        ASSERT_EQ(reactor.addEventHandler(unchecked, VEL_IOReactor::kNoInactivityTimeout, 1),
                  kVELErr_Ok);
        ASSERT_EQ(reactor.addEventHandler(changed, timeout, 1), kVELErr_Ok);
        ASSERT_EQ(reactor.changeEventHandlerOps(changed, 3), kVELErr_Ok);
        ASSERT_EQ(reactor.open(), basis::kErr_Ok);
        // Within the first period only the pass count can start a check.
        EXPECT_EQ(quiet->waitFor("ito", 1, milliseconds(row.checked ? 5000 : 400)), row.checked);
        if (row.checked) {
            EXPECT_GE(steady_clock::now() - registered, milliseconds(100));
        }
        EXPECT_EQ(sink.contains("FRAME - 2000 events already, IOReactor will check ITO"),
                  row.checked);
        EXPECT_EQ(reactor.stop(), kVELErr_Ok);
        EXPECT_EQ(reactor.wait(), basis::kErr_Ok);
        EXPECT_EQ(unchecked->count("ito") + changed->count("ito"), 0);
    }
}

TEST_F(ReactorCoreTest, PollingErrorsMapToStatusCodes) {
    struct Row {
        int err;
        VELErr_t status;
        const char* trace;
    };
    const Row rows[] = {
            {EINTR, kVELErr_Ok,
             "FRAME - Operation interrupted by a signal {4} ; Polling function was interrupted"},
            {EFAULT, kVELErr_IllegalAddress,
             "FRAME - A variable is pointing to an illegal address {14}"},
            {EINVAL, kVELErr_BadValue, "FRAME - Bad value {22}"},
            {EBADF, kVELErr_BadFd, "FRAME - Bad file descriptor {9}"},
            {ENOTSOCK, kVELErr_BadFd, "FRAME - Bad file descriptor {88}"},
            {ENETDOWN, kVELErr_NetDown, "FRAME - Network is down {100}"},
            {EIO, kVELErr_Polling, "FRAME - A system call to the polling function failed {5}"},
    };
    for (const Row& row : rows) {
        veltest::RecordingSink sink(kVELTrace_FrameError);
        veltest::ScopedSink installed(&sink);
        basis::Thread::SetLastSystemErr(row.err);
        EXPECT_EQ(veltest::FakeIOReactor::GetPollingError(), row.status) << row.err;
        EXPECT_EQ(sink.texts(), std::vector<std::string>{row.trace});
    }
}

TEST_F(ReactorCoreTest, StopBeforeOpenEndsTheThreadAtOnceAndStartReopens) {
    EXPECT_EQ(_reactor.stop(), kVELErr_Ok);
    ASSERT_EQ(_reactor.open(), basis::kErr_Ok);
    EXPECT_EQ(_reactor.wait(), basis::kErr_Ok);  // the thread saw the request and returned
    EXPECT_TRUE(_reactor.isStopped());
    _reactor.start();
    ASSERT_EQ(_reactor.open(), basis::kErr_Ok);
    ASSERT_EQ(add(_h5), kVELErr_Ok);
    _reactor.script(5, kVELOp_Read);
    EXPECT_TRUE(_h5->waitFor("in", 1));
    EXPECT_FALSE(_reactor.isStopped());
    EXPECT_EQ(_reactor.stop(), kVELErr_Ok);
    EXPECT_EQ(_reactor.wait(), basis::kErr_Ok);
}

TEST_F(ReactorCoreTest, CleanClosesEveryHandlerOnceAndLetsThemGo) {
    for (const auto& handler : {_h5, _h6, _h7}) {
        ASSERT_EQ(add(handler), kVELErr_Ok);
    }
    ASSERT_EQ(pass(), kVELErr_Ok);
    ASSERT_EQ(_reactor.removeEventHandler(_h7), kVELErr_Ok);  // its removal still queued
    _h6->onClose = [this] { return _reactor.removeEventHandler(_h6) == kVELErr_Ok; };
    EXPECT_EQ(_reactor.clean(), kVELErr_Ok);
    EXPECT_EQ(_h5->calls(), Calls{"close"});
    EXPECT_EQ(_h6->calls(), Calls{"close"});
    EXPECT_TRUE(_h7->calls().empty());
    EXPECT_EQ(_reactor.backEndCalls(),
              (Calls{"add 5 1", "add 6 1", "add 7 1", "remove 6", "remove 7", "remove 5"}));
    EXPECT_EQ(_reactor.getNbElement(), 0u);
    for (const auto& handler : {_h5, _h6, _h7}) {
        EXPECT_EQ(handler.use_count(), 2);  // the fixture's and this loop's: the reactor let go
    }
}

}  // namespace
