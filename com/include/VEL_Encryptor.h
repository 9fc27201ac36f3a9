/// @file
#ifndef COM_INCLUDE_VEL_ENCRYPTOR_H
#define COM_INCLUDE_VEL_ENCRYPTOR_H

#include <atomic>
#include <map>

#include <boost/shared_ptr.hpp>

#include "BoundedString.h"
#include "ThreadAnnotations.h"
#include "ThreadMutex.h"
#include "VEL_Err.h"
#include "VEL_TimerSubscriberInterface.h"

namespace basis {
class RWThreadMutex;
}  // namespace basis

/// One entry of the VEL_Encryptor's table: a session ID and its CAST-128 key schedule, with the
/// inactivity timer that closes it (see VEL_Encryptor).
class VEL_SecureSession : public VEL_TimerSubscriberInterface {
public:
    /// Makes a session with `id` keyed with a copy of `key`, the 132-byte CAST key schedule that
    /// VEL_CryptoTools::GenerateCastKey makes (the caller keeps its block). With an inactivity
    /// time-out set, arms a one-shot timer for it. Returns an empty pointer when memory runs out.
    /// May throw std::runtime_error when the timer manager cannot start.
    static boost::shared_ptr<VEL_SecureSession> Create(const char* key, unsigned long id);
    /// Re-arms the session's inactivity timer from now. Nothing for an empty pointer, a time-out
    /// of 0, or a closed session. Any thread.
    static void ResetInactivityTimer(const boost::shared_ptr<VEL_SecureSession>& session);

    /// Frees the schedule and cancels a timer that is still armed.
    ~VEL_SecureSession() override;
    VEL_SecureSession(const VEL_SecureSession&) = delete;
    VEL_SecureSession& operator=(const VEL_SecureSession&) = delete;

    /// The inactivity timer fired: the session closes itself (leaves the table). A timer that the
    /// session has already replaced or stopped is ignored. Timer thread.
    void handleEvent(unsigned long timerId) override;

    /// The session's ID.
    unsigned long getSecureSessionID() const { return _secureSessionID; }
    /// The session's key schedule (132 bytes), owned by the session.
    const char* getPrivateKey() const { return _privateKey; }

private:
    friend class VEL_Encryptor;

    /// Copies the schedule at `key`; _privateKey is null when no copy could be made.
    VEL_SecureSession(const char* key, unsigned long id);
    /// Arms a one-shot timer of `timeout` seconds and records it, unless the session was closed,
    /// or armed by another thread, meanwhile (the new timer is cancelled then).
    static void Arm(const boost::shared_ptr<VEL_SecureSession>& session, unsigned long timeout);
    /// Marks the session closed and cancels its timer. Any thread; not under the table lock.
    void stopTimer();

    const unsigned long _secureSessionID;
    char* const _privateKey;  ///< the session's own copy of the schedule, from malloc

    basis::ThreadMutex _timerLock;  ///< guards _timerId and _closed; see the lock order above
    unsigned long _timerId VEL_GUARDED_BY(_timerLock) = 0;  ///< the armed timer, 0 when none
    bool _closed VEL_GUARDED_BY(_timerLock) = false;        ///< left the table: never re-armed
    /// The last timer ignored by handleEvent.
    unsigned long _firedEarly VEL_GUARDED_BY(_timerLock) = 0;
};

/// VEL_Encryptor: the process-wide table of open secure sessions, and VEL_SecureSession, one entry
/// of it.
///
/// A secure session pairs a numeric ID with a CAST-128 key schedule made from a 16-byte key
/// (VEL_CryptoTools). Applications and the HOLM transport open a session from a key, then encrypt
/// and decrypt buffers by session ID. With an inactivity time-out set, a session that is not used
/// for decryption during that time closes itself through the timer manager; encryption does not
/// count as use, so a peer that only sends keeps its session only while it also receives.
///
/// Session IDs run 1, 2, ..., 2^24 - 1, then wrap to 1; 0 is never handed out. After a wrap, IDs
/// still in the table are skipped.
///
/// Failures: an unknown session ID, or a session that cannot be made, is reported by a trace line
/// "COM -  <status text> ; <message>" (level 3) and a std::runtime_error carrying the message,
/// but only while COM error tracing (mask 34) is on. With it off, encrypt and decrypt return
/// kVELErr_InvalidKey without touching `out`, and openSession returns 0. No CAST routine ever
/// runs with a missing schedule.
///
/// Invariants of the session table (`_CryptKey`): every entry maps an ID to a non-empty pointer to
/// the session of that ID. A session is closed once it has left the table: its timer is stopped
/// and it is not re-armed. Its schedule lives as long as the session, so a session looked up by a
/// thread stays usable until that thread drops its pointer, even if it is closed meanwhile.
///
/// Ownership: the table holds one shared pointer per open session; an armed inactivity timer
/// holds another until it ends. The singleton lives from the first Instance() until
/// CloseSingleton(); the table and its locks are process-wide state made at library start-up.
///
/// Thread safety: any thread may call every member except CloseSingleton, which must not race
/// with other uses of the singleton pointer.
///
/// Lock order: _SessionIDMutex, then _CryptMutex (an ID is checked against the table while the
/// counter is held; the counter is never taken with the table held). A session's _timerLock is
/// taken alone: a session never calls the timer manager while holding it (a firing timer's
/// handler is locked while its callback takes _timerLock, and an unsubscribe may wait for that
/// callback). A session leaves the table under _CryptMutex but is released after it, so its
/// destructor never runs under the table lock.
class VEL_Encryptor {
public:
    using Session_t = boost::shared_ptr<VEL_SecureSession>;   ///< a session, as held
    using SessionMap_t = std::map<unsigned long, Session_t>;  ///< the table: sessions by ID

