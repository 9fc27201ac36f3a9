#include "VEL_SockAddr.h"

#include <arpa/inet.h>

#include <sstream>
#include <string>
#include <thread>

#include <gtest/gtest.h>

#include "TestSupport.h"
#include "VEL_ComTools.h"
#include "VEL_Tools.h"

namespace {

std::string printed(const VEL_SockAddr& address) {
    std::ostringstream out;
    out << address;
    return out.str();
}

TEST(SockAddrTest, NullHostMeansAnyInterface) {
    VEL_SockAddr address(1234, "10.0.0.1");
    EXPECT_EQ(address.set(0, nullptr), kVELErr_Ok);
    EXPECT_TRUE(address.isSet());
    EXPECT_EQ(address.getPort(), 0);
    EXPECT_STREQ(address.getHostIPAddress(), "0.0.0.0");
    EXPECT_EQ(printed(address), "<host = 0.0.0.0, port = 0>");
}

TEST(SockAddrTest, UnresolvableHostLeavesTheAddressNotSetAndTraces) {
    veltest::RecordingSink sink(kVELTrace_ComError);
    veltest::ScopedSink installed(&sink);
    const std::string host = std::string(70, 'z') + ".invalid";
    VEL_SockAddr address;
    EXPECT_EQ(address.set(80, host.c_str()), kVELErr_InvalidHostName);
    EXPECT_FALSE(address.isSet());
    EXPECT_TRUE(sink.contains("} ; Host : " + host + ", Port : 80"));

    EXPECT_EQ(address.set(80, "999.1.1.1"), kVELErr_InvalidIPAddress);
    EXPECT_FALSE(address.isSet());
    EXPECT_TRUE(sink.contains("} ; Host : 999.1.1.1, Port : 80"));

    const VEL_SockAddr built(80, host.c_str());  // the constructor does not report it
    EXPECT_FALSE(built.isSet());
}

TEST(SockAddrTest, SetFromStructureForcesTheFamily) {
    sockaddr_in raw{};
    raw.sin_family = 0;
    raw.sin_port = htons(99);
    raw.sin_addr.s_addr = htonl(0x7F000001);
    const VEL_SockAddr address(&raw);
    EXPECT_EQ(static_cast<const sockaddr_in*>(address)->sin_family, AF_INET);
    EXPECT_EQ(printed(address), "<host = 127.0.0.1, port = 99>");
    VEL_SockAddr resolving(4321, "127.0.0.1");
    resolving.setResolveHostName(true);
    VEL_SockAddr endpoint;
    EXPECT_EQ(endpoint.set(resolving), kVELErr_Ok);  // the endpoint only, not the flag
    EXPECT_FALSE(endpoint.isResolveHostName());
    EXPECT_EQ(printed(endpoint), "<host = 127.0.0.1, port = 4321>");
}

TEST(SockAddrTest, ResolveFlagPrintsNamesOrUnresolved) {
    VEL_SockAddr loopback(80, "127.0.0.1");
    loopback.setResolveHostName(true);
    char name[VEL_ComTools::kHostNameSize];
    ASSERT_EQ(VEL_ComTools::HostAddrToName(in_addr{htonl(INADDR_LOOPBACK)}, name), kVELErr_Ok);
    EXPECT_EQ(printed(loopback), std::string("<host = ") + name + ", port = 80>");

    // An address without a name, printed where no name server can be reached.
    const int outcome = veltest::RunWithoutNetwork([] {
        VEL_SockAddr nameless(7, "0.0.0.1");
        nameless.setResolveHostName(true);
        return printed(nameless) == "<host = #Unresolved# (0.0.0.1), port = 7>";
    });
    EXPECT_NE(outcome, 1);

    VEL_SockAddr any(5, nullptr);
    any.setResolveHostName(true);
    ASSERT_EQ(VEL_ComTools::GetLocalHostName(name), kVELErr_Ok);
    EXPECT_EQ(printed(any), std::string("<host = ") + name + ", port = 5>");
}

TEST(SockAddrTest, DottedTextIsPerThread) {
    const VEL_SockAddr first(1, "10.0.0.1");
    const VEL_SockAddr second(1, "10.0.0.2");
    const char* mine = first.getHostIPAddress();
    std::string theirs;
    std::thread other([&] { theirs = second.getHostIPAddress(); });
    other.join();
    EXPECT_STREQ(mine, "10.0.0.1");  // another thread's call did not overwrite it
    EXPECT_EQ(theirs, "10.0.0.2");
}

}  // namespace
