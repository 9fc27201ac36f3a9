/// @file
#ifndef BASE_INCLUDE_VEL_TOOLS_H
#define BASE_INCLUDE_VEL_TOOLS_H

#include <atomic>
#include <set>
#include <string>

#include "Thread.h"
#include "VEL_Err.h"

namespace basis {
class ThreadMutex;
}  // namespace basis
struct VELIoVec;
class VEL_TraceHandler;

/// Trace categories: bits of a sink's 16-bit trace flags.
enum VELTraceMask_t : unsigned short {
    kVELTrace_Com = 2,       ///< network module ("COM - ")
    kVELTrace_Thread = 4,    ///< thread module: timers, queues ("THREAD - ")
    kVELTrace_Frame = 8,     ///< reactor and pipes ("FRAME - ")
    kVELTrace_MsgDump = 16,  ///< message dumps ("MSGDUMP - ") and per-message framing lines
    kVELTrace_Error = 32,    ///< error lines of every module
    /// Error sites test their module bit together with the error bit.
    kVELTrace_ComError = kVELTrace_Com | kVELTrace_Error,
    kVELTrace_ThreadError = kVELTrace_Thread | kVELTrace_Error,
    kVELTrace_FrameError = kVELTrace_Frame | kVELTrace_Error
};

/// Trace levels.
enum VELTraceLevel_t : unsigned short {
    kVELLevel_Info = 0,
    kVELLevel_Debug = 1,
    kVELLevel_Warn = 2,
    kVELLevel_Error = 3
};

/// VEL_Tools: the library's static facade for status texts and tracing.
///
/// Every diagnostic of the library goes through one replaceable sink (a VEL_TraceHandler owned
/// by the application, see VEL_TraceHandler.h). Call sites first ask IsTraceOn(mask) and only then
/// build their text, so that nothing is formatted while tracing is off:
///
/// @verbatim
///   if (VEL_Tools::IsTraceOn(kVELTrace_ComError)) {
///       VEL_Tools::TraceText(3, VEL_Tools::ErrText("COM", code, "Remote address : " + addr));
///   }
/// @endverbatim
///
/// Trace lines are serialised process-wide (one thread inside a sink at a time; others wait at
/// most 2 seconds, then drop their line), a sink that traces from inside its own output has those
/// nested lines dropped, and threads listed with PreventThreadFromTracing never trace.
///
/// Thread safety: every member is static and safe from any thread. The application replaces or
/// deletes a sink only when no thread can be tracing through it.
class VEL_Tools {
public:
    VEL_Tools() = delete;

    /// The text of `code` followed by " {n}", n being the calling thread's last system error
    /// (basis::Thread::GetLastSystemErr) as it is when this runs. Unknown codes give
    /// "Unknown error (n)"; code 206, declared without text, gives "Unknown error :206".
    static std::string GetErrStr(VELErr_t code);

    /// Installs the sink (null switches tracing off); the previous one is neither deleted nor
    /// told. Always kVELErr_Ok.
    static VELErr_t SetTraceHandler(VEL_TraceHandler* handler);
    /// The installed sink, or null.
    static VEL_TraceHandler* GetTraceHandler();
    /// True when a sink is installed and its flags share a bit with `mask`.
    static bool IsTraceOn(unsigned short mask);
    /// Emits one line through the sink (without looking at the flags). Always kVELErr_Ok, also when
    /// the line is dropped; an exception thrown by the sink's output propagates unchanged.
    static VELErr_t Trace(const char* file, unsigned long line, unsigned short level,
                          const char* text);
    /// Hexadecimal dump of `size` bytes at `data`, trimmed by the sink's offset and maximum size;
    /// needs trace bit 16.
    static void MemDump(const char* file, unsigned long line, unsigned short level,
                        const char* data, unsigned int size, unsigned long bufferNumber);
    /// MemDump of each element of a scatter/gather list, numbered from 0.
    static void MemDumpVec(const char* file, unsigned long line, unsigned short level,
                           const VELIoVec* vec, unsigned long count);
    /// The thread `id` never traces again.
    static void PreventThreadFromTracing(basis::ThreadID_t id);

    ///@{
    /// Conveniences for call sites (after IsTraceOn): Trace with the base name of the calling
    /// source file and line, and the common "<module> - <status text>[ ; <detail>]" text.
    static void TraceText(unsigned short level, const std::string& text,
                          const char* file = __builtin_FILE(),
                          unsigned long line = __builtin_LINE());
    static std::string ErrText(const char* module, VELErr_t code,
                               const std::string& detail = std::string());
    ///@}

private:
    friend class VEL_StaticInit;

    static std::atomic<VEL_TraceHandler*> _TraceHandler;
    /// Guards the sink replacement and _ForbiddenThreadsSet. Lock order: never held with
    /// VEL_TraceHandler::_TracingMutex.
    static basis::ThreadMutex* _HandlerMutex;
    static std::set<basis::ThreadID_t>* _ForbiddenThreadsSet;
    static std::atomic<bool> _AnyForbidden;  ///< set once the forbidden set is not empty
};

#endif  // BASE_INCLUDE_VEL_TOOLS_H
