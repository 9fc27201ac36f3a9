#include "VEL_TimerSubscriberInterface.h"

#include "VEL_StaticInit.h"

namespace {
const VEL_StaticInit kStaticInit;
}  // namespace

void VEL_TimerSubscriberInterface::cancel() {}

void VEL_CompositeTimerSubscriber::handleEvent(unsigned long timerId) {
    for (VEL_TimerSubscriberInterface* subscriber : _subscribers) {
        subscriber->handleEvent(timerId);
    }
}
