#include "VEL_HOLM.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <new>

#include "BoundedString.h"
#include "BufferMgr.h"
#include "Exception.h"
#include "VEL_CryptoTools.h"
#include "VEL_Encryptor.h"
#include "VEL_FrameTools.h"
#include "VEL_Message.h"
#include "VEL_Socket.h"
#include "VEL_StaticInit.h"
#include "VEL_Zlib.h"

namespace {

const VEL_StaticInit kStaticInit;

constexpr std::uint32_t kKeyBlockSize = kVEL_HOLMKeyField + 1;  // the key and a 0

std::uint32_t roundUp8(std::uint32_t length) {
    return (length + 7) & ~std::uint32_t{7};
}

unsigned char byteAt(const char* header, unsigned offset) {
    return static_cast<unsigned char>(header[offset]);
}

// XOR of the 16-bit words of the header's first `words` words.
std::uint16_t xorWords(const char* header, unsigned words) {
    std::uint16_t sum = 0;
    for (unsigned i = 0; i < words; ++i) {
        sum ^= velcom::getUint16(header + 2 * i);
    }
    return sum;
}

// The 4-byte session field: the low 32 bits of an ID, least significant byte first.
void putSessionField(char* at, unsigned long id) {
    for (int i = 0; i < 4; ++i) {
        at[i] = static_cast<char>(id >> (8 * i));
    }
}

unsigned long getSessionField(const char* at) {
    unsigned long id = 0;
    for (int i = 3; i >= 0; --i) {
        id = id << 8 | static_cast<unsigned char>(at[i]);
    }
    return id;
}

// Runs an encryptor call. With COM error tracing on the encryptor traces and throws its
// failures; this transport reports a status instead: `failure`, or kVELErr_Alloc when memory
// ran out.
template <class Call>
VELErr_t withoutThrowing(VELErr_t failure, Call call) {
    try {
        return call() ? kVELErr_Ok : failure;
    } catch (const std::bad_alloc&) {
        return kVELErr_Alloc;
    } catch (const std::exception&) {
        return failure;
    }
}

// Opens an encryptor session with the 16 key bytes at `key`; *id is 0 and *session empty when
// none was opened.
VELErr_t openEncryptorSession(const char* key, unsigned long* id,
                              VEL_Encryptor::Session_t* session) {
    *id = 0;
    session->reset();
    const VELErr_t code = withoutThrowing(kVELErr_Alloc, [key, id, session] {
        VEL_Encryptor* encryptor = VEL_Encryptor::Instance();
        if (encryptor != nullptr) {
            *id = encryptor->openSession(basis::BoundedString<16>(key, kVEL_HOLMKeyField), session);
        }
        return *id != 0 && *session != nullptr;
    });
    if (code != kVELErr_Ok) {
        *id = 0;
        session->reset();
    }
    return code;
}

}  // namespace
VEL_HOLMCodec::VEL_HOLMCodec(unsigned long maxMessageSize)
    : _compressionAlgorithm(kVELHOLMCompAlgo_Stored),
      _cipher(0),
      _sessionLevel(0),
      _compression(false),
      _secure(false),
      _keySent(false),
      _initiator(false),
      _key(nullptr),
      _session(),
      _sessionID(0),
      _peerSessionID(0),
      _reset(false),
      _maxMessageSize(maxMessageSize),
      _outHeader(),
      _outSessionField(),
      _inHeader(),
      _inKey(),
      _inSessionField(),
      _inRest(false),
      _refusedHeader(false) {
    reset();
}

VEL_HOLMCodec::~VEL_HOLMCodec() {
    dropSession();
}

void VEL_HOLMCodec::setCompression(bool on, VELHOLMCompAlgo_t algorithm) {
    _compression = on;
    _compressionAlgorithm = algorithm;
}

VELErr_t VEL_HOLMCodec::openSecureSession() {
    if (_key != nullptr) {
        return kVELErr_SecureSession;
    }
    char random[kKeyBlockSize];
    char* drawn = random;
    VEL_CryptoTools::GenerateSrcKey(drawn);
    _key = static_cast<char*>(std::calloc(kKeyBlockSize, 1));
    if (_key == nullptr) {
        return kVELErr_Alloc;
    }
    std::memcpy(_key, random, kVEL_HOLMKeyField);
    const VELErr_t code = openEncryptorSession(_key, &_sessionID, &_session);
    if (code != kVELErr_Ok) {
        dropSession();
        return code;
    }
    _secure = true;
    _cipher = 1;
    _sessionLevel = 1;
    _keySent = false;
    _initiator = true;
    return kVELErr_Ok;
}

