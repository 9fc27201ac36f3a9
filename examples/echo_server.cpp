// vel-echo-server: a reactor server that answers every OXLv1 message with the same message.
//
//   ./build/examples/vel-echo-server 7000 &
//   printf 'hello\n' | ./build/tools/velcat -c 1 127.0.0.1 7000
//
// The server itself is EchoServer (EchoServer.h): an acceptor and one framed connection per
// client, all driven by one reactor thread. This file only picks the wire format and waits for
// Ctrl-C.
#include <pthread.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <memory>

#include "EchoServer.h"
#include "vel.h"

int main(int argc, char** argv) {
    const unsigned short port = argc > 1 ? static_cast<unsigned short>(std::atoi(argv[1])) : 0;

    // Block Ctrl-C before any library thread starts, so that only sigwait below sees it.
    sigset_t stop;
    sigemptyset(&stop);
    sigaddset(&stop, SIGINT);
    sigaddset(&stop, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &stop, nullptr);

    VEL_ComEnabler network;
    // Each accepted connection speaks OXLv1 and accepts bodies of up to 1 MiB.
    EchoServer server([] { return std::unique_ptr<VEL_FrameCodec>(new VEL_OXLv1Codec(1 << 20)); });
    const VELErr_t code = server.start(port);
    if (code != kVELErr_Ok) {
        std::printf("cannot start: %s\n", VEL_Tools::GetErrStr(code).c_str());
        return 1;
    }
    std::printf("echoing OXLv1 on 127.0.0.1 port %u; Ctrl-C stops\n", server.port());
    std::fflush(stdout);

    int received = 0;
    sigwait(&stop, &received);
    server.stop();
    std::printf("answered %lu messages\n", server.messages());
    return 0;
}
