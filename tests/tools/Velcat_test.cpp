#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <zlib.h>

#include "SocketSupport.h"
#include "TestSupport.h"
#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_OXLv2.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_TCPConnector.h"
#include "VEL_TCPSocket.h"
#include "VEL_Tools.h"
#include "VelcatProcess.h"

namespace {

using veltest::VelcatProcess;
using Strings = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::seconds;

std::string be16(std::uint32_t value) {
    return {static_cast<char>(value >> 8), static_cast<char>(value)};
}

std::string be32(std::uint32_t value) {
    return be16(value >> 16) + be16(value & 0xFFFF);
}

std::string oxl1Frame(const std::string& body) {
    const auto total = static_cast<std::uint32_t>(body.size() + 12);
    return be32(total) + be32(~total) + be16(32) + "1" + std::string(1, '\0') + body;
}

std::string oxl2Frame(const std::string& body) {
    const auto total = static_cast<std::uint32_t>(body.size() + 12);
    return be32(total) + be32(~total) + be16(4) + "2" + std::string(1, '\0') + body;
}

std::string oxl5Frame(const std::string& body) {
    return be16(static_cast<std::uint32_t>(body.size())) + body;
}

// A plain HOLM frame: magic, version, lengths, the check word that makes the first seven words
// XOR to 0, and nothing else set.
std::string holmFrame(const std::string& body) {
    const auto size = static_cast<std::uint32_t>(body.size());
    const std::string words = be16(0x484F) + be16(0x0100) + be32(28 + size) + be32(size);
    std::uint32_t check = 0;
    for (std::size_t i = 0; i < words.size(); i += 2) {
        check ^= static_cast<unsigned char>(words[i]) << 8 |
                 static_cast<unsigned char>(words[i + 1]);
    }
    return words + be16(check) + std::string(14, '\0') + body;
}

// zlib at level 2, as the compressing protocols use it.
std::string zlibCompress(const std::string& plain) {
    std::string stream(compressBound(plain.size()), '\0');
    uLongf length = stream.size();
    EXPECT_EQ(compress2(reinterpret_cast<Bytef*>(&stream[0]), &length,
                        reinterpret_cast<const Bytef*>(plain.data()), plain.size(), 2),
              Z_OK);
    return stream.substr(0, length);
}

std::string zlibUncompress(const std::string& stream, std::size_t size) {
    std::string plain(size, '\0');
    uLongf length = size;
    EXPECT_EQ(uncompress(reinterpret_cast<Bytef*>(&plain[0]), &length,
                         reinterpret_cast<const Bytef*>(stream.data()), stream.size()),
              Z_OK);
    return plain.substr(0, length);
}

// A compressed OXLv2 frame: the 'C' flag, the record 02 00 00 00 + plain length, the stream.
std::string oxl2CompressedFrame(const std::string& body) {
    const std::string stream = zlibCompress(body);
    const auto total = static_cast<std::uint32_t>(stream.size() + 20);
    return be32(total) + be32(~total) + be16(4) + "2C" + be32(0x02000000) +
           be32(static_cast<std::uint32_t>(body.size())) + stream;
}

// A body that compresses well.
const std::string& line2k() {
    static const std::string line(2000, 'a');
    return line;
}

// The text of a status without the " {n}" of the last system error.
std::string statusText(VELErr_t code) {
    const std::string text = VEL_Tools::GetErrStr(code);
    return text.substr(0, text.rfind(" {"));
}

// True once the peer has closed `fd` (end of stream or reset) within `limit`; what arrives
// before is read away.
bool closedByPeer(int fd, milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    char chunk[4096];
    while (std::chrono::steady_clock::now() < deadline) {
        pollfd entry{fd, POLLIN, 0};
        if (::poll(&entry, 1, 50) == 1 && ::recv(fd, chunk, sizeof(chunk), 0) <= 0) {
            return true;
        }
    }
    return false;
}

// A listener on 127.0.0.1 with a port chosen by the system.
std::unique_ptr<VelcatProcess> startListener(const Strings& options) {
    Strings args = {"-l", "-s", "127.0.0.1"};
    args.insert(args.end(), options.begin(), options.end());
    args.push_back("0");
    std::unique_ptr<VelcatProcess> listener(new VelcatProcess(args));
    EXPECT_NE(listener->listeningPort(), 0) << listener->errors();
    return listener;
}

// Stops a listener as a user would; it exits 0 and reports what it served.
void stopListener(VelcatProcess& listener) {
    listener.signal(SIGTERM);
    EXPECT_EQ(listener.wait(), 0) << listener.errors();
    EXPECT_NE(listener.errors().find("velcat: stopped: "), std::string::npos);
}

// Runs a client to completion: `input` on its standard input, then the end of input.
int runClient(const Strings& args, const std::string& input, std::string& output,
              std::string& errors) {
    VelcatProcess client(args);
    EXPECT_TRUE(client.write(input));
    client.closeInput();
    const int status = client.wait(seconds(20));
    output = client.output();
    errors = client.errors();
    return status;
}

// Every protocol through `velcat -l -e`: bodies come back unchanged, in order, one line each.
// The compressing rows include an empty line and a line of 59580 bytes, whose compression room
// (floor(size x 1.1) cut to 16 bits) is 2 bytes: both go plain, the 2000-byte line compressed.
TEST(VelcatTest, EveryProtocolEchoesThroughTheListener) {
    const std::string compressing =
            "hello\n\n" + std::string(2000, 'a') + "\n" + std::string(59580, 'b') + "\n";
    const struct {
        Strings listener;
        Strings client;
        std::string input;
        std::string expected;
    } cases[] = {{{}, {"-c", "3"}, "one\n\nthree", "one\n\nthree\n"},
                 {{}, {"-x", "-c", "2"}, "hi\n\x01\xff\n", "6869\n01ff\n"},
                 {{"-p", "oxl2"}, {"-p", "oxl2", "-c", "2"}, "plain\nbodies\n", "plain\nbodies\n"},
                 {{"-p", "oxl2"}, {"-p", "oxl2", "-z", "-c", "4"}, compressing, compressing},
                 {{"-p", "oxl5"}, {"-p", "oxl5", "-c", "3"}, "a\n\nccc\n", "a\n\nccc\n"},
                 {{"-p", "holm"}, {"-p", "holm", "-c", "2"}, "plain\nbodies\n", "plain\nbodies\n"},
                 {{"-p", "holm"}, {"-p", "holm", "-z", "-c", "4"}, compressing, compressing},
                 {{"-p", "holm"}, {"-p", "holm", "-S", "-c", "2"}, "secret\n\n", "secret\n\n"},
                 {{"-p", "holm"}, {"-p", "holm", "-S", "-z", "-c", "4"}, compressing, compressing},
                 {{"-p", "tn3270"}, {"-p", "tn3270", "-c", "1"}, "raw record\n", "raw record\n"}};
    for (const auto& each : cases) {
        for (const char* backend : {"epoll", "select"}) {
            SCOPED_TRACE(::testing::PrintToString(each.client) + " " + backend);
            Strings options = each.listener;
            options.insert(options.end(), {"-e", "--backend", backend});
            auto listener = startListener(options);
            EXPECT_NE(listener->errors().find(std::string(", ") + backend + ")\n"),
                      std::string::npos);
            Strings args = each.client;
            args.insert(args.end(), {"127.0.0.1", std::to_string(listener->listeningPort())});
            std::string output, errors;
            EXPECT_EQ(runClient(args, each.input, output, errors), 0) << errors;
            EXPECT_EQ(output.size(), each.expected.size());
            EXPECT_TRUE(output == each.expected);  // not printed: up to 60 KB
            EXPECT_EQ(listener->output(), "");     // -e answers instead of printing
            stopListener(*listener);
        }
    }
}

// velcat as a client against a peer that the test plays by hand: what it sends is compared with
// frames built here, and it prints the body of a frame built here.
TEST(VelcatTest, ClientSendsAndReadsFramesAsBuiltByHand) {
    using Check = std::function<void(const std::string& sent)>;
    const std::string& line = line2k();
    const auto exact = [&line](std::string (*frame)(const std::string&)) -> Check {
        return [&line, frame](const std::string& sent) { EXPECT_EQ(sent, frame(line)); };
    };
    const struct {
        Strings options;
        std::size_t size;  // of the frame the line makes
        Check check;
        std::string reply;  // a frame whose body is "answer", or none
    } cases[] = {
            {{}, 2012, exact(oxl1Frame), oxl1Frame("answer")},
            {{"-p", "oxl2"}, 2012, exact(oxl2Frame), oxl2CompressedFrame("answer")},
            {{"-p", "oxl5"}, 2002, exact(oxl5Frame), oxl5Frame("answer")},
            {{"-p", "holm"}, 2028, exact(holmFrame), holmFrame("answer")},
            {{"-p", "tn3270"},
             2000,
             [&line](const std::string& sent) { EXPECT_EQ(sent, line); },
             "answer"},
            {{"-p", "oxl2", "-z"},
             20 + zlibCompress(line).size(),
             [&line](const std::string& sent) {
                 EXPECT_EQ(sent.substr(8, 12), be16(4) + "2C" + be32(0x02000000) + be32(2000));
                 EXPECT_EQ(zlibUncompress(sent.substr(20), 2000), line);
             },
             oxl2Frame("answer")},
            // The session key travels in the first frame; the body is encrypted, so only the
            // header is checked: secure bit, initiator and compressed bits, level 2, key field.
            {{"-p", "holm", "-S", "-z"},
             28,
             [](const std::string& sent) {
                 EXPECT_EQ(sent.substr(0, 4), be16(0x484F) + be16(0x0100));
                 EXPECT_EQ(sent.substr(16, 8), std::string("\x41\x04\xc2\0\0\x10\0\0", 8));
             },
             ""}};
    for (const auto& each : cases) {
        SCOPED_TRACE(::testing::PrintToString(each.options));
        VEL_TCPAcceptor acceptor(0, "127.0.0.1");
        ASSERT_EQ(acceptor.open(), kVELErr_Ok);
        Strings args = each.options;
        if (!each.reply.empty()) {
            args.insert(args.end(), {"-c", "1"});
        }
        args.insert(args.end(), {"127.0.0.1", std::to_string(acceptor.getLocalAddr().getPort())});
        VelcatProcess client(args);
        ASSERT_TRUE(client.write(line + "\n"));
        const basis::TimeValue limit(10, 0);
        VEL_Socket* accepted = nullptr;
        ASSERT_EQ(acceptor.waitForRead(&limit), kVELErr_Ok) << client.errors();
        ASSERT_EQ(acceptor.accept(accepted), kVELErr_Ok);
        std::unique_ptr<VEL_Socket> peer(accepted);
        each.check(veltest::ReadExactly(veltest::Fd(*peer), each.size));
        if (each.reply.empty()) {
            client.closeInput();  // no answer expected: the end of input ends the client
        } else {
            ASSERT_TRUE(veltest::WriteAll(veltest::Fd(*peer), each.reply));
        }
        EXPECT_EQ(client.wait(), 0) << client.errors();
        EXPECT_EQ(client.output(), each.reply.empty() ? "" : "answer\n");
    }
}

// The listener's echo takes the settings of the frame it answers: an OXLv2 frame compressed or
// not, a HOLM frame in a secure session opened by the peer (answered with the session ID).
TEST(VelcatTest, ListenerEchoFollowsThePeersCompressionAndSession) {
    auto oxl2 = startListener({"-p", "oxl2", "-e"});
    veltest::RawFd raw = veltest::RawConnect(oxl2->listeningPort());
    for (const std::string& frame : {oxl2Frame("plain body"), oxl2CompressedFrame(line2k())}) {
        ASSERT_TRUE(veltest::WriteAll(raw.get(), frame));
        EXPECT_TRUE(veltest::ReadExactly(raw.get(), frame.size()) == frame);
    }
    raw.reset();
    stopListener(*oxl2);

    auto holm = startListener({"-p", "holm", "-e"});
    VEL_TCPConnector connector(holm->listeningPort(), "127.0.0.1");
    VEL_Socket* connected = nullptr;
    ASSERT_EQ(connector.connect(connected), kVELErr_Ok);
    std::unique_ptr<VEL_Socket> socket(connected);
    VEL_HOLM client(socket.get(), 1 << 20);
    ASSERT_EQ(client.openSecureSession(), kVELErr_Ok);
    client.setCompression(true);
    for (int round = 0; round < 2; ++round) {
        VEL_Message message;
        ASSERT_EQ(message.setData(line2k().data(), line2k().size()), kVELErr_Ok);
        ASSERT_EQ(client.sendMessage(&message), kVELErr_Ok);
        char header[28];
        ASSERT_TRUE(veltest::WaitForPending(veltest::Fd(*socket), sizeof(header)));
        ASSERT_EQ(::recv(veltest::Fd(*socket), header, sizeof(header), MSG_PEEK), 28);
        // Secure, not the initiator, compressed, the session ID field.
        EXPECT_EQ(std::string(header + 16, 8), std::string("\x41\x06\x42\0\0\x04\0\0", 8));
        VEL_Message answer;
        ASSERT_EQ(client.recvMessage(&answer), kVELErr_Ok);
        EXPECT_TRUE(std::string(answer.data(), answer.size()) == line2k());
    }
    socket.reset();
    stopListener(*holm);
}

// Peers that misbehave are closed one by one, each with a trace line, while a well-behaved
// client stays connected and is served between them; the listener never exits on their input.
TEST(VelcatTest, BadPeersAreClosedWhileAnotherClientIsServed) {
    auto listener = startListener({"-e", "-m", "1000", "-t", "34"});
    veltest::RawFd good = veltest::RawConnect(listener->listeningPort());
    const auto served = [&good] {
        EXPECT_TRUE(veltest::WriteAll(good.get(), oxl1Frame("ping")));
        EXPECT_EQ(veltest::ReadExactly(good.get(), 16), oxl1Frame("ping"));
    };
    served();
    const std::string header = oxl1Frame("").substr(0, 8);
    const struct {
        const char* what;
        std::string bytes;
        bool cut;  // the peer closes after its bytes; otherwise it waits to be closed
        VELErr_t traced;
    } cases[] = {{"bad marker", header + be16(33) + "1" + std::string(1, '\0'), false,
                  kVELErr_BadStreamHeader},
                 {"bad check", be32(16) + be32(16) + be16(32) + "1" + std::string(5, '\0'), false,
                  kVELErr_BadStreamHeader},
                 {"body above -m", oxl1Frame(std::string(1001, 'x')), false, kVELErr_MessageTooBig},
                 {"total below the header",
                  be32(11) + be32(~11u) + be16(32) + "1" + std::string(1, '\0'), false,
                  kVELErr_MessageTooBig},
                 {"cut mid-frame", oxl1Frame(std::string(100, 'c')).substr(0, 40), true,
                  kVELErr_SockHalfClosed},
                 {"stops mid-frame", oxl1Frame(std::string(100, 's')).substr(0, 40), false,
                  kVELErr_Timeout}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.what);
        veltest::RawFd bad = veltest::RawConnect(listener->listeningPort());
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(veltest::WriteAll(bad.get(), each.bytes));
        if (each.cut) {
            bad.reset();
        } else {
            EXPECT_TRUE(closedByPeer(bad.get(), seconds(10)));
        }
        EXPECT_TRUE(listener->waitForError("velcat - " + statusText(each.traced)));
        if (each.traced == kVELErr_Timeout) {  // the accepted socket's native time-out, 3 s
            const auto took = std::chrono::steady_clock::now() - start;
            EXPECT_GE(took, milliseconds(2900));
            EXPECT_LE(took, seconds(8));
        }
        served();
        EXPECT_TRUE(listener->running());
    }
    good.reset();
    stopListener(*listener);
    EXPECT_NE(listener->errors().find("7 connections, 7 messages, 5 closed on errors"),
              std::string::npos)
            << listener->errors();
}

