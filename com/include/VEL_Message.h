/// @file
#ifndef COM_INCLUDE_VEL_MESSAGE_H
#define COM_INCLUDE_VEL_MESSAGE_H

#include "Object.h"
#include "VEL_Err.h"

namespace basis {
class Buffer;
}  // namespace basis

/// VEL_Message: the unit every framing protocol sends and receives. It holds up to three byte
/// buffers from the process-wide buffer manager: the body ("data"), and two optional side buffers
/// of at most 255 bytes each, RSCV and SSCV, whose meaning belongs to the applications.
///
/// Ownership: a message owns its buffers and gives them back to the manager when destroyed,
/// reset or released. Copying is SHALLOW: the copy constructor and operator= copy the four
/// pointers, so both copies share the same buffers and wrapper and no reference is counted. Only
/// one of the copies may give the buffers back: call detach() on the other before it is destroyed.
/// operator= does not give back the buffers the target held: reset() it first, or they leak.
/// A message lent by a pool (basis::ObjectMgr<VEL_Message>) remembers its wrapper; release()
/// empties it and returns it to the pool.
///
/// Thread safety: a message is used by one thread at a time.
class VEL_Message {
public:
    VEL_Message() = default;
    /// A body of `size` bytes (contents unspecified); no body when the buffer cannot be had.
    explicit VEL_Message(unsigned long size);
    /// Adopts `buffer` as the body.
    explicit VEL_Message(basis::Buffer* buffer);
    VEL_Message(const VEL_Message& other) = default;             ///< shallow, see above
    VEL_Message& operator=(const VEL_Message& other) = default;  ///< shallow, see above
    virtual ~VEL_Message();

    ///@{
    /// The body, or null / 0 when there is none.
    char* data() const;
    unsigned long size() const;
    basis::Buffer* buffer() const { return _data; }
    ///@}
    /// Releases the current body, then adopts `buffer` (null leaves the message without body).
    void setBuffer(basis::Buffer* buffer);

    ///@{
    /// The side buffer's bytes, or null when it is absent.
    char* getRSCV() const;
    char* getSSCV() const;
    ///@}
    ///@{
    /// The side buffer's size modulo 256; 0 when absent.
    unsigned char getRSCVSize() const;
    unsigned char getSSCVSize() const;
    ///@}
    ///@{
    /// The side buffer, or null when it is absent.
    basis::Buffer* getRSCVBuffer() const { return _rscv; }
    basis::Buffer* getSSCVBuffer() const { return _sscv; }
    ///@}
    ///@{
    /// True when the side buffer is present.
    bool checkRSCV() const { return _rscv != nullptr; }
    bool checkSSCV() const { return _sscv != nullptr; }
    ///@}

    ///@{
    /// The pool wrapper of a message lent by a pool (null otherwise), which release() returns it
    /// to.
    basis::Object<VEL_Message>* getObj() const { return _obj; }
    void setObj(basis::Object<VEL_Message>* obj) { _obj = obj; }
    ///@}

    /// Size 0 releases the buffer; otherwise the buffer is resized (contents kept up to the smaller
    /// size) or taken from the manager. kVELErr_Ok, or kVELErr_Alloc (traced) when no buffer of
    /// that size can be had; the buffer is then absent (new) or unchanged (resize).
    VELErr_t allocate(unsigned long size);
    ///@{
    /// allocate for a side buffer.
    VELErr_t allocateRSCV(unsigned char size);
    VELErr_t allocateSSCV(unsigned char size);
    ///@}
    /// allocate(length), then copy `length` bytes from `source`. kVELErr_Ok or kVELErr_Alloc.
    VELErr_t setData(const char* source, unsigned long length);
    ///@{
    /// setData for a side buffer.
    VELErr_t setRSCV(const char* source, unsigned char length);
    VELErr_t setSSCV(const char* source, unsigned char length);
    ///@}

    /// Releases the three buffers; the message is empty afterwards.
    void reset();
    /// Forgets the three buffers without releasing them (for a shallow copy whose original keeps
    /// them); the message is empty afterwards.
    void detach();
    /// reset(), then gives the message back to the pool that lent it (if any).
    void release();

private:
    basis::Object<VEL_Message>* _obj = nullptr;
    basis::Buffer* _data = nullptr;
    basis::Buffer* _rscv = nullptr;
    basis::Buffer* _sscv = nullptr;
};

#endif  // COM_INCLUDE_VEL_MESSAGE_H
