#include "Processes.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <sstream>

#include "BenchRunner.h"
#include "BenchSupport.h"

extern char** environ;

namespace velbench {

ChildProcess::ChildProcess(const std::vector<std::string>& arguments) {
    spawn("/proc/self/exe", arguments, STDOUT_FILENO);
}

ChildProcess::ChildProcess(const std::string& program, const std::vector<std::string>& arguments)
    : _terminate(true) {
    spawn(program, arguments, STDERR_FILENO);
}

void ChildProcess::spawn(const std::string& program, const std::vector<std::string>& arguments,
                         int readFrom) {
    int toChild[2];
    int fromChild[2];
    if (::pipe2(toChild, O_CLOEXEC) != 0) {
        Fail("pipe2");
    }
    if (::pipe2(fromChild, O_CLOEXEC) != 0) {
        Fail("pipe2");
    }
    posix_spawn_file_actions_t actions;
    (void)posix_spawn_file_actions_init(&actions);
    // dup2 leaves the copies open across exec; every other descriptor of this process is
    // close-on-exec or closed by the helper's exec.
    (void)posix_spawn_file_actions_adddup2(&actions, toChild[0], STDIN_FILENO);
    (void)posix_spawn_file_actions_adddup2(&actions, fromChild[1], readFrom);
    std::vector<std::string> all{program};
    all.insert(all.end(), arguments.begin(), arguments.end());
    std::vector<char*> argv;
    for (std::string& argument : all) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    const int spawned =
            posix_spawn(&_pid, program.c_str(), &actions, nullptr, argv.data(), environ);
    (void)posix_spawn_file_actions_destroy(&actions);
    (void)::close(toChild[0]);
    (void)::close(fromChild[1]);
    _input = toChild[1];
    _output = fromChild[0];
    if (spawned != 0) {
        errno = spawned;
        _pid = -1;
        Fail("posix_spawn " + program);
    }
}

ChildProcess::~ChildProcess() {
    if (_input >= 0) {
        (void)::close(_input);  // end of input: the helper stops and exits
    }
    if (_pid > 0) {
        if (_terminate) {
            (void)::kill(_pid, SIGTERM);
        }
        int status = 0;
        while (::waitpid(_pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
    if (_output >= 0) {
        (void)::close(_output);
    }
}

void ChildProcess::writeLine(const std::string& line) {
    const std::string text = line + "\n";
    if (::write(_input, text.data(), text.size()) != static_cast<ssize_t>(text.size())) {
        Fail("write to a helper");
    }
}

std::string ChildProcess::readLine(double seconds) {
    const double limit = Now() + seconds;
    for (;;) {
        const std::size_t newline = _buffered.find('\n');
        if (newline != std::string::npos) {
            std::string line = _buffered.substr(0, newline);
            _buffered.erase(0, newline + 1);
            return line;
        }
        const double left = limit - Now();
        if (left <= 0) {
            throw BenchError("a helper process did not answer in time");
        }
        pollfd polled{_output, POLLIN, 0};
        const int ready = ::poll(&polled, 1, static_cast<int>(left * 1000) + 1);
        if (ready < 0 && errno != EINTR) {
            Fail("poll on a helper");
        }
        if (ready <= 0) {
            continue;
        }
        char chunk[256];
        const ssize_t got = ::read(_output, chunk, sizeof(chunk));
        if (got <= 0) {
            throw BenchError("a helper process ended early");
        }
        _buffered.append(chunk, static_cast<std::size_t>(got));
    }
}

unsigned long RaiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        Fail("getrlimit");
    }
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
        Fail("setrlimit");
    }
    return static_cast<unsigned long>(limit.rlim_cur);
}

unsigned long ResidentKiB(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            std::istringstream fields(line.substr(6));
            unsigned long kib = 0;
            fields >> kib;
            return kib;
        }
    }
    throw BenchError("no VmRSS for process " + std::to_string(pid));
}

}  // namespace velbench
