#include "VEL_ComTools.h"

#include <arpa/inet.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "Thread.h"
#include "VEL_Tools.h"

namespace {

// A host label longer than the 63 characters DNS allows: fails in the resolver without a query.
const std::string kBadHost = std::string(70, 'q') + ".invalid";

std::string dotted(in_addr address) {
    char text[INET_ADDRSTRLEN];
    EXPECT_EQ(VEL_ComTools::AddrToString(address, text), kVELErr_Ok);
    return text;
}

TEST(ComToolsAddressTest, IPStringScansFourNumbersWithoutRangeCheck) {
    const std::pair<const char*, bool> rows[] = {
            {"10.0.0.1", true}, {"999.1.1.1", true},  {"1.2.3", false},   {"a.b.c.d", false},
            {"", false},        {"localhost", false}, {"1.2.3.4x", true}, {"0.0.0.0", true}};
    for (const auto& row : rows) {
        EXPECT_EQ(VEL_ComTools::IsIPString(row.first), row.second) << row.first;
    }
}

TEST(ComToolsAddressTest, StringToAddrAcceptsDottedAddressesOnly) {
    in_addr address{};
    EXPECT_EQ(VEL_ComTools::StringToAddr("10.1.2.3", &address), kVELErr_Ok);
    EXPECT_EQ(dotted(address), "10.1.2.3");
    EXPECT_EQ(VEL_ComTools::IPToLong("10.1.2.3"), 0x0A010203u);

    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    const char* rejected[] = {"999.1.1.1", "255.255.255.255", "not an address"};
    for (const char* text : rejected) {
        address.s_addr = 0;
        EXPECT_EQ(VEL_ComTools::StringToAddr(text, &address), kVELErr_InvalidIPAddress) << text;
        EXPECT_EQ(address.s_addr, INADDR_NONE) << text;
    }
    EXPECT_TRUE(sink.contains("COM - Invalid IP address {"));
    EXPECT_EQ(VEL_ComTools::IPToLong("999.1.1.1"), 0xFFFFFFFFu);
}

TEST(ComToolsAddressTest, HostNamesResolveLocallyAndUnknownOnesFail) {
    in_addr address{};
    EXPECT_EQ(VEL_ComTools::HostNameToAddr("localhost", &address), kVELErr_Ok);
    EXPECT_EQ(dotted(address), "127.0.0.1");
    EXPECT_EQ(VEL_ComTools::HostNameToAddr("127.0.0.2", &address), kVELErr_Ok);
    EXPECT_EQ(dotted(address), "127.0.0.2");

    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    EXPECT_EQ(VEL_ComTools::HostNameToAddr(kBadHost.c_str(), &address), kVELErr_InvalidHostName);
    EXPECT_EQ(address.s_addr, INADDR_NONE);
    ASSERT_EQ(sink.lines().size(), 1u);
    EXPECT_EQ(sink.lines()[0].level, kVELLevel_Error);
    EXPECT_NE(sink.texts()[0].find("COM - Invalid host name {"), std::string::npos);
    EXPECT_NE(sink.texts()[0].find("} ; Host : " + kBadHost), std::string::npos);
    // Text that scans as a dotted address does not reach the resolver.
    EXPECT_EQ(VEL_ComTools::HostToAddr("999.1.1.1", &address), kVELErr_InvalidIPAddress);
    EXPECT_EQ(VEL_ComTools::HostToAddr(kBadHost.c_str(), &address), kVELErr_InvalidHostName);
    EXPECT_EQ(VEL_ComTools::HostToAddr("localhost", &address), kVELErr_Ok);
    EXPECT_EQ(dotted(address), "127.0.0.1");
}

TEST(ComToolsAddressTest, ReverseLookupOfLoopbackAndOfAnAddressWithoutName) {
    in_addr address{};
    address.s_addr = htonl(INADDR_LOOPBACK);
    char name[VEL_ComTools::kHostNameSize];
    ASSERT_EQ(VEL_ComTools::HostAddrToName(address, name), kVELErr_Ok);
    in_addr back{};
    EXPECT_EQ(VEL_ComTools::HostNameToAddr(name, &back), kVELErr_Ok) << name;
    EXPECT_EQ(dotted(back), "127.0.0.1") << name;

    // An address without a name, looked up where no name server can be reached.
    const int outcome = veltest::RunWithoutNetwork([] {
        veltest::RecordingSink sink(kVELTrace_ComError);
        veltest::ScopedSink installed(&sink);
        in_addr nameless{};
        inet_pton(AF_INET, "0.0.0.1", &nameless);
        char unused[VEL_ComTools::kHostNameSize];
        // Reverse lookups fail without a trace.
        return VEL_ComTools::HostAddrToName(nameless, unused) == kVELErr_InvalidHostName &&
               sink.texts().empty();
    });
    if (outcome == 2) {
        GTEST_SKIP() << "no network namespace available to keep the lookup local";
    }
    EXPECT_EQ(outcome, 0);
}

TEST(ComToolsAddressTest, ServicePortsComeFromTheServiceDatabase) {
    unsigned short port = 1;
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    EXPECT_EQ(VEL_ComTools::GetServicePort("no-such-service-name", &port), kVELErr_ServiceNotFound);
    EXPECT_EQ(port, 0);
    EXPECT_TRUE(sink.contains("COM - Service not found {"));
    EXPECT_TRUE(sink.contains("} ; Service : no-such-service-name"));
    if (access("/etc/services", R_OK) != 0) {
        GTEST_SKIP() << "no service database on this machine";
    }
    EXPECT_EQ(VEL_ComTools::GetServicePort("http", &port), kVELErr_Ok);
    EXPECT_EQ(port, 80);
}

}  // namespace
