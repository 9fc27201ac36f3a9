// vel-demo: the whole library at work on loopback in a few seconds, told as it happens.
//
// Reactor servers answer OXLv1 and HOLM clients; a HOLM client opens a secure, compressed
// session; a failover pipe moves to a second server when its server stops and comes back once
// that server returns; a timer fires three times; a thread pool counts primes. The library's
// error traces (a stopped server refuses connections) are printed as they come. The summary
// says which steps worked, and the exit status is 0 only if all did.
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <boost/make_shared.hpp>

#include "../EchoServer.h"
#include "vel.h"

namespace {

using Clock = std::chrono::steady_clock;
const Clock::time_point kStart = Clock::now();
std::mutex printLock;  // a leaf: nothing of the library is called under it

double elapsed() {
    return std::chrono::duration<double>(Clock::now() - kStart).count();
}

// One line, stamped with the time since the start; any thread.
__attribute__((format(printf, 1, 2))) void say(const char* format, ...) {
    char text[512];
    va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof(text), format, arguments);
    va_end(arguments);
    std::lock_guard<std::mutex> hold(printLock);
    std::printf("[%5.2f s] %s\n", elapsed(), text);
    std::fflush(stdout);
}

// The library reports failures through the sink the application installs.
class TraceToScreen : public VEL_TraceHandler {
public:
    TraceToScreen() : VEL_TraceHandler(kVELTrace_Error, 0xFFFFFFFF, 0xFFFFFFFF) {}
    void output(const char* file, unsigned long /*line*/, unsigned short /*level*/,
                const char* text) override {
        say("    library trace (%s): %s", file, text);
    }
};

struct Step {
    std::string name;
    bool ok;
};
std::vector<Step> steps;  // main thread

bool record(const std::string& name, bool ok) {
    steps.push_back({name, ok});
    say("%s %s", ok ? "ok:  " : "FAIL:", name.c_str());
    return ok;
}

// The wire formats of the servers: a codec per connection, bodies of at most 1 MiB.
std::unique_ptr<VEL_FrameCodec> oxl1() {
    return std::unique_ptr<VEL_FrameCodec>(new VEL_OXLv1Codec(1 << 20));
}

std::unique_ptr<VEL_FrameCodec> holm() {
    return std::unique_ptr<VEL_FrameCodec>(new VEL_HOLMCodec(1 << 20));
}

// Sends `text` and checks that the same comes back.
bool echoed(VEL_Transport& transport, const std::string& text) {
    VEL_Message request;
    if (request.setData(text.data(), text.size()) != kVELErr_Ok ||
        transport.sendMessage(&request) != kVELErr_Ok) {
        return false;
    }
    VEL_Message reply;
    VELErr_t code = transport.recvMessage(&reply);
    if (code == kVELErr_Timeout) {
        code = transport.recvMessage(&reply);  // a pipe that has just reconnected
    }
    return code == kVELErr_Ok && std::string(reply.data(), reply.size()) == text;
}

std::unique_ptr<VEL_Socket> connect(unsigned short port) {
    VEL_SockOptions options;
    options.setNoDelay(true);
    VEL_TCPConnector connector(port, "127.0.0.1", options);
    VEL_Socket* socket = nullptr;
    return std::unique_ptr<VEL_Socket>(connector.connect(socket) == kVELErr_Ok ? socket : nullptr);
}

// Timers: counts its calls and notes when the first came.
class Ticker : public VEL_TimerSubscriberInterface {
public:
    void handleEvent(unsigned long /*timerId*/) override {
        std::lock_guard<std::mutex> hold(_lock);
        if (++_ticks == 1) {
            _first = elapsed();
        }
        say("timer: tick %d", _ticks);
        _changed.notify_all();
    }
    // Waits until `count` ticks came, at most `limit`; the time of the first, or -1.
    double waitFor(int count, std::chrono::seconds limit) {
        std::unique_lock<std::mutex> hold(_lock);
        return _changed.wait_for(hold, limit, [&] { return _ticks >= count; }) ? _first : -1;
    }

private:
    std::mutex _lock;
    std::condition_variable _changed;
    int _ticks = 0;
    double _first = 0;
};