VELErr_t VEL_HOLMCodec::closeSecureSession() {
    if (_key == nullptr) {
        return kVELErr_SecureSession;
    }
    dropSession();
    _secure = false;
    _reset = true;
    return kVELErr_Ok;
}

void VEL_HOLMCodec::dropSession() {
    if (_session != nullptr) {
        try {
            VEL_Encryptor* encryptor = VEL_Encryptor::Instance();
            if (encryptor != nullptr) {
                encryptor->closeSession(_session);  // not by ID: it may be another's by now
            }
        } catch (const std::exception&) {
            // Only a failed creation of the encryptor throws, and then there is nothing to close.
        }
        _session.reset();
    }
    _sessionID = 0;
    std::free(_key);
    _key = nullptr;
    _keySent = false;
    _initiator = false;
    _cipher = 0;
    _sessionLevel = 0;
}

VELErr_t VEL_HOLMCodec::encodeParts(VEL_Message* message, VELIoVec* parts, unsigned long* count) {
    *count = 0;
    const unsigned long plainSize = message->size();
    VELErr_t code = kVELErr_Ok;
    if (_secure && _session == nullptr) {
        code = kVELErr_SecureSession;  // checked first, so that the body stays as it is
    }
    if (code == kVELErr_Ok && _compression) {
        code = compress(message);
    }
    if (code == kVELErr_Ok && _secure) {
        code = encrypt(message);
    }
    if (code != kVELErr_Ok) {
        velcom::traceFailure(code);
        return code;
    }
    appendHeader(parts, *count, *message, plainSize);
    if (message->size() > 0) {
        parts[(*count)++] = velcom::bodyElement(*message);
    }
    return kVELErr_Ok;
}

void VEL_HOLMCodec::appendHeader(VELIoVec* iov, unsigned long& count, const VEL_Message& message,
                                 unsigned long plainSize) {
    std::memset(_outHeader, 0, sizeof(_outHeader));
    velcom::putUint16(_outHeader, kVEL_HOLMMagic);
    velcom::putUint16(_outHeader + 2, kVEL_HOLMVersion);
    velcom::putUint32(_outHeader + 8, static_cast<std::uint32_t>(plainSize));
    _outHeader[kVEL_HOLMSecurityOffset] =
            static_cast<char>((_secure ? kVEL_HOLMSecureBit : 0) | (_cipher & kVEL_HOLMSixBits));
    _outHeader[kVEL_HOLMSessionOffset] = static_cast<char>(
            (_sessionLevel & kVEL_HOLMSixBits) << kVEL_HOLMLevelShift |
            (_keySent ? kVEL_HOLMKeySentBit : 0) | (_reset ? kVEL_HOLMResetBit : 0));
    _outHeader[kVEL_HOLMCompressionOffset] = static_cast<char>(
            (_initiator ? kVEL_HOLMInitiatorBit : 0) | (_compression ? kVEL_HOLMCompressedBit : 0) |
            (_compressionAlgorithm & kVEL_HOLMSixBits));
    iov[count++] = VELIoVec{_outHeader, kVEL_HOLMHeaderSize};
    // Bodies come from the buffer manager, so the total fits in 32 bits.
    std::uint32_t total = kVEL_HOLMHeaderSize + static_cast<std::uint32_t>(message.size());
    const unsigned char rscvSize = message.getRSCVSize();
    if (rscvSize > 0) {
        _outHeader[kVEL_HOLMRSCVOffset] = static_cast<char>(rscvSize);
        iov[count++] = VELIoVec{message.getRSCV(), rscvSize};
        total += rscvSize;
    }
    if (_secure) {
        VELIoVec field{_key, kVEL_HOLMKeyField};
        if (_keySent) {
            putSessionField(_outSessionField, _initiator ? _peerSessionID : _sessionID);
            field = VELIoVec{_outSessionField, kVEL_HOLMIDField};
        }
        _keySent = true;
        _outHeader[kVEL_HOLMFieldOffset] = static_cast<char>(field.iov_len);
        iov[count++] = field;
        total += field.iov_len;
    }
    const unsigned char sscvSize = message.getSSCVSize();
    if (sscvSize > 0) {
        _outHeader[kVEL_HOLMSSCVOffset] = static_cast<char>(sscvSize);
        iov[count++] = VELIoVec{message.getSSCV(), sscvSize};
        total += sscvSize;
    }
    velcom::putUint32(_outHeader + 4, total);
    velcom::putUint16(_outHeader + kVEL_HOLMCheckOffset, xorWords(_outHeader, 6));
    _reset = false;  // announced once
}

