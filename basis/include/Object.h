/// @file
/// Pools of reusable objects: basis::BaseObject (a poolable object with a lock count),
/// basis::Object<T> (one T lent out by a pool), and the pool managers.
///
/// A pool hands out a free object with its lock count at 1 (getFreeObject); each user that shares
/// it calls lock(); unlock() drops one user, and the last unlock() gives the object back to the
/// pool it came from (setObject). When no free object is left the pool makes a block of
/// `blockSize` new ones. Objects are never freed while the pool lives; the pool's destructor
/// frees all of them, so a pool must outlive every object it lent.
///
/// Thread safety: BaseObjectMgr locks its lists internally, so getFreeObject, setObject and
/// unlock() may be called from any thread. The "MtSafe" typed forms are typed views on that.
/// A T inside an Object<T> is the business of its user.
#ifndef BASIS_INCLUDE_OBJECT_H
#define BASIS_INCLUDE_OBJECT_H

#include <atomic>
#include <mutex>
#include <vector>

#include "ThreadMutex.h"
#include "Tools.h"

namespace basis {

class BaseObject;

/// The side of a pool that takes objects back.
class BaseObjectConsumerMgr {
public:
    virtual ~BaseObjectConsumerMgr() = default;
    /// Takes an object back. kErr_BadValue for a null object.
    virtual Err_t setObject(BaseObject* object) = 0;
};

/// The side of a pool that hands objects out.
class BaseObjectProducerMgr {
public:
    virtual ~BaseObjectProducerMgr() = default;
    /// Hands out a free object (lock count 1). kErr_Alloc when none can be made.
    virtual Err_t getFreeObject(BaseObject** object) = 0;
    /// Objects the pool has made in all.
    virtual unsigned long getCount() const = 0;
};

/// A poolable object with a lock count (the number of its users); see the file comment.
class BaseObject {
public:
    BaseObject() = default;
    virtual ~BaseObject() = default;
    BaseObject(const BaseObject&) = delete;
    BaseObject& operator=(const BaseObject&) = delete;

    /// One more user.
    void lock() { _lockCount.fetch_add(1); }
    /// One user less; the last one gives the object back to its pool.
    void unlock();
    /// The number of users.
    unsigned long getLockCount() const { return _lockCount.load(); }

private:
    friend class BaseObjectMgr;
    BaseObjectConsumerMgr* _owner = nullptr;
    std::atomic<unsigned long> _lockCount{0};
};

/// One T lent out by an ObjectMgr<T>.
template <class T>
class Object : public BaseObject {
public:
    ///@{
    /// The T inside.
    T* get() { return &_value; }
    T& operator*() { return _value; }
    T* operator->() { return &_value; }
    ///@}

private:
    T _value;
};

/// A pool: makes objects with createObject(), `blockSize` at a time, lends them out and takes them
/// back. Its lists are locked internally.
class BaseObjectMgr : public BaseObjectProducerMgr, public BaseObjectConsumerMgr {
public:
    /// Guards the creation of process-wide pools by their users.
    static ThreadMutex _InstanceMutex;

    /// An empty pool that makes `blockSize` objects whenever it runs out.
    explicit BaseObjectMgr(unsigned long blockSize);
    ~BaseObjectMgr() override;
    BaseObjectMgr(const BaseObjectMgr&) = delete;
    BaseObjectMgr& operator=(const BaseObjectMgr&) = delete;

    Err_t getFreeObject(BaseObject** object) override;
    Err_t setObject(BaseObject* object) override;
    unsigned long getCount() const override;
    /// Objects waiting in the pool.
    unsigned long getFreeCount() const;

protected:
    /// Makes one new object of the pool's type.
    virtual BaseObject* createObject() = 0;

private:
    const unsigned long _blockSize;
    mutable std::mutex _lock;  ///< guards _free and _all
    std::vector<BaseObject*> _free;
    std::vector<BaseObject*> _all;
};

/// A pool of Object<T>.
template <class T>
class ObjectMgr : public BaseObjectMgr {
public:
    /// An empty pool that makes `blockSize` objects whenever it runs out.
    explicit ObjectMgr(unsigned long blockSize = 8) : BaseObjectMgr(blockSize) {}

    using BaseObjectMgr::getFreeObject;
    /// getFreeObject, typed.
    Err_t getFreeObject(Object<T>** object) {
        BaseObject* base = nullptr;
        const Err_t result = BaseObjectMgr::getFreeObject(&base);
        *object = static_cast<Object<T>*>(base);
        return result;
    }

protected:
    BaseObject* createObject() override { return new Object<T>(); }
};

/// Typed view of a pool's producing side.
template <class T>
class ObjectProducerMgrMtSafe {
public:
    /// A view of `pool`, which must outlive it.
    explicit ObjectProducerMgrMtSafe(ObjectMgr<T>& pool) : _pool(pool) {}
    /// The pool's getFreeObject.
    Err_t getFreeObject(Object<T>** object) { return _pool.getFreeObject(object); }
    /// The pool's getCount.
    unsigned long getCount() const { return _pool.getCount(); }

private:
    ObjectMgr<T>& _pool;
};

/// Typed view of a pool's consuming side.
template <class T>
class ObjectConsumerMgrMtSafe {
public:
    /// A view of `pool`, which must outlive it.
    explicit ObjectConsumerMgrMtSafe(ObjectMgr<T>& pool) : _pool(pool) {}
    /// The pool's setObject.
    Err_t setObject(Object<T>* object) { return _pool.setObject(object); }

private:
    ObjectMgr<T>& _pool;
};

}  // namespace basis

#endif  // BASIS_INCLUDE_OBJECT_H
