// Built against an installed copy of the library: proves that the umbrella header and the
// package configuration are complete.
#include <cstdio>
#include <string>

#include "vel.h"

int main() {
    const std::string text = VEL_Tools::GetErrStr(kVELErr_Timeout);
    if (text.rfind("Timeout error {", 0) != 0) {
        std::printf("unexpected text: %s\n", text.c_str());
        return 1;
    }
    std::printf("vel consumer ok: %s\n", text.c_str());
    return 0;
}