unsigned long VEL_HOLMCodec::nextParts(VEL_Message* /*target*/, VELIoVec* parts,
                                       unsigned long* count) {
    return _cursor.next(parts, count);
}

VELErr_t VEL_HOLMCodec::received(VEL_Message* target, unsigned long received) {
    if (!_cursor.fill(received)) {
        return kVELErr_Incomplete;
    }
    return _inRest ? finishFrame(target) : judgeHeader(target);
}

void VEL_HOLMCodec::reset() {
    _inRest = false;
    _cursor.clear();
    _cursor.add(_inHeader, kVEL_HOLMHeaderSize);
    _refusedHeader = false;
}

unsigned long VEL_HOLMCodec::receivedPlainSize() const {
    return velcom::getUint32(_inHeader + 8);
}

VELErr_t VEL_HOLMCodec::judgeHeader(VEL_Message* target) {
    if (xorWords(_inHeader, 7) != 0 || velcom::getUint16(_inHeader + 2) != kVEL_HOLMVersion ||
        velcom::getUint16(_inHeader) != kVEL_HOLMMagic) {
        return refuseHeader(kVELErr_BadStreamHeader);
    }
    const unsigned long plain = receivedPlainSize();
    if (plain > _maxMessageSize || plain > basis::BufferMgr::Default()->getMaxBufferSize()) {
        return refuseHeader(kVELErr_MessageTooBig);
    }
    // A frame with the reset bit is judged as this side will be once it has closed its session:
    // the same frame may bring a new key.
    const bool reset = (byteAt(_inHeader, kVEL_HOLMSessionOffset) & kVEL_HOLMResetBit) != 0;
    std::uint32_t bodyLength = 0;
    VELErr_t code = checkLengths(_key != nullptr && !reset, &bodyLength);
    if (code == kVELErr_Ok) {
        code = prepareRest(target, bodyLength);
    }
    if (code != kVELErr_Ok) {
        return refuseHeader(code);
    }
    _inRest = true;
    return _cursor.full() ? finishFrame(target) : kVELErr_Incomplete;
}

VELErr_t VEL_HOLMCodec::checkLengths(bool keyHeld, std::uint32_t* bodyLength) const {
    const unsigned char fieldSize = byteAt(_inHeader, kVEL_HOLMFieldOffset);
    const bool secure = (byteAt(_inHeader, kVEL_HOLMSecurityOffset) & kVEL_HOLMSecureBit) != 0;
    const bool compressed =
            (byteAt(_inHeader, kVEL_HOLMCompressionOffset) & kVEL_HOLMCompressedBit) != 0;
    // A key comes only to a side without one; a session ID only to a side with one; a secure
    // body only with a key to decrypt it.
    if ((fieldSize != 0 && fieldSize != (keyHeld ? kVEL_HOLMIDField : kVEL_HOLMKeyField)) ||
        (secure && !keyHeld && fieldSize == 0)) {
        return kVELErr_BadStreamHeader;
    }
    const std::uint32_t fixed = kVEL_HOLMHeaderSize + byteAt(_inHeader, kVEL_HOLMRSCVOffset) +
                                fieldSize + byteAt(_inHeader, kVEL_HOLMSSCVOffset);
    const std::uint32_t total = velcom::getUint32(_inHeader + 4);
    if (total < fixed) {
        return kVELErr_BadStreamHeader;
    }
    *bodyLength = total - fixed;
    if (secure && *bodyLength % 8 != 0) {
        return kVELErr_BadStreamHeader;
    }
    const auto plainSize = static_cast<std::uint32_t>(receivedPlainSize());
    if (!compressed) {
        return *bodyLength == (secure ? roundUp8(plainSize) : plainSize) ? kVELErr_Ok
                                                                         : kVELErr_BadStreamHeader;
    }
    // A compressed body is at most the zlib bound of the largest plain size the receiver takes.
    const unsigned long largest =
            std::min(_maxMessageSize, basis::BufferMgr::Default()->getMaxBufferSize());
    return *bodyLength <= roundUp8(static_cast<std::uint32_t>(velcom::zlibBound(largest)))
                   ? kVELErr_Ok
                   : kVELErr_BadStreamHeader;
}

