#include "Framing.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <sstream>

#include "VEL_HOLM.h"
#include "VEL_Message.h"
#include "VEL_OXLv1.h"
#include "VEL_OXLv2.h"
#include "VEL_OXLv5.h"
#include "VEL_Socket.h"
#include "VEL_TN3270.h"
#include "VEL_Tools.h"

namespace velcat {

namespace {

// Writes all of `text` to `fd`; false when the descriptor refuses it.
bool writeAll(int fd, const std::string& text) {
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t written = ::write(fd, text.data() + done, text.size() - done);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            return false;
        }
        done += static_cast<std::size_t>(written);
    }
    return true;
}

}  // namespace

Framing::Framing(Protocol protocol, VEL_Socket* socket, unsigned long maxSize) : _maxSize(maxSize) {
    switch (protocol) {
        case Protocol::kOXLv1:
            _transport.reset(new VEL_OXLv1(socket, maxSize));
            break;
        case Protocol::kOXLv2:
            _oxl2 = new VEL_OXLv2(socket, maxSize);
            _transport.reset(_oxl2);
            break;
        case Protocol::kOXLv5:
            _transport.reset(new VEL_OXLv5(socket));
            break;
        case Protocol::kHOLM:
            _holm = new VEL_HOLM(socket, maxSize);
            _transport.reset(_holm);
            break;
        case Protocol::kTN3270:
            _transport.reset(new VEL_TN3270(socket));
            break;
    }
}

Framing::~Framing() = default;

VELErr_t Framing::receive(VEL_Message& message) {
    const VELErr_t code = _transport->recvMessage(&message);
    // OXLv5 knows no limit but its 16-bit length: its bodies are checked once read.
    if (code == kVELErr_Ok && message.size() > _maxSize) {
        return kVELErr_MessageTooBig;
    }
    return code;
}

bool Framing::compressing() const {
    return (_oxl2 != nullptr && _oxl2->getCompression()) ||
           (_holm != nullptr && _holm->getCompression());
}

VELErr_t Framing::send(VEL_Message& message) {
    const VELErr_t code = _transport->sendMessage(&message);
    if (code != kVELErr_Compression || !compressing()) {
        return code;
    }
    // Nothing was sent and the body is unchanged: send it plain, then compress again.
    setCompression(false);
    const VELErr_t plain = _transport->sendMessage(&message);
    setCompression(true);
    return plain;
}

void Framing::setCompression(bool on) {
    if (_oxl2 != nullptr) {
        _oxl2->setCompression(on);
    }
    if (_holm != nullptr) {
        _holm->setCompression(on);
    }
}

VELErr_t Framing::openSecureSession() {
    return _holm != nullptr ? _holm->openSecureSession() : kVELErr_InvalidAction;
}

VELErr_t Framing::renewSecureSession() {
    if (_holm == nullptr || !_holm->isSecureSession()) {
        return kVELErr_Ok;
    }
    (void)_holm->closeSecureSession();  // Ok: a session is held
    return _holm->openSecureSession();
}

std::unique_ptr<VEL_FrameCodec> MakeCodec(Protocol protocol, unsigned long maxSize) {
    switch (protocol) {
        case Protocol::kOXLv1:
            return std::unique_ptr<VEL_FrameCodec>(new VEL_OXLv1Codec(maxSize));
        case Protocol::kOXLv2:
            return std::unique_ptr<VEL_FrameCodec>(new VEL_OXLv2Codec(maxSize));
        case Protocol::kOXLv5:
            return std::unique_ptr<VEL_FrameCodec>(new VEL_OXLv5Codec());
        case Protocol::kHOLM:
            return std::unique_ptr<VEL_FrameCodec>(new VEL_HOLMCodec(maxSize));
        case Protocol::kTN3270:
            return std::unique_ptr<VEL_FrameCodec>(new VEL_TN3270Codec());
    }
    return nullptr;
}

void SetCompression(VEL_FrameCodec& codec, bool on) {
    if (auto* oxl2 = dynamic_cast<VEL_OXLv2Codec*>(&codec)) {
        oxl2->setCompression(on);
    } else if (auto* holm = dynamic_cast<VEL_HOLMCodec*>(&codec)) {
        holm->setCompression(on, kVELHOLMCompAlgo_Default);
    }
}

bool PrintBody(const VEL_Message& message, bool hex) {
    static const char kDigits[] = "0123456789abcdef";
    const char* data = message.data();
    const std::size_t size = message.size();
    std::string line;
    if (hex) {
        line.reserve(2 * size + 1);
        for (std::size_t i = 0; i < size; ++i) {
            const auto byte = static_cast<unsigned char>(data[i]);
            line += kDigits[byte >> 4];
            line += kDigits[byte & 0x0F];
        }
    } else if (size > 0) {
        line.assign(data, size);
    }
    line += '\n';
    return writeAll(STDOUT_FILENO, line);
}

void Say(const std::string& text) {
    (void)writeAll(STDERR_FILENO, "velcat: " + text + "\n");  // nowhere else to report to
}

std::string PeerText(const VEL_Socket& socket) {
    std::ostringstream text;
    text << socket.getRemoteAddr();
    return text.str();
}

void StderrTraceSink::output(const char* file, unsigned long line, unsigned short level,
                             const char* text) {
    std::ostringstream out;
    out << "<" << file << " #" << line << "> <TID #" << TracingThreadNumber() << "> "
        << LevelToString(level) << " - " << text << "\n";
    (void)writeAll(STDERR_FILENO, out.str());  // a trace line that cannot be written is lost
}

void TraceFailure(VELErr_t code, const std::string& detail) {
    if (VEL_Tools::IsTraceOn(kVELTrace_ComError)) {
        VEL_Tools::TraceText(kVELLevel_Error, VEL_Tools::ErrText("velcat", code, detail));
    }
}

}  // namespace velcat
