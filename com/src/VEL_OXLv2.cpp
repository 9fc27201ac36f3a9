#include "VEL_OXLv2.h"

#include <cstring>

#include "VEL_FrameTools.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"
#include "VEL_Zlib.h"

namespace {

const VEL_StaticInit kStaticInit;

// The first word of the compression record: the number 2 as a little-endian host stores it,
// whatever this host's byte order.
const char kRecordTag[4] = {2, 0, 0, 0};

}  // namespace

VEL_OXLv2::VEL_OXLv2(VEL_Socket* socket, unsigned long maxMessageSize)
    : VEL_Transport(socket),
      _header(),
      _record(),
      _compression(false),
      _maxMessageSize(maxMessageSize) {
    std::memcpy(_record, kRecordTag, sizeof(kRecordTag));
}

VEL_OXLv2::~VEL_OXLv2() = default;

VELErr_t VEL_OXLv2::sendMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    const unsigned long uncompressedSize = message->size();
    if (_compression) {
        code = compress(message);
        if (code != kVELErr_Ok) {
            velcom::traceFailure(code);
            return code;
        }
    }
    VELIoVec iov[4];
    unsigned long count = 0;
    (void)buildHeader(iov, count, message, uncompressedSize);  // cannot fail
    return velcom::writeFrame(*getSocket(), iov, count, *message);
}

VELErr_t VEL_OXLv2::recvMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    VELIoVec iov[2];
    unsigned long count = 0;
    bool inRecord = false;
    code = readHeader(iov, count, message, &inRecord);
    if (code != kVELErr_Ok && inRecord) {
        // The header was good: a frame cut after it is traced as a failed body read.
        velcom::traceRecvFailure(code, "Error receiving an OXLv2 message",
                                 "Received header :", _header, kVEL_OXLv2HeaderSize);
        return code;
    }
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
        return code;
    }
    code = velcom::readFrame(*getSocket(), iov, count, *message);
    if (code == kVELErr_Ok && _compression) {
        code = uncompress(message);
        if (code != kVELErr_Ok) {
            velcom::traceRecvFailure(code, "Error receiving an OXLv2 message",
                                     "Received header :", _header, kVEL_OXLv2HeaderSize,
                                     "Received message :", message);
        }
    } else if (code != kVELErr_Ok) {
        velcom::traceRecvFailure(code, "Error receiving an OXLv2 message",
                                 "Received header :", _header, kVEL_OXLv2HeaderSize);
    }
    return code;
}

VELErr_t VEL_OXLv2::buildHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message,
                                unsigned long uncompressedSize) {
    const std::uint32_t rscvSize = message->getRSCVSize();
    // Bodies come from the buffer manager, so the total fits in 32 bits.
    std::uint32_t total =
            kVEL_OXLv2HeaderSize + rscvSize + static_cast<std::uint32_t>(message->size());
    if (_compression) {
        total += kVEL_OXLv2RecordSize;
    }
    velcom::putLengthPair(_header, total);
    velcom::putUint16(_header + 8, static_cast<std::uint16_t>(rscvSize + kVEL_OXLv2MinExtension));
    _header[10] = kVEL_OXLv2Version;
    _header[11] = _compression ? kVEL_OXLv2Compressed : 0;
    iov[count++] = VELIoVec{_header, kVEL_OXLv2HeaderSize};
    if (rscvSize > 0) {
        iov[count++] = VELIoVec{message->getRSCV(), rscvSize};
    }
    if (_compression) {
        // A receive reads the peer's record into this block: write both words each time.
        std::memcpy(_record, kRecordTag, sizeof(kRecordTag));
        velcom::putUint32(_record + 4, static_cast<std::uint32_t>(uncompressedSize));
        iov[count++] = VELIoVec{_record, kVEL_OXLv2RecordSize};
    }
    return kVELErr_Ok;
}

VELErr_t VEL_OXLv2::recvHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message) {
    bool inRecord = false;
    const VELErr_t code = readHeader(iov, count, message, &inRecord);
    if (code != kVELErr_Ok && inRecord) {
        velcom::traceFailure(code);
    }
    return code;
}

VELErr_t VEL_OXLv2::readHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message,
                               bool* inRecord) {
    VELErr_t code = getSocket()->recv(_header, kVEL_OXLv2HeaderSize);
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
        return code;
    }
    std::uint32_t total = 0;
    const std::uint32_t extension = velcom::getUint16(_header + 8);
    // More than 255 RSCV bytes cannot come from a sender and would not fit the RSCV buffer.
    if (!velcom::getLengthPair(_header, &total) || extension < kVEL_OXLv2MinExtension ||
        extension > kVEL_OXLv2MaxExtension || _header[10] != kVEL_OXLv2Version ||
        total < extension + 8) {
        return headerFailed(kVELErr_BadStreamHeader);
    }
    const auto rscvSize = static_cast<unsigned char>(extension - kVEL_OXLv2MinExtension);
    code = message->allocateRSCV(rscvSize);
    if (code != kVELErr_Ok) {
        return headerFailed(code);
    }
    _compression = _header[11] == kVEL_OXLv2Compressed;
    const std::uint32_t overhead = extension + 8 + (_compression ? kVEL_OXLv2RecordSize : 0);
    if (total < overhead || total - overhead > _maxMessageSize) {
        return headerFailed(kVELErr_MessageTooBig);
    }
    if (rscvSize > 0) {
        iov[count++] = VELIoVec{message->getRSCV(), rscvSize};
    }
    if (_compression) {
        iov[count++] = VELIoVec{_record, kVEL_OXLv2RecordSize};
        code = getSocket()->readv(iov, count);
        count = 0;
        if (code != kVELErr_Ok) {
            *inRecord = true;  // traced by the caller
            return code;
        }
        if (velcom::getUint32(_record + 4) > _maxMessageSize) {
            return headerFailed(kVELErr_MessageTooBig);
        }
    }
    code = velcom::prepareBody(message, total - overhead);
    return code == kVELErr_Ok ? kVELErr_Ok : headerFailed(code);
}

VELErr_t VEL_OXLv2::headerFailed(VELErr_t code) {
    velcom::traceRecvFailure(code, "Error encountered while receiving OXLv2 header",
                             "Received header:", _header, kVEL_OXLv2HeaderSize);
    return code;
}

VELErr_t VEL_OXLv2::compress(VEL_Message* message) {
    return velcom::compressBody(message, kVEL_OXLv2Algorithm);
}

VELErr_t VEL_OXLv2::uncompress(VEL_Message* message) {
    return velcom::uncompressBody(message, velcom::getUint32(_record + 4), kVEL_OXLv2Algorithm);
}
