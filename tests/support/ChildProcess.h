// A program run by a test as a child process, with its standard input, output and error as pipes
// to the test (an independent peer such as the openssl command). The process is killed and reaped
// when the object goes, whatever happened.
#ifndef TESTS_SUPPORT_CHILDPROCESS_H
#define TESTS_SUPPORT_CHILDPROCESS_H

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

namespace veltest {

class ChildProcess {
public:
    // Starts `argv[0]` (looked up in PATH) with the other elements as its arguments; `fileLimit`
    // > 0 lowers its RLIMIT_NOFILE to that. A start that fails is reported to the calling test.
    explicit ChildProcess(const std::vector<std::string>& argv, unsigned long fileLimit = 0);
    ~ChildProcess();
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    // Writes to its standard input; false once it has stopped reading it. closeInput() ends it.
    bool write(const std::string& data);
    void closeInput();
    // Waits until its standard output (error) holds `part`; false after `limit`.
    bool waitForOutput(const std::string& part,
                       std::chrono::milliseconds limit = std::chrono::seconds(10));
    bool waitForError(const std::string& part,
                      std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Its standard output once it holds at least `size` bytes, or what came within `limit`.
    std::string readOutput(std::size_t size,
                           std::chrono::milliseconds limit = std::chrono::seconds(10));
    // Everything read from its standard output (error) so far, after taking what is waiting.
    std::string output();
    std::string errors();
    // Sends it SIGTERM, as a user stopping it would.
    void terminate();
    // Its exit status once it has exited, -1 if it is still running after `limit` (it is then
    // left running), -2 if a signal ended it.
    int wait(std::chrono::milliseconds limit = std::chrono::seconds(10));
    bool running() { return wait(std::chrono::milliseconds(0)) == -1; }
    pid_t pid() const { return _pid; }

private:
    bool writeAll(const std::string& data);
    // Moves what its pipes hold into the buffers until `done` holds; false after `limit`.
    bool pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds limit);
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

// Runs a command to its end (at most `limit`), its output and error collected into *output when
// given. Returns its exit status, or -1 when it could not run or did not end in time.
int RunCommand(const std::vector<std::string>& argv, std::string* output = nullptr,
               std::chrono::milliseconds limit = std::chrono::seconds(30));

}  // namespace veltest

#endif  // TESTS_SUPPORT_CHILDPROCESS_H
