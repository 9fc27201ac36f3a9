// A queue that tells the tests how many threads are blocked in it, so that a test acts only once
// a waiter really sleeps.
#ifndef TESTS_SUPPORT_QUEUEPROBE_H
#define TESTS_SUPPORT_QUEUEPROBE_H

#include "VEL_Queue.h"

namespace veltest {

template <class T>
class ProbeQueue : public VEL_Queue<T> {
public:
    using VEL_Queue<T>::VEL_Queue;

    unsigned long blockedConsumers() const {
        typename VEL_QueueBase<T>::Hold hold(this->_mutex);
        return this->_getWaiters.blocked;
    }
    unsigned long blockedProducers() const {
        typename VEL_QueueBase<T>::Hold hold(this->_mutex);
        return this->_putWaiters.blocked;
    }
};

}  // namespace veltest

#endif  // TESTS_SUPPORT_QUEUEPROBE_H