// A pipe client fails over when the listener it uses stops, to the other one, and again to the
// first once it is back on its port and the other stops; every line is answered. Over HOLM the
// secure session is opened anew on each server. The client traces its connections (-t 8) and
// the listeners theirs (-t 2), so that the test knows which listener to stop and when the
// client has moved.
TEST(VelcatTest, PipeModeFailsOverBetweenListeners) {
    const Strings protocols[] = {{"--backend", "select"}, {"-p", "holm", "-S", "-z"}};
    for (const Strings& protocol : protocols) {
        SCOPED_TRACE(::testing::PrintToString(protocol));
        const Strings serving = {"-e", "-t", "2", "-p", protocol[0] == "-p" ? "holm" : "oxl1"};
        std::unique_ptr<VelcatProcess> listeners[2] = {startListener(serving),
                                                       startListener(serving)};
        const unsigned short ports[2] = {listeners[0]->listeningPort(),
                                         listeners[1]->listeningPort()};
        Strings args = {
                "--pipe",
                "127.0.0.1:" + std::to_string(ports[0]) + ",127.0.0.1:" + std::to_string(ports[1]),
                "--failover",
                "-c",
                "3",
                "-t",
                "8"};
        args.insert(args.end(), protocol.begin(), protocol.end());
        VelcatProcess client(args);
        const auto connections = [&client](std::size_t count) {
            return veltest::WaitFor([&] {
                std::size_t found = 0;
                const std::string errors = client.errors();
                for (std::size_t at = 0;
                     (at = errors.find("New connection = ", at)) != std::string::npos; ++at) {
                    ++found;
                }
                return found >= count;
            });
        };
        ASSERT_TRUE(client.write("one\n"));
        EXPECT_EQ(client.readOutput(4), "one\n") << client.errors();
        const int used =
                listeners[0]->errors().find("New connected socket") != std::string::npos ? 0 : 1;
        stopListener(*listeners[used]);
        ASSERT_TRUE(connections(2)) << client.errors();
        ASSERT_TRUE(client.write("two\n"));
        EXPECT_EQ(client.readOutput(8), "one\ntwo\n") << client.errors();
        Strings again = serving;
        again.insert(again.begin(), {"-l", "-s", "127.0.0.1"});
        again.push_back(std::to_string(ports[used]));
        listeners[used].reset(new VelcatProcess(again));
        ASSERT_EQ(listeners[used]->listeningPort(), ports[used]) << listeners[used]->errors();
        stopListener(*listeners[1 - used]);
        ASSERT_TRUE(connections(3)) << client.errors();
        ASSERT_TRUE(client.write("three\n"));
        EXPECT_EQ(client.readOutput(14), "one\ntwo\nthree\n") << client.errors();
        EXPECT_EQ(client.wait(), 0) << client.errors();
        stopListener(*listeners[used]);
        EXPECT_NE(listeners[used]->errors().find("1 connections, 1 messages"), std::string::npos)
                << listeners[used]->errors();
    }
}

