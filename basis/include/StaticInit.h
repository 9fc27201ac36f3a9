/// @file
#ifndef BASIS_INCLUDE_STATICINIT_H
#define BASIS_INCLUDE_STATICINIT_H

#include <atomic>

namespace basis {

/// basis::StaticInit: counted start-up of the foundation's process-wide state. The first instance
/// constructed prepares it, the last one destroyed releases what can be released (the buffer
/// manager's cached buffers).
///
/// Thread safety: the counter is atomic; instances are expected during static initialisation and
/// shutdown.
class StaticInit {
public:
    StaticInit();
    ~StaticInit();
    StaticInit(const StaticInit&) = delete;
    StaticInit& operator=(const StaticInit&) = delete;

    /// The number of instances alive.
    static unsigned long GetCount() { return _Count.load(); }

private:
    static std::atomic<unsigned long> _Count;
};

}  // namespace basis

#endif  // BASIS_INCLUDE_STATICINIT_H
