/// @file
#ifndef FRAME_INCLUDE_VEL_EVENTHANDLER_H
#define FRAME_INCLUDE_VEL_EVENTHANDLER_H

#include <atomic>

#include <boost/shared_ptr.hpp>

#include "ThreadAnnotations.h"
#include "ThreadMutex.h"
#include "TimeValue.h"

/// Operations, as a bit mask: those a handler registers for, and those found ready in a pass.
enum VELOp_t : unsigned short {
    kVELOp_Read = 1,        ///< input ready (set by the polling back end)
    kVELOp_Write = 2,       ///< output possible (set by the polling back end)
    kVELOp_Inactivity = 4,  ///< idle beyond the inactivity time-out (set by the inactivity check)
    kVELOp_Close = 8        ///< to be closed (set by the reactor's clean())
};

/// VEL_EventHandler: what a reactor watches. A handler owns one socket handle, remembers when the
/// reactor last dispatched to it, and receives the reactor's call-backs.
///
/// @verbatim
///   class EchoHandler : public VEL_EventHandler {
///   public:
///       explicit EchoHandler(unsigned int fd) : VEL_EventHandler(fd) {}
///       bool handleInput() override { ...read, answer...; return true; }
///   };
///   reactor.addEventHandler(boost::make_shared<EchoHandler>(fd), basis::TimeValue(), kVELOp_Read);
/// @endverbatim
///
/// A call-back returns true to carry on. False means the handler has failed: the reactor then calls
/// handleClose() in the same pass (so handleClose() may run more than once per pass and must
/// tolerate it). Unregistering is always the handler's own business: it calls the reactor's
/// removeEventHandler, which from inside its own call-back takes effect at once. A call-back that
/// throws is treated as having returned false. Remove a handler before closing its handle: Linux
/// hands a closed descriptor's number to the next socket at once. An acceptor's handler that
/// meets EMFILE or ENFILE should stop reading for a while (change its operations to 0 and restore
/// them later) instead of being called again at once for the same pending connection.
///
/// Activity dates are monotonic (basis::TimeValue::GetHRTime), so that a step of the wall clock
/// cannot make every handler inactive at once: an application that calls notifyActivity passes
/// GetHRTime().
///
/// Ownership: handlers are held by boost::shared_ptr; a reactor keeps one reference for as long as
/// the handle is registered, so a handler never dies while the reactor may still call it. The
/// handler does not own or close its handle.
///
/// Thread safety: call-backs run on the reactor thread, one at a time per reactor. The handle and
/// the activity date may be read and written from any thread.
class VEL_EventHandler {
public:
    /// A handler with every default call-back, for `handle`.
    static boost::shared_ptr<VEL_EventHandler> Create(unsigned int handle);

    virtual ~VEL_EventHandler() = default;
    VEL_EventHandler(const VEL_EventHandler&) = delete;
    VEL_EventHandler& operator=(const VEL_EventHandler&) = delete;

    ///@{
    /// Call-backs, on the reactor thread: input is waiting, output is possible, the handler has
    /// been silent beyond its inactivity time-out, the handler is to be closed. Each default
    /// returns true. handleOutput always gets a null argument from the reactor.
    virtual bool handleInput();
    virtual bool handleOutput(void* arg);
    virtual bool handleInactivity();
    virtual bool handleClose();
    ///@}
    ///@{
    /// The handle; all bits set (0xFFFFFFFF) means none, which every registration refuses. The
    /// reactor may ask for it under its locks: an override only returns the handle.
    virtual unsigned int getHandle() const;
    virtual void setHandle(unsigned int handle);
    ///@}

    /// Records activity at `now`, a monotonic date (GetHRTime). Any thread.
    void notifyActivity(const basis::TimeValue& now);
    /// The monotonic date of the last dispatch or registration (zero before either). Any thread.
    basis::TimeValue getLastActTime() const;

protected:
    /// A handler for `handle`, which it does not own.
    explicit VEL_EventHandler(unsigned int handle);

private:
    std::atomic<unsigned int> _handle;
    /// Guards _lastActivity only. A leaf lock: the reactor takes it under its table lock.
    mutable basis::ThreadMutex _activityLock;
    basis::TimeValue _lastActivity VEL_GUARDED_BY(_activityLock);
};

#endif  // FRAME_INCLUDE_VEL_EVENTHANDLER_H
