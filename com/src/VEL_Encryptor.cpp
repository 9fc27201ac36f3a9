#include "VEL_Encryptor.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <new>
#include <stdexcept>
#include <string>

#include "RWThreadMutex.h"
#include "VEL_CryptoTools.h"
#include "VEL_StaticInit.h"
#include "VEL_TimerManager.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

// Cancels timer `id` if there is one. Only cancels: never creates a timer manager.
void cancelTimer(unsigned long id) {
    VEL_TimerManager* manager = id != 0 ? VEL_TimerManager::PeekInstance() : nullptr;
    if (manager != nullptr) {
        (void)manager->unsubscribe(id);  // 0 when the timer is already ending: nothing to do
    }
}

// A copy of the CAST key schedule at `key`, from malloc; null when memory runs out.
char* copySchedule(const char* key) {
    char* copy = static_cast<char*>(std::malloc(VEL_CryptoTools::kScheduleSize));
    if (copy != nullptr) {
        std::memcpy(copy, key, VEL_CryptoTools::kScheduleSize);
    }
    return copy;
}

// A one-shot inactivity timer for `session` (0 when none could be armed).
unsigned long armTimer(const boost::shared_ptr<VEL_SecureSession>& session, unsigned long timeout) {
    VEL_TimerManager* manager = VEL_TimerManager::GetInstance();
    return manager != nullptr ? manager->subscribe(session, timeout, 1, false) : 0;
}

}  // namespace

// Constant-initialised: the start-up code may set the pointers before this file's dynamic
// initialisation would run.
std::atomic<VEL_Encryptor*> VEL_Encryptor::_Instance{nullptr};
basis::ThreadMutex* VEL_Encryptor::_InstanceCreationMutex = nullptr;
basis::ThreadMutex* VEL_Encryptor::_SessionIDMutex = nullptr;
unsigned long VEL_Encryptor::_SessionID = 0;
VEL_Encryptor::SessionMap_t* VEL_Encryptor::_CryptKey = nullptr;
basis::RWThreadMutex* VEL_Encryptor::_CryptMutex = nullptr;
std::atomic<unsigned long> VEL_Encryptor::_InactivityTimeout{0};

// ---- VEL_SecureSession ----

VEL_SecureSession::VEL_SecureSession(const char* key, unsigned long id)
    : _secureSessionID(id), _privateKey(copySchedule(key)) {}

VEL_SecureSession::~VEL_SecureSession() {
    stopTimer();
    std::free(_privateKey);
}

boost::shared_ptr<VEL_SecureSession> VEL_SecureSession::Create(const char* key, unsigned long id) {
    boost::shared_ptr<VEL_SecureSession> session;
    VEL_SecureSession* made = new (std::nothrow) VEL_SecureSession(key, id);
    if (made == nullptr) {
        return session;
    }
    if (made->_privateKey == nullptr) {
        delete made;
        return session;
    }
    try {
        session.reset(made);
    } catch (const std::bad_alloc&) {
        return session;  // reset() has deleted the session
    }
    const unsigned long timeout = VEL_Encryptor::_InactivityTimeout.load();
    if (timeout != 0) {
        Arm(session, timeout);
    }
    return session;
}

void VEL_SecureSession::ResetInactivityTimer(const boost::shared_ptr<VEL_SecureSession>& session) {
    const unsigned long timeout = VEL_Encryptor::_InactivityTimeout.load();
    if (session == nullptr || timeout == 0) {
        return;
    }
    unsigned long previous = 0;
    {
        std::lock_guard<basis::ThreadMutex> hold(session->_timerLock);
        if (session->_closed) {
            return;
        }
        previous = session->_timerId;
        session->_timerId = 0;  // from here a firing of `previous` is ignored
    }
    cancelTimer(previous);
    Arm(session, timeout);
}

void VEL_SecureSession::Arm(const boost::shared_ptr<VEL_SecureSession>& session,
                            unsigned long timeout) {
    // Subscribing locks a timer handler, and a firing handler is locked while its callback takes
    // _timerLock: subscribe first, then record the timer under the lock.
    const unsigned long timerId = armTimer(session, timeout);
    bool surplus = false;
    bool expired = false;
    {
        std::lock_guard<basis::ThreadMutex> hold(session->_timerLock);
        if (timerId != 0 && session->_firedEarly == timerId) {
            // It fell due before it could be recorded (this thread stalled for a whole
            // time-out): it has ended, so its identifier must not be kept or cancelled.
            session->_firedEarly = 0;
            expired = !session->_closed;
            session->_closed = true;
        } else if (session->_closed || session->_timerId != 0) {
            surplus = true;  // closed meanwhile, or re-armed by a concurrent reset
        } else {
            session->_timerId = timerId;
        }
    }
    if (surplus) {
        cancelTimer(timerId);
    }
    if (expired) {
        (void)VEL_Encryptor::TakeSession(session->_secureSessionID, session.get());
    }
}