// Out of descriptors, accept fails with EMFILE on the same pending connection again and again:
// the listener pauses instead of spinning, and serves the waiting client once one is freed.
TEST(VelcatTest, RunningOutOfDescriptorsPausesAcceptInsteadOfSpinning) {
#ifdef VEL_TEST_ASAN  // UBSan cannot run out of descriptors (TestSupport.h)
    GTEST_SKIP() << "needs a build without sanitizers: UBSan cannot run out of descriptors";
#endif
    VelcatProcess listener({"-l", "-s", "127.0.0.1", "-e", "0"}, 9);
    const unsigned short port = listener.listeningPort();
    ASSERT_NE(port, 0) << listener.errors();
    std::vector<veltest::RawFd> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(veltest::RawConnect(port));
        ASSERT_TRUE(veltest::WriteAll(clients.back().get(), oxl1Frame("ping")));
    }
    // The first clients get the free descriptors; the others wait in the listen queue.
    std::size_t served = 0;
    while (served < clients.size() &&
           veltest::ReadExactly(clients[served].get(), 16, milliseconds(1000)) ==
                   oxl1Frame("ping")) {
        ++served;
    }
    ASSERT_GE(served, 1u);
    ASSERT_LT(served, clients.size());
    const double before = listener.cpuSeconds();
    std::this_thread::sleep_for(milliseconds(1500));  // a spinning listener burns this much CPU
    EXPECT_LT(listener.cpuSeconds() - before, 0.5);
    clients[0].reset();
    EXPECT_EQ(veltest::ReadExactly(clients[served].get(), 16, seconds(5)), oxl1Frame("ping"));
    EXPECT_TRUE(listener.running());
    clients.clear();
    stopListener(listener);
}

