// The harness of vel-bench: a case runs one piece of work in several variants (vel first, then
// the references it is compared with); the runner alternates the variants within each repetition,
// so that every variant sees the same machine load, and reports the median rate of each variant
// and the median of the per-repetition ratios vel / reference.
#ifndef BENCH_BENCHRUNNER_H
#define BENCH_BENCHRUNNER_H

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

namespace velbench {

// Thrown by a case whose work failed (a status other than Ok, a short read, a wrong count).
class BenchError : public std::runtime_error {
public:
    explicit BenchError(const std::string& what) : std::runtime_error(what) {}
};

// A reference that vel is compared with, and the least ratio vel / reference aimed at
// (0: shown for information, no target).
struct Reference {
    std::string name;
    double target;
};

class Case {
public:
    virtual ~Case() = default;

    // A short name without spaces, for --case and the JSON output.
    virtual std::string id() const = 0;
    // What one unit of work is, and the unit of the rate ("round trips/s").
    virtual std::string title() const = 0;
    virtual std::string unit() const = 0;
    // The variant names: vel first, then the references in order.
    virtual std::string velName() const { return "vel"; }
    virtual std::vector<Reference> references() const = 0;
    // Units of work per timed run: a quick smoke run, or a full one.
    virtual unsigned long workCount(bool quick) const = 0;
    // Units of work of the one warm-up run of each variant: a tenth of the work by default.
    virtual unsigned long warmUpCount(bool quick) const {
        const unsigned long count = workCount(quick) / 10;
        return count > 0 ? count : 1;
    }
    // Rate = work / seconds * unitScale() (e.g. 1 for operations, MiB per operation otherwise).
    virtual double unitScale() const { return 1.0; }

    // Builds what every run needs (servers, connections, threads). Throws BenchError.
    virtual void setUp(bool quick) = 0;
    // Runs `count` units of work with variant `index` (0 = vel) and returns the seconds taken.
    // Throws BenchError.
    virtual double run(std::size_t index, unsigned long count) = 0;
    // Stops and releases what setUp built; called even when a run failed.
    virtual void tearDown() = 0;
    // Measurements besides the rates (e.g. memory), printed under the case; read after the runs
    // and before tearDown.
    virtual std::vector<std::string> notes() const { return {}; }
};

struct Options {
    bool quick = false;
    bool json = false;
    int repetitions = 7;
    std::vector<std::string> only;  // case ids to run (empty: all)
    int variant = -1;               // only this variant (0 = vel), for profiling; -1: all
};

// Runs the cases and prints the table (or JSON) to standard output. Returns the process exit
// status: 0 when every case ran, 1 when one failed.
int RunAll(const std::vector<std::unique_ptr<Case>>& cases, const Options& options);

// Seconds of the monotonic clock, for timing runs.
double Now();

}  // namespace velbench

#endif  // BENCH_BENCHRUNNER_H
