// vel-failover-client: one logical connection across several servers. It sends a message every
// second for 20 seconds through a failover pipe and says which server carries it; stop the
// server in use meanwhile and the pipe moves to another, start it again and the pipe comes back.
//
//   ./build/tools/velcat -l -e 7002 &  ./build/tools/velcat -l -e 7003 &
//   ./build/examples/vel-failover-client 127.0.0.1:7002 127.0.0.1:7003
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>

#include "vel.h"

namespace {

// The pipe tells its application what happens to its connections.
class Narrator : public VEL_PipeNotifier {
public:
    void connectionEstablished(const std::string& host, unsigned short port) override {
        std::printf("  connected to %s:%u\n", host.c_str(), port);
    }
    void connectionDiscarded(const std::string& host, unsigned short port) override {
        std::printf("  lost %s:%u\n", host.c_str(), port);
    }
    void connectionFailed(const std::string& host, unsigned short port) override {
        std::printf("  %s:%u does not answer\n", host.c_str(), port);
    }
};

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::printf("usage: %s HOST:PORT HOST:PORT [HOST:PORT...]\n", argv[0]);
        return 2;
    }
    VEL_ComEnabler network;
    Narrator narrator;
    VEL_TCPPipe pipe(true);  // failover: one connection at a time
    for (int i = 1; i < argc; ++i) {
        const std::string endpoint = argv[i];
        const std::string host = endpoint.substr(0, endpoint.rfind(':'));
        const auto port = static_cast<unsigned short>(std::atoi(argv[i] + host.size() + 1));
        pipe.addConnection(port, host.c_str());
    }
    pipe.setRetryTime(2);       // a lost server is tried again after 2 s
    pipe.setConnectTimeout(1);  // seconds per connection attempt
    pipe.setPipeNotifier(&narrator);
    VELErr_t code = pipe.open();  // connects to one of them, chosen at random
    if (code != kVELErr_Ok) {
        std::printf("no server answers: %s\n", VEL_Tools::GetErrStr(code).c_str());
        return 1;
    }

    VEL_OXLv1 transport(&pipe, 65536);  // frames over the pipe as over a socket
    for (int second = 1; second <= 20; ++second) {
        const std::string text = "message " + std::to_string(second);
        VEL_Message request;
        request.setData(text.data(), text.size());
        VEL_Message reply;
        code = transport.sendMessage(&request);
        if (code == kVELErr_Ok) {
            code = transport.recvMessage(&reply);
        }
        if (code == kVELErr_Timeout) {
            code = transport.recvMessage(&reply);  // a pipe that has just reconnected
        }
        std::printf("%s: %s\n", text.c_str(),
                    code == kVELErr_Ok ? "answered" : VEL_Tools::GetErrStr(code).c_str());
        std::fflush(stdout);
        std::this_thread::sleep_for(std::chrono::seconds(1));
    }
    return 0;
}
