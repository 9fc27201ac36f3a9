#include "VEL_Message.h"

#include <cstring>

#include "BufferMgr.h"
#include "Exception.h"
#include "Tools.h"
#include "VEL_StaticInit.h"
#include "VEL_Tools.h"

namespace {

const VEL_StaticInit kStaticInit;

void traceFailure(VELErr_t code) {
    if (VEL_Tools::IsTraceOn(kVELTrace_ComError)) {
        VEL_Tools::Trace("VEL_Message.h", __LINE__, kVELLevel_Error,
                         ("COM - " + VEL_Tools::GetErrStr(code)).c_str());
    }
}

void releaseBuffer(basis::Buffer*& buffer) {
    if (buffer != nullptr) {
        buffer->release();
        buffer = nullptr;
    }
}

// The allocation rule shared by the body and the side buffers.
VELErr_t allocateBuffer(basis::Buffer*& buffer, unsigned long size) {
    if (size == 0) {
        releaseBuffer(buffer);
        return kVELErr_Ok;
    }
    try {
        if (buffer != nullptr) {
            buffer->resize(size);
            return kVELErr_Ok;
        }
        buffer = basis::BufferMgr::Default()->allocate(size);
    } catch (const basis::BufferException&) {
        traceFailure(kVELErr_Alloc);
        return kVELErr_Alloc;
    }
    if (buffer == nullptr) {
        traceFailure(kVELErr_Alloc);
        return kVELErr_Alloc;
    }
    return kVELErr_Ok;
}

VELErr_t setBufferBytes(basis::Buffer*& buffer, const char* source, unsigned long length) {
    const VELErr_t result = allocateBuffer(buffer, length);
    if (result != kVELErr_Ok) {
        traceFailure(result);
        return result;
    }
    if (length > 0) {
        std::memcpy(buffer->data(), source, length);
    }
    return kVELErr_Ok;
}

}  // namespace

VEL_Message::VEL_Message(unsigned long size) {
    (void)allocateBuffer(_data, size);
}

VEL_Message::VEL_Message(basis::Buffer* buffer) : _data(buffer) {}

VEL_Message::~VEL_Message() {
    reset();
}

char* VEL_Message::data() const {
    return _data ? _data->data() : nullptr;
}

unsigned long VEL_Message::size() const {
    return _data ? _data->size() : 0;
}

void VEL_Message::setBuffer(basis::Buffer* buffer) {
    releaseBuffer(_data);
    _data = buffer;
}

char* VEL_Message::getRSCV() const {
    return _rscv ? _rscv->data() : nullptr;
}

char* VEL_Message::getSSCV() const {
    return _sscv ? _sscv->data() : nullptr;
}

unsigned char VEL_Message::getRSCVSize() const {
    return _rscv ? static_cast<unsigned char>(_rscv->size()) : 0;
}

unsigned char VEL_Message::getSSCVSize() const {
    return _sscv ? static_cast<unsigned char>(_sscv->size()) : 0;
}

VELErr_t VEL_Message::allocate(unsigned long size) {
    return allocateBuffer(_data, size);
}

VELErr_t VEL_Message::allocateRSCV(unsigned char size) {
    return allocateBuffer(_rscv, size);
}

VELErr_t VEL_Message::allocateSSCV(unsigned char size) {
    return allocateBuffer(_sscv, size);
}

VELErr_t VEL_Message::setData(const char* source, unsigned long length) {
    return setBufferBytes(_data, source, length);
}

VELErr_t VEL_Message::setRSCV(const char* source, unsigned char length) {
    return setBufferBytes(_rscv, source, length);
}

VELErr_t VEL_Message::setSSCV(const char* source, unsigned char length) {
    return setBufferBytes(_sscv, source, length);
}

void VEL_Message::reset() {
    releaseBuffer(_data);
    releaseBuffer(_rscv);
    releaseBuffer(_sscv);
}

void VEL_Message::detach() {
    _data = nullptr;
    _rscv = nullptr;
    _sscv = nullptr;
}

void VEL_Message::release() {
    reset();
    basis::Object<VEL_Message>* wrapper = _obj;
    _obj = nullptr;
    if (wrapper != nullptr) {
        wrapper->unlock();
    }
}
