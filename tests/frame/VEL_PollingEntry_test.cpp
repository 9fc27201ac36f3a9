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

// A hook that answers `result`, or throws when `result` names an exception.
std::function<bool()> answer(const std::string& result) {
    return [result]() -> bool {
        if (result == "runtime_error") {
            throw std::runtime_error("boom");
        }
        if (result == "bad_alloc") {
            throw std::bad_alloc();
        }
        if (result == "int") {
            throw 42;
        }
        return result == "true";
    };
}

// Dispatch runs through a reactor over the in-memory back end, driven from the test thread.
class PollingEntryTest : public ::testing::Test {
protected:
    void SetUp() override {
        _reactor.start();
        _handler = ScriptedHandler::Make(5);
    }

    // Registers the handler, reports `ops` ready for it, and dispatches once.
    VELErr_t dispatch(unsigned short ops) {
        EXPECT_EQ(_reactor.addEventHandler(_handler, basis::TimeValue(), kVELOp_Read), kVELErr_Ok);
        EXPECT_EQ(_reactor.processEvents(), kVELErr_Ok);
        _reactor.script(5, ops);
        EXPECT_EQ(_reactor.waitEvents(), kVELErr_Ok);
        return _reactor.processEvents();
    }

    veltest::FakeIOReactor _reactor;
    boost::shared_ptr<ScriptedHandler> _handler;
};

TEST_F(PollingEntryTest, DispatchOrderAndFailedCallBacks) {
    struct Row {
        unsigned short ready;
        std::string input, output, inactivity, close;
        Calls expected;
        VELErr_t status;
        const char* trace;
    };
    const std::vector<Row> rows = {
            {15, "true", "true", "true", "true", {"in", "out", "ito", "close"}, kVELErr_Ok, ""},
            {3, "false", "true", "true", "true", {"in", "close", "out"}, kVELErr_Ok, ""},
            {1,
             "false",
             "",
             "",
             "false",
             {"in", "close"},
             kVELErr_UserCode,
             "FRAME - An error occurred in user implemented code {"},
            {8, "", "", "", "false", {"close"}, kVELErr_UserCode, "} ; <FD = 5>"},
            {6,
             "",
             "runtime_error",
             "true",
             "true",
             {"out", "close", "ito"},
             kVELErr_Ok,
             "FRAME - A STL exception has been caught {"},
            {4,
             "",
             "",
             "bad_alloc",
             "true",
             {"ito", "close"},
             kVELErr_Ok,
             "FRAME - Allocation of data failed {"},
            {1,
             "int",
             "",
             "",
             "false",
             {"in", "close"},
             kVELErr_UserCode,
             "FRAME - An unknown exception has been caught {"},
    };
    for (const Row& row : rows) {
        SCOPED_TRACE("ready " + std::to_string(row.ready));
        veltest::RecordingSink sink(kVELTrace_FrameError);
        veltest::ScopedSink installed(&sink);
        _handler = ScriptedHandler::Make(5);
        _handler->onInput = answer(row.input);
        _handler->onOutput = answer(row.output);
        _handler->onInactivity = answer(row.inactivity);
        _handler->onClose = answer(row.close);
        EXPECT_EQ(dispatch(row.ready), row.status);
        EXPECT_EQ(_handler->calls(), row.expected);
        EXPECT_EQ(sink.texts().empty(), *row.trace == '\0');
        EXPECT_TRUE(*row.trace == '\0' || sink.contains(row.trace));
        EXPECT_EQ(_reactor.removeEventHandler(_handler), kVELErr_Ok);
        EXPECT_EQ(_reactor.processEvents(), kVELErr_Ok);
    }
}

