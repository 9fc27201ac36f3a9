/// @file
/// Status codes of the foundation library and a few small helpers shared by all of it.
///
/// Thread safety: every function here is safe to call from any thread.
#ifndef BASIS_INCLUDE_TOOLS_H
#define BASIS_INCLUDE_TOOLS_H

#include <string>

namespace basis {

/// Status of a foundation call: 0 is success, anything else a failure.
enum Err_t {
    kErr_Ok = 0,
    kErr_ThreadAcquire = 1,  ///< a lock could not be taken (e.g. the caller already holds it)
    kErr_ThreadRelease = 2,  ///< a lock could not be released (e.g. the caller does not hold it)
    kErr_Timeout = 3,        ///< a time-limited wait ended without being woken
    kErr_Thread = 4,         ///< a thread could not be started
    kErr_Alloc = 5,          ///< memory could not be obtained
    kErr_BadValue = 6,       ///< an argument is out of range
    kErr_NotRunning = 7      ///< the operation needs a running task
};

/// Helpers of the foundation, all static.
class Tools {
public:
    Tools() = delete;

    /// The part of `path` after its last '/' (the whole string when there is none).
    /// REQUIRES: path is not null.
    static const char* Basename(const char* path);

    /// The text of a foundation status, e.g. "Timeout" for kErr_Timeout.
    static std::string GetErrStr(Err_t code);
};

/// The smallest prime number not below n (2 for n below 2). Used to size hash tables.
unsigned int nextPrime_(unsigned int n);

}  // namespace basis

#endif  // BASIS_INCLUDE_TOOLS_H
