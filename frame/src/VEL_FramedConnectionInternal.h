// Internal to the reactor module (never included by a public header): what the two source files
// of VEL_FramedConnection share: the marker of a running call-back and the connection's traces.
//
// Thread safety: the functions are safe from any thread; a Dispatch belongs to the thread that
// made it.
#ifndef FRAME_SRC_VEL_FRAMEDCONNECTIONINTERNAL_H
#define FRAME_SRC_VEL_FRAMEDCONNECTIONINTERNAL_H

#include <pthread.h>

#include "VEL_Err.h"
#include "VEL_FramedConnection.h"

class VEL_SockAddr;

namespace velframe {

// The calling thread, as VEL_FramedConnection records it.
inline unsigned long selfThread() {
    return static_cast<unsigned long>(pthread_self());
}

// "FRAME - <status text> ; <FD = n> ; Remote address : <peer>" for a connection that closes
// because of `reason`: at the error level under the reactor error mask for a failure, at the
// info level under the reactor mask for the end of the stream, a close() or the reactor's clean.
void traceClose(VELErr_t reason, unsigned int handle, const VEL_SockAddr& peer);
// "FRAME - <text of kVELErr_Timeout> ; <FD = n> ; Remote address : <peer> ; <which>".
void traceDeadline(const char* which, unsigned int handle, const VEL_SockAddr& peer);

}  // namespace velframe

// Marks the calling thread as running a call-back of the connection for its lifetime, so that
// close() and send() made from inside the call-back know it.
class VEL_FramedConnection::Dispatch {
public:
    explicit Dispatch(VEL_FramedConnection& connection)
        : _connection(connection),
          _previous(connection._callbackThread.exchange(velframe::selfThread())) {}
    ~Dispatch() { _connection._callbackThread.store(_previous); }
    Dispatch(const Dispatch&) = delete;
    Dispatch& operator=(const Dispatch&) = delete;

private:
    VEL_FramedConnection& _connection;
    const unsigned long _previous;
};

#endif  // FRAME_SRC_VEL_FRAMEDCONNECTIONINTERNAL_H