TEST_F(PollingEntryTest, SelfRemovalEndsTheDispatchAndTheEntryCanBeTakenAgain) {
    _handler->onInput = [this] {
        // Registered and being dispatched: adding it again is refused.
        EXPECT_EQ(_reactor.addEventHandler(_handler, basis::TimeValue(), 1), kVELErr_FdRegistered);
        EXPECT_EQ(_reactor.removeEventHandler(_handler), kVELErr_Ok);
        EXPECT_EQ(_reactor.polled().count(5), 0u);  // out of the polling set at once
        EXPECT_EQ(_reactor.removeEventHandler(_handler), kVELErr_Ok);
        EXPECT_EQ(_reactor.changeEventHandlerOps(_handler, 2), kVELErr_HandlerNotRegistered);
        EXPECT_EQ(_reactor.getNbElement(), 0u);
        return true;
    };
    EXPECT_EQ(dispatch(kVELOp_Read | kVELOp_Write | kVELOp_Close), kVELErr_Ok);
    EXPECT_EQ(_handler->calls(), Calls{"in"});
    EXPECT_EQ(_reactor.backEndCalls(), (Calls{"add 5 1", "remove 5"}));
    EXPECT_EQ(_handler.use_count(), 1);  // released by the modification pass

    // Removed and registered again from the same call-back: the entry is reused.
    _handler->onInput = [this] {
        EXPECT_EQ(_reactor.removeEventHandler(_handler), kVELErr_Ok);
        EXPECT_EQ(_reactor.addEventHandler(_handler, basis::TimeValue(), 2), kVELErr_Ok);
        return true;
    };
    EXPECT_EQ(dispatch(kVELOp_Read | kVELOp_Write), kVELErr_Ok);
    EXPECT_EQ(_handler->calls(), (Calls{"in", "in"}));
    EXPECT_EQ(_reactor.backEndCalls(),
              (Calls{"add 5 1", "remove 5", "add 5 1", "remove 5", "add 5 2"}));
    EXPECT_EQ(_reactor.getNbElement(), 1u);
}

TEST_F(PollingEntryTest, OwnChangeOfOperationsTakesEffectAtOnceAndIsRemembered) {
    _handler->onInput = [this] {
        EXPECT_EQ(_reactor.changeEventHandlerOps(_handler, 3), kVELErr_Ok);
        EXPECT_EQ(_reactor.changeEventHandlerOps(_handler, 3), kVELErr_Ok);  // no call
        EXPECT_EQ(_reactor.changeEventHandlerOps(_handler, 1), kVELErr_Ok);  // back again
        return true;
    };
    EXPECT_EQ(dispatch(kVELOp_Read), kVELErr_Ok);
    EXPECT_EQ(_reactor.backEndCalls(), (Calls{"add 5 1", "change 5 3", "change 5 1"}));
    EXPECT_EQ(_reactor.wakeUps(), 1);  // the registration only
}

TEST(PollingEntryAloneTest, ResetStampsActivityAndNullHandlerIsTraced) {
    veltest::RecordingSink sink(kVELTrace_Frame);
    veltest::ScopedSink installed(&sink);
    VEL_PollingEntry entry;
    EXPECT_FALSE(entry.isValid());
    const basis::TimeValue before = basis::TimeValue::GetHRTime();
    const boost::shared_ptr<ScriptedHandler> handler = ScriptedHandler::Make(9);
    entry.reset(kVELEntry_ToAdd, kVELOp_Read, handler, basis::TimeValue());
    EXPECT_TRUE(entry.isValid());
    EXPECT_GE(handler->getLastActTime(), before);
    EXPECT_LE(handler->getLastActTime(), basis::TimeValue::GetHRTime());
    entry.reset(kVELEntry_Free, 0, boost::shared_ptr<VEL_EventHandler>(), basis::TimeValue());
    EXPECT_EQ(handler.use_count(), 1);
    EXPECT_EQ(entry.processEvents(basis::TimeValue::GetHRTime()), kVELErr_Ok);
    EXPECT_TRUE(
            sink.contains("FRAME - Warning ! VEL_PollingEntry in VEL_IOReactor::processEvent "
                          "has a NULL _evtHandler"));
}

}  // namespace
