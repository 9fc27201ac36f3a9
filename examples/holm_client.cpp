// vel-holm-client: sends messages over HOLM in a secure, compressed session and prints what
// comes back. Any HOLM echo server answers, for instance velcat:
//
//   ./build/tools/velcat -l -p holm -e 7001 &
//   ./build/examples/vel-holm-client 127.0.0.1 7001 "first message" "second message"
//
// The session is opened in band: the first frame carries a fresh key, the server opens a
// matching session when it decrypts that frame, and every later frame names the session.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "vel.h"

namespace {

int fail(const char* what, VELErr_t code) {
    std::printf("%s: %s\n", what, VEL_Tools::GetErrStr(code).c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::printf("usage: %s HOST PORT [MESSAGE...]\n", argv[0]);
        return 2;
    }
    VEL_ComEnabler network;
    VEL_TCPConnector connector(static_cast<unsigned short>(std::atoi(argv[2])), argv[1]);
    VEL_Socket* connected = nullptr;
    VELErr_t code = connector.connect(connected);
    if (code != kVELErr_Ok) {
        return fail("connect", code);
    }
    std::unique_ptr<VEL_Socket> socket(connected);  // the connection is ours to delete

    VEL_HOLM holm(socket.get(), 1 << 20);
    code = holm.openSecureSession();  // a fresh key; this side is the initiator
    if (code != kVELErr_Ok) {
        return fail("secure session", code);
    }
    holm.setCompression(true);  // bodies are compressed, then encrypted

    std::vector<std::string> texts(argv + 3, argv + argc);
    if (texts.empty()) {
        texts = {"hello over HOLM", std::string(300, '*') + " a long and very compressible body"};
    }
    for (const std::string& text : texts) {
        VEL_Message request;
        request.setData(text.data(), text.size());
        code = holm.sendMessage(&request);
        if (code == kVELErr_Compression) {  // too short to gain anything: send it plain
            holm.setCompression(false);
            code = holm.sendMessage(&request);
            holm.setCompression(true);
        }
        VEL_Message reply;
        if (code == kVELErr_Ok) {
            code = holm.recvMessage(&reply);  // decrypted and uncompressed
        }
        if (code != kVELErr_Ok) {
            return fail("exchange", code);
        }
        std::printf("sent %zu bytes, received %lu bytes back, %s\n", text.size(), reply.size(),
                    std::string(reply.data(), reply.size()) == text ? "identical" : "DIFFERENT");
    }
    return 0;
}
