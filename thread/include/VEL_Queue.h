/// @file
#ifndef THREAD_INCLUDE_VEL_QUEUE_H
#define THREAD_INCLUDE_VEL_QUEUE_H

#include "VEL_FastQueue.h"

/// VEL_Queue<T>: the bounded blocking queue that callers use; a VEL_FastQueue (ring buffer) under
/// its everyday name, with the same constructors, rules and thread safety.
template <class T>
class VEL_Queue : public VEL_FastQueue<T> {
public:
    using VEL_FastQueue<T>::VEL_FastQueue;
};

#endif  // THREAD_INCLUDE_VEL_QUEUE_H
