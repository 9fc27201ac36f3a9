/// @file
#ifndef COM_INCLUDE_VEL_FRAMECODEC_H
#define COM_INCLUDE_VEL_FRAMECODEC_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "VELIoVec.h"
#include "VEL_Err.h"

class VEL_Message;

/// The most pieces a frame of any format has (encodeParts) and the most places its next bytes go
/// (nextParts).
constexpr unsigned long kVEL_MaxFrameParts = 6;

/// VEL_FrameCodec: one wire format with no I/O in it. A codec turns a VEL_Message into the bytes
/// of one frame, and bytes back into messages, however the bytes are split. Two engines drive the
/// codecs: the blocking transports (VEL_OXLv1, ... recvMessage/sendMessage on a socket) and the
/// non-blocking framed connection of reactor servers. Each format's rules are written once, in its
/// codec; the transport's header describes the frame byte by byte.
///
/// Encoding: encodeParts() prepares one frame. It transforms the message's body in place where
/// the format says so (compression, encryption: the message keeps the transformed body), fills
/// the codec's own header blocks and lists the frame's pieces in order: the codec's blocks, the
/// message's side buffers, its body. A blocking engine writes them in one gathered write; encode()
/// appends them to a byte string instead.
///
/// Decoding is incremental, in two equivalent forms over one state machine:
/// - pull (no copy): nextParts() gives the places the next bytes of the frame go, in order (the
///   codec's header block first, then, once the header is judged, the message's side buffers and
///   body, sized for the frame); the engine fills them from the front, any number of bytes at a
///   time, and calls received() with the count. A blocking engine reads exactly those places.
/// - push: decode() copies bytes from a buffer the engine already holds into those places.
/// Either way the outcome of a call is kVELErr_Ok (a whole message is in the target message, and
/// the next call starts a new frame), kVELErr_Incomplete (every byte given was taken; more are
/// needed: nothing is lost however the stream was split), or the status the format gives the
/// frame (kVELErr_BadStreamHeader, kVELErr_MessageTooBig, kVELErr_Uncompression,
/// kVELErr_SecureSession, kVELErr_Alloc, ...). After a failure the stream cannot be resynchronised:
/// the engine closes the connection (reset() makes the codec usable for a new stream).
///
/// The message being decoded is the codec's target from the first byte of a frame to its end:
/// pass the same message to every call until the frame is whole or has failed. Its body is
/// resized (or released) for the frame; the side buffers of a format that carries them are
/// released when the frame has none, and left alone by the others.
///
/// A format's own failures are traced by the codec, with the texts and dumps of the blocking
/// transport (network error bit, message dumps under bit 16); failures of the engine's socket are
/// the engine's to trace.
///
/// Ownership: a codec owns its header blocks and its protocol state (compression setting, secure
/// session roles and keys); it does not own the messages given to it.
///
/// Thread safety: distinct codecs are independent. One codec serves one stream: its encoding and
/// decoding share the protocol state (a received header changes what the next sent frame looks
/// like), so calls on one codec must be serialised by the engine.
class VEL_FrameCodec {
public:
    VEL_FrameCodec() = default;
    virtual ~VEL_FrameCodec();
    VEL_FrameCodec(const VEL_FrameCodec&) = delete;
    VEL_FrameCodec& operator=(const VEL_FrameCodec&) = delete;

    /// Prepares one frame for `message` and lists its pieces in `parts` (room for
    /// kVEL_MaxFrameParts); *count is their number. The pieces point into the codec and into the
    /// message: they stay valid until the next call on this codec and while the message is not
    /// changed. kVELErr_Ok, or the format's refusal (traced; nothing to send, and the body is as
    /// the format's transport leaves it after a failed send).
    /// REQUIRES: `message` is not null.
    virtual VELErr_t encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) = 0;

    /// Where the next bytes of the frame being decoded into `target` go: *count places (room for
    /// kVEL_MaxFrameParts), to be filled in order from the first. A frame starts in the codec's
    /// header block; once the header is judged the places point into `target`, sized by it.
    /// Returns the number of bytes the places hold in all: more than 0, except when the codec
    /// cannot make room for them (a frame without header whose body buffer cannot be had): then
    /// 0, no place, and received(target, 0) reports the failure.
    /// REQUIRES: `target` is not null; the same target for every call of one frame.
    virtual unsigned long nextParts(VEL_Message* target, VELIoVec* parts, unsigned long* count) = 0;
    /// `received` bytes (1 to what nextParts returned, or 0 when it returned 0) have been written
    /// to the places nextParts gave, from the first on. kVELErr_Ok when the frame is whole (the
    /// message is complete and the next call starts a new frame), kVELErr_Incomplete when more
    /// bytes are needed, or the format's failure (traced).
    virtual VELErr_t received(VEL_Message* target, unsigned long received) = 0;
    /// True when a frame is whatever has arrived (bytes without framing): received() then
    /// completes the message with the bytes given, however few, and an engine reading from a
    /// socket takes what is there instead of waiting for nextParts' whole count.
    virtual bool takesPartial() const { return false; }
    /// Forgets the frame under way (not the protocol state), for a new stream or after a failure.
    virtual void reset() = 0;
    /// True between the first byte of a frame and its end.
    virtual bool inFrame() const = 0;

    /// Appends the frame of `message` (encodeParts) to `out`. The codes of encodeParts, or
    /// kVELErr_Alloc when `out` cannot grow (nothing appended).
    VELErr_t encode(VEL_Message* message, std::string& out);
    /// Takes bytes from `data` (`size` of them) into the frame under way; *used says how many it
    /// took. kVELErr_Ok: a whole message is in `target`, and the bytes after *used belong to
    /// the next frame; kVELErr_Incomplete: every byte was taken (*used == size); a failure: the
    /// frame is bad (*used says how far the codec read).
    /// REQUIRES: `target` is not null; `data` holds `size` bytes (size may be 0).
    VELErr_t decode(const char* data, std::size_t size, std::size_t* used, VEL_Message* target);
};

/// VEL_PartCursor: what a codec uses to follow one stage of the frame it decodes (a header
/// block; then side buffers, session field and body): the places the stage's bytes go, in order,
/// and how many of them have arrived. A codec sets up each stage once the one before is judged.
///
/// Ownership: the places are not owned; they must stay where they are until the stage is full.
///
/// Thread safety: as the codec that holds it.
class VEL_PartCursor {
public:
    /// Forgets the places and the bytes counted.
    void clear();
    /// Appends a place of `length` bytes (none for 0).
    /// REQUIRES: fewer than kVEL_MaxFrameParts places so far.
    void add(char* at, std::uint32_t length);
    /// The places not yet full, the first from its first missing byte (*count of them, at least
    /// one while the stage is not full); returns the bytes they hold.
    unsigned long next(VELIoVec* parts, unsigned long* count) const;
    /// `received` more bytes have arrived in the places; true once they are all full.
    bool fill(unsigned long received);
    /// True once a byte of the stage has arrived.
    bool started() const { return _have > 0; }
    /// True once every byte of the stage has arrived (at once for a stage of no bytes).
    bool full() const { return _have >= _size; }

private:
    VELIoVec _places[kVEL_MaxFrameParts] = {};
    unsigned long _count = 0;
    std::uint32_t _size = 0;  ///< the stage's bytes in all
    std::uint32_t _have = 0;  ///< those that have arrived
};

#endif  // COM_INCLUDE_VEL_FRAMECODEC_H
