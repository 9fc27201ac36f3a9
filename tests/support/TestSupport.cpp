#include "TestSupport.h"

#include <dirent.h>
#include <sched.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace veltest {

bool WaitFor(const std::function<bool()>& predicate, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!predicate()) {
        if (std::chrono::steady_clock::now() >= deadline) {
            return predicate();
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

int RunWithoutNetwork(const std::function<bool()>& check) {
    const pid_t child = fork();
    if (child < 0) {
        return 2;
    }
    if (child == 0) {
        if (unshare(CLONE_NEWNET) != 0) {
            _exit(2);
        }
        _exit(check() ? 0 : 1);
    }
    int status = 0;
    while (waitpid(child, &status, 0) < 0 && errno == EINTR) {
    }
    return WIFEXITED(status) ? WEXITSTATUS(status) : 1;
}

void Gate::pass() {
    std::unique_lock<std::mutex> hold(_lock);
    _entered = true;
    _changed.notify_all();
    _changed.wait(hold, [this] { return _open; });
}

bool Gate::waitEntered(std::chrono::milliseconds limit) {
    std::unique_lock<std::mutex> hold(_lock);
    return _changed.wait_for(hold, limit, [this] { return _entered; });
}

void Gate::open() {
    std::lock_guard<std::mutex> hold(_lock);
    _open = true;
    _changed.notify_all();
}

Paced::Paced(std::chrono::milliseconds period, std::chrono::milliseconds lifetime,
             std::function<bool()> step) {
    _thread = std::thread([this, period, lifetime, step] {
        const auto end = std::chrono::steady_clock::now() + lifetime;
        std::unique_lock<std::mutex> hold(_lock);
        while (!_stop && std::chrono::steady_clock::now() < end) {
            hold.unlock();
            if (!step()) {
                return;
            }
            hold.lock();
            _stopped.wait_for(hold, period, [this] { return _stop; });
        }
    });
}

Paced::~Paced() {
    {
        std::lock_guard<std::mutex> hold(_lock);
        _stop = true;
        _stopped.notify_all();
    }
    _thread.join();
}

int OpenFdCount() {
    DIR* dir = opendir("/proc/self/fd");
    if (dir == nullptr) {
        return -1;
    }
    int count = 0;
    while (readdir(dir) != nullptr) {
        ++count;
    }
    closedir(dir);
    return count - 3;  // ".", ".." and the descriptor of the directory itself
}

void RecordingSink::output(const char* file, unsigned long line, unsigned short level,
                           const char* text) {
    std::lock_guard<std::mutex> hold(_lock);
    _lines.push_back(Line{file, line, level, text});
}

std::vector<RecordingSink::Line> RecordingSink::lines() const {
    std::lock_guard<std::mutex> hold(_lock);
    return _lines;
}

std::vector<std::string> RecordingSink::texts() const {
    std::lock_guard<std::mutex> hold(_lock);
    std::vector<std::string> texts;
    for (const Line& line : _lines) {
        texts.push_back(line.text);
    }
    return texts;
}

bool RecordingSink::contains(const std::string& part) const {
    const std::vector<std::string> all = texts();
    return std::any_of(all.begin(), all.end(), [&part](const std::string& text) {
        return text.find(part) != std::string::npos;
    });
}

void RecordingSink::clear() {
    std::lock_guard<std::mutex> hold(_lock);
    _lines.clear();
}

}  // namespace veltest
