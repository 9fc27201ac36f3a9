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

VEL_OXLv2Codec::VEL_OXLv2Codec(unsigned long maxMessageSize)
    : _outHeader(),
      _outRecord(),
      _inHeader(),
      _inRecord(),
      _compression(false),
      _maxMessageSize(maxMessageSize),
      _stage(kHeader),
      _bodyLength(0),
      _refusedHeader(false) {
    std::memcpy(_outRecord, kRecordTag, sizeof(kRecordTag));
    reset();
}

VEL_OXLv2Codec::~VEL_OXLv2Codec() = default;

VELErr_t VEL_OXLv2Codec::encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) {
    *count = 0;
    const unsigned long uncompressedSize = message->size();
    if (_compression) {
        const VELErr_t code = compress(message);
        if (code != kVELErr_Ok) {
            velcom::traceFailure(code);
            return code;
        }
    }
    appendHeader(parts, *count, *message, uncompressedSize);
    if (message->size() > 0) {
        parts[(*count)++] = velcom::bodyElement(*message);
    }
    return kVELErr_Ok;
}

void VEL_OXLv2Codec::appendHeader(VELIoVec* iov, unsigned long& count, const VEL_Message& message,
                                  unsigned long uncompressedSize) {
    const std::uint32_t rscvSize = message.getRSCVSize();
    // Bodies come from the buffer manager, so the total fits in 32 bits.
    std::uint32_t total =
            kVEL_OXLv2HeaderSize + rscvSize + static_cast<std::uint32_t>(message.size());
    if (_compression) {
        total += kVEL_OXLv2RecordSize;
    }
    velcom::putLengthPair(_outHeader, total);
    velcom::putUint16(_outHeader + 8,
                      static_cast<std::uint16_t>(rscvSize + kVEL_OXLv2MinExtension));
    _outHeader[10] = kVEL_OXLv2Version;
    _outHeader[11] = _compression ? kVEL_OXLv2Compressed : 0;
    iov[count++] = VELIoVec{_outHeader, kVEL_OXLv2HeaderSize};
    if (rscvSize > 0) {
        iov[count++] = VELIoVec{message.getRSCV(), rscvSize};
    }
    if (_compression) {
        velcom::putUint32(_outRecord + 4, static_cast<std::uint32_t>(uncompressedSize));
        iov[count++] = VELIoVec{_outRecord, kVEL_OXLv2RecordSize};
    }
}

unsigned long VEL_OXLv2Codec::nextParts(VEL_Message* /*target*/, VELIoVec* parts,
                                        unsigned long* count) {
    return _cursor.next(parts, count);
}

VELErr_t VEL_OXLv2Codec::received(VEL_Message* target, unsigned long received) {
    if (!_cursor.fill(received)) {
        return kVELErr_Incomplete;
    }
    switch (_stage) {
        case kHeader:
            return judgeHeader(target);
        case kRecord:
            return judgeRecord(target);
        default:
            return finishBody(target);
    }
}

VELErr_t VEL_OXLv2Codec::judgeHeader(VEL_Message* target) {
    std::uint32_t total = 0;
    const std::uint32_t extension = velcom::getUint16(_inHeader + 8);
    // More than 255 RSCV bytes cannot come from a sender and would not fit the RSCV buffer.
    if (!velcom::getLengthPair(_inHeader, &total) || extension < kVEL_OXLv2MinExtension ||
        extension > kVEL_OXLv2MaxExtension || _inHeader[10] != kVEL_OXLv2Version ||
        total < extension + 8) {
        return refuseHeader(kVELErr_BadStreamHeader);
    }
    const auto rscvSize = static_cast<unsigned char>(extension - kVEL_OXLv2MinExtension);
    const VELErr_t code = target->allocateRSCV(rscvSize);
    if (code != kVELErr_Ok) {
        return refuseHeader(code);
    }
    _compression = _inHeader[11] == kVEL_OXLv2Compressed;
    const std::uint32_t overhead = extension + 8 + (_compression ? kVEL_OXLv2RecordSize : 0);
    if (total < overhead || total - overhead > _maxMessageSize) {
        return refuseHeader(kVELErr_MessageTooBig);
    }
    _bodyLength = total - overhead;
    _cursor.clear();
    _cursor.add(target->getRSCV(), rscvSize);
    if (!_compression) {
        return startBody(target);
    }
    _stage = kRecord;
    _cursor.add(_inRecord, kVEL_OXLv2RecordSize);
    return kVELErr_Incomplete;
}

VELErr_t VEL_OXLv2Codec::judgeRecord(VEL_Message* target) {
    if (velcom::getUint32(_inRecord + 4) > _maxMessageSize) {
        return refuseHeader(kVELErr_MessageTooBig);
    }
    _cursor.clear();
    return startBody(target);
}

