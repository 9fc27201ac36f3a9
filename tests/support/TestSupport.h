// Helpers shared by the test suites: condition waits with deadlines, a trace sink that records
// lines, and descriptor counting.
#ifndef TESTS_SUPPORT_TESTSUPPORT_H
#define TESTS_SUPPORT_TESTSUPPORT_H

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "VEL_Tools.h"
#include "VEL_TraceHandler.h"

// UBSan (run with ASan) opens a pipe to check a vtable it meets for the first time, so tests that
// exhaust the descriptor limit skip in clang sanitizer builds (VEL_TEST_CLANG_ASAN), where no
// warm-up helps, or in every sanitizer build (VEL_TEST_ASAN).
#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define VEL_TEST_ASAN 1
#define VEL_TEST_CLANG_ASAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(VEL_TEST_ASAN)
#define VEL_TEST_ASAN 1
#endif

namespace veltest {

// Polls `predicate` every millisecond until it holds or `limit` has passed; returns its last
// value. For conditions that no condition variable announces.
bool WaitFor(const std::function<bool()>& predicate,
             std::chrono::milliseconds limit = std::chrono::seconds(10));

// Runs `check` in a child process placed in a new, empty network namespace, so that a name
// lookup it makes can reach no name server (no query leaves the machine; the lookup fails at
// once). Returns 0 when `check` returned true, 1 when it returned false, 2 when an isolated
// namespace cannot be made here (the caller skips its test).
int RunWithoutNetwork(const std::function<bool()>& check);

// A gate that a thread under test passes only once the test opens it; the test can wait until
// some thread has reached it.
class Gate {
public:
    // Marks the gate reached, then blocks until it is open.
    void pass();
    // True once some thread has reached the gate, false if none did within `limit`.
    bool waitEntered(std::chrono::milliseconds limit);
    void open();

private:
    std::mutex _lock;
    std::condition_variable _changed;
    bool _entered = false;
    bool _open = false;
};

// Runs `step` on a thread of its own every `period` until it returns false, `lifetime` has
// passed, or the object is destroyed (which stops and joins the thread): a peer that trickles
// bytes or reads slowly. The first step runs at once.
class Paced {
public:
    Paced(std::chrono::milliseconds period, std::chrono::milliseconds lifetime,
          std::function<bool()> step);
    ~Paced();
    Paced(const Paced&) = delete;
    Paced& operator=(const Paced&) = delete;

private:
    std::mutex _lock;
    std::condition_variable _stopped;
    bool _stop = false;
    std::thread _thread;
};

// Number of descriptors open in this process (entries of /proc/self/fd).
int OpenFdCount();

// A sink that records each text it is given, with its level and file, instead of printing.
class RecordingSink : public VEL_TraceHandler {
public:
    struct Line {
        std::string file;
        unsigned long line;
        unsigned short level;
        std::string text;
    };

    explicit RecordingSink(unsigned short flags, unsigned long maxSize = 0xFFFFFFFF,
                           unsigned long offset = 0xFFFFFFFF)
        : VEL_TraceHandler(flags, maxSize, offset) {}

    void output(const char* file, unsigned long line, unsigned short level,
                const char* text) override;

    std::vector<Line> lines() const;
    std::vector<std::string> texts() const;
    // True when some recorded text contains `part`.
    bool contains(const std::string& part) const;
    void clear();

private:
    mutable std::mutex _lock;
    std::vector<Line> _lines;
};

// Installs a sink for one scope and removes it afterwards.
class ScopedSink {
public:
    explicit ScopedSink(VEL_TraceHandler* sink) { VEL_Tools::SetTraceHandler(sink); }
    ~ScopedSink() { VEL_Tools::SetTraceHandler(nullptr); }
    ScopedSink(const ScopedSink&) = delete;
    ScopedSink& operator=(const ScopedSink&) = delete;
};

}  // namespace veltest

#endif  // TESTS_SUPPORT_TESTSUPPORT_H
