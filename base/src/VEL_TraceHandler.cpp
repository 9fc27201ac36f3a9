#include "VEL_TraceHandler.h"

#include <iostream>
#include <mutex>

#include "CondThreadMutex.h"
#include "ThreadMutex.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

const char* const kLevelTexts[] = {"INFO", "DEBUG", "WARN", "ERROR"};

void writeMtLine(std::ostream& out, const char* file, unsigned long line, unsigned int thread,
                 unsigned short level, const char* text) {
    out << "<" << file << " #" << line << "> <TID #" << thread << "> "
        << VEL_TraceHandler::LevelToString(level) << " - " << text << std::endl;
}

}  // namespace

basis::ThreadMutex* VEL_TraceHandler::_TracingMutex = nullptr;
basis::CondThreadMutex* VEL_TraceHandler::_TracingCondMutex = nullptr;
basis::ThreadID_t VEL_TraceHandler::_TracingThreadID = basis::Thread::kInvalidID;

VEL_TraceHandler::VEL_TraceHandler(unsigned short flags, unsigned long msgDumpMaxSize,
                                   unsigned long msgDumpOffset)
    : _traceFlags(flags),
      _msgDumpMaxSize(static_cast<std::uint32_t>(msgDumpMaxSize)),
      _msgDumpOffset(static_cast<std::uint32_t>(msgDumpOffset)) {}

VEL_TraceHandler::VEL_TraceHandler(const VEL_TraceHandler& other)
    : _traceFlags(other._traceFlags.load()),
      _msgDumpMaxSize(other._msgDumpMaxSize.load()),
      _msgDumpOffset(other._msgDumpOffset.load()) {}

VEL_TraceHandler& VEL_TraceHandler::operator=(const VEL_TraceHandler& other) {
    _traceFlags.store(other._traceFlags.load());
    _msgDumpMaxSize.store(other._msgDumpMaxSize.load());
    _msgDumpOffset.store(other._msgDumpOffset.load());
    return *this;
}

void VEL_TraceHandler::output(const char* file, unsigned long line, unsigned short level,
                              const char* text) {
    // This sink prints the level as its number, the others as its text.
    std::cout << "<" << file << " #" << line << "> (" << level << ") " << text << std::endl;
}

const char* VEL_TraceHandler::LevelToString(unsigned short level) {
    return level < 4 ? kLevelTexts[level] : "?";
}

bool VEL_TraceHandler::IsInRecursiveTrace() {
    if (_TracingMutex == nullptr) {
        return false;
    }
    std::lock_guard<basis::ThreadMutex> hold(*_TracingMutex);
    return basis::Thread::Equal(_TracingThreadID, basis::Thread::Self());
}

bool VEL_TraceHandler::AtomicWaitAndStartTracing(const basis::TimeValue& timeout) {
    if (_TracingMutex == nullptr || _TracingCondMutex == nullptr) {
        return false;
    }
    const basis::ThreadID_t self = basis::Thread::Self();
    std::lock_guard<basis::ThreadMutex> hold(*_TracingMutex);
    if (basis::Thread::Equal(_TracingThreadID, self)) {
        return false;
    }
    // One deadline for the whole call: each hand-off between other threads wakes this one, and
    // must not start its wait over.
    const basis::TimeValue deadline = basis::TimeValue::GetHRTime() + timeout;
    while (!basis::Thread::Equal(_TracingThreadID, basis::Thread::kInvalidID)) {
        const basis::TimeValue now = basis::TimeValue::GetHRTime();
        if (now >= deadline) {
            return false;
        }
        const basis::TimeValue remaining = deadline - now;
        if (_TracingCondMutex->wait(&remaining) != basis::kErr_Ok) {
            return false;
        }
    }
    _TracingThreadID = self;
    return true;
}

void VEL_TraceHandler::StopTracing() {
    if (_TracingMutex == nullptr || _TracingCondMutex == nullptr) {
        return;
    }
    std::lock_guard<basis::ThreadMutex> hold(*_TracingMutex);
    _TracingThreadID = basis::Thread::kInvalidID;
    (void)_TracingCondMutex->broadcast();  // cannot fail
}

unsigned int VEL_TraceHandler::TracingThreadNumber() {
    std::lock_guard<basis::ThreadMutex> hold(*_TracingMutex);
    return basis::Thread::ToNumber(_TracingThreadID);
}

void VEL_TraceHandlerMt::output(const char* file, unsigned long line, unsigned short level,
                                const char* text) {
    writeMtLine(std::cout, file, line, TracingThreadNumber(), level, text);
}

VEL_FileTraceHandler::VEL_FileTraceHandler(const char* fileName, unsigned short flags,
                                           unsigned long msgDumpMaxSize,
                                           unsigned long msgDumpOffset)
    : VEL_TraceHandler(flags, msgDumpMaxSize, msgDumpOffset),
      _out(fileName, std::ios::out | std::ios::trunc) {}

VEL_FileTraceHandler::~VEL_FileTraceHandler() {
    _out.close();
}

void VEL_FileTraceHandler::output(const char* file, unsigned long line, unsigned short level,
                                  const char* text) {
    _out << "<" << file << " #" << line << "> " << LevelToString(level) << " - " << text
         << std::endl;
}

void VEL_FileTraceHandlerMt::output(const char* file, unsigned long line, unsigned short level,
                                    const char* text) {
    writeMtLine(_out, file, line, TracingThreadNumber(), level, text);
}
