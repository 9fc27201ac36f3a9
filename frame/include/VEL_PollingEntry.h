/// @file
#ifndef FRAME_INCLUDE_VEL_POLLINGENTRY_H
#define FRAME_INCLUDE_VEL_POLLINGENTRY_H

#include <atomic>
#include <vector>

#include <boost/shared_ptr.hpp>

#include "ThreadMutex.h"
#include "TimeValue.h"
#include "VEL_Err.h"
#include "VEL_EventHandler.h"

namespace basis {
class BaseObject;
}  // namespace basis

/// The state of a polling entry.
enum VELEntryState_t {
    kVELEntry_Free = 0,      ///< not in use, or finished and about to go back to the pool
    kVELEntry_Active = 1,    ///< in the back end's polling set
    kVELEntry_ToAdd = 2,     ///< registered; waiting for the reactor thread to poll it
    kVELEntry_ToRemove = 3,  ///< unregistered; waiting for the reactor thread to stop polling it
    kVELEntry_ToChange = 4,  ///< operations changed, or registered again while a removal waited
    kVELEntry_Removed = 5,   ///< removed by its own handler during dispatch; freed at the next pass
    kVELEntry_ToResize = 6   ///< marker asking the reactor thread to resize the back end
};

/// VEL_PollingEntry: a reactor's record of one registered handle, and VEL_PollingTable, the
/// reactor's hash tables of entries keyed by handle.
///
/// An entry ties a handle to its VEL_EventHandler, the operations the handler asked for (wanted),
/// the operations found ready in the current pass (ready), the handler's inactivity time-out, and
/// the entry's place in the reactor's work lists. processEvents() is where the reactor thread calls
/// the handler, in a fixed order: input, output, inactivity, then close; after each call-back the
/// state is read again, so that a handler that unregistered itself gets nothing more in that pass.
/// A call-back that returns false (or throws) is followed by handleClose(); when that returns false
/// too the pass reports kVELErr_UserCode.
///
/// Invariants, kept by VEL_IOReactor:
/// - State, wanted operations, handler, handle and time-out: a thread other than the reactor
///   thread reads or writes them only while holding both the reactor's table lock and the entry
///   lock; the reactor thread holds at least one of them. No lock is held while a call-back runs.
/// - Ready operations: set by the reactor thread only; cleared by a reset under the entry lock.
/// - The entry is on the pending list exactly when its pending flag is set (reactor thread only);
///   it is never put back in the pool while on the pending or released list (both belong to the
///   reactor thread), nor while in a table or on the modification list (table lock).
/// - An entry is in a table under the handle it was inserted with; each table holds one entry per
///   handle at most.
///
/// Ownership: entries live in a reactor's pool of basis::Object<VEL_PollingEntry>; an entry holds
/// one reference to its handler until it is reset with a null handler.
///
/// Thread safety: see the invariants; outside a reactor an entry belongs to one thread.
class VEL_PollingEntry {
public:
    /// Free: no handler, no handle, masks 0, time-out zero, on no list.
    VEL_PollingEntry();
    virtual ~VEL_PollingEntry();
    VEL_PollingEntry(const VEL_PollingEntry&) = delete;
    VEL_PollingEntry& operator=(const VEL_PollingEntry&) = delete;

    /// Sets state, wanted operations and handler, clears the ready operations, and stores the
    /// time-out (zero: the reactor's default; -1 s: never checked). With a handler, the handle
    /// becomes the handler's and the handler's activity date is set to now (GetHRTime), so that a
    /// fresh registration never counts as inactive; with a null handler the handle is kept.
    /// REQUIRES: the caller holds the locks the invariants ask for.
    void reset(VELEntryState_t state, unsigned short ops,
               const boost::shared_ptr<VEL_EventHandler>& handler,
               const basis::TimeValue& inactivityTimeout);
    /// True when some operation is ready.
    bool isReady() const { return _readyOps.load(std::memory_order_relaxed) != 0; }
    /// True in the states Active, ToAdd and ToChange.
    bool isValid() const;

