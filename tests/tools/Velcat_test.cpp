#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "MemorySocket.h"
#include "ReactorSupport.h"
#include "SocketSupport.h"
#include "TLSSupport.h"
#include "TestSupport.h"
#include "VEL_TCPAcceptor.h"
#include "VEL_Tools.h"
#include "VelcatProcess.h"

namespace {

using veltest::Be16;
using veltest::Be32;
using veltest::VelcatProcess;
using Strings = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::seconds;

// Words of `line`, split at blanks: a command line.
Strings words(const std::string& line) {
    std::istringstream in(line);
    return Strings(std::istream_iterator<std::string>(in), std::istream_iterator<std::string>());
}

// An OXLv1 ('1', flag word 32) or uncompressed OXLv2 ('2', flag word 4) frame.
std::string oxlFrame(char version, const std::string& body) {
    const auto total = static_cast<std::uint32_t>(body.size() + 12);
    return Be32(total) + Be32(~total) + Be16(version == '1' ? 32 : 4) + version +
           std::string(1, '\0') + body;
}

std::string oxl5Frame(const std::string& body) {
    return Be16(static_cast<std::uint16_t>(body.size())) + body;
}

// A plain HOLM frame: magic, version, lengths, the check word and nothing else set.
std::string holmFrame(const std::string& body) {
    const auto size = static_cast<std::uint32_t>(body.size());
    return veltest::WithHOLMCheck(Be16(0x484F) + Be16(0x0100) + Be32(28 + size) + Be32(size) +
                                  std::string(16, '\0')) +
           body;
}

// A compressed OXLv2 frame whose body zlib compressed at level 2, as the compressing protocols do.
std::string oxl2CompressedFrame(const std::string& body) {
    return veltest::CompressedOXLv2("", static_cast<std::uint32_t>(body.size()),
                                    veltest::Deflated(body, 2));
}

// A body that compresses well.
const std::string kLine(2000, 'a');

// The text of a status without the " {n}" of the last system error.
std::string statusText(VELErr_t code) {
    const std::string text = VEL_Tools::GetErrStr(code);
    return text.substr(0, text.rfind(" {"));
}

// True once the peer has closed `fd` (end of stream or reset) within 10 s; what arrives before
// is read away.
bool closedByPeer(int fd) {
    return veltest::WaitFor([fd] { return !veltest::Drain(fd); });
}

// How many times `part` occurs in `text`.
std::size_t occurrences(const std::string& text, const std::string& part) {
    std::size_t found = 0;
    for (std::size_t at = 0; (at = text.find(part, at)) != std::string::npos; ++at) {
        ++found;
    }
    return found;
}

// The next connection to `acceptor`, waited for at most 10 s (empty when none came).
std::unique_ptr<VEL_Socket> acceptOne(VEL_TCPAcceptor& acceptor) {
    const basis::TimeValue limit(10, 0);
    VEL_Socket* accepted = nullptr;
    EXPECT_EQ(acceptor.waitForRead(&limit), kVELErr_Ok);
    EXPECT_EQ(acceptor.accept(accepted), kVELErr_Ok);
    return std::unique_ptr<VEL_Socket>(accepted);
}

// A listener on 127.0.0.1 with `options`, on the given port or one chosen by the system.
std::unique_ptr<VelcatProcess> startListener(const std::string& options, unsigned short port = 0) {
    std::unique_ptr<VelcatProcess> listener(
            new VelcatProcess(words("-l -s 127.0.0.1 " + options + " " + std::to_string(port))));
    EXPECT_NE(listener->listeningPort(), 0) << listener->errors();
    return listener;
}

// Stops a listener as a user would; it exits 0 and reports what it served.
void stopListener(VelcatProcess& listener) {
    listener.terminate();
    EXPECT_EQ(listener.wait(), 0) << listener.errors();
    EXPECT_NE(listener.errors().find("velcat: stopped: "), std::string::npos);
}

// Every protocol through `velcat -l -e` on both back ends, in clear and over TLS (the client's,
// and a pipe's in both modes): bodies come back unchanged, in order, one line each. The
// compressing rows include an empty line and a line of 59580 bytes, whose compression room
// (floor(size x 1.1) cut to 16 bits) is 2 bytes: both go plain, the 2000-byte line compressed.
TEST(VelcatTest, EveryProtocolEchoesThroughTheListener) {
    const veltest::TLSFiles& files = veltest::TLSFiles::Get();
    ASSERT_TRUE(files.made);
    const std::string tls = "--tls --cert " + files.serverCert + " --key " + files.serverKey + " ";
    const std::string trusting = "--tls --ca " + files.caCert + " ";
    const std::string compressing = "hello\n\n" + kLine + "\n" + std::string(59580, 'b') + "\n";
    const struct {
        std::string listener;
        std::string client;
        std::string input;
        std::string expected;
        bool pipe;  // the client runs over a pipe to the listener
    } cases[] = {
            {"", "-c 3", "one\n\nthree", "one\n\nthree\n", false},
            {"", "-x -c 2", "hi\n\x01\xff\n", "6869\n01ff\n", false},
            {"-p oxl2", "-p oxl2 -c 2", "plain\nbodies\n", "plain\nbodies\n", false},
            {"-p oxl2", "-p oxl2 -z -c 4", compressing, compressing, false},
            {"-p oxl5", "-p oxl5 -c 3", "a\n\nccc\n", "a\n\nccc\n", false},
            {"-p holm", "-p holm -c 2", "plain\nbodies\n", "plain\nbodies\n", false},
            {"-p holm", "-p holm -z -c 4", compressing, compressing, false},
            {"-p holm", "-p holm -S -c 2", "secret\n\n", "secret\n\n", false},
            {"-p holm", "-p holm -S -z -c 4", compressing, compressing, false},
            {"-p tn3270", "-p tn3270 -c 1", "raw record\n", "raw record\n", false},
            {tls, trusting + "-c 3", "one\n\nthree", "one\n\nthree\n", false},
            {tls + "-p oxl2", trusting + "-p oxl2 -z -c 4", compressing, compressing, false},
            {tls + "-p oxl5", trusting + "-p oxl5 -c 3", "a\n\nccc\n", "a\n\nccc\n", false},
            {tls + "-p holm", trusting + "-p holm -S -z -c 4", compressing, compressing, false},
            {tls + "-p tn3270", trusting + "-p tn3270 -c 1", "raw record\n", "raw record\n", false},
            {tls + "-p holm", trusting + "-p holm -z -c 4", compressing, compressing, true},
            {tls + "-p oxl5", trusting + "-p oxl5 --failover -c 3", "a\n\nccc\n", "a\n\nccc\n",
             true}};
    for (const auto& each : cases) {
        for (const std::string backend : {"epoll", "select"}) {
            SCOPED_TRACE(each.client + " " + backend);
            auto listener = startListener(each.listener + " -e --backend " + backend);
            EXPECT_NE(listener->errors().find(", " + backend + ")\n"), std::string::npos);
            const std::string port = std::to_string(listener->listeningPort());
            VelcatProcess client(words(each.client + (each.pipe ? " --pipe 127.0.0.1:" + port
                                                                : " 127.0.0.1 " + port)));
            EXPECT_TRUE(client.write(each.input));
            client.closeInput();
            EXPECT_EQ(client.wait(seconds(20)), 0) << client.errors();
            const std::string output = client.output();
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
    const struct {
        const char* options;
        std::string sent;   // the frame the line makes (for -S only its first 24 bytes)
        std::string reply;  // a frame whose body is "answer", or none
    } cases[] = {{"", oxlFrame('1', kLine), oxlFrame('1', "answer")},
                 {"-p oxl2", oxlFrame('2', kLine), oxl2CompressedFrame("answer")},
                 {"-p oxl2 -z", oxl2CompressedFrame(kLine), oxlFrame('2', "answer")},
                 {"-p oxl5", oxl5Frame(kLine), oxl5Frame("answer")},
                 {"-p holm", holmFrame(kLine), holmFrame("answer")},
                 {"-p tn3270", kLine, "answer"},
                 // The session key travels in the first frame, whose body is encrypted: only the
                 // header is checked, with its secure, initiator and compressed bits, level 2 and
                 // the key field.
                 {"-p holm -S -z",
                  holmFrame("").substr(0, 16) + std::string("\x41\x04\xc2\0\0\x10\0\0", 8), ""}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.options);
        VEL_TCPAcceptor acceptor(0, "127.0.0.1");
        ASSERT_EQ(acceptor.open(), kVELErr_Ok);
        VelcatProcess client(words(each.options + std::string(each.reply.empty() ? "" : " -c 1") +
                                   " 127.0.0.1 " +
                                   std::to_string(acceptor.getLocalAddr().getPort())));
        ASSERT_TRUE(client.write(kLine + "\n"));
        const std::unique_ptr<VEL_Socket> peer = acceptOne(acceptor);
        ASSERT_TRUE(peer) << client.errors();
        const std::string sent = veltest::ReadExactly(veltest::Fd(*peer), each.sent.size());
        EXPECT_TRUE(each.reply.empty() ? sent.compare(0, 4, each.sent, 0, 4) == 0 &&
                                                 sent.compare(16, 8, each.sent, 16, 8) == 0
                                       : sent == each.sent);
        if (each.reply.empty()) {
            client.closeInput();  // no answer expected: the end of input ends the client
        } else {
            ASSERT_TRUE(veltest::WriteAll(veltest::Fd(*peer), each.reply));
        }
        EXPECT_EQ(client.wait(), 0) << client.errors();
        EXPECT_EQ(client.output(), each.reply.empty() ? "" : "answer\n");
    }
}

// Peers that misbehave are closed one by one, each with a trace line, while a well-behaved
// client stays connected and is served between them; the listener never exits on their input.
TEST(VelcatTest, BadPeersAreClosedWhileAnotherClientIsServed) {
    auto listener = startListener("-e -m 1000 -t 34 --deadline 1");
    veltest::RawFd good = veltest::RawConnect(listener->listeningPort());
    const auto served = [&good] {
        EXPECT_TRUE(veltest::WriteAll(good.get(), oxlFrame('1', "ping")));
        EXPECT_EQ(veltest::ReadExactly(good.get(), 16), oxlFrame('1', "ping"));
    };
    served();
    const std::string header = oxlFrame('1', "").substr(0, 8);
    const struct {
        const char* what;
        std::string bytes;
        bool cut;  // the peer closes after its bytes; otherwise it waits to be closed
        VELErr_t traced;
    } cases[] = {
            {"bad marker", header + Be16(33) + "1" + std::string(1, '\0'), false,
             kVELErr_BadStreamHeader},
            {"bad check", Be32(16) + Be32(16) + Be16(32) + "1" + std::string(5, '\0'), false,
             kVELErr_BadStreamHeader},
            {"body above -m", oxlFrame('1', std::string(1001, 'x')), false, kVELErr_MessageTooBig},
            {"total below the header",
             Be32(11) + Be32(~11u) + Be16(32) + "1" + std::string(1, '\0'), false,
             kVELErr_MessageTooBig},
            {"cut mid-frame", oxlFrame('1', std::string(100, 'c')).substr(0, 40), true,
             kVELErr_SockHalfClosed},
            {"stops mid-frame", oxlFrame('1', std::string(100, 's')).substr(0, 40), false,
             kVELErr_Timeout}};
    for (const auto& each : cases) {
        SCOPED_TRACE(each.what);
        veltest::RawFd bad = veltest::RawConnect(listener->listeningPort());
        const auto start = std::chrono::steady_clock::now();
        ASSERT_TRUE(veltest::WriteAll(bad.get(), each.bytes));
        if (each.cut) {
            bad.reset();
        } else {
            EXPECT_TRUE(closedByPeer(bad.get()));
        }
        EXPECT_TRUE(listener->waitForError("velcat - " + statusText(each.traced)));
        if (each.traced == kVELErr_Timeout) {  // --deadline, to within a timer's second
            const auto took = std::chrono::steady_clock::now() - start;
            EXPECT_GE(took, milliseconds(750));
            EXPECT_LE(took, seconds(4));
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

// However its peers behave (one stopped in the middle of a frame, one dripping a frame, one that
// sent a large body and reads nothing back, one that has just connected), the listener stops
// within a second of SIGTERM, with its statistics line.
TEST(VelcatTest, StopsAtOnceOnSIGTERMWhateverItsPeersDo) {
    auto listener = startListener("-e --deadline 60");
    const unsigned short port = listener->listeningPort();
    const std::string frame = oxlFrame('1', std::string(100, 'd'));
    veltest::RawFd stalled = veltest::RawConnect(port);
    ASSERT_TRUE(veltest::WriteAll(stalled.get(), frame.substr(0, 20)));
    veltest::RawFd dripping = veltest::RawConnect(port);
    std::size_t dripped = 0;  // one byte every 50 ms until the listener stops
    veltest::Paced dripper(milliseconds(50), seconds(60), [&] {
        return ::send(dripping.get(), &frame[dripped], 1, MSG_NOSIGNAL) == 1 &&
               ++dripped < frame.size();
    });
    veltest::RawFd deaf = veltest::RawConnect(port);
    const std::string large = oxlFrame('1', std::string(8 << 20, 'z'));
    std::thread deafWriter([&] { (void)veltest::WriteAll(deaf.get(), large); });
    veltest::RawFd idle = veltest::RawConnect(port);
    veltest::RawFd good = veltest::RawConnect(port);
    ASSERT_TRUE(veltest::WriteAll(good.get(), oxlFrame('1', "ping")));
    EXPECT_EQ(veltest::ReadExactly(good.get(), 16), oxlFrame('1', "ping"));

    const auto start = std::chrono::steady_clock::now();
    listener->terminate();
    EXPECT_EQ(listener->wait(seconds(3)), 0) << listener->errors();
    const auto took = std::chrono::steady_clock::now() - start;
    EXPECT_LE(took, milliseconds(1500));
    EXPECT_NE(listener->errors().find("velcat: stopped: 5 connections, "), std::string::npos)
            << listener->errors();
    (void)::shutdown(deaf.get(), SHUT_RDWR);
    deafWriter.join();
}

// The select back end holds 2048 handlers, the listener's own two sockets included: beyond 2046
// clients, a connection is closed at once and the listener says so on stderr without -t, once
// per second at most, while the clients it holds are served.
TEST(VelcatTest, AFullSelectListenerSaysItRefusesConnections) {
    auto listener = startListener("-e --backend select");
    const unsigned short port = listener->listeningPort();
    std::vector<veltest::RawFd> clients;
    for (int i = 0; i < 2046 + 20; ++i) {
        clients.push_back(veltest::RawConnect(port));
    }
    ASSERT_TRUE(listener->waitForError("refused a connection from <host = 127.0.0.1"));
    for (int i = 2046; i < 2046 + 20; ++i) {
        EXPECT_TRUE(closedByPeer(clients[i].get())) << "client " << i;
    }
    for (int i : {0, 1000, 2045}) {
        ASSERT_TRUE(veltest::WriteAll(clients[i].get(), oxlFrame('1', "held")));
        EXPECT_EQ(veltest::ReadExactly(clients[i].get(), 16), oxlFrame('1', "held"));
    }
    const std::string errors = listener->errors();
    EXPECT_LT(occurrences(errors, "refused a connection"), 20u)
            << "one line per refusal: " << errors;
    EXPECT_NE(errors.find("select back end holds 2048 handlers, its own 2 sockets included"),
              std::string::npos)
            << errors;
    clients.clear();
    stopListener(*listener);
    EXPECT_NE(listener->errors().find("2046 connections, 3 messages, 0 closed on errors, 20 "
                                      "refused"),
              std::string::npos)
            << listener->errors();
}

// A pipe client moves on when the listener it uses stops, to the other one, and again to the
// first once it is back on its port and the other stops; every line is answered at once, in
// failover and in round-robin mode, where the client notices a stopped listener while it waits
// for replies and does not wait on it. Over HOLM the secure session is opened anew on each
// server. The client traces its connections (-t 8) and the listeners theirs (-t 2), so that the
// test knows which listener to stop and when the client has noticed.
TEST(VelcatTest, PipeModeMovesBetweenListenersAtOnce) {
    for (const std::string mode :
         {"--failover --backend select", "--failover -p holm -S -z", "--backend select"}) {
        SCOPED_TRACE(mode);
        const bool holm = mode.find("holm") != std::string::npos;
        const std::string serving = "-e -t 2 -p " + std::string(holm ? "holm" : "oxl1");
        std::unique_ptr<VelcatProcess> listeners[2] = {startListener(serving),
                                                       startListener(serving)};
        const unsigned short ports[2] = {listeners[0]->listeningPort(),
                                         listeners[1]->listeningPort()};
        VelcatProcess client(words("--pipe 127.0.0.1:" + std::to_string(ports[0]) + ",127.0.0.1:" +
                                   std::to_string(ports[1]) + " -c 3 -t 8 " + mode));
        const bool failover = mode.find("--failover") != std::string::npos;
        // The client has dropped the connection to `port` and, in failover mode, holds its
        // `count`th: a line written earlier could still carry the old secure session.
        const auto moved = [&client, failover](unsigned short port, std::size_t count) {
            return client.waitForError("Discard a connection = 127.0.0.1:" +
                                       std::to_string(port)) &&
                   (!failover || veltest::WaitFor([&] {
                       return occurrences(client.errors(), "New connection = ") >= count;
                   }));
        };
        ASSERT_TRUE(client.write("one\n"));
        EXPECT_EQ(client.readOutput(4), "one\n") << client.errors();
        // Round robin: the first connection, the first endpoint's, carried it.
        const int used = !failover || listeners[0]->errors().find("New connected socket") !=
                                                 std::string::npos
                                 ? 0
                                 : 1;
        stopListener(*listeners[used]);
        ASSERT_TRUE(moved(ports[used], 2)) << client.errors();
        ASSERT_TRUE(client.write("two\n"));
        EXPECT_EQ(client.readOutput(8, seconds(3)), "one\ntwo\n") << client.errors();
        listeners[used] = startListener(serving, ports[used]);
        ASSERT_EQ(listeners[used]->listeningPort(), ports[used]) << listeners[used]->errors();
        stopListener(*listeners[1 - used]);
        ASSERT_TRUE(moved(ports[1 - used], 3)) << client.errors();
        ASSERT_TRUE(client.write("three\n"));
        EXPECT_EQ(client.readOutput(14, seconds(3)), "one\ntwo\nthree\n") << client.errors();
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
    VelcatProcess listener(words("-l -s 127.0.0.1 -e 0"), 9);
    const unsigned short port = listener.listeningPort();
    ASSERT_NE(port, 0) << listener.errors();
    const std::string ping = oxlFrame('1', "ping");
    std::vector<veltest::RawFd> clients;
    for (int i = 0; i < 8; ++i) {
        clients.push_back(veltest::RawConnect(port));
        ASSERT_TRUE(veltest::WriteAll(clients.back().get(), ping));
    }
    // The first clients get the free descriptors; the others wait in the listen queue.
    std::size_t served = 0;
    while (served < clients.size() &&
           veltest::ReadExactly(clients[served].get(), 16, milliseconds(1000)) == ping) {
        ++served;
    }
    ASSERT_GE(served, 1u);
    ASSERT_LT(served, clients.size());
    const double before = listener.cpuSeconds();
    std::this_thread::sleep_for(milliseconds(1500));  // a spinning listener burns this much CPU
    EXPECT_LT(listener.cpuSeconds() - before, 0.5);
    clients[0].reset();
    EXPECT_EQ(veltest::ReadExactly(clients[served].get(), 16, seconds(5)), ping);
    EXPECT_TRUE(listener.running());
    clients.clear();
    stopListener(listener);
}

// Usage errors exit 2 before anything runs; a failure at run time exits 1.
TEST(VelcatTest, CommandLineErrorsExitTwoAndRuntimeFailuresOne) {
    // One command line each, separated by ';'.
    std::istringstream bad(
            ";host;host 0;host 65536;-p oxl9 host 1;-z host 1;-S -p oxl2 host 1;"
            "-S -p holm -l 1;-z -p holm -l 1;-e host 1;-s 127.0.0.1 host 1;-l -c 1 1;"
            "-l host 1;-c 0 host 1;-m 0 host 1;-t 65536 host 1;--pipe host -c 1;"
            "-l --deadline 0 1;--deadline 5 host 1;"
            "--pipe host:1 host 1;--pipe host:1 -p tn3270;--pipe host:1 -p oxl5;"
            "--pipe host:1 -p holm -S;--failover host 1;--backend kqueue -l 0;"
            "-w x host 1;-w 2147484 host 1;-l -w 1 1;--unknown host 1");
    for (std::string args; std::getline(bad, args, ';');) {
        SCOPED_TRACE(args);
        VelcatProcess velcat(words(args));
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
    VelcatProcess unbound(words("-l -s 255.255.255.255 0"));  // no such interface
    EXPECT_EQ(unbound.wait(), 1);
    EXPECT_NE(unbound.errors().find("cannot listen on port 0"), std::string::npos);

    // A server that sends a body above -m (OXLv5 has no limit of its own), and one that never
    // answers: after the end of input, -w bounds the wait for the replies still due.
    VEL_TCPAcceptor acceptor(0, "127.0.0.1");
    ASSERT_EQ(acceptor.open(), kVELErr_Ok);
    const std::string port = std::to_string(acceptor.getLocalAddr().getPort());
    VelcatProcess tooBig(words("-p oxl5 -m 1000 -c 1 127.0.0.1 " + port));
    std::unique_ptr<VEL_Socket> peer = acceptOne(acceptor);
    ASSERT_TRUE(peer);
    ASSERT_TRUE(veltest::WriteAll(veltest::Fd(*peer), oxl5Frame(std::string(2000, 'b'))));
    EXPECT_EQ(tooBig.wait(), 1);
    EXPECT_NE(tooBig.errors().find("receive failed: " + statusText(kVELErr_MessageTooBig)),
              std::string::npos)
            << tooBig.errors();
    VelcatProcess unanswered(words("-w 1 -c 2 127.0.0.1 " + port));
    peer = acceptOne(acceptor);
    ASSERT_TRUE(peer);
    ASSERT_TRUE(unanswered.write("one\n"));
    EXPECT_EQ(veltest::ReadExactly(veltest::Fd(*peer), 15), oxlFrame('1', "one"));
    unanswered.closeInput();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(unanswered.wait(), 1);
    EXPECT_GE(std::chrono::steady_clock::now() - start, milliseconds(900));
    EXPECT_LE(std::chrono::steady_clock::now() - start, seconds(1 + 3));
    EXPECT_NE(unanswered.errors().find(
                      "velcat: no reply for 1 s (--wait): 0 of 2 messages received\n"),
              std::string::npos)
            << unanswered.errors();
}

}  // namespace
