// A velcat process driven as a user would drive it: its standard input, output and error are
// pipes to the test. The process is killed and reaped when the object goes, whatever happened.
#ifndef TESTS_TOOLS_VELCATPROCESS_H
#define TESTS_TOOLS_VELCATPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <string>
#include <vector>

namespace veltest {

class VelcatProcess {
public:
    // Starts velcat with `args`. `fileLimit` > 0 lowers its RLIMIT_NOFILE to that.
    explicit VelcatProcess(const std::vector<std::string>& args, unsigned long fileLimit = 0);
    ~VelcatProcess();
    VelcatProcess(const VelcatProcess&) = delete;
    VelcatProcess& operator=(const VelcatProcess&) = delete;

    // Writes to its standard input; closeInput() ends it.
    bool write(const std::string& data);
    void closeInput();
    // Its standard output once it holds at least `size` bytes, or what came within `limit`.
    std::string readOutput(std::size_t size,
                           std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Everything read from its standard output and error so far (after pumping what is waiting).
    std::string output();
    std::string errors();
    // Waits until its standard error holds `part`; false after `limit`.
    bool waitForError(const std::string& part,
                      std::chrono::milliseconds limit = std::chrono::seconds(10));
    // The port of a listener, read from its "listening on ... port N" line (0 if none came).
    unsigned short listeningPort();
    // Sends it SIGTERM, as a user stopping it would.
    void terminate();
    // Its exit status once it has exited, -1 if it is still running after `limit` (it is then
    // left running), -2 if a signal ended it.
    int wait(std::chrono::milliseconds limit = std::chrono::seconds(10));
    bool running();
    // User plus system CPU time it has used so far, in seconds (from /proc).
    double cpuSeconds() const;

private:
    // Moves what its pipes hold into the buffers, waiting at most `limit` for something.
    void pump(std::chrono::milliseconds limit);

    pid_t _pid = -1;
    int _input = -1;
    int _outputPipe = -1;
    int _errorPipe = -1;
    std::string _output;
    std::string _errors;
    int _status = -1;  // once reaped
};

}  // namespace veltest

#endif  // TESTS_TOOLS_VELCATPROCESS_H
