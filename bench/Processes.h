// Helper processes: vel-bench runs copies of itself in a helper mode (a server, or a holder of
// idle connections), so that each keeps its own descriptor limit and its own resident memory,
// which the parent reads from /proc.
#ifndef BENCH_PROCESSES_H
#define BENCH_PROCESSES_H

#include <sys/types.h>

#include <string>
#include <vector>

namespace velbench {

// A copy of this program started with `arguments`, its standard input and output connected to
// the parent by pipes. Destroying it closes its input (the helper's signal to end) and waits for
// it to exit.
class ChildProcess {
public:
    // Throws BenchError when the program cannot be started.
    explicit ChildProcess(const std::vector<std::string>& arguments);
    // Another program, `program`, whose standard error is read instead of its output and which
    // is asked to end with SIGTERM (a server that does not read its input).
    ChildProcess(const std::string& program, const std::vector<std::string>& arguments);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    pid_t pid() const { return _pid; }
    // Sends one line (a newline is added). Throws BenchError.
    void writeLine(const std::string& line);
    // Reads one line without its newline; waits at most `seconds`. Throws BenchError on the end
    // of the output or at the time limit.
    std::string readLine(double seconds);

private:
    void spawn(const std::string& program, const std::vector<std::string>& arguments, int readFrom);

    pid_t _pid = -1;
    bool _terminate = false;  // SIGTERM before the wait
    int _input = -1;          // the child's standard input
    int _output = -1;         // the child's standard output (or error)
    std::string _buffered;
};

// Raises the soft limit of open descriptors to the hard limit; returns the new soft limit.
unsigned long RaiseDescriptorLimit();
// The resident memory of process `pid` in KiB (VmRSS). Throws BenchError.
unsigned long ResidentKiB(pid_t pid);

}  // namespace velbench

#endif  // BENCH_PROCESSES_H
