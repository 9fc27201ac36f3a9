#include "VEL_StaticInit.h"

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VEL_ComEnabler.h"
#include "VEL_ComTools.h"
#include "VEL_Tools.h"

namespace {

TEST(StaticInitTest, FurtherInstancesOnlyMoveTheCounter) {
    const unsigned long modules = VEL_StaticInit::GetCount();
    EXPECT_GE(modules, 5u);  // one per source module of the library
    {
        VEL_StaticInit extra;
        EXPECT_EQ(VEL_StaticInit::GetCount(), modules + 1);
    }
    EXPECT_EQ(VEL_StaticInit::GetCount(), modules);
    veltest::RecordingSink sink(0xFFFF);
    veltest::ScopedSink installed(&sink);
    VEL_Tools::Trace("f", 1, 0, "still alive");
    EXPECT_TRUE(sink.contains("still alive"));
}

TEST(ComToolsTest, EnablerTracesStartAndEndOnlyWithTheNetworkBit) {
    veltest::RecordingSink sink(kVELTrace_Error);
    veltest::ScopedSink installed(&sink);
    { VEL_ComEnabler quiet; }
    EXPECT_TRUE(sink.texts().empty());
    sink.setTraceFlags(kVELTrace_Com);
    { VEL_ComEnabler traced; }
    const std::vector<std::string> expected = {"COM - Initializing Com resources",
                                               "COM - Cleaning COM resources"};
    EXPECT_EQ(sink.texts(), expected);
    EXPECT_EQ(sink.lines()[0].level, 0);
    EXPECT_EQ(sink.lines()[0].file, "VEL_ComTools.cpp");
}

}  // namespace
