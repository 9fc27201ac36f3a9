// Built against an installed copy of the library, once through find_package(vel) and once through
// pkg-config alone: proves that the umbrella header and the package files are complete, and that
// no vel header is reachable without its vel/ folder, where headers with generic names (Guard.h,
// Thread.h) would shadow the application's own.
#include <vel/vel.h>

#include <cstdio>
#include <string>

#if __has_include(<vel.h>) || __has_include(<Guard.h>) || __has_include(<VEL_TCPSocket.h>)
#error "a vel header is reachable without the vel/ folder"
#endif

// tcp_socket.cpp, which includes one vel header alone.
bool OpenLoopbackSocket(std::string& detail);

int main() {
    const std::string text = VEL_Tools::GetErrStr(kVELErr_Timeout);
    if (text.rfind("Timeout error {", 0) != 0) {
        std::printf("unexpected text: %s\n", text.c_str());
        return 1;
    }
    std::string detail;
    if (!OpenLoopbackSocket(detail)) {
        std::printf("%s\n", detail.c_str());
        return 1;
    }
    std::printf("vel consumer ok: %s; %s\n", text.c_str(), detail.c_str());
    return 0;
}
