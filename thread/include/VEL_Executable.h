/// @file
#ifndef THREAD_INCLUDE_VEL_EXECUTABLE_H
#define THREAD_INCLUDE_VEL_EXECUTABLE_H

/// VEL_Executable: a unit of work that a VEL_ThreadPool runs on one of its threads.
///
/// Ownership: whoever creates an item keeps it; the pool only calls execute() and never deletes
/// an item it executed (VEL_ThreadPool::clean deletes the items it discards).
///
/// Thread safety: execute() runs on a pool thread, concurrently with other items.
class VEL_Executable {
public:
    VEL_Executable() = default;
    ///@{
    /// A plain copy.
    VEL_Executable(const VEL_Executable&) = default;
    VEL_Executable& operator=(const VEL_Executable&) = default;
    ///@}
    virtual ~VEL_Executable() = default;

    /// The work, on a pool thread.
    virtual void execute() = 0;
};

#endif  // THREAD_INCLUDE_VEL_EXECUTABLE_H