void VEL_SecureSession::handleEvent(unsigned long timerId) {
    {
        std::lock_guard<basis::ThreadMutex> hold(_timerLock);
        if (_closed) {
            return;
        }
        if (timerId != _timerId) {
            // Replaced by a reset (the session was used since), or not recorded yet (see Arm).
            _firedEarly = timerId;
            return;
        }
        // The timer ends with this call and its identifier goes back for reuse: forget it.
        _timerId = 0;
        _closed = true;
    }
    // Only this session leaves: its ID may have been given to another one since. The timer
    // still holds the session, so it is not destroyed here.
    (void)VEL_Encryptor::TakeSession(_secureSessionID, this);
}

void VEL_SecureSession::stopTimer() {
    unsigned long timerId = 0;
    {
        std::lock_guard<basis::ThreadMutex> hold(_timerLock);
        _closed = true;
        timerId = _timerId;
        _timerId = 0;
    }
    cancelTimer(timerId);
}

// ---- VEL_Encryptor ----

VEL_Encryptor* VEL_Encryptor::Instance() {
    VEL_Encryptor* instance = _Instance.load(std::memory_order_acquire);
    if (instance != nullptr) {
        return instance;
    }
    {
        std::lock_guard<basis::ThreadMutex> hold(*_InstanceCreationMutex);
        instance = _Instance.load();
        if (instance == nullptr) {
            instance = new (std::nothrow) VEL_Encryptor();
            _Instance.store(instance, std::memory_order_release);
        }
    }
    if (instance == nullptr) {
        Fail(kVELErr_Alloc, "Failed to instantiate the encryptor ");
    }
    return instance;
}

void VEL_Encryptor::CloseSingleton() {
    delete _Instance.exchange(nullptr);
}

unsigned long VEL_Encryptor::openSession(const basis::BoundedString<16>& key) const {
    return openSession(key, nullptr);
}

unsigned long VEL_Encryptor::openSession(const basis::BoundedString<16>& key,
                                         Session_t* opened) const {
    if (opened != nullptr) {
        opened->reset();
    }
    // The schedule is keyed with key XOR mask; the mask goes onto a private copy.
    char masked[VEL_CryptoTools::kKeySize];
    std::memcpy(masked, key.data(), sizeof(masked));
    alignas(8) char block[VEL_CryptoTools::kScheduleSize];  // CAST reads it as 32-bit words
    char* schedule = block;                                 // the session keeps a copy
    VEL_CryptoTools::GenerateCastKey(masked, schedule);
    const unsigned long id = getSecureSessionID();
    const Session_t session = VEL_SecureSession::Create(schedule, id);
    if (session == nullptr) {
        Fail(kVELErr_Alloc, "Failed to create new secure session");
        return 0;
    }
    try {
        addSession(id, session);
    } catch (...) {
        session->stopTimer();  // a session that never entered the table must not stay armed
        throw;
    }
    bool expired = false;
    {
        std::lock_guard<basis::ThreadMutex> hold(session->_timerLock);
        expired = session->_closed;  // its timer fell due before it entered the table
    }
    if (expired) {
        (void)TakeSession(id, session.get());
    }
    if (opened != nullptr) {
        *opened = session;
    }
    return id;
}

void VEL_Encryptor::closeSession(unsigned long id) const {
    removeSession(id);
}

void VEL_Encryptor::closeSession(const Session_t& session) const {
    if (session == nullptr) {
        return;
    }
    const Session_t taken = TakeSession(session->getSecureSessionID(), session.get());
    if (taken != nullptr) {
        taken->stopTimer();
    }
}

VELErr_t VEL_Encryptor::encrypt(const char* in, char*& out, unsigned long length,
                                unsigned long& outLength, unsigned long id) const {
    return EncryptWith(getSession(id), in, out, length, outLength);
}

VELErr_t VEL_Encryptor::decrypt(const char* in, char*& out, unsigned long length,
                                unsigned long id) const {
    return DecryptWith(getSession(id), in, out, length);
}

VELErr_t VEL_Encryptor::encrypt(const char* in, char*& out, unsigned long length,
                                unsigned long& outLength, const Session_t& session) const {
    return EncryptWith(openOnly(session), in, out, length, outLength);
}

VELErr_t VEL_Encryptor::decrypt(const char* in, char*& out, unsigned long length,
                                const Session_t& session) const {
    return DecryptWith(openOnly(session), in, out, length);
}