// Usage errors exit 2 before anything runs; a failure at run time exits 1.
TEST(VelcatTest, CommandLineErrorsExitTwoAndRuntimeFailuresOne) {
    const Strings bad[] = {{},
                           {"host"},
                           {"host", "0"},
                           {"host", "65536"},
                           {"-p", "oxl9", "host", "1"},
                           {"-z", "host", "1"},
                           {"-S", "-p", "oxl2", "host", "1"},
                           {"-S", "-p", "holm", "-l", "1"},
                           {"-z", "-p", "holm", "-l", "1"},
                           {"-e", "host", "1"},
                           {"-s", "127.0.0.1", "host", "1"},
                           {"-l", "-c", "1", "1"},
                           {"-l", "host", "1"},
                           {"-c", "0", "host", "1"},
                           {"-m", "0", "host", "1"},
                           {"-t", "65536", "host", "1"},
                           {"--pipe", "host", "-c", "1"},
                           {"--pipe", "host:1", "host", "1"},
                           {"--pipe", "host:1", "-p", "tn3270"},
                           {"--pipe", "host:1", "-p", "oxl5"},
                           {"--pipe", "host:1", "-p", "holm", "-S"},
                           {"--failover", "host", "1"},
                           {"--backend", "kqueue", "-l", "0"},
                           {"--unknown", "host", "1"}};
    for (const Strings& args : bad) {
        SCOPED_TRACE(::testing::PrintToString(args));
        VelcatProcess velcat(args);
        EXPECT_EQ(velcat.wait(), 2);
        EXPECT_NE(velcat.errors().find("(velcat --help for usage)"), std::string::npos);
    }
    VelcatProcess help({"--help"});
    EXPECT_EQ(help.wait(), 0);
    EXPECT_NE(help.output().find("exit status: 0 ok, 1 runtime failure, 2 usage error"),
              std::string::npos);
    VelcatProcess refused({"127.0.0.1", std::to_string(veltest::ClosedPort(SOCK_STREAM))});
    EXPECT_EQ(refused.wait(), 1);
    EXPECT_NE(refused.errors().find("cannot connect to 127.0.0.1"), std::string::npos);
    VelcatProcess unbound({"-l", "-s", "255.255.255.255", "0"});  // no such interface
    EXPECT_EQ(unbound.wait(), 1);
    EXPECT_NE(unbound.errors().find("cannot listen on port 0"), std::string::npos);
}

}  // namespace
