/// @file
/// basis::BufferMgr and basis::Buffer: the process-wide pool of byte buffers that messages carry.
///
/// Buffers are kept by size class: capacities are minBufferSize x growthFactor^k up to the
/// largest single buffer. A request is served from the free list of the smallest class that
/// holds it and goes back to that list on release, so a steady flow of messages allocates
/// nothing. Each class keeps a bounded number of free buffers (many small ones, few large ones);
/// beyond that, released buffers are freed.
///
/// A request above the largest single buffer (the second Instance argument, 64 MiB in the
/// library) yields no buffer, so a peer that announces a huge body cannot make the library
/// allocate without bound.
///
/// Invariants: a Buffer is either handed out (owned by one user) or on exactly one free list;
/// size() <= capacity(); capacity() is the capacity of the buffer's class.
///
/// Thread safety: allocate() and Buffer::release() may be called from any thread; each class has
/// its own lock, held only to push or pop one buffer. A Buffer handed out belongs to one user.
#ifndef BASIS_INCLUDE_BUFFERMGR_H
#define BASIS_INCLUDE_BUFFERMGR_H

#include <atomic>
#include <memory>
#include <mutex>

namespace basis {

class BufferMgr;

/// One buffer of the pool, handed out by BufferMgr::allocate (see the file comment).
class Buffer {
public:
    Buffer(const Buffer&) = delete;
    Buffer& operator=(const Buffer&) = delete;

    ///@{
    /// The bytes.
    char* data() { return _data; }
    const char* data() const { return _data; }
    ///@}
    /// The length in use; the contents beyond it are unspecified.
    unsigned long size() const { return _size; }
    /// The most bytes the buffer holds: its class's capacity.
    unsigned long capacity() const { return _capacity; }

    /// Sets the length in use. REQUIRES: size <= capacity().
    void setSize(unsigned long size);
    /// Sets the length in use, moving the bytes to a larger buffer when needed (the first
    /// min(old, new) bytes are kept). Throws basis::BufferException when `size` is above the
    /// largest single buffer or memory runs out; the buffer is then unchanged.
    void resize(unsigned long size);
    /// Gives the buffer back to its manager. The pointer must not be used afterwards.
    void release();

private:
    friend class BufferMgr;
    Buffer(BufferMgr* manager, unsigned int sizeClass, char* data, unsigned long capacity);
    ~Buffer();

    BufferMgr* _manager;
    unsigned int _class;
    char* _data;
    unsigned long _capacity;
    unsigned long _size = 0;
    Buffer* _nextFree = nullptr;  ///< link on the free list of its class
};

/// The pool of buffers (see the file comment).
class BufferMgr {
public:
    /// The process-wide manager, created by the first call with these parameters (later calls
    /// return it unchanged): `preallocated` buffers of the smallest class made at once,
    /// `maxBufferSize` the largest single buffer, `growthFactor` the ratio between classes (at
    /// least 2), `minBufferSize` the capacity of the smallest class.
    static BufferMgr* Instance(unsigned long preallocated, unsigned long maxBufferSize,
                               unsigned long growthFactor, unsigned long minBufferSize);
    /// The instance the library uses: Instance(0, 67108864, 2, 2048).
    static BufferMgr* Default();

    BufferMgr(const BufferMgr&) = delete;
    BufferMgr& operator=(const BufferMgr&) = delete;

    /// A buffer of at least `size` bytes with size() == size, or null when `size` is above the
    /// largest single buffer. Throws basis::BufferException when memory runs out.
    Buffer* allocate(unsigned long size);

    /// The largest single buffer, in bytes.
    unsigned long getMaxBufferSize() const { return _maxBufferSize; }
    /// Buffers currently handed out (for leak checks).
    unsigned long getOutstanding() const { return _outstanding.load(); }
    /// Frees every cached free buffer.
    void trim();
    /// trim() on the process-wide manager, if it was ever created.
    static void TrimDefault();

private:
    friend class Buffer;
    struct SizeClass {
        std::mutex lock;  ///< guards freeList and freeCount
        Buffer* freeList = nullptr;
        unsigned long freeCount = 0;
        unsigned long capacity = 0;
        unsigned long keepMax = 0;  ///< free buffers kept at most
    };

    BufferMgr(unsigned long preallocated, unsigned long maxBufferSize, unsigned long growthFactor,
              unsigned long minBufferSize);
    ~BufferMgr();

    int classFor(unsigned long size) const;
    Buffer* take(unsigned int sizeClass);
    void give(Buffer* buffer);

    unsigned long _maxBufferSize;
    std::unique_ptr<SizeClass[]> _classes;
    unsigned int _classCount = 0;
    std::atomic<unsigned long> _outstanding{0};
};

}  // namespace basis

#endif  // BASIS_INCLUDE_BUFFERMGR_H