VELErr_t VEL_OXLv2Codec::startBody(VEL_Message* target) {
    const VELErr_t code = velcom::prepareBody(target, _bodyLength);
    if (code != kVELErr_Ok) {
        return refuseHeader(code);
    }
    _stage = kBody;
    _cursor.add(target->data(), _bodyLength);
    // Nothing after the header: the frame is whole already.
    return _cursor.full() ? finishBody(target) : kVELErr_Incomplete;
}

VELErr_t VEL_OXLv2Codec::finishBody(VEL_Message* target) {
    reset();
    if (_inHeader[11] != kVEL_OXLv2Compressed) {
        return kVELErr_Ok;
    }
    const VELErr_t code = uncompress(target);
    if (code != kVELErr_Ok) {
        velcom::traceRecvFailure(code, "Error receiving an OXLv2 message",
                                 "Received header :", _inHeader, kVEL_OXLv2HeaderSize,
                                 "Received message :", target);
    }
    return code;
}

VELErr_t VEL_OXLv2Codec::refuseHeader(VELErr_t code) {
    velcom::traceRecvFailure(code, "Error encountered while receiving OXLv2 header",
                             "Received header:", _inHeader, kVEL_OXLv2HeaderSize);
    reset();
    _refusedHeader = true;
    return code;
}

void VEL_OXLv2Codec::reset() {
    _stage = kHeader;
    _cursor.clear();
    _cursor.add(_inHeader, kVEL_OXLv2HeaderSize);
    _refusedHeader = false;
}

VELErr_t VEL_OXLv2Codec::compress(VEL_Message* message) {
    return velcom::compressBody(message, kVEL_OXLv2Algorithm);
}

VELErr_t VEL_OXLv2Codec::uncompress(VEL_Message* message) {
    return velcom::uncompressBody(message, velcom::getUint32(_inRecord + 4), kVEL_OXLv2Algorithm);
}

VEL_OXLv2::VEL_OXLv2(VEL_Socket* socket, unsigned long maxMessageSize)
    : VEL_Transport(socket), _codec(maxMessageSize) {}

VEL_OXLv2::~VEL_OXLv2() = default;

VELErr_t VEL_OXLv2::sendMessage(VEL_Message* message) {
    return sendFramed(_codec, message);
}

VELErr_t VEL_OXLv2::recvMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    _codec.reset();  // a frame cut short by a failed call is not resumed
    Failure failure = Failure::kTraced;
    code = readHeader(message, &failure);
    if (code == kVELErr_Incomplete) {
        bool fromSocket = false;
        code = readRest(_codec, message, &fromSocket);
        failure = fromSocket ? Failure::kAfterHeader : Failure::kTraced;
    }
    if (code == kVELErr_Ok || failure == Failure::kTraced) {
        return code;
    }
    if (failure == Failure::kHeader) {
        velcom::traceFailure(code);
    } else {
        velcom::traceRecvFailure(code, "Error receiving an OXLv2 message",
                                 "Received header :", _codec.receivedHeader(),
                                 kVEL_OXLv2HeaderSize);
    }
    return code;
}

VELErr_t VEL_OXLv2::readHeader(VEL_Message* message, Failure* failure) {
    bool fromSocket = false;
    VELErr_t code = readFrameHeader(_codec, message, &fromSocket);
    if (fromSocket) {
        *failure = Failure::kHeader;
        return code;
    }
    while (code == kVELErr_Incomplete && _codec.inRecord()) {
        VELIoVec parts[kVEL_MaxFrameParts];
        unsigned long count = 0;
        const unsigned long length = _codec.nextParts(message, parts, &count);
        code = getSocket()->readv(parts, count);
        if (code != kVELErr_Ok) {
            *failure = Failure::kAfterHeader;
            return code;
        }
        code = _codec.received(message, length);
    }
    *failure = _codec.refusedHeader() ? Failure::kHeader : Failure::kTraced;
    return code;
}

VELErr_t VEL_OXLv2::buildHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message,
                                unsigned long uncompressedSize) {
    _codec.appendHeader(iov, count, *message, uncompressedSize);
    return kVELErr_Ok;
}

VELErr_t VEL_OXLv2::recvHeader(VELIoVec* /*iov*/, unsigned long& /*count*/, VEL_Message* message) {
    _codec.reset();
    Failure failure = Failure::kTraced;
    const VELErr_t code = readHeader(message, &failure);
    if (code != kVELErr_Ok && code != kVELErr_Incomplete && failure == Failure::kAfterHeader) {
        velcom::traceFailure(code);
    }
    return code == kVELErr_Incomplete ? kVELErr_Ok : code;
}

VELErr_t VEL_OXLv2::compress(VEL_Message* message) {
    return _codec.compress(message);
}

VELErr_t VEL_OXLv2::uncompress(VEL_Message* message) {
    return _codec.uncompress(message);
}
