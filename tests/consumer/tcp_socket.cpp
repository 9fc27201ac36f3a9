// Uses a single vel header, as an application that needs only sockets may.
#include <vel/VEL_TCPSocket.h>

#include <string>

bool OpenLoopbackSocket(std::string& detail) {
    VEL_TCPSocket socket(0, "127.0.0.1");
    const VELErr_t code = socket.open();
    const unsigned short port = socket.getLocalAddr().getPort();
    (void)socket.close();
    if (code != kVELErr_Ok || port == 0) {
        detail = "cannot open a socket on 127.0.0.1: status " + std::to_string(code) + ", port " +
                 std::to_string(port);
        return false;
    }
    detail = "socket bound to 127.0.0.1 port " + std::to_string(port);
    return true;
}
