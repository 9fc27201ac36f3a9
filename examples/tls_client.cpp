// vel-tls-client: sends messages as OXLv1 frames inside TLS and prints what comes back. The
// server's certificate must chain to CA_FILE and name HOST. Any TLS server that relays OXLv1
// frames answers, for instance the openssl command's test server (which prints what it gets
// and sends what is typed at it):
//
//   openssl s_server -accept 7001 -cert server.pem -key server.key
//   ./build/examples/vel-tls-client localhost 7001 ca.pem "first message"
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "vel.h"

namespace {

int fail(const char* what, VELErr_t code, const std::string& detail = std::string()) {
    std::printf("%s: %s %s\n", what, VEL_Tools::GetErrStr(code).c_str(), detail.c_str());
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::printf("usage: %s HOST PORT CA_FILE [MESSAGE...]\n", argv[0]);
        return 2;
    }
    VEL_ComEnabler network;
    VEL_TLSContext context(kVELTLS_Client);  // verifies the server and its name
    VELErr_t code = context.loadTrustedCAFile(argv[3]);
    if (code != kVELErr_Ok) {
        return fail("trusted certificates", code);
    }
    VEL_TLSConnector connector(static_cast<unsigned short>(std::atoi(argv[2])), argv[1], context);
    VEL_Socket* connected = nullptr;
    code = connector.connect(connected);  // TCP, then the TLS handshake
    if (code != kVELErr_Ok) {
        return fail("connect", code, connector.getFailureDetail());
    }
    std::unique_ptr<VEL_Socket> socket(connected);  // a VEL_TLSSocket, ours to delete
    VEL_OXLv1 transport(socket.get(), 1 << 20);     // framing runs over TLS unchanged

    for (int i = 4; i < argc; ++i) {
        VEL_Message request;
        request.setData(argv[i], std::string(argv[i]).size());
        VEL_Message reply;
        code = transport.sendMessage(&request);
        if (code == kVELErr_Ok) {
            code = transport.recvMessage(&reply);
        }
        if (code != kVELErr_Ok) {
            return fail("exchange", code);
        }
        std::printf("%s\n", std::string(reply.data(), reply.size()).c_str());
    }
    return 0;  // closing the socket sends TLS close_notify
}
