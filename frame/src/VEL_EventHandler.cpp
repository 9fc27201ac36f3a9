#include "VEL_EventHandler.h"

#include <mutex>

#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_EventHandler::VEL_EventHandler(unsigned int handle) : _handle(handle) {}

boost::shared_ptr<VEL_EventHandler> VEL_EventHandler::Create(unsigned int handle) {
    return boost::shared_ptr<VEL_EventHandler>(new VEL_EventHandler(handle));
}

bool VEL_EventHandler::handleInput() {
    return true;
}

bool VEL_EventHandler::handleOutput(void* /*arg*/) {
    return true;
}

bool VEL_EventHandler::handleInactivity() {
    return true;
}

bool VEL_EventHandler::handleClose() {
    return true;
}

unsigned int VEL_EventHandler::getHandle() const {
    return _handle.load(std::memory_order_relaxed);
}

void VEL_EventHandler::setHandle(unsigned int handle) {
    _handle.store(handle, std::memory_order_relaxed);
}

void VEL_EventHandler::notifyActivity(const basis::TimeValue& now) {
    std::lock_guard<basis::ThreadMutex> hold(_activityLock);
    _lastActivity = now;
}

basis::TimeValue VEL_EventHandler::getLastActTime() const {
    std::lock_guard<basis::ThreadMutex> hold(_activityLock);
    return _lastActivity;
}
