#include "VEL_Zlib.h"

#include <zlib.h>

#include "BufferMgr.h"
#include "VEL_Message.h"
#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

// Adopts the buffer a scratch message holds into `message` (releasing the body it had).
void installBody(VEL_Message* message, VEL_Message& scratch, unsigned long size) {
    basis::Buffer* buffer = scratch.buffer();
    if (buffer != nullptr) {
        buffer->setSize(size);
    }
    scratch.detach();
    message->setBuffer(buffer);
}

}  // namespace

namespace velcom {

int zlibLevel(unsigned long algorithm) {
    return algorithm > 9 ? 9 : static_cast<int>(algorithm);
}

unsigned long zlibBound(unsigned long sourceLength) {
    return ::compressBound(sourceLength);
}

int zlibCompress(const char* source, unsigned long sourceLength, char* destination,
                 unsigned long* destinationLength, unsigned long algorithm, int format) {
    if (format != kZlibStream) {
        return Z_STREAM_ERROR;
    }
    return ::compress2(reinterpret_cast<Bytef*>(destination), destinationLength,
                       reinterpret_cast<const Bytef*>(source), sourceLength, zlibLevel(algorithm));
}

int zlibUncompress(const char* source, unsigned long sourceLength, char* destination,
                   unsigned long* destinationLength, unsigned long /*algorithm*/) {
    return ::uncompress(reinterpret_cast<Bytef*>(destination), destinationLength,
                        reinterpret_cast<const Bytef*>(source), sourceLength);
}

VELErr_t compressBody(VEL_Message* message, unsigned long algorithm) {
    // The 16-bit cut is part of the protocol: large bodies get a small destination and only
    // compress when they shrink enough to fit it.
    const auto capacity =
            static_cast<unsigned long>(std::uint64_t{message->size()} * 11 / 10 & 0xFFFFu);
    if (capacity == 0) {
        return kVELErr_Compression;
    }
    VEL_Message scratch;  // gives the destination back on every failure
    if (scratch.allocate(capacity) != kVELErr_Ok) {
        return kVELErr_Alloc;
    }
    unsigned long length = capacity;
    if (zlibCompress(message->data(), message->size(), scratch.data(), &length, algorithm,
                     kZlibStream) != Z_OK) {
        return kVELErr_Compression;
    }
    installBody(message, scratch, length);
    return kVELErr_Ok;
}

VELErr_t uncompressBody(VEL_Message* message, std::uint32_t size, unsigned long algorithm) {
    VEL_Message scratch;
    if (scratch.allocate(size) != kVELErr_Ok) {
        return kVELErr_Alloc;
    }
    unsigned long length = size;
    if (zlibUncompress(message->data(), message->size(), scratch.data(), &length, algorithm) !=
        Z_OK) {
        return kVELErr_Uncompression;
    }
    if (length != size) {
        // A stream shorter than announced is as damaged as one that does not inflate: a part
        // of the message is missing, and none of it is delivered.
        (void)message->allocate(0);  // releasing cannot fail
        return kVELErr_Uncompression;
    }
    installBody(message, scratch, length);
    return kVELErr_Ok;
}

}  // namespace velcom
