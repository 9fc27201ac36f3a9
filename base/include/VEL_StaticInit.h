/// @file
#ifndef BASE_INCLUDE_VEL_STATICINIT_H
#define BASE_INCLUDE_VEL_STATICINIT_H

#include <atomic>

/// VEL_StaticInit: counted start-up of the library's process-wide state.
///
/// Every source module of the library holds one static instance. The first instance constructed
/// creates the shared static objects (the locks and tables behind the trace facade, the socket
/// counter, the timer identifiers and the secure-session table), the last one destroyed releases
/// them: the secure-session map is emptied first, since its sessions' destructors use the other
/// statics, then the rest in the reverse order of creation. Further instances made by an
/// application only move the counter.
///
/// Thread safety: the counter is atomic; instances are expected during static initialisation and
/// shutdown, which run on one thread.
class VEL_StaticInit {
public:
    VEL_StaticInit();
    ~VEL_StaticInit();
    VEL_StaticInit(const VEL_StaticInit&) = delete;
    VEL_StaticInit& operator=(const VEL_StaticInit&) = delete;

    /// Live instances.
    static unsigned long GetCount() { return _count.load(); }

private:
    void initStaticMembers() const;
    void releaseStaticMembers() const;

    static std::atomic<unsigned long> _count;
};

#endif  // BASE_INCLUDE_VEL_STATICINIT_H
