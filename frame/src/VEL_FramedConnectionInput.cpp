// The reactor's side of a framed connection: dispatch, reading within a budget, decoding every
// whole frame, delivery to the application, and the connection's traces.
#include <algorithm>
#include <memory>
#include <new>
#include <sstream>
#include <string>

#include "BufferMgr.h"
#include "VEL_ByteStream.h"
#include "VEL_FrameCodec.h"
#include "VEL_FrameTrace.h"
#include "VEL_FramedConnection.h"
#include "VEL_FramedConnectionInternal.h"
#include "VEL_SockAddr.h"
#include "VEL_TimerManager.h"

namespace {

// The read buffer of the calling thread (a reactor thread), made on first use; null when memory
// runs out. Frames that it holds whole are decoded out of it before the dispatch ends, and the
// codec keeps the start of a cut one, so nothing in it outlives a dispatch.
char* readBuffer() {
    thread_local std::unique_ptr<char[]> buffer;
    if (!buffer) {
        buffer.reset(new (std::nothrow) char[VEL_FramedConnection::kReadBufferBytes]);
    }
    return buffer.get();
}

std::string peerText(const VEL_SockAddr& peer) {
    std::ostringstream text;
    text << peer;
    return text.str();
}

std::size_t bufferBytes(const basis::Buffer* buffer) {
    return buffer != nullptr ? buffer->capacity() : 0;
}

}  // namespace

namespace velframe {

void traceClose(VELErr_t reason, unsigned int handle, const VEL_SockAddr& peer) {
    const auto detail = [&] { return fdText(handle) + " ; Remote address : " + peerText(peer); };
    const bool failure = reason != kVELErr_Ok && reason != kVELErr_SockHalfClosed &&
                         reason != kVELErr_ReactorStopped;
    if (failure) {
        traceError(reason, detail);
    } else if (VEL_Tools::IsTraceOn(kVELTrace_Frame)) {
        VEL_Tools::TraceText(kVELLevel_Info, VEL_Tools::ErrText("FRAME", reason, detail()));
    }
}

void traceDeadline(const char* which, unsigned int handle, const VEL_SockAddr& peer) {
    traceError(kVELErr_Timeout, [&] {
        return fdText(handle) + " ; Remote address : " + peerText(peer) + " ; " + which;
    });
}

}  // namespace velframe

void VEL_FramedConnection::CancelTimers(const std::vector<ArmedTimer>& armed) {
    VEL_TimerManager* timers = armed.empty() ? nullptr : VEL_TimerManager::PeekInstance();
    if (timers == nullptr) {
        return;  // none armed, or the manager has gone and took its timers with it
    }
    for (const ArmedTimer& timer : armed) {
        if (timer.id != 0) {
            (void)timers->unsubscribe(timer.id);  // 0 when it has fired meanwhile
        }
    }
}

bool VEL_FramedConnection::handleInput() {
    const Dispatch dispatch(*this);
    Followup followup;
    {
        std::unique_lock<basis::ThreadMutex> hold(_lock);
        VELErr_t failure = kVELErr_Ok;
        // Paused: only a change queued by another thread before the pause can have brought the
        // input back; the operations are restated below.
        if (_state == State::kOpen && !_paused) {
            _corked = true;
            failure = readAndDeliver(hold);
            _corked = false;
            if (!_codec->inFrame()) {
                _input.reset();  // between frames an idle connection holds no body
                _inputHeld = 0;
            }
        }
        followup = endDispatch(failure);
    }
    runFollowup(followup);
    return true;
}

bool VEL_FramedConnection::handleOutput(void* /*arg*/) {
    const Dispatch dispatch(*this);
    Followup followup;
    {
        std::lock_guard<basis::ThreadMutex> hold(_lock);
        followup = endDispatch(kVELErr_Ok);  // writes what is pending
    }
    runFollowup(followup);
    return true;
}

