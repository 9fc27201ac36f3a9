/// @file
#ifndef THREAD_INCLUDE_VEL_TIMERSUBSCRIBERINTERFACE_H
#define THREAD_INCLUDE_VEL_TIMERSUBSCRIBERINTERFACE_H

#include <list>

/// VEL_TimerSubscriberInterface: the object a timer calls back, and VEL_CompositeTimerSubscriber,
/// which fans one timer out to several subscribers.
///
/// An application arms a timer for a subscriber through VEL_TimerManager::subscribe; when the
/// timer falls due the manager calls handleEvent with the timer's identifier, and when the timer
/// is cancelled for good (VEL_TimerManager::unsubscribe) it calls cancel().
///
/// Ownership: the manager holds a subscriber by shared pointer, weakly, or by plain pointer, as
/// the caller chose when subscribing. A composite does not own the subscribers it lists; each must
/// outlive every timer armed for the composite.
///
/// Thread safety: handleEvent and cancel run on the timer manager's threads while application
/// threads go on; an implementation guards its own state. A composite's list is fixed once the
/// composite is subscribed.
class VEL_TimerSubscriberInterface {
public:
    virtual ~VEL_TimerSubscriberInterface() = default;

    /// The timer `timerId` has fallen due. Called on a timer thread with the timer's handler
    /// locked: the subscriber must not call cancel on its own handler from here (it may
    /// unsubscribe, which ends the timer after this call returns).
    virtual void handleEvent(unsigned long timerId) = 0;
    /// The timer was cancelled for good; no handleEvent follows. Does nothing by default.
    virtual void cancel();
};

/// A subscriber that passes each event on to a list of subscribers, which it does not own.
class VEL_CompositeTimerSubscriber : public VEL_TimerSubscriberInterface {
public:
    /// Copies the list; the subscribers must outlive this object.
    explicit VEL_CompositeTimerSubscriber(
            const std::list<VEL_TimerSubscriberInterface*>& subscribers)
        : _subscribers(subscribers) {}

    /// Calls handleEvent(timerId) on every listed subscriber, in list order.
    void handleEvent(unsigned long timerId) override;

private:
    std::list<VEL_TimerSubscriberInterface*> _subscribers;
};

#endif  // THREAD_INCLUDE_VEL_TIMERSUBSCRIBERINTERFACE_H
