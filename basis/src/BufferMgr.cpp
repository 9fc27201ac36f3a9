#include "BufferMgr.h"

#include <cstring>
#include <new>
#include <utility>

#include "Exception.h"

namespace basis {

namespace {

// The manager lives until the process ends (buffers may still be held by static objects of the
// application during shutdown); StaticInit trims its cache when the library is released.
std::atomic<BufferMgr*> gInstance{nullptr};
std::mutex gInstanceLock;

constexpr unsigned long kCacheBytesPerClass = 16ul * 1024 * 1024;
constexpr unsigned long kCacheCountMax = 256;

unsigned long keepMaxFor(unsigned long capacity) {
    const unsigned long count = kCacheBytesPerClass / capacity;
    return count < 1 ? 1 : (count > kCacheCountMax ? kCacheCountMax : count);
}

}  // namespace

Buffer::Buffer(BufferMgr* manager, unsigned int sizeClass, char* data, unsigned long capacity)
    : _manager(manager), _class(sizeClass), _data(data), _capacity(capacity) {}

Buffer::~Buffer() {
    delete[] _data;
}

void Buffer::setSize(unsigned long size) {
    _size = size <= _capacity ? size : _capacity;
}

void Buffer::resize(unsigned long size) {
    if (size <= _capacity) {
        _size = size;
        return;
    }
    const int sizeClass = _manager->classFor(size);
    if (sizeClass < 0) {
        throw BufferException("Buffer size above the largest single buffer", __LINE__,
                              "kErr_Alloc");
    }
    Buffer* larger = _manager->take(static_cast<unsigned int>(sizeClass));  // may throw
    if (_size > 0) {
        std::memcpy(larger->_data, _data, _size);
    }
    std::swap(_data, larger->_data);
    std::swap(_capacity, larger->_capacity);
    std::swap(_class, larger->_class);
    _size = size;
    _manager->give(larger);  // now holds the old, smaller storage
}

void Buffer::release() {
    _manager->_outstanding.fetch_sub(1);
    _manager->give(this);
}

BufferMgr* BufferMgr::Instance(unsigned long preallocated, unsigned long maxBufferSize,
                               unsigned long growthFactor, unsigned long minBufferSize) {
    BufferMgr* manager = gInstance.load(std::memory_order_acquire);
    if (manager != nullptr) {
        return manager;
    }
    std::lock_guard<std::mutex> hold(gInstanceLock);
    manager = gInstance.load(std::memory_order_relaxed);
    if (manager == nullptr) {
        manager = new BufferMgr(preallocated, maxBufferSize, growthFactor, minBufferSize);
        gInstance.store(manager, std::memory_order_release);
    }
    return manager;
}

BufferMgr* BufferMgr::Default() {
    return Instance(0, 67108864, 2, 2048);
}

BufferMgr::BufferMgr(unsigned long preallocated, unsigned long maxBufferSize,
                     unsigned long growthFactor, unsigned long minBufferSize)
    : _maxBufferSize(maxBufferSize) {
    const unsigned long factor = growthFactor < 2 ? 2 : growthFactor;
    const unsigned long smallest = minBufferSize == 0 ? 1 : minBufferSize;
    unsigned int count = 1;
    for (unsigned long capacity = smallest; capacity < maxBufferSize; capacity *= factor) {
        ++count;
    }
    _classes.reset(new SizeClass[count]);
    _classCount = count;
    unsigned long capacity = smallest;
    for (unsigned int i = 0; i < count; ++i) {
        _classes[i].capacity =
                (i + 1 == count && maxBufferSize > smallest) ? maxBufferSize : capacity;
        _classes[i].keepMax = keepMaxFor(_classes[i].capacity);
        capacity *= factor;
    }
    for (unsigned long i = 0; i < preallocated && i < _classes[0].keepMax; ++i) {
        give(take(0));
    }
}

BufferMgr::~BufferMgr() {
    trim();
}

int BufferMgr::classFor(unsigned long size) const {
    if (size > _maxBufferSize) {
        return -1;
    }
    for (unsigned int i = 0; i < _classCount; ++i) {
        if (size <= _classes[i].capacity) {
            return static_cast<int>(i);
        }
    }
    return -1;
}

Buffer* BufferMgr::allocate(unsigned long size) {
    const int sizeClass = classFor(size);
    if (sizeClass < 0) {
        return nullptr;
    }
    Buffer* buffer = take(static_cast<unsigned int>(sizeClass));
    buffer->_size = size;
    _outstanding.fetch_add(1);
    return buffer;
}

Buffer* BufferMgr::take(unsigned int sizeClass) {
    SizeClass& entry = _classes[sizeClass];
    {
        std::lock_guard<std::mutex> hold(entry.lock);
        if (Buffer* buffer = entry.freeList) {
            entry.freeList = buffer->_nextFree;
            --entry.freeCount;
            buffer->_nextFree = nullptr;
            buffer->_size = 0;
            return buffer;
        }
    }
    try {
        char* data = new char[entry.capacity];
        return new Buffer(this, sizeClass, data, entry.capacity);
    } catch (const std::bad_alloc&) {
        throw BufferException("Cannot allocate a buffer", __LINE__, "kErr_Alloc");
    }
}

void BufferMgr::give(Buffer* buffer) {
    SizeClass& entry = _classes[buffer->_class];
    {
        std::lock_guard<std::mutex> hold(entry.lock);
        if (entry.freeCount < entry.keepMax) {
            buffer->_nextFree = entry.freeList;
            entry.freeList = buffer;
            ++entry.freeCount;
            return;
        }
    }
    delete buffer;
}

void BufferMgr::trim() {
    for (unsigned int i = 0; i < _classCount; ++i) {
        Buffer* list = nullptr;
        {
            std::lock_guard<std::mutex> hold(_classes[i].lock);
            list = _classes[i].freeList;
            _classes[i].freeList = nullptr;
            _classes[i].freeCount = 0;
        }
        while (list != nullptr) {
            Buffer* next = list->_nextFree;
            delete list;
            list = next;
        }
    }
}

void BufferMgr::TrimDefault() {
    if (BufferMgr* manager = gInstance.load(std::memory_order_acquire)) {
        manager->trim();
    }
}

}  // namespace basis
