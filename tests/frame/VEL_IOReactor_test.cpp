#include "VEL_IOReactor.h"

#include <cerrno>
#include <chrono>
#include <new>
#include <sstream>
#include <stdexcept>
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

const basis::TimeValue kDefault;  // zero: the reactor's inactivity time-out

// A hook answering true (T) or false (F), or throwing std::runtime_error (R), std::bad_alloc (A)
// or an int (I).
std::function<bool()> answer(char result) {
    return [result]() -> bool {
        switch (result) {
            case 'R':
                throw std::runtime_error("boom");
            case 'A':
                throw std::bad_alloc();
            case 'I':
                throw 42;
            default:
                return result == 'T';
        }
    };
}

// The core over the in-memory back end, driven from the test thread.
class ReactorCoreTest : public ::testing::Test {
protected:
    void SetUp() override { _reactor.start(); }
    VELErr_t add(const boost::shared_ptr<VEL_EventHandler>& handler, unsigned short ops = 1) {
        return _reactor.addEventHandler(handler, kDefault, ops);
    }
    // Registers `handler` (handle 5), reports `ops` ready for it and dispatches once.
    VELErr_t dispatch(const boost::shared_ptr<ScriptedHandler>& handler, unsigned short ops) {
        EXPECT_EQ(add(handler), kVELErr_Ok);
        EXPECT_EQ(_reactor.processEvents(), kVELErr_Ok);
        _reactor.script(5, ops);
        EXPECT_EQ(_reactor.waitEvents(), kVELErr_Ok);
        return _reactor.processEvents();
    }

    veltest::FakeIOReactor _reactor{4};
    const boost::shared_ptr<ScriptedHandler> _h5 = ScriptedHandler::Make(5);
    const boost::shared_ptr<ScriptedHandler> _h6 = ScriptedHandler::Make(6);
    const boost::shared_ptr<ScriptedHandler> _h7 = ScriptedHandler::Make(7);
};

// Calls on handle 5 ("a<ops>" add, "c<ops>" change, "r" remove, "p" a modification pass), the
// status of each, and what reached the back end.
TEST_F(ReactorCoreTest, RegistrationSequences) {
    struct Row {
        const char* calls;
        std::vector<int> statuses;
        Calls backEnd;
        unsigned long registered;
    };
    const Row rows[] = {
            {"a1 a1 p a1", {0, 308, 0, 308}, {"add 5 1"}, 1},
            {"r c2 a1 p r r p", {302, 302, 0, 0, 0, 302, 0}, {"add 5 1", "remove 5"}, 0},
            // A re-add before the removal was applied keeps the handle polled: a change.
            {"a1 p r a2 p", {0, 0, 0, 0, 0}, {"add 5 1", "change 5 2"}, 1},
            // Changes and a removal of an add not yet applied: nothing reaches the back end.
            {"a1 c3 r p", {0, 0, 0, 0}, {}, 0},
            {"a1 p c2 c3 p c3 p",
             {0, 0, 0, 0, 0, 0, 0},
             {"add 5 1", "change 5 3", "change 5 3"},
             1},
            {"a1 p c2 r a1 p", {0, 0, 0, 0, 0, 0}, {"add 5 1", "change 5 1"}, 1},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.calls);
        veltest::FakeIOReactor reactor;
        reactor.start();
        std::istringstream calls(row.calls);
        std::vector<int> statuses;
        for (std::string call; calls >> call;) {
            const auto ops = static_cast<unsigned short>(call.size() > 1 ? call[1] - '0' : 0);
            statuses.push_back(call[0] == 'a'   ? reactor.addEventHandler(_h5, kDefault, ops)
                               : call[0] == 'c' ? reactor.changeEventHandlerOps(_h5, ops)
                               : call[0] == 'r' ? reactor.removeEventHandler(_h5)
                                                : reactor.processEvents());
        }
        EXPECT_EQ(statuses, row.statuses);
        EXPECT_EQ(reactor.backEndCalls(), row.backEnd);
        EXPECT_EQ(reactor.getNbElement(), row.registered);
        EXPECT_EQ(_h5.use_count(), 1 + static_cast<long>(row.registered));
    }
}