VELErr_t VEL_HOLMCodec::prepareRest(VEL_Message* target, std::uint32_t bodyLength) {
    const unsigned char rscvSize = byteAt(_inHeader, kVEL_HOLMRSCVOffset);
    const unsigned char fieldSize = byteAt(_inHeader, kVEL_HOLMFieldOffset);
    const unsigned char sscvSize = byteAt(_inHeader, kVEL_HOLMSSCVOffset);
    VELErr_t code = target->allocateRSCV(rscvSize);
    if (code == kVELErr_Ok) {
        code = target->allocateSSCV(sscvSize);
    }
    if (code == kVELErr_Ok) {
        code = velcom::prepareBody(target, bodyLength);
    }
    if (code != kVELErr_Ok) {
        return code;
    }
    // checkLengths has left a field of 0, 4 (a session ID) or 16 bytes (the peer's key).
    _cursor.clear();
    _cursor.add(target->getRSCV(), rscvSize);
    _cursor.add(fieldSize == kVEL_HOLMKeyField ? _inKey : _inSessionField, fieldSize);
    _cursor.add(target->getSSCV(), sscvSize);
    _cursor.add(target->data(), bodyLength);
    return kVELErr_Ok;
}

VELErr_t VEL_HOLMCodec::finishFrame(VEL_Message* target) {
    reset();
    VELErr_t code = applyHeader();
    const unsigned long plainSize = receivedPlainSize();
    // A compressed body is decrypted whole: the padding after the zlib stream is ignored when
    // it is uncompressed. A plain one is cut to its size, which drops the padding.
    if (code == kVELErr_Ok && _secure) {
        code = decrypt(target, _compression ? target->size() : plainSize);
    }
    if (code == kVELErr_Ok && _compression) {
        code = uncompress(target, plainSize);
    }
    if (code != kVELErr_Ok) {
        velcom::traceRecvFailure(code, "Error receiving a HOLM message",
                                 "Received header :", _inHeader, kVEL_HOLMHeaderSize,
                                 "Received message :", target);
    }
    return code;
}

