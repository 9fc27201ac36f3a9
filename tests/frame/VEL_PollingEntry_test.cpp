#include "VEL_PollingEntry.h"

#include <new>
#include <stdexcept>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "ReactorSupport.h"
#include "TestSupport.h"
#include "TimeValue.h"
#include "VEL_Tools.h"

namespace {

using veltest::ScriptedHandler;
using Calls = std::vector<std::string>;

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

// Entries are dispatched by a reactor over the in-memory back end, driven from the test thread.
class PollingEntryTest : public ::testing::Test {
protected:
    void SetUp() override { _reactor.start(); }
    // Registers the handler, reports `ops` ready for it and dispatches once.
    VELErr_t dispatch(unsigned short ops) {
        EXPECT_EQ(_reactor.addEventHandler(_handler, basis::TimeValue(), kVELOp_Read), kVELErr_Ok);
        EXPECT_EQ(_reactor.processEvents(), kVELErr_Ok);
        _reactor.script(5, ops);
        EXPECT_EQ(_reactor.waitEvents(), kVELErr_Ok);
        return _reactor.processEvents();
    }

    veltest::FakeIOReactor _reactor;
    boost::shared_ptr<ScriptedHandler> _handler = ScriptedHandler::Make(5);
};

TEST_F(PollingEntryTest, DispatchOrderAndFailedCallBacks) {
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
        _handler = ScriptedHandler::Make(5);
        _handler->onInput = answer(row.answers[0]);
        _handler->onOutput = answer(row.answers[1]);
        _handler->onInactivity = answer(row.answers[2]);
        _handler->onClose = answer(row.answers[3]);
        EXPECT_EQ(dispatch(row.ready), row.status);
        std::string calls;
        for (const std::string& call : _handler->calls()) {
            calls += (calls.empty() ? "" : " ") + call;
        }
        EXPECT_EQ(calls, row.calls);
        EXPECT_EQ(sink.texts().empty(), *row.trace == '\0');
        EXPECT_TRUE(*row.trace == '\0' || sink.contains(row.trace));
        EXPECT_EQ(_reactor.removeEventHandler(_handler), kVELErr_Ok);
        EXPECT_EQ(_reactor.processEvents(), kVELErr_Ok);
    }
}

TEST_F(PollingEntryTest, OwnCallBackChangesAndRemovalsTakeEffectAtOnce) {
    _handler->onInput = [this] {
        EXPECT_EQ(_reactor.addEventHandler(_handler, basis::TimeValue(), 1), kVELErr_FdRegistered);
        EXPECT_EQ(_reactor.changeEventHandlerOps(_handler, 3), kVELErr_Ok);
        EXPECT_EQ(_reactor.changeEventHandlerOps(_handler, 3), kVELErr_Ok);  // no back-end call
        EXPECT_EQ(_reactor.changeEventHandlerOps(_handler, 1), kVELErr_Ok);  // the mask was kept
        EXPECT_EQ(_reactor.removeEventHandler(_handler), kVELErr_Ok);
        EXPECT_EQ(_reactor.removeEventHandler(_handler), kVELErr_Ok);  // already removed
        EXPECT_EQ(_reactor.changeEventHandlerOps(_handler, 2), kVELErr_HandlerNotRegistered);
        EXPECT_EQ(_reactor.backEndCalls().back(), "remove 5");  // before the call-back returns
        return true;
    };
    EXPECT_EQ(dispatch(kVELOp_Read | kVELOp_Write | kVELOp_Close), kVELErr_Ok);
    EXPECT_EQ(_handler->calls(), Calls{"in"});  // removed: output and close are not called
    EXPECT_EQ(_handler.use_count(), 1);         // let go by the modification pass
    EXPECT_EQ(_reactor.getNbElement(), 0u);

    // Removed and registered again from the same call-back: the entry is taken again.
    _handler->onInput = [this] {
        EXPECT_EQ(_reactor.removeEventHandler(_handler), kVELErr_Ok);
        EXPECT_EQ(_reactor.addEventHandler(_handler, basis::TimeValue(), 2), kVELErr_Ok);
        return true;
    };
    EXPECT_EQ(dispatch(kVELOp_Read | kVELOp_Write), kVELErr_Ok);
    EXPECT_EQ(_handler->calls(), (Calls{"in", "in"}));
    EXPECT_EQ(_reactor.backEndCalls(), (Calls{"add 5 1", "change 5 3", "change 5 1", "remove 5",
                                              "add 5 1", "remove 5", "add 5 2"}));
    EXPECT_EQ(_reactor.getNbElement(), 1u);
    EXPECT_EQ(_reactor.wakeUps(), 2);  // the test's own registrations only
}

TEST(PollingEntryAloneTest, ResetStampsActivityAndNullHandlerIsTraced) {
    veltest::RecordingSink sink(kVELTrace_Frame);
    veltest::ScopedSink installed(&sink);
    VEL_PollingEntry entry;
    const basis::TimeValue before = basis::TimeValue::GetHRTime();
    const boost::shared_ptr<ScriptedHandler> handler = ScriptedHandler::Make(9);
    entry.reset(kVELEntry_ToAdd, kVELOp_Read, handler, basis::TimeValue());
    EXPECT_TRUE(entry.isValid());
    EXPECT_GE(handler->getLastActTime(), before);
    EXPECT_LE(handler->getLastActTime(), basis::TimeValue::GetHRTime());
    entry.reset(kVELEntry_Free, 0, boost::shared_ptr<VEL_EventHandler>(), basis::TimeValue());
    EXPECT_FALSE(entry.isValid());
    EXPECT_EQ(handler.use_count(), 1);
    EXPECT_EQ(entry.processEvents(basis::TimeValue::GetHRTime()), kVELErr_Ok);
    EXPECT_TRUE(
            sink.contains("FRAME - Warning ! VEL_PollingEntry in VEL_IOReactor::processEvent "
                          "has a NULL _evtHandler"));
}

}  // namespace