    /// Dispatches the ready operations to the handler (see the file comment), records `now` as
    /// the handler's activity, and clears the ready operations. kVELErr_Ok, or kVELErr_UserCode
    /// when a handleClose() returned false (traced under the reactor error mask with the handle).
    /// Reactor thread only; takes the entry lock around its reads, never across a call-back.
    virtual VELErr_t processEvents(const basis::TimeValue& now);

private:
    friend class VEL_IOReactor;
    friend class VEL_PollingTable;

    /// Links of one table: the bucket chain, the table's list of all its entries, and the key.
    struct TableLink {
        VEL_PollingEntry* chain = nullptr;
        VEL_PollingEntry* prev = nullptr;
        VEL_PollingEntry* next = nullptr;
        unsigned int key = 0;
        bool in = false;
    };

    /// What dispatch needs, read under the entry lock.
    struct View {
        bool valid;
        unsigned short ready;
        unsigned int handle;
        boost::shared_ptr<VEL_EventHandler> handler;
    };
    View look();
    VELErr_t callBack(const View& view, unsigned short op);

    VELEntryState_t _state;
    /// Guards the entry's fields as the invariants say; taken at most once per thread. Lock
    /// order: after the reactor's table lock, before its counter lock and any handler's
    /// activity lock.
    basis::ThreadMutex _entryLock;
    unsigned short _wantedOps;
    std::atomic<unsigned short> _readyOps;
    boost::shared_ptr<VEL_EventHandler> _evtHandler;
    unsigned int _handle;
    basis::TimeValue _inactivityTimeout;
    VEL_PollingEntry* _nextPending;   ///< reactor thread
    VEL_PollingEntry* _nextModif;     ///< table lock
    VEL_PollingEntry* _nextReleased;  ///< reactor thread

    bool _pending;                   ///< on the pending list; reactor thread
    basis::BaseObject* _poolObject;  ///< the pool object holding this entry
    TableLink _tableLinks[2];        ///< table lock
};

/// A hash table of entries keyed by handle, chained through the entries themselves, so that
/// inserting and erasing never allocate. The bucket count is fixed at construction: a prime at
/// least twice the reactor size, so that a full reactor keeps a load factor of at most 0.5.
/// Entries can be visited in insertion order in time proportional to their number.
///
/// Thread safety: none; the reactor guards its tables with its table lock.
class VEL_PollingTable {
public:
    /// Which links of the entries the table uses: an entry can be in one table of each kind.
    enum Kind { kEntries = 0, kModifications = 1 };

    /// Throws std::bad_alloc when the buckets cannot be allocated.
    VEL_PollingTable(Kind kind, unsigned long size);
    VEL_PollingTable(const VEL_PollingTable&) = delete;
    VEL_PollingTable& operator=(const VEL_PollingTable&) = delete;

    /// The entry of `handle`, or null.
    VEL_PollingEntry* find(unsigned int handle) const;
    /// True when `entry` is in the table.
    bool contains(const VEL_PollingEntry* entry) const { return link(entry).in; }
    /// Inserts under the entry's handle. REQUIRES: no entry of that handle is in the table.
    void insert(VEL_PollingEntry* entry);
    /// Erases the entry; nothing when it is not in the table.
    void erase(VEL_PollingEntry* entry);
    /// The number of entries.
    unsigned long size() const { return _count; }
    /// Calls visit(entry) for each entry, oldest first. REQUIRES: visit does not change the table.
    template <class Visit>
    void forEach(const Visit& visit) const {
        for (VEL_PollingEntry* entry = _first; entry != nullptr; entry = link(entry).next) {
            visit(entry);
        }
    }

private:
    VEL_PollingEntry::TableLink& link(VEL_PollingEntry* entry) const {
        return entry->_tableLinks[_kind];
    }
    const VEL_PollingEntry::TableLink& link(const VEL_PollingEntry* entry) const {
        return entry->_tableLinks[_kind];
    }
    VEL_PollingEntry*& bucket(unsigned int handle) { return _buckets[handle % _buckets.size()]; }

    const Kind _kind;
    std::vector<VEL_PollingEntry*> _buckets;
    VEL_PollingEntry* _first = nullptr;
    VEL_PollingEntry* _last = nullptr;
    unsigned long _count = 0;
};

#endif  // FRAME_INCLUDE_VEL_POLLINGENTRY_H