VELErr_t VEL_FramedConnection::readAndDeliver(std::unique_lock<basis::ThreadMutex>& hold) {
    char* buffer = readBuffer();
    if (buffer == nullptr) {
        velframe::traceError(kVELErr_Alloc);
        return kVELErr_Alloc;
    }
    std::size_t budget = _limits.readBudget;
    bool more = true;
    VELErr_t code = kVELErr_Ok;
    while (code == kVELErr_Ok && more && budget > 0 && _state == State::kOpen && !_paused) {
        std::size_t got = 0;
        code = readOnce(hold, buffer, &more, &got);
        budget -= std::min(got, budget);
    }
    return code;
}

VELErr_t VEL_FramedConnection::readOnce(std::unique_lock<basis::ThreadMutex>& hold, char* buffer,
                                        bool* more, std::size_t* got) {
    // The frame under way gets its bytes in place (a large body goes straight into the message);
    // what follows lands in the read buffer, so one read takes many small frames.
    VELIoVec places[kVEL_MaxFrameParts + 1];
    unsigned long count = 0;
    const std::size_t wanted = _codec->nextParts(&_input, places, &count);
    if (wanted == 0) {
        return kVELErr_Alloc;  // no room for a record: an empty read would look like the end
    }
    std::size_t asked = wanted;
    if (!_codec->takesPartial()) {
        places[count].iov_base = buffer;
        places[count].iov_len = static_cast<std::uint32_t>(kReadBufferBytes);
        ++count;
        asked += kReadBufferBytes;
    }
    std::size_t moved = 0;
    VELErr_t code = _stream->readAvail(places, count, &moved);
    *got = moved;
    *more = code == kVELErr_Ok && moved == asked;
    if (code != kVELErr_Ok || moved == 0) {
        return code;  // the end of the stream is kVELErr_SockHalfClosed
    }
    const basis::TimeValue now = basis::TimeValue::GetHRTime();
    _lastTraffic = now;
    const std::size_t direct = std::min(moved, wanted);
    code = _codec->received(&_input, static_cast<unsigned long>(direct));
    if (code == kVELErr_Ok) {
        code = deliver(hold, moved == direct);
    } else if (code == kVELErr_Incomplete) {
        code = kVELErr_Ok;
    }
    if (code == kVELErr_Ok && moved > direct) {
        code = decodeBuffered(hold, buffer, moved - direct);
    }
    if (!_inFrame && _codec->inFrame()) {
        _frameSince = now;  // the frame left cut began in this read
    }
    _inFrame = _codec->inFrame();
    _inputHeld = bufferBytes(_input.buffer());
    return code;
}

VELErr_t VEL_FramedConnection::decodeBuffered(std::unique_lock<basis::ThreadMutex>& hold,
                                              const char* data, std::size_t size) {
    while (size > 0 && _state == State::kOpen) {
        std::size_t used = 0;
        VELErr_t code = _codec->decode(data, size, &used, &_input);
        data += used;
        size -= used;
        if (code == kVELErr_Incomplete) {
            return kVELErr_Ok;  // every byte taken; the codec holds the cut frame
        }
        if (code == kVELErr_Ok) {
            code = deliver(hold, size == 0);
        }
        if (code != kVELErr_Ok) {
            return code;
        }
    }
    return kVELErr_Ok;  // closed from onMessage: the rest is dropped
}

VELErr_t VEL_FramedConnection::deliver(std::unique_lock<basis::ThreadMutex>& hold, bool last) {
    _inFrame = false;  // a frame is whole; the next one starts its own clock
    // The answers to the frames of one read are gathered; the answer to its last frame goes out
    // at once with them, without being copied (the common case of one frame per read).
    _corked = !last;
    VEL_ConnectionHandler* handler = _handler.get();  // dropped only by this thread's finish()
    hold.unlock();
    const bool ok = velframe::runGuarded([&] {
        handler->onMessage(*this, _input);
        return true;
    });
    hold.lock();
    if (bufferBytes(_input.buffer()) > kKeptBodyBytes) {
        _input.reset();  // a large body is not kept for a connection that may stay idle
    }
    return ok ? kVELErr_Ok : kVELErr_UserCode;
}
