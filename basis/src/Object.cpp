#include "Object.h"

#include <algorithm>

namespace basis {

ThreadMutex BaseObjectMgr::_InstanceMutex;

void BaseObject::unlock() {
    if (_lockCount.fetch_sub(1) == 1 && _owner != nullptr) {
        (void)_owner->setObject(this);  // cannot fail for a non-null object
    }
}

BaseObjectMgr::BaseObjectMgr(unsigned long blockSize) : _blockSize(blockSize ? blockSize : 1) {}

BaseObjectMgr::~BaseObjectMgr() {
    for (BaseObject* object : _all) {
        delete object;
    }
}

Err_t BaseObjectMgr::getFreeObject(BaseObject** object) {
    std::lock_guard<std::mutex> hold(_lock);
    if (_free.empty()) {
        try {
            // Grow geometrically: reserving exactly one more block each time would copy the
            // lists again at every block. _free can hold every object, so setObject never
            // allocates.
            const std::size_t wanted = _all.size() + _blockSize;
            if (_all.capacity() < wanted) {
                _all.reserve(std::max(wanted, 2 * _all.capacity()));
            }
            if (_free.capacity() < _all.capacity()) {
                _free.reserve(_all.capacity());
            }
            for (unsigned long i = 0; i < _blockSize; ++i) {
                BaseObject* made = createObject();
                made->_owner = this;
                _all.push_back(made);
                _free.push_back(made);
            }
        } catch (const std::bad_alloc&) {
            if (_free.empty()) {
                *object = nullptr;
                return kErr_Alloc;
            }
        }
    }
    BaseObject* taken = _free.back();
    _free.pop_back();
    taken->_lockCount.store(1, std::memory_order_relaxed);  // the pool lock orders it
    *object = taken;
    return kErr_Ok;
}

Err_t BaseObjectMgr::setObject(BaseObject* object) {
    if (object == nullptr) {
        return kErr_BadValue;
    }
    object->_lockCount.store(0, std::memory_order_relaxed);  // published by the pool lock
    std::lock_guard<std::mutex> hold(_lock);
    _free.push_back(object);  // capacity was reserved when the object was made
    return kErr_Ok;
}

unsigned long BaseObjectMgr::getCount() const {
    std::lock_guard<std::mutex> hold(_lock);
    return _all.size();
}

unsigned long BaseObjectMgr::getFreeCount() const {
    std::lock_guard<std::mutex> hold(_lock);
    return _free.size();
}

}  // namespace basis