// Thread pool: counts the primes of one range of numbers.
class PrimeCount : public VEL_Executable {
public:
    PrimeCount(unsigned long first, unsigned long end, std::mutex& lock,
               std::condition_variable& done, int& finished)
        : _first(first), _end(end), _lock(lock), _done(done), _finished(finished) {}

    void execute() override {
        unsigned long count = 0;
        for (unsigned long n = _first; n < _end; ++n) {
            bool prime = n >= 2;
            for (unsigned long d = 2; prime && d * d <= n; ++d) {
                prime = n % d != 0;
            }
            count += prime ? 1 : 0;
        }
        std::lock_guard<std::mutex> hold(_lock);
        _count = count;
        ++_finished;
        _done.notify_all();
    }
    unsigned long count() const { return _count; }  // once finished

private:
    const unsigned long _first;
    const unsigned long _end;
    std::mutex& _lock;
    std::condition_variable& _done;
    int& _finished;
    unsigned long _count = 0;
};

// The pipe tells what happens to its connections.
class PipeNarrator : public VEL_PipeNotifier {
public:
    void connectionEstablished(const std::string& /*host*/, unsigned short port) override {
        say("pipe: connected to port %u", port);
    }
    void connectionDiscarded(const std::string& /*host*/, unsigned short port) override {
        say("pipe: connection to port %u dropped", port);
    }
};

void secureSession(unsigned short port) {
    std::unique_ptr<VEL_Socket> socket = connect(port);
    VEL_HOLM client(socket.get(), 1 << 20);
    bool ok = socket && client.openSecureSession() == kVELErr_Ok;
    client.setCompression(true);
    for (int i = 1; ok && i <= 3; ++i) {
        const std::string text(4000, static_cast<char>('a' + i));
        ok = echoed(client, text);
        say("HOLM: message %d of 4000 bytes, compressed and encrypted, %s", i,
            ok ? "came back decrypted and whole" : "FAILED");
    }
    record("HOLM secure session with compression",
           ok && client.isSecureSession() && client.getCompression());
}

// The pipe's primary is the server that answers first; it stops, the pipe fails over, it
// returns on its port, and once the retry time (1 s) has passed the pipe comes back to it.
void failover(EchoServer (&servers)[2]) {
    PipeNarrator narrator;
    VEL_TCPPipe pipe(true);
    for (EchoServer& server : servers) {
        pipe.addConnection(server.port(), "127.0.0.1");
    }
    pipe.setRetryTime(1);
    pipe.setConnectTimeout(1);
    pipe.setPipeNotifier(&narrator);
    VEL_OXLv1 transport(&pipe, 1 << 20);
    bool ok = pipe.open() == kVELErr_Ok && echoed(transport, "first");
    EchoServer& primary = servers[servers[0].messages() == 1 ? 0 : 1];
    EchoServer& backup = servers[&primary == &servers[0] ? 1 : 0];
    const unsigned short primaryPort = primary.port();
    say("pipe: \"first\" answered by port %u; stopping that server", primaryPort);
    primary.stop();
    ok = ok && echoed(transport, "second") && backup.messages() == 1;
    record("pipe fails over to port " + std::to_string(backup.port()), ok);
    ok = ok && primary.start(primaryPort) == kVELErr_Ok;
    say("pipe: server on port %u is back", primaryPort);
    const unsigned long before = primary.messages();
    const Clock::time_point limit = Clock::now() + std::chrono::seconds(5);
    while (ok && primary.messages() == before && Clock::now() < limit) {
        std::this_thread::sleep_for(std::chrono::milliseconds(250));
        ok = echoed(transport, "again");
    }
    record("pipe returns to port " + std::to_string(primaryPort),
           ok && primary.messages() > before);
    pipe.close();
}

}  // namespace

