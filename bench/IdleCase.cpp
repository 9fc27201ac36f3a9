// One active request/response connection beside many idle ones. Each server runs in a helper
// process of its own (`vel-bench --serve KIND`), and its idle connections are held by another
// (`vel-bench --hold PORT COUNT`), so that every process stays within the descriptor limit and
// the server's resident memory can be read alone. This process drives the active connection with
// the plain client, the same for every server, so that only the servers differ.
#include <unistd.h>

#include <cstdio>
#include <iostream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "BenchRunner.h"
#include "BenchSupport.h"
#include "Cases.h"
#include "Clients.h"
#include "EchoServers.h"
#include "Processes.h"
#include "VEL_EpollIOReactor.h"
#include "VEL_SelectIOReactor.h"

namespace velbench {

namespace {

constexpr std::uint32_t kBodySize = 64;
constexpr unsigned long kEpollSize = 20000;  // room for 10,000 idle connections and more
constexpr double kHelperSeconds = 120.0;  // longest wait for a helper (accepting 10,000 included)

std::unique_ptr<EchoServer> startServer(const std::string& kind) {
    if (kind == "select") {
        return StartSelectEchoServer(VEL_SelectIOReactor::kSetSize, VelOptions(false));
    }
    if (kind == "epoll") {
        return StartVelEchoServer(
                std::make_unique<VEL_EpollIOReactor>(kEpollSize, basis::TimeValue(2, 0)),
                VelOptions(false));
    }
    if (kind == "framed") {
        return StartFramedEchoServer(
                std::make_unique<VEL_EpollIOReactor>(kEpollSize, basis::TimeValue(2, 0)),
                VELFramedLimits_t());
    }
    if (kind == "libevent") {
        return StartLibeventEchoServer();
    }
    throw BenchError("unknown server kind " + kind);
}

// One server process, its idle connections and the active client.
struct Setup {
    std::string kind;
    unsigned long idle;
    std::string name;
    double target;  // for the references; 0: information only

    std::unique_ptr<ChildProcess> server;
    std::unique_ptr<ChildProcess> holder;
    std::unique_ptr<PlainClient> client;
    unsigned long opened = 0;    // idle connections opened (fewer in a quick run)
    unsigned long emptyKiB = 0;  // server's resident memory before any connection
    unsigned long idleKiB = 0;   // with the idle connections
};

unsigned long serverConnections(ChildProcess& server) {
    server.writeLine("count");
    return std::stoul(server.readLine(kHelperSeconds));
}

void awaitServerConnections(ChildProcess& server, unsigned long count) {
    const double limit = Now() + kHelperSeconds;
    while (serverConnections(server) < count) {
        if (Now() > limit) {
            throw BenchError("the server did not accept every idle connection");
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(20));  // another process: poll it
    }
}

class IdleCase : public Case {
public:
    // The first setup is the vel variant; the others are its references.
    IdleCase(std::string id, std::string title, std::vector<Setup> setups)
        : _id(std::move(id)), _title(std::move(title)), _setups(std::move(setups)) {}

    std::string id() const override { return _id; }
    std::string title() const override { return _title; }
    std::string velName() const override { return _setups[0].name; }
    std::string unit() const override { return "round trips/s"; }
    std::vector<Reference> references() const override {
        std::vector<Reference> refs;
        for (std::size_t i = 1; i < _setups.size(); ++i) {
            refs.push_back({_setups[i].name, _setups[i].target});
        }
        return refs;
    }
    unsigned long workCount(bool quick) const override { return quick ? 200 : 3000; }

    void setUp(bool quick) override {
        for (Setup& setup : _setups) {
            const unsigned long idle = quick ? std::min(setup.idle, 100UL) : setup.idle;
            setup.opened = idle;
            if (setup.kind == "velcat") {
                // velcat's listener as a user starts it; it has no idle connections.
                setup.server = std::make_unique<ChildProcess>(
                        VELCAT_PATH, std::vector<std::string>{"-l", "-s", "127.0.0.1", "-e", "0"});
                setup.client =
                        std::make_unique<PlainClient>(readVelcatPort(*setup.server), kBodySize);
                continue;
            }
            setup.server =
                    std::make_unique<ChildProcess>(std::vector<std::string>{"--serve", setup.kind});
            const unsigned short port = readPort(*setup.server);
            setup.emptyKiB = ResidentKiB(setup.server->pid());
            if (idle > 0) {
                setup.holder = std::make_unique<ChildProcess>(std::vector<std::string>{
                        "--hold", std::to_string(port), std::to_string(idle)});
                if (setup.holder->readLine(kHelperSeconds) != "ready") {
                    throw BenchError("the idle connections could not be opened");
                }
                awaitServerConnections(*setup.server, idle);
            }
            setup.idleKiB = ResidentKiB(setup.server->pid());
            setup.client = std::make_unique<PlainClient>(port, kBodySize);
            awaitServerConnections(*setup.server, idle + 1);
        }
    }

    double run(std::size_t index, unsigned long count) override {
        PlainClient& client = *_setups[index].client;
        const double start = Now();
        for (unsigned long i = 0; i < count; ++i) {
            client.send();
            client.receive();
        }
        return Now() - start;
    }

