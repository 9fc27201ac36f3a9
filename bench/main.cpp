// vel-bench: vel side by side with the plain floor and with what users would pick instead.
//
//   vel-bench              every case, 7 repetitions, table on standard output
//   vel-bench --quick      every case briefly (a smoke run: the figures mean nothing)
//   vel-bench --json       the same results as JSON
//   vel-bench --reps N     N repetitions per case
//   vel-bench --case ID    only case ID (repeatable); --list prints the ids
//   vel-bench --variant N  only variant N of each case (0: vel, 1: first reference, ...), for
//                          profiling one side under perf or callgrind
// The idle-connection cases start copies of this program in two helper modes, --serve KIND and
// --hold PORT COUNT (see Cases.h).
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BenchRunner.h"
#include "Cases.h"

namespace {

int usage(const char* program) {
    std::fprintf(stderr,
                 "usage: %s [--quick] [--json] [--reps N] [--case ID]... [--variant N] [--list]\n",
                 program);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    // The plain references write to sockets whose peer may be gone when a case fails.
    (void)std::signal(SIGPIPE, SIG_IGN);
    if (argc == 3 && std::strcmp(argv[1], "--serve") == 0) {
        return velbench::ServeMain(argv[2]);
    }
    if (argc == 4 && std::strcmp(argv[1], "--hold") == 0) {
        return velbench::HoldMain(static_cast<unsigned short>(std::atoi(argv[2])),
                                  std::strtoul(argv[3], nullptr, 10));
    }

    std::vector<std::unique_ptr<velbench::Case>> cases;
    cases.push_back(velbench::MakePingPongCase(false));
    cases.push_back(velbench::MakePingPongCase(true));
    cases.push_back(velbench::MakeManyConnectionsCase());
    cases.push_back(velbench::MakePipelineCase());
    cases.push_back(velbench::MakeStalledPeersCase());
    cases.push_back(velbench::MakeLargeEchoCase());
    cases.push_back(velbench::MakeStreamCase());
    cases.push_back(velbench::MakeTLSStreamCase());
    cases.push_back(velbench::MakeTLSPingPongCase());
    cases.push_back(velbench::MakeTLSHandshakeCase());
    cases.push_back(velbench::MakeHolmCase());
    cases.push_back(velbench::MakeThreadPoolCase());
    cases.push_back(velbench::MakeTimerCase());
    cases.push_back(velbench::MakeIdleCase2000());
    cases.push_back(velbench::MakeIdleCase10000());
    cases.push_back(velbench::MakeVelcatCase());

    velbench::Options options;
    bool repsGiven = false;
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            options.quick = true;
        } else if (arg == "--json") {
            options.json = true;
        } else if (arg == "--reps" && i + 1 < argc) {
            options.repetitions = std::atoi(argv[++i]);
            repsGiven = true;
            if (options.repetitions < 1) {
                return usage(argv[0]);
            }
        } else if (arg == "--variant" && i + 1 < argc) {
            options.variant = std::atoi(argv[++i]);
        } else if (arg == "--case" && i + 1 < argc) {
            options.only.emplace_back(argv[++i]);
        } else if (arg == "--list") {
            for (const auto& benchCase : cases) {
                std::printf("%-12s %s\n", benchCase->id().c_str(), benchCase->title().c_str());
            }
            return 0;
        } else {
            return usage(argv[0]);
        }
    }
    if (options.quick && !repsGiven) {
        options.repetitions = 2;
    }
    return velbench::RunAll(cases, options);
}