int main() {
    alarm(30);  // a step that hangs ends the demo (with a failure status) instead of waiting
    std::printf(
            "vel demo: servers, framing, secure sessions, pipes, timers and a thread pool\n"
            "(the library's error traces are shown indented: a peer that leaves or a stopped\n"
            "server shows up there as a half-closed socket or a refused connection)\n\n");
    VEL_ComEnabler network;
    TraceToScreen traces;
    VEL_Tools::SetTraceHandler(&traces);

    EchoServer plain(oxl1), secure(holm);
    EchoServer pipeServers[2] = {EchoServer(oxl1), EchoServer(oxl1)};
    bool ok = plain.start() == kVELErr_Ok && secure.start() == kVELErr_Ok &&
              pipeServers[0].start() == kVELErr_Ok && pipeServers[1].start() == kVELErr_Ok;
    say("reactor servers: OXLv1 on port %u, HOLM on port %u, OXLv1 on ports %u and %u",
        plain.port(), secure.port(), pipeServers[0].port(), pipeServers[1].port());
    record("four reactor servers on 127.0.0.1", ok);

    auto ticker = boost::make_shared<Ticker>();
    const double armed = elapsed();
    VEL_TimerManager::GetInstance()->subscribe(ticker, 1, 3, false);
    say("timer: armed to fire after 1 s, three times");

    std::mutex poolLock;
    std::condition_variable poolDone;
    int finished = 0;
    std::vector<std::unique_ptr<PrimeCount>> items;
    VEL_ThreadPool pool(4);
    ok = pool.open() == basis::kErr_Ok;
    for (unsigned long first = 0; ok && first < 1000000; first += 25000) {
        items.emplace_back(new PrimeCount(first, first + 25000, poolLock, poolDone, finished));
        ok = pool.exec(items.back().get()) == kVELErr_Ok;
    }
    say("thread pool: 4 threads counting the primes below 1000000 in 40 items");

    std::unique_ptr<VEL_Socket> socket = connect(plain.port());
    std::unique_ptr<VEL_OXLv1> transport(socket ? new VEL_OXLv1(socket.get(), 1 << 20) : nullptr);
    record("OXLv1 message echoed by the reactor server",
           transport && echoed(*transport, "hello, vel"));
    secureSession(secure.port());
    failover(pipeServers);

    {
        std::unique_lock<std::mutex> hold(poolLock);
        ok = ok && poolDone.wait_for(hold, std::chrono::seconds(20),
                                     [&] { return finished == static_cast<int>(items.size()); });
    }
    unsigned long primes = 0;
    for (const auto& item : items) {
        primes += item->count();
    }
    say("thread pool: %lu primes", primes);
    record("thread pool work (78498 primes below 1000000)", ok && primes == 78498);
    pool.stop();

    const double first = ticker->waitFor(3, std::chrono::seconds(10));
    record("timer fired 3 times, first after 1 s",
           first >= armed + 1.0 - 0.01 && first <= armed + 3.0);

    for (EchoServer* server : {&plain, &secure, &pipeServers[0], &pipeServers[1]}) {
        server->stop();
    }
    VEL_TimerManager::CloseSingleton();  // after the servers: their connections keep deadlines
    VEL_Tools::SetTraceHandler(nullptr);
    int failed = 0;
    std::printf("\nsummary:\n");
    for (const Step& step : steps) {
        std::printf("  [%s] %s\n", step.ok ? " ok " : "FAIL", step.name.c_str());
        failed += step.ok ? 0 : 1;
    }
    std::printf("%s in %.1f s\n", failed == 0 ? "everything worked" : "SOME STEPS FAILED",
                elapsed());
    return failed == 0 ? 0 : 1;
}
