/// @file
/// The trace sinks: VEL_TraceHandler and its subclasses.
#ifndef BASE_INCLUDE_VEL_TRACEHANDLER_H
#define BASE_INCLUDE_VEL_TRACEHANDLER_H

#include <atomic>
#include <cstdint>
#include <fstream>
#include <string>

#include "Thread.h"
#include "TimeValue.h"

namespace basis {
class ThreadMutex;
class CondThreadMutex;
}  // namespace basis

/// VEL_TraceHandler and its subclasses: the sinks that write trace lines. The application creates
/// one, installs it with VEL_Tools::SetTraceHandler, and owns it.
///
/// @verbatim
///   VEL_TraceHandler        standard output   "<file #line> (level-number) text"
///   VEL_TraceHandlerMt      standard output   "<file #line> <TID #n> LEVEL - text"
///   VEL_FileTraceHandler    its own file      "<file #line> LEVEL - text"
///   VEL_FileTraceHandlerMt  its own file      "<file #line> <TID #n> LEVEL - text"
/// @endverbatim
///
/// Every line ends with an end-of-line and a flush. LEVEL is INFO, DEBUG, WARN or ERROR; n is the
/// kernel id of the tracing thread. The file sinks truncate their file when constructed; a file
/// that cannot be opened is not reported (its lines are lost).
///
/// The statics below serialise every sink call process-wide and drop lines traced from inside a
/// sink's output (the recursion guard).
///
/// Thread safety: the flag, size and offset fields may be changed by any thread while others
/// trace. output() is called by one thread at a time (VEL_Tools::Trace sees to it).
class VEL_TraceHandler {
public:
    /// `msgDumpMaxSize` and `msgDumpOffset` are 32-bit; 0xFFFFFFFF (or -1) means none.
    VEL_TraceHandler(unsigned short flags, unsigned long msgDumpMaxSize,
                     unsigned long msgDumpOffset);
    ///@{
    /// Copies the flags and the message-dump window.
    VEL_TraceHandler(const VEL_TraceHandler& other);
    VEL_TraceHandler& operator=(const VEL_TraceHandler& other);
    ///@}
    virtual ~VEL_TraceHandler() = default;

    /// Writes one line (formats above).
    virtual void output(const char* file, unsigned long line, unsigned short level,
                        const char* text);

    ///@{
    /// The trace mask: the categories (VELTraceMask_t bits) this sink is given. Any thread.
    unsigned short getTraceFlags() const { return _traceFlags.load(); }
    void setTraceFlags(unsigned short flags) { _traceFlags.store(flags); }
    ///@}
    ///@{
    /// The most bytes of a message dump (0xFFFFFFFF: no limit; without an offset the last ones
    /// are shown). Any thread.
    unsigned long getMsgDumpMaxSize() const { return _msgDumpMaxSize.load(); }
    void setMsgDumpMaxSize(unsigned long size) {
        _msgDumpMaxSize.store(static_cast<std::uint32_t>(size));
    }
    ///@}
    ///@{
    /// The first byte of a buffer that a message dump shows (0xFFFFFFFF: none). Any thread.
    unsigned long getMsgDumpOffset() const { return _msgDumpOffset.load(); }
    void setMsgDumpOffset(unsigned long offset) {
        _msgDumpOffset.store(static_cast<std::uint32_t>(offset));
    }
    ///@}

    /// "INFO", "DEBUG", "WARN", "ERROR". REQUIRES: level <= 3.
    static const char* LevelToString(unsigned short level);

    /// True when the calling thread is inside a sink's output.
    static bool IsInRecursiveTrace();
    /// Claims the right to call a sink: false when the caller already holds it, when a wait
    /// fails, or when `timeout` has passed since the call without the right coming to the caller
    /// (one deadline, however often the right passes between other threads meanwhile).
    static bool AtomicWaitAndStartTracing(const basis::TimeValue& timeout);
    /// Gives the right back and wakes the waiting threads.
    static void StopTracing();

protected:
    /// The thread-number shown by the multi-threaded formats.
    static unsigned int TracingThreadNumber();

private:
    friend class VEL_StaticInit;

    std::atomic<unsigned short> _traceFlags;
    std::atomic<std::uint32_t> _msgDumpMaxSize;
    std::atomic<std::uint32_t> _msgDumpOffset;

    /// Lock order: never held with VEL_Tools::_HandlerMutex.
    static basis::ThreadMutex* _TracingMutex;          ///< guards _TracingThreadID
    static basis::CondThreadMutex* _TracingCondMutex;  ///< bound to _TracingMutex
    static basis::ThreadID_t _TracingThreadID;
};

/// The multi-threaded standard-output sink: "<file #line> <TID #n> LEVEL - text".
class VEL_TraceHandlerMt : public VEL_TraceHandler {
public:
    using VEL_TraceHandler::VEL_TraceHandler;
    void output(const char* file, unsigned long line, unsigned short level,
                const char* text) override;
};

/// The file sink: "<file #line> LEVEL - text" into its own file, truncated when constructed.
class VEL_FileTraceHandler : public VEL_TraceHandler {
public:
    /// Opens `fileName`; a file that cannot be opened is not reported (its lines are lost).
    VEL_FileTraceHandler(const char* fileName, unsigned short flags, unsigned long msgDumpMaxSize,
                         unsigned long msgDumpOffset);
    ~VEL_FileTraceHandler() override;
    VEL_FileTraceHandler(const VEL_FileTraceHandler&) = delete;
    VEL_FileTraceHandler& operator=(const VEL_FileTraceHandler&) = delete;

    void output(const char* file, unsigned long line, unsigned short level,
                const char* text) override;

protected:
    /// The file.
    std::ofstream _out;
};

/// The multi-threaded file sink: "<file #line> <TID #n> LEVEL - text".
class VEL_FileTraceHandlerMt : public VEL_FileTraceHandler {
public:
    using VEL_FileTraceHandler::VEL_FileTraceHandler;
    void output(const char* file, unsigned long line, unsigned short level,
                const char* text) override;
};

#endif  // BASE_INCLUDE_VEL_TRACEHANDLER_H
