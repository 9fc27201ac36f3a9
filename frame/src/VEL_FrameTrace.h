// Internal to the reactor module (never included by a public header): its trace lines, which
// format their text only when the mask is on, and the guard that runs an application call-back
// and turns an exception into a trace and a failure.
//
// Thread safety: every function is safe from any thread.
#ifndef FRAME_SRC_VEL_FRAMETRACE_H
#define FRAME_SRC_VEL_FRAMETRACE_H

#include <exception>
#include <new>
#include <string>

#include "VEL_Err.h"
#include "VEL_Tools.h"

namespace velframe {

// "<FD = n>" with the handle as a signed number (-1 for none).
inline std::string fdText(unsigned int handle) {
    return "<FD = " + std::to_string(static_cast<int>(handle)) + ">";
}

// "FRAME - <status text>[ ; <detail()>]" at the error level under the reactor error mask.
template <class Detail>
void traceError(VELErr_t code, const Detail& detail, const char* file = __builtin_FILE(),
                unsigned long line = __builtin_LINE()) {
    if (VEL_Tools::IsTraceOn(kVELTrace_FrameError)) {
        VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("FRAME", code, detail()), file,
                             line);
    }
}

inline void traceError(VELErr_t code, const char* file = __builtin_FILE(),
                       unsigned long line = __builtin_LINE()) {
    traceError(
            code, [] { return std::string(); }, file, line);
}

// "FRAME - <status text> ; <FD = handle>", the form of registration and dispatch failures.
inline void traceHandleError(VELErr_t code, unsigned int handle,
                             const char* file = __builtin_FILE(),
                             unsigned long line = __builtin_LINE()) {
    traceError(
            code, [handle] { return fdText(handle); }, file, line);
}

// "FRAME - <text>" at the info level under the reactor mask.
inline void traceInfo(const char* text, const char* file = __builtin_FILE(),
                      unsigned long line = __builtin_LINE()) {
    if (VEL_Tools::IsTraceOn(kVELTrace_Frame)) {
        VEL_Tools::TraceText(kVELLevel_Info, std::string("FRAME - ") + text, file, line);
    }
}

// Runs application code: its result, or false when it threw (traced with the status of the
// exception's kind: kVELErr_Alloc, kVELErr_StlException with its text, kVELErr_UnknownException).
template <class Body>
bool runGuarded(const Body& body, const char* file = __builtin_FILE(),
                unsigned long line = __builtin_LINE()) {
    try {
        return body();
    } catch (const std::bad_alloc&) {
        traceError(kVELErr_Alloc, file, line);
    } catch (const std::exception& e) {
        traceError(
                kVELErr_StlException, [&e] { return std::string(e.what()); }, file, line);
    } catch (...) {
        traceError(kVELErr_UnknownException, file, line);
    }
    return false;
}

}  // namespace velframe

#endif  // FRAME_SRC_VEL_FRAMETRACE_H