TEST_F(ReactorCoreTest, RefusedRegistrationsAndSizes) {
    veltest::RecordingSink sink(kVELTrace_FrameError);
    veltest::ScopedSink installed(&sink);
    veltest::FakeIOReactor reactor(2);
    EXPECT_EQ(reactor.addEventHandler(nullptr, kDefault, 1), kVELErr_InvalidPointer);
    EXPECT_EQ(reactor.addEventHandler(VEL_EventHandler::Create(0xFFFFFFFF), kDefault, 1),
              kVELErr_InvalidSocket);
    EXPECT_EQ(reactor.addEventHandler(_h5, kDefault, 1), kVELErr_Ok);
    EXPECT_EQ(reactor.addEventHandler(_h5, kDefault, 1), kVELErr_FdRegistered);
    EXPECT_TRUE(sink.contains("FRAME - The file descriptor is already registered {"));
    EXPECT_TRUE(sink.contains("} ; <FD = 5>"));
    EXPECT_EQ(reactor.addEventHandler(_h6, kDefault, 1), kVELErr_Ok);
    EXPECT_EQ(reactor.addEventHandler(_h7, kDefault, 1), kVELErr_ReactorFull);
    EXPECT_EQ(reactor.setSize(0), kVELErr_BadReactorSize);
    EXPECT_EQ(reactor.setSize(1), kVELErr_BadReactorSize);  // below the handlers registered
    EXPECT_TRUE(sink.contains("FRAME - Bad reactor size {"));
    EXPECT_EQ(reactor.getSize(), 2u);
    EXPECT_EQ(reactor.wakeUps(), 2);  // refused calls do not wake the reactor
    EXPECT_EQ(reactor.setSize(3), kVELErr_Ok);
    EXPECT_EQ(reactor.addEventHandler(_h7, kDefault, 1), kVELErr_Ok);
    EXPECT_EQ(reactor.processEvents(), kVELErr_Ok);
    EXPECT_EQ(reactor.backEndCalls(), (Calls{"add 5 1", "add 6 1", "resize", "add 7 1"}));
}

TEST_F(ReactorCoreTest, FailedDispatchKeepsTheRestPendingAndWakesForQueuedChanges) {
    for (const auto& handler : {_h5, _h6, _h7}) {
        ASSERT_EQ(add(handler), kVELErr_Ok);
        _reactor.script(handler->getHandle(), kVELOp_Read);
    }
    ASSERT_EQ(_reactor.processEvents(), kVELErr_Ok);
    const int wakeUps = _reactor.wakeUps();
    const boost::shared_ptr<ScriptedHandler> late = ScriptedHandler::Make(8);
    _h6->onInput = [this, &late] {
        EXPECT_EQ(add(late), kVELErr_Ok);
        return false;
    };
    _h6->onClose = [] { return false; };
    ASSERT_EQ(_reactor.waitEvents(), kVELErr_Ok);
    // Most recently reported first: 7, then 6 fails and 5 waits for the next call.
    EXPECT_EQ(_reactor.processEvents(), kVELErr_UserCode);
    EXPECT_EQ(_h7->calls(), Calls{"in"});
    EXPECT_EQ(_h6->calls(), (Calls{"in", "close"}));
    EXPECT_TRUE(_h5->calls().empty());
    EXPECT_EQ(_reactor.wakeUps(), wakeUps + 1);  // the queued add is not left waiting
    EXPECT_EQ(_reactor.processEvents(), kVELErr_Ok);
    EXPECT_EQ(_h5->calls(), Calls{"in"});
    EXPECT_EQ(_h6->calls().size(), 2u);
    EXPECT_EQ(_reactor.backEndCalls().back(), "add 8 1");
}

// A handler that holds input of its own asks to be called again: the next wait only polls (no
// idle time-out, no readiness needed), the handler gets its call among those the poll found, and
// nothing more afterwards. Asked outside its own call-back, or by a handler that then removed
// itself, nothing is dispatched.
TEST_F(ReactorCoreTest, RedispatchCallsAHandlerAgainAtTheNextPassWithoutWaiting) {
    _reactor.setDoIdle(true);
    _reactor.setIdleTimeout(basis::TimeValue(0, 300000));
    for (const auto& handler : {_h5, _h6, _h7}) {
        ASSERT_EQ(add(handler), kVELErr_Ok);
    }
    ASSERT_EQ(_reactor.processEvents(), kVELErr_Ok);
    EXPECT_EQ(_reactor.redispatch(_h5, kVELOp_Read), kVELErr_InvalidAction);
    int again = 1;
    _h5->onInput = [this, &again] {
        EXPECT_EQ(_reactor.redispatch(_h6, kVELOp_Read), kVELErr_InvalidAction);  // not its own
        return again-- <= 0 || _reactor.redispatch(_h5, kVELOp_Read) == kVELErr_Ok;
    };
    _h7->onInput = [this] {
        EXPECT_EQ(_reactor.redispatch(_h7, kVELOp_Read), kVELErr_Ok);
        EXPECT_EQ(_reactor.removeEventHandler(_h7), kVELErr_Ok);
        return true;
    };
    _reactor.script(5, kVELOp_Read);
    _reactor.script(7, kVELOp_Read);
    ASSERT_EQ(_reactor.waitEvents(), kVELErr_Ok);
    ASSERT_EQ(_reactor.processEvents(), kVELErr_Ok);
    _reactor.script(6, kVELOp_Read);
    EXPECT_EQ(_reactor.waitEvents(), kVELErr_Ok) << "a handler waited: the wait only polls";
    ASSERT_EQ(_reactor.processEvents(), kVELErr_Ok);
    EXPECT_EQ(_h5->calls(), (Calls{"in", "in"}));
    EXPECT_EQ(_h6->calls(), Calls{"in"});
    EXPECT_EQ(_h7->calls(), Calls{"in"});
    EXPECT_EQ(_reactor.waitEvents(), kVELErr_Timeout) << "nothing was asked for again";
}