    /// The singleton, made on first call. When it cannot be made: with COM error tracing on,
    /// traces and throws std::runtime_error("Failed to instantiate the encryptor "); otherwise
    /// returns null. Any thread.
    static VEL_Encryptor* Instance();
    /// Deletes the singleton; the session table is left as it is.
    /// REQUIRES: no other thread uses the singleton pointer.
    static void CloseSingleton();

    VEL_Encryptor(const VEL_Encryptor&) = delete;
    VEL_Encryptor& operator=(const VEL_Encryptor&) = delete;
    virtual ~VEL_Encryptor() = default;

    /// Opens a session keyed with the 16 bytes of `key` (the schedule is keyed with key XOR the
    /// deployment mask; `key` itself is not changed) and returns its new ID. When the session
    /// cannot be made: with COM error tracing on, traces and throws std::runtime_error("Failed to
    /// create new secure session"); otherwise returns 0. May also throw std::bad_alloc, and
    /// std::runtime_error when an inactivity timer is needed and the timer manager cannot start.
    unsigned long openSession(const basis::BoundedString<16>& key) const;
    /// As above, and hands back the session itself in *session (empty when none was opened).
    /// An ID is reused once its session has closed; the session object is not: a holder that
    /// works through it (the overloads below) never touches the session of another holder.
    unsigned long openSession(const basis::BoundedString<16>& key, Session_t* session) const;
    /// Closes session `id`: it leaves the table and its timer is cancelled. Unknown: nothing.
    void closeSession(unsigned long id) const;
    /// Closes `session` if it is still open; a session that has since taken its ID stays open.
    void closeSession(const Session_t& session) const;

    ///@{
    /// VEL_CryptoTools::Encrypt / Decrypt with the schedule of session `id` (see there for the
    /// sizes; `out` may be `in`). kVELErr_Ok; for an unknown session, kVELErr_InvalidKey without
    /// touching `out`, after a trace and a throw of std::runtime_error("Unknown secure session ID")
    /// when COM error tracing is on. decrypt also restarts the session's inactivity timer.
    VELErr_t encrypt(const char* in, char*& out, unsigned long length, unsigned long& outLength,
                     unsigned long id) const;
    VELErr_t decrypt(const char* in, char*& out, unsigned long length, unsigned long id) const;
    ///@}
    ///@{
    /// The same with `session`, which counts as unknown once it has closed (expired, or closed by
    /// ID), whichever session holds its ID now.
    VELErr_t encrypt(const char* in, char*& out, unsigned long length, unsigned long& outLength,
                     const Session_t& session) const;
    VELErr_t decrypt(const char* in, char*& out, unsigned long length,
                     const Session_t& session) const;
    ///@}

    ///@{
    /// The inactivity time-out in the timer manager's unit (whole seconds); 0, the default, means
    /// that sessions never expire. A change applies to timers armed afterwards.
    void setInactivityTimeout(unsigned long timeout) { _InactivityTimeout.store(timeout); }
    unsigned long getInactivityTimeout() const { return _InactivityTimeout.load(); }
    ///@}

protected:
    VEL_Encryptor() = default;

    /// The next session ID (see the class comment).
    unsigned long getSecureSessionID() const;
    /// The schedule of session `id`, or null. The pointer stays valid only while the session is
    /// open; use getSession to keep it.
    const char* getKey(unsigned long id) const;
    /// The session `id`, or an empty pointer.
    Session_t getSession(unsigned long id) const;
    /// Enters `session` under `id`, replacing (and closing) an entry of that ID.
    void addSession(unsigned long id, const Session_t& session) const;
    /// Takes session `id` out of the table and stops its timer. Unknown: nothing.
    void removeSession(unsigned long id) const;

    /// The counter behind getSecureSessionID: the next ID follows `last`. For tests that cross the
    /// wrap without opening 2^24 sessions.
    static void SetLastSessionID(unsigned long last);

private:
    friend class VEL_StaticInit;
    friend class VEL_SecureSession;

    static constexpr unsigned long kSessionIDLimit = 1ul << 24;

    /// Takes session `id` out of the table, when it is there and, if `only` is given, is that
    /// session. Returns what was taken (empty when nothing).
    static Session_t TakeSession(unsigned long id, const VEL_SecureSession* only = nullptr);
    /// Traces "COM -  <text of code> ; <message>" and throws std::runtime_error(message) when COM
    /// error tracing is on; returns otherwise.
    static void Fail(VELErr_t code, const char* message);
    /// Closes every session and empties the table (library shutdown).
    static void CloseAllSessions();
    /// `session` when it is in the table (open), otherwise an empty pointer.
    Session_t openOnly(const Session_t& session) const;
    /// Encrypt and decrypt with the schedule of `session`, which is open (kVELErr_InvalidKey,
    /// traced as an unknown ID, when it is empty).
    static VELErr_t EncryptWith(const Session_t& session, const char* in, char*& out,
                                unsigned long length, unsigned long& outLength);
    static VELErr_t DecryptWith(const Session_t& session, const char* in, char*& out,
                                unsigned long length);

    static std::atomic<VEL_Encryptor*> _Instance;
    static basis::ThreadMutex* _InstanceCreationMutex;  ///< guards the creation of _Instance
    static basis::ThreadMutex* _SessionIDMutex;         ///< guards _SessionID
    static unsigned long _SessionID;                    ///< the last ID handed out
    static SessionMap_t* _CryptKey;                     ///< the session table, under _CryptMutex
    static basis::RWThreadMutex* _CryptMutex;           ///< guards _CryptKey
    static std::atomic<unsigned long> _InactivityTimeout;
};

#endif  // COM_INCLUDE_VEL_ENCRYPTOR_H