VELErr_t VEL_HOLMCodec::applyHeader() {
    // The peer closed its session: so does this side, before it takes a new key.
    if ((byteAt(_inHeader, kVEL_HOLMSessionOffset) & kVEL_HOLMResetBit) != 0) {
        dropSession();
    }
    const unsigned char security = byteAt(_inHeader, kVEL_HOLMSecurityOffset);
    _secure = (security & kVEL_HOLMSecureBit) != 0;
    if (_secure) {
        _cipher = security & kVEL_HOLMSixBits;
        _sessionLevel = byteAt(_inHeader, kVEL_HOLMSessionOffset) >> kVEL_HOLMLevelShift;
    }
    const unsigned char compression = byteAt(_inHeader, kVEL_HOLMCompressionOffset);
    _compression = (compression & kVEL_HOLMCompressedBit) != 0;
    if (_compression) {
        _compressionAlgorithm = static_cast<VELHOLMCompAlgo_t>(compression & kVEL_HOLMSixBits);
    }
    const unsigned char fieldSize = byteAt(_inHeader, kVEL_HOLMFieldOffset);
    if (fieldSize == kVEL_HOLMIDField) {
        _peerSessionID = getSessionField(_inSessionField);
    } else if (fieldSize == kVEL_HOLMKeyField) {
        // The peer sends its key: checkLengths has made sure that none is held here.
        _key = static_cast<char*>(std::calloc(kKeyBlockSize, 1));
        if (_key == nullptr) {
            return kVELErr_Alloc;
        }
        std::memcpy(_key, _inKey, kVEL_HOLMKeyField);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_HOLMCodec::refuseHeader(VELErr_t code) {
    velcom::traceRecvFailure(code, "Error encountered while receiving H-OLM header",
                             "Received header:", _inHeader, kVEL_HOLMHeaderSize);
    reset();
    _refusedHeader = true;
    return code;
}

VELErr_t VEL_HOLMCodec::compress(VEL_Message* message) {
    return velcom::compressBody(message, _compressionAlgorithm);
}

VELErr_t VEL_HOLMCodec::uncompress(VEL_Message* message, unsigned long plainSize) {
    return velcom::uncompressBody(message, static_cast<std::uint32_t>(plainSize),
                                  _compressionAlgorithm);
}
VELErr_t VEL_HOLMCodec::encrypt(VEL_Message* message) {
    const unsigned long size = message->size();
    if (_session == nullptr) {
        return kVELErr_SecureSession;
    }
    // An empty body goes through the session too, so that a closed session is noticed. It has
    // no buffer: CAST writes nothing for it, but needs a block to write to.
    char empty[8];
    basis::Buffer* body = message->buffer();
    if (size > 0) {
        // In place: CBC reads each block before writing it. Pooled buffers hold whole blocks
        // of 8, so the padded length fits without moving the body.
        try {
            body->resize(roundUp8(static_cast<std::uint32_t>(size)));
        } catch (const basis::BufferException&) {
            return kVELErr_Alloc;
        }
    }
    char* data = size > 0 ? body->data() : empty;
    unsigned long encrypted = 0;
    const VELErr_t code = withoutThrowing(kVELErr_SecureSession, [this, data, size, &encrypted] {
        VEL_Encryptor* encryptor = VEL_Encryptor::Instance();
        char* out = data;
        return encryptor != nullptr &&
               encryptor->encrypt(data, out, size, encrypted, _session) == kVELErr_Ok;
    });
    if (size > 0) {
        body->setSize(code == kVELErr_Ok ? encrypted : size);
    }
    return code;
}

VELErr_t VEL_HOLMCodec::decrypt(VEL_Message* message, unsigned long length) {
    if (!_initiator && !_keySent) {
        // The responder joins the session with the key that the initiator sent.
        const VELErr_t code = openEncryptorSession(_key, &_sessionID, &_session);
        if (code != kVELErr_Ok) {
            return code;
        }
        _keySent = true;
    }
    // In place: the body holds `length` rounded up to 8 (checked with the header), which is
    // what the last block reads. An empty body goes through the session too: it restarts the
    // session's inactivity timer, and fails once the session is closed.
    char empty[8];
    char* data = length > 0 ? message->data() : empty;
    const VELErr_t code = withoutThrowing(kVELErr_SecureSession, [this, data, length] {
        VEL_Encryptor* encryptor = VEL_Encryptor::Instance();
        char* out = data;
        return encryptor != nullptr &&
               encryptor->decrypt(data, out, length, _session) == kVELErr_Ok;
    });
    if (code == kVELErr_Ok && length > 0) {
        message->buffer()->setSize(length);
    }
    return code;
}

VEL_HOLM::VEL_HOLM(VEL_Socket* socket, unsigned long maxMessageSize)
    : VEL_Transport(socket), _codec(maxMessageSize) {}

VEL_HOLM::~VEL_HOLM() = default;

void VEL_HOLM::setCompression(bool on, VELHOLMCompAlgo_t algorithm) {
    _codec.setCompression(on, algorithm);
}

VELErr_t VEL_HOLM::openSecureSession() {
    return _codec.openSecureSession();
}

VELErr_t VEL_HOLM::closeSecureSession() {
    return _codec.closeSecureSession();
}

VELErr_t VEL_HOLM::sendMessage(VEL_Message* message) {
    return sendFramed(_codec, message);
}

VELErr_t VEL_HOLM::recvMessage(VEL_Message* message) {
    VELErr_t code = checkArguments(message);
    if (code != kVELErr_Ok) {
        return code;
    }
    _codec.reset();  // a frame cut short by a failed call is not resumed
    bool refused = false;
    code = readHeader(message, &refused);
    if (refused) {
        velcom::traceFailure(code);
        return code;
    }
    if (code != kVELErr_Incomplete) {
        return code;  // the frame ended with its header; a failure is traced by the codec
    }
    bool fromSocket = false;
    code = readRest(_codec, message, &fromSocket);
    if (code != kVELErr_Ok && fromSocket) {
        velcom::traceRecvFailure(code, "Error receiving a HOLM message",
                                 "Received header :", _codec.receivedHeader(), kVEL_HOLMHeaderSize);
    }
    return code;
}

VELErr_t VEL_HOLM::readHeader(VEL_Message* message, bool* refused) {
    bool fromSocket = false;
    const VELErr_t code = readFrameHeader(_codec, message, &fromSocket);
    *refused = fromSocket || _codec.refusedHeader();
    return code;
}

VELErr_t VEL_HOLM::buildHeader(VELIoVec* iov, unsigned long& count, VEL_Message* message,
                               unsigned long plainSize) {
    _codec.appendHeader(iov, count, *message, plainSize);
    return kVELErr_Ok;
}

VELErr_t VEL_HOLM::recvHeader(VELIoVec* /*iov*/, unsigned long& /*count*/, VEL_Message* message,
                              unsigned long& plainSize) {
    _codec.reset();
    bool refused = false;
    const VELErr_t code = readHeader(message, &refused);
    plainSize = _codec.receivedPlainSize();
    return code == kVELErr_Incomplete ? kVELErr_Ok : code;
}

VELErr_t VEL_HOLM::compress(VEL_Message* message) {
    return _codec.compress(message);
}

VELErr_t VEL_HOLM::uncompress(VEL_Message* message, unsigned long plainSize) {
    return _codec.uncompress(message, plainSize);
}

VELErr_t VEL_HOLM::encrypt(VEL_Message* message) {
    return _codec.encrypt(message);
}

VELErr_t VEL_HOLM::decrypt(VEL_Message* message, unsigned long length) {
    return _codec.decrypt(message, length);
}
