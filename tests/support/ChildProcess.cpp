#include "ChildProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>

#include <gtest/gtest.h>

namespace veltest {

namespace {

using Clock = std::chrono::steady_clock;

void closeFd(int& fd) {
    if (fd >= 0) {
        ::close(fd);
        fd = -1;
    }
}

}  // namespace

ChildProcess::ChildProcess(const std::vector<std::string>& argv, unsigned long fileLimit) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
        ::pipe2(err, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: errno " << errno;
        return;
    }
    std::vector<std::string> copies(argv);
    std::vector<char*> args;
    for (std::string& arg : copies) {
        args.push_back(&arg[0]);
    }
    args.push_back(nullptr);
    _pid = ::fork();
    if (_pid == 0) {
        // Only async-signal-safe calls until exec: the test process has threads.
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        // Descriptors the test holds (sockets among them) must not stay open in the child.
        if (::close_range(3, ~0u, 0) != 0) {
            for (int fd = 3; fd < 4096; ++fd) {
                ::close(fd);
            }
        }
        if (fileLimit > 0) {
            const rlimit limit{fileLimit, fileLimit};
            ::setrlimit(RLIMIT_NOFILE, &limit);
        }
        ::execvp(args[0], args.data());
        ::_exit(127);
    }
    ::close(in[0]);
    ::close(out[1]);
    ::close(err[1]);
    _input = in[1];
    _outputPipe = out[0];
    _errorPipe = err[0];
    if (_pid < 0) {
        ADD_FAILURE() << "fork: errno " << errno;
    }
}

ChildProcess::~ChildProcess() {
    if (_pid > 0 && _status == -1) {
        ::kill(_pid, SIGKILL);
        int status = 0;
        ::waitpid(_pid, &status, 0);
    }
    closeFd(_input);
    closeFd(_outputPipe);
    closeFd(_errorPipe);
}

// A child that has exited leaves its input pipe without a reader: the write fails with EPIPE.
// SIGPIPE is blocked on this thread for the write and a pending one is taken back, so that the
// test process is not killed and keeps its signal dispositions.
bool ChildProcess::write(const std::string& data) {
    sigset_t pipeSignal, previous;
    sigemptyset(&pipeSignal);
    sigaddset(&pipeSignal, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &pipeSignal, &previous);
    const bool written = writeAll(data);
    const timespec now{0, 0};
    while (sigtimedwait(&pipeSignal, nullptr, &now) == SIGPIPE) {
    }
    pthread_sigmask(SIG_SETMASK, &previous, nullptr);
    return written;
}

bool ChildProcess::writeAll(const std::string& data) {
    std::size_t done = 0;
    while (done < data.size()) {
        const ssize_t written = ::write(_input, data.data() + done, data.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(written);
    }
    return true;
}

void ChildProcess::closeInput() {
    closeFd(_input);
}

void ChildProcess::pump(std::chrono::milliseconds limit) {
    pollfd pipes[2] = {{_outputPipe, POLLIN, 0}, {_errorPipe, POLLIN, 0}};
    if (::poll(pipes, 2, static_cast<int>(limit.count())) <= 0) {
        return;
    }
    std::string* buffers[2] = {&_output, &_errors};
    char chunk[65536];
    for (int i = 0; i < 2; ++i) {
        if (pipes[i].fd >= 0 && (pipes[i].revents & (POLLIN | POLLHUP)) != 0) {
            const ssize_t got = ::read(pipes[i].fd, chunk, sizeof(chunk));
            if (got > 0) {
                buffers[i]->append(chunk, static_cast<std::size_t>(got));
            }
        }
    }
}

bool ChildProcess::pumpUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (!done()) {
        if (Clock::now() >= deadline) {
            return false;
        }
        pump(std::chrono::milliseconds(20));
    }
    return true;
}

std::string ChildProcess::readOutput(std::size_t size, std::chrono::milliseconds limit) {
    (void)pumpUntil([&] { return _output.size() >= size; }, limit);  // what came, if less
    return _output;
}

bool ChildProcess::waitForOutput(const std::string& part, std::chrono::milliseconds limit) {
    return pumpUntil([&] { return _output.find(part) != std::string::npos; }, limit);
}

bool ChildProcess::waitForError(const std::string& part, std::chrono::milliseconds limit) {
    return pumpUntil([&] { return _errors.find(part) != std::string::npos; }, limit);
}

std::string ChildProcess::output() {
    pump(std::chrono::milliseconds(0));
    return _output;
}

std::string ChildProcess::errors() {
    pump(std::chrono::milliseconds(0));
    return _errors;
}

void ChildProcess::terminate() {
    if (_pid > 0 && _status == -1) {
        ::kill(_pid, SIGTERM);
    }
}

int ChildProcess::wait(std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (_status == -1 && _pid > 0) {
        int status = 0;
        const pid_t reaped = ::waitpid(_pid, &status, WNOHANG);
        if (reaped == _pid) {
            _status = WIFEXITED(status) ? WEXITSTATUS(status) : -2;
            break;
        }
        if (Clock::now() >= deadline) {
            return -1;
        }
        pump(std::chrono::milliseconds(20));  // keeps its pipes from filling up
    }
    return _status;
}

int RunCommand(const std::vector<std::string>& argv, std::string* output,
               std::chrono::milliseconds limit) {
    ChildProcess child(argv);
    child.closeInput();
    const int status = child.wait(limit);
    if (output != nullptr) {
        *output = child.output() + child.errors();
    }
    return status;
}

}  // namespace veltest
