/// @file
#ifndef FRAME_INCLUDE_VEL_SELECTIOREACTOR_H
#define FRAME_INCLUDE_VEL_SELECTIOREACTOR_H

#include <vector>

#include "TimeValue.h"
#include "VEL_Err.h"
#include "VEL_IOReactor.h"
#include "VEL_SockCtrlIOReactor.h"

struct pollfd;

/// VEL_SelectIOReactor: the reactor's polling back end over poll(), with the wake-up of
/// VEL_SockCtrlIOReactor.
///
/// The polling set keeps the limits of a select set of 2048 handles: a read set and a write set,
/// each an array of at most kSetSize handles filled from the front, from which a removal shifts
/// the later handles down; a handle met when its set is full is not polled for that operation (the
/// registration itself succeeds, and the drop is traced once the next wait starts). A size above
/// kSetSize is lowered to it. The highest and lowest handles polled are kept as well (0 and
/// 0x7FFFFFFF when none).
///
/// The wait itself is one poll() over the handles of either set, kept sorted by handle, so that
/// descriptors above 1023 work and ready handles are reported in ascending order (their handlers
/// are then called in descending handle order, see VEL_IOReactor), in time that follows the
/// number of handles polled, not the span of their values. An error or hang-up on a
/// handle is reported as readiness for each operation asked for, as select reports it, so that
/// the handler meets the end of stream or the error in its read or write. A descriptor that is no
/// longer open makes the wait fail with kVELErr_BadFd (unless its removal is under way), which
/// makes handleError drop the dead handlers. With nothing to poll and no time-out, the wait
/// sleeps for one second at most and returns, so that a stop or a new registration is seen.
///
/// Thread safety: as VEL_IOReactor; the polling set belongs to the reactor thread.
class VEL_SelectIOReactor : public VEL_SockCtrlIOReactor {
public:
    /// Handles per set, and the largest reactor size.
    static constexpr unsigned int kSetSize = 2048;

    /// `size` above kSetSize is lowered to it.
    VEL_SelectIOReactor(unsigned long size, const basis::TimeValue& idleTimeout);
    /// Stops and joins the loop if it runs.
    ~VEL_SelectIOReactor() override;

    /// kVELErr_BadReactorSize (traced) above kSetSize; otherwise as VEL_IOReactor::setSize.
    VELErr_t setSize(unsigned long size) override;

    ///@{
    /// The highest and lowest handle polled (0 and 0x7FFFFFFF when none). Reactor thread.
    unsigned int getHighestHandle() const { return _highest; }
    unsigned int getLowestHandle() const { return _lowest; }
    ///@}

protected:
    VELErr_t waitForEvents(const basis::TimeValue* timeout) override;
    /// Each always kVELErr_Ok.
    VELErr_t addHandle(unsigned int handle, unsigned short ops) override;
    VELErr_t removeHandle(unsigned int handle) override;
    /// Leaves the highest and lowest handles as they are.
    VELErr_t changeHandleOps(unsigned int handle, unsigned short ops) override;

private:
    struct HandleSet {
        unsigned int count = 0;
        unsigned int handles[kSetSize];
    };

    void putInSets(unsigned int handle, unsigned short ops);
    void dropFromSets(unsigned int handle);
    bool append(HandleSet& set, unsigned int handle);
    VELErr_t sleepEmpty();
    void traceUnpolled();

    unsigned int _highest;
    unsigned int _lowest;
    HandleSet _readSet;
    HandleSet _writeSet;
    /// The handles of either set with the events asked for, sorted by handle; poll() fills in
    /// what it found.
    std::vector<pollfd> _pollSet;
    std::vector<VELReadyHandle_t> _ready;  ///< the last wait's report, kept to avoid allocating
    unsigned int _unpolled;                ///< handles left out of a full set since the last wait
    unsigned int _lastUnpolled;            ///< the last of them
};

#endif  // FRAME_INCLUDE_VEL_SELECTIOREACTOR_H