VEL_Encryptor::Session_t VEL_Encryptor::openOnly(const Session_t& session) const {
    // Open means in the table under its own ID: the ID alone may name a newer session by now.
    if (session == nullptr || getSession(session->getSecureSessionID()) != session) {
        return Session_t();
    }
    return session;
}

VELErr_t VEL_Encryptor::EncryptWith(const Session_t& session, const char* in, char*& out,
                                    unsigned long length, unsigned long& outLength) {
    if (session == nullptr) {
        Fail(kVELErr_InvalidKey, "Unknown secure session ID");
        return kVELErr_InvalidKey;
    }
    VEL_CryptoTools::Encrypt(in, out, length, outLength, session->getPrivateKey());
    return kVELErr_Ok;
}

VELErr_t VEL_Encryptor::DecryptWith(const Session_t& session, const char* in, char*& out,
                                    unsigned long length) {
    if (session == nullptr) {
        Fail(kVELErr_InvalidKey, "Unknown secure session ID");
        return kVELErr_InvalidKey;
    }
    VEL_SecureSession::ResetInactivityTimer(session);
    VEL_CryptoTools::Decrypt(in, out, length, session->getPrivateKey());
    return kVELErr_Ok;
}

unsigned long VEL_Encryptor::getSecureSessionID() const {
    std::lock_guard<basis::ThreadMutex> hold(*_SessionIDMutex);
    // Bounded: with every ID in use, the last one tried replaces its session.
    for (unsigned long tried = 0; tried < kSessionIDLimit; ++tried) {
        _SessionID = _SessionID + 1 >= kSessionIDLimit ? 1 : _SessionID + 1;
        basis::ReadGuard<basis::RWThreadMutex> table(*_CryptMutex);
        if (_CryptKey->count(_SessionID) == 0) {
            break;
        }
    }
    return _SessionID;
}

const char* VEL_Encryptor::getKey(unsigned long id) const {
    const Session_t session = getSession(id);
    return session != nullptr ? session->getPrivateKey() : nullptr;
}

VEL_Encryptor::Session_t VEL_Encryptor::getSession(unsigned long id) const {
    basis::ReadGuard<basis::RWThreadMutex> hold(*_CryptMutex);
    const auto found = _CryptKey->find(id);
    return found != _CryptKey->end() ? found->second : Session_t();
}

void VEL_Encryptor::addSession(unsigned long id, const Session_t& session) const {
    Session_t replaced;
    {
        basis::WriteGuard<basis::RWThreadMutex> hold(*_CryptMutex);
        Session_t& entry = (*_CryptKey)[id];
        replaced.swap(entry);
        entry = session;
    }
    if (replaced != nullptr && replaced != session) {
        replaced->stopTimer();
    }
}

void VEL_Encryptor::removeSession(unsigned long id) const {
    const Session_t taken = TakeSession(id);
    if (taken != nullptr) {
        taken->stopTimer();
    }
}

void VEL_Encryptor::SetLastSessionID(unsigned long last) {
    std::lock_guard<basis::ThreadMutex> hold(*_SessionIDMutex);
    _SessionID = last;
}

VEL_Encryptor::Session_t VEL_Encryptor::TakeSession(unsigned long id,
                                                    const VEL_SecureSession* only) {
    Session_t taken;
    if (_CryptMutex == nullptr || _CryptKey == nullptr) {
        return taken;  // a timer that fires after library shutdown
    }
    basis::WriteGuard<basis::RWThreadMutex> hold(*_CryptMutex);
    const auto found = _CryptKey->find(id);
    if (found != _CryptKey->end() && (only == nullptr || found->second.get() == only)) {
        taken.swap(found->second);
        _CryptKey->erase(found);
    }
    return taken;  // released by the caller, after the lock
}

void VEL_Encryptor::Fail(VELErr_t code, const char* message) {
    if (!VEL_Tools::IsTraceOn(kVELTrace_ComError)) {
        return;
    }
    // Two blanks after the dash, unlike the lines ErrText composes.
    VEL_Tools::TraceText(kVELLevel_Error, "COM -  " + VEL_Tools::GetErrStr(code) + " ; " + message);
    throw std::runtime_error(message);
}

void VEL_Encryptor::CloseAllSessions() {
    if (_CryptMutex == nullptr || _CryptKey == nullptr) {
        return;
    }
    SessionMap_t sessions;
    {
        basis::WriteGuard<basis::RWThreadMutex> hold(*_CryptMutex);
        sessions.swap(*_CryptKey);
    }
    for (auto& entry : sessions) {
        entry.second->stopTimer();
    }
}
