#include "VelcatProcess.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <iterator>
#include <sstream>

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

VelcatProcess::VelcatProcess(const std::vector<std::string>& args, unsigned long fileLimit) {
    int in[2], out[2], err[2];
    if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0 ||
        ::pipe2(err, O_CLOEXEC) != 0) {
        ADD_FAILURE() << "pipe: errno " << errno;
        return;
    }
    std::vector<char*> argv;
    std::string path = VELCAT_PATH;
    argv.push_back(&path[0]);
    std::vector<std::string> copies(args);
    for (std::string& arg : copies) {
        argv.push_back(&arg[0]);
    }
    argv.push_back(nullptr);
    _pid = ::fork();
    if (_pid == 0) {
        // Only async-signal-safe calls until exec: the test process has threads.
        ::dup2(in[0], 0);
        ::dup2(out[1], 1);
        ::dup2(err[1], 2);
        // Descriptors the test holds (raw sockets among them) must not stay open in velcat.
        if (::close_range(3, ~0u, 0) != 0) {
            for (int fd = 3; fd < 4096; ++fd) {
                ::close(fd);
            }
        }
        if (fileLimit > 0) {
            const rlimit limit{fileLimit, fileLimit};
            ::setrlimit(RLIMIT_NOFILE, &limit);
        }
        ::execv(argv[0], argv.data());
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

VelcatProcess::~VelcatProcess() {
    if (_pid > 0 && _status == -1) {
        ::kill(_pid, SIGKILL);
        int status = 0;
        ::waitpid(_pid, &status, 0);
    }
    closeFd(_input);
    closeFd(_outputPipe);
    closeFd(_errorPipe);
}

bool VelcatProcess::write(const std::string& data) {
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

void VelcatProcess::closeInput() {
    closeFd(_input);
}

void VelcatProcess::pump(std::chrono::milliseconds limit) {
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

std::string VelcatProcess::readOutput(std::size_t size, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (_output.size() < size && Clock::now() < deadline) {
        pump(std::chrono::milliseconds(50));
    }
    return _output;
}

std::string VelcatProcess::output() {
    pump(std::chrono::milliseconds(0));
    return _output;
}

std::string VelcatProcess::errors() {
    pump(std::chrono::milliseconds(0));
    return _errors;
}

bool VelcatProcess::waitForError(const std::string& part, std::chrono::milliseconds limit) {
    const auto deadline = Clock::now() + limit;
    while (_errors.find(part) == std::string::npos) {
        if (Clock::now() >= deadline) {
            return false;
        }
        pump(std::chrono::milliseconds(50));
    }
    return true;
}

unsigned short VelcatProcess::listeningPort() {
    const std::string marker = "listening on ";
    if (!waitForError(marker) || !waitForError(")\n")) {
        return 0;
    }
    const std::size_t at = _errors.find(" port ", _errors.find(marker));
    return at == std::string::npos
                   ? 0
                   : static_cast<unsigned short>(std::stoul(_errors.substr(at + 6)));
}

void VelcatProcess::terminate() {
    if (_pid > 0 && _status == -1) {
        ::kill(_pid, SIGTERM);
    }
}

int VelcatProcess::wait(std::chrono::milliseconds limit) {
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

bool VelcatProcess::running() {
    return wait(std::chrono::milliseconds(0)) == -1;
}

double VelcatProcess::cpuSeconds() const {
    std::ifstream stat("/proc/" + std::to_string(_pid) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(stat)),
                           std::istreambuf_iterator<char>());
    // Fields 14 and 15 (utime, stime) follow the command name, which ends with ')'.
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long ticks = 0;
    for (int index = 3; fields >> field && index <= 15; ++index) {
        if (index >= 14) {
            ticks += std::stoull(field);
        }
    }
    return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace veltest