    std::vector<std::string> notes() const override {
        std::vector<std::string> lines;
        for (const Setup& setup : _setups) {
            if (setup.opened == 0 || setup.server == nullptr) {
                continue;
            }
            const long grown = static_cast<long>(setup.idleKiB) - static_cast<long>(setup.emptyKiB);
            char line[200];
            std::snprintf(line, sizeof(line),
                          "%s: server RSS %lu KiB without connections, %lu KiB with %lu idle: "
                          "%.2f KiB per idle connection",
                          setup.name.c_str(), setup.emptyKiB, setup.idleKiB, setup.opened,
                          static_cast<double>(grown) / static_cast<double>(setup.opened));
            lines.emplace_back(line);
        }
        return lines;
    }

    void tearDown() override {
        for (Setup& setup : _setups) {
            setup.client.reset();
            setup.holder.reset();  // closes the idle connections
            setup.server.reset();
        }
    }

private:
    static unsigned short readPort(ChildProcess& server) {
        const std::string line = server.readLine(kHelperSeconds);
        if (line.rfind("port ", 0) != 0) {
            throw BenchError("the server process did not start: " + line);
        }
        return static_cast<unsigned short>(std::stoul(line.substr(5)));
    }

    // velcat says "velcat: listening on ADDRESS port N (...)" on its standard error.
    static unsigned short readVelcatPort(ChildProcess& velcat) {
        for (;;) {
            const std::string line = velcat.readLine(kHelperSeconds);
            const std::size_t at = line.find(" port ");
            if (line.find("listening on") != std::string::npos && at != std::string::npos) {
                return static_cast<unsigned short>(std::stoul(line.substr(at + 6)));
            }
        }
    }

    const std::string _id;
    const std::string _title;
    std::vector<Setup> _setups;
};

Setup MakeSetup(const std::string& kind, unsigned long idle, double target) {
    return {kind, idle, kind + ", " + std::to_string(idle) + " idle", target, {}, {}, {}, 0, 0, 0};
}

}  // namespace

// 2000 idle connections: the most the select back end can hold, so epoll is compared with it
// there. vel / select must reach 3.
std::unique_ptr<Case> MakeIdleCase2000() {
    std::vector<Setup> setups;
    setups.push_back(MakeSetup("epoll", 2000, 0.0));
    setups.push_back(MakeSetup("select", 2000, 3.0));
    setups.push_back(MakeSetup("epoll", 0, 0.0));
    setups.push_back(MakeSetup("libevent", 2000, 1.0));
    return std::make_unique<IdleCase>("idle2000", "1 active + 2000 idle conn", std::move(setups));
}

// 10,000 idle connections: epoll against its own figure without idle connections (within 10 %)
// and against libevent; for information, the framed-connection server of the same back end.
std::unique_ptr<Case> MakeIdleCase10000() {
    std::vector<Setup> setups;
    setups.push_back(MakeSetup("epoll", 10000, 0.0));
    setups.push_back(MakeSetup("epoll", 0, 0.9));
    setups.push_back(MakeSetup("libevent", 10000, 1.0));
    setups.push_back(MakeSetup("framed", 10000, 0.0));  // memory of idle framed connections
    return std::make_unique<IdleCase>("idle10000", "1 active + 10000 idle conn", std::move(setups));
}

// velcat's listener (epoll, OXLv1 echo) against the same server of this program and libevent,
// each in a process of its own: information, no target.
std::unique_ptr<Case> MakeVelcatCase() {
    std::vector<Setup> setups;
    setups.push_back({"velcat", 0, "velcat -l -e", 0.0, {}, {}, {}, 0, 0, 0});
    setups.push_back(MakeSetup("epoll", 0, 0.0));
    setups.push_back(MakeSetup("libevent", 0, 0.0));
    return std::make_unique<IdleCase>("velcat", "velcat listener, 1 conn, 64 B", std::move(setups));
}

int ServeMain(const std::string& kind) {
    try {
        (void)RaiseDescriptorLimit();
        const std::unique_ptr<EchoServer> server = startServer(kind);
        std::printf("port %u\n", server->port());
        std::fflush(stdout);
        std::string command;
        while (std::getline(std::cin, command)) {
            if (command == "count") {
                std::printf("%lu\n", server->connections());
                std::fflush(stdout);
            }
        }
        return 0;  // the parent closed the input: stop
    } catch (const std::exception& e) {
        std::printf("error %s\n", e.what());
        return 1;
    }
}

int HoldMain(unsigned short port, unsigned long count) {
    try {
        (void)RaiseDescriptorLimit();
        std::vector<Fd> idle;
        idle.reserve(count);
        for (unsigned long i = 0; i < count; ++i) {
            idle.push_back(Connect(port, false));
        }
        std::printf("ready\n");
        std::fflush(stdout);
        std::string ignored;
        while (std::getline(std::cin, ignored)) {
        }
        return 0;
    } catch (const std::exception& e) {
        std::printf("error %s\n", e.what());
        return 1;
    }
}

}  // namespace velbench