TEST_F(ReactorCoreTest, InactivityChecksRunPerPeriodAndEvery2000Passes) {
    for (const unsigned short frequency : {3600, 0}) {
        SCOPED_TRACE("frequency " + std::to_string(frequency));
        veltest::RecordingSink sink(kVELTrace_Frame);
        veltest::ScopedSink installed(&sink);
        veltest::FakeIOReactor reactor(16, true);  // busy: every wait returns at once
        reactor.setInactivityCheckFreq(frequency);
        const auto quiet = ScriptedHandler::Make(5);
        const auto unchecked = ScriptedHandler::Make(6);
        const auto changed = ScriptedHandler::Make(7);
        const basis::TimeValue timeout(0, 100000);
        const basis::TimeValue registered = basis::TimeValue::GetHRTime();
        ASSERT_EQ(reactor.addEventHandler(quiet, timeout, 1), kVELErr_Ok);
        ASSERT_EQ(reactor.addEventHandler(unchecked, VEL_IOReactor::kNoInactivityTimeout, 1),
                  kVELErr_Ok);
        ASSERT_EQ(reactor.addEventHandler(changed, timeout, 1), kVELErr_Ok);
        ASSERT_EQ(reactor.changeEventHandlerOps(changed, 3), kVELErr_Ok);  // no longer checked
        ASSERT_EQ(reactor.open(), basis::kErr_Ok);
        // Within the first hour only the pass count can start a check.
        EXPECT_EQ(quiet->waitFor("ito", 1, milliseconds(frequency != 0 ? 5000 : 400)),
                  frequency != 0);
        EXPECT_EQ(sink.contains("FRAME - 2000 events already, IOReactor will check ITO"),
                  frequency != 0);
        EXPECT_EQ(reactor.stop(), kVELErr_Ok);
        EXPECT_EQ(reactor.wait(), basis::kErr_Ok);
        EXPECT_TRUE(frequency == 0 || quiet->getLastActTime() - registered >= timeout);
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
    EXPECT_EQ(_reactor.stop(), kVELErr_Ok);
    EXPECT_EQ(_reactor.wait(), basis::kErr_Ok);
}

// clean() used to stop at the first handleClose() that failed: the handlers after it got
// nothing and stayed registered, and a second clean() closed the first ones again.
TEST_F(ReactorCoreTest, CleanClosesEveryHandlerOnceAndLetsThemGo) {
    for (const auto& handler : {_h5, _h6, _h7}) {
        ASSERT_EQ(add(handler), kVELErr_Ok);
    }
    ASSERT_EQ(_reactor.processEvents(), kVELErr_Ok);
    ASSERT_EQ(_reactor.removeEventHandler(_h7), kVELErr_Ok);  // its removal still queued
    // Both fail, whichever goes first; one of them removes itself on its way.
    _h5->onClose = [] { return false; };
    _h6->onClose = [this] {
        EXPECT_EQ(_reactor.removeEventHandler(_h6), kVELErr_Ok);
        return false;
    };
    veltest::RecordingSink sink(kVELTrace_FrameError);
    veltest::ScopedSink installed(&sink);
    EXPECT_EQ(_reactor.clean(), kVELErr_UserCode);
    EXPECT_EQ(_reactor.clean(), kVELErr_Ok);  // nothing left to close
    EXPECT_EQ(_h5->calls(), Calls{"close"});
    EXPECT_EQ(_h6->calls(), Calls{"close"});
    EXPECT_TRUE(_h7->calls().empty());
    EXPECT_TRUE(sink.contains("<FD = 5>"));
    EXPECT_TRUE(sink.contains("<FD = 6>"));
    EXPECT_EQ(_reactor.backEndCalls(),
              (Calls{"add 5 1", "add 6 1", "add 7 1", "remove 6", "remove 7", "remove 5"}));
    EXPECT_EQ(_reactor.getNbElement(), 0u);
    EXPECT_EQ(_h5.use_count() + _h6.use_count() + _h7.use_count(), 3);
}

TEST_F(ReactorCoreTest, DispatchOrderAndFailedCallBacks) {
    struct Row {
        unsigned short ready;
        const char* answers;  // of handleInput, handleOutput, handleInactivity, handleClose
        const char* calls;
        VELErr_t status;
        const char* trace;
    };
    const Row rows[] = {
            {15, "TTTT", "in out ito close", kVELErr_Ok, ""},
            {3, "FTTT", "in close out", kVELErr_Ok, ""},
            {1, "FTTF", "in close", kVELErr_UserCode,
             "An error occurred in user implemented code {"},
            {8, "TTTF", "close", kVELErr_UserCode, "} ; <FD = 5>"},
            {6, "TRTT", "out close ito", kVELErr_Ok, "FRAME - A STL exception has been caught {"},
            {4, "TTAT", "ito close", kVELErr_Ok, "FRAME - Allocation of data failed {"},
            {1, "ITTF", "in close", kVELErr_UserCode,
             "FRAME - An unknown exception has been caught"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE(row.answers);
        veltest::RecordingSink sink(kVELTrace_FrameError);
        veltest::ScopedSink installed(&sink);
        const boost::shared_ptr<ScriptedHandler> handler = ScriptedHandler::Make(5);
        handler->onInput = answer(row.answers[0]);
        handler->onOutput = answer(row.answers[1]);
        handler->onInactivity = answer(row.answers[2]);
        handler->onClose = answer(row.answers[3]);
        EXPECT_EQ(dispatch(handler, row.ready), row.status);
        std::string calls;
        for (const std::string& call : handler->calls()) {
            calls += (calls.empty() ? "" : " ") + call;
        }
        EXPECT_EQ(calls, row.calls);
        EXPECT_EQ(sink.texts().empty(), *row.trace == '\0');
        EXPECT_TRUE(*row.trace == '\0' || sink.contains(row.trace));
        EXPECT_EQ(_reactor.removeEventHandler(handler), kVELErr_Ok);
        EXPECT_EQ(_reactor.processEvents(), kVELErr_Ok);
    }
}

TEST_F(ReactorCoreTest, OwnCallBackChangesAndRemovalsTakeEffectAtOnce) {
    _h5->onInput = [this] {
        EXPECT_EQ(_reactor.addEventHandler(_h5, basis::TimeValue(), 1), kVELErr_FdRegistered);
        EXPECT_EQ(_reactor.changeEventHandlerOps(_h5, 3), kVELErr_Ok);
        EXPECT_EQ(_reactor.changeEventHandlerOps(_h5, 3), kVELErr_Ok);  // no back-end call
        EXPECT_EQ(_reactor.changeEventHandlerOps(_h5, 1), kVELErr_Ok);  // the mask was kept
        EXPECT_EQ(_reactor.removeEventHandler(_h5), kVELErr_Ok);
        EXPECT_EQ(_reactor.removeEventHandler(_h5), kVELErr_Ok);  // already removed
        EXPECT_EQ(_reactor.changeEventHandlerOps(_h5, 2), kVELErr_HandlerNotRegistered);
        EXPECT_EQ(_reactor.backEndCalls().back(), "remove 5");  // before the call-back returns
        return true;
    };
    EXPECT_EQ(dispatch(_h5, kVELOp_Read | kVELOp_Write | kVELOp_Close), kVELErr_Ok);
    EXPECT_EQ(_h5->calls(), Calls{"in"});  // removed: output and close are not called
    EXPECT_EQ(_h5.use_count(), 1);         // let go by the modification pass
    EXPECT_EQ(_reactor.getNbElement(), 0u);

    // Removed and registered again from the same call-back: the entry is taken again.
    _h5->onInput = [this] {
        EXPECT_EQ(_reactor.removeEventHandler(_h5), kVELErr_Ok);
        EXPECT_EQ(_reactor.addEventHandler(_h5, basis::TimeValue(), 2), kVELErr_Ok);
        return true;
    };
    EXPECT_EQ(dispatch(_h5, kVELOp_Read | kVELOp_Write), kVELErr_Ok);
    EXPECT_EQ(_h5->calls(), (Calls{"in", "in"}));
    EXPECT_EQ(_reactor.backEndCalls(), (Calls{"add 5 1", "change 5 3", "change 5 1", "remove 5",
                                              "add 5 1", "remove 5", "add 5 2"}));
    EXPECT_EQ(_reactor.getNbElement(), 1u);
    EXPECT_EQ(_reactor.wakeUps(), 2);  // the test's own registrations only
}

}  // namespace
