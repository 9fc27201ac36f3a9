// vel-demo: a short tour of what the library does, printed as it happens.
//
// Installs a trace sink, shows status texts with the calling thread's last system error, and
// dumps a message buffer the way the framing layers do when message dumps are switched on.
#include <cstdio>
#include <string>

#include "vel.h"

namespace {

int failures = 0;

void check(bool ok, const std::string& what) {
    std::printf("[%s] %s\n", ok ? " ok " : "FAIL", what.c_str());
    if (!ok) {
        ++failures;
    }
}

}  // namespace

int main() {
    std::printf("vel demo\n\n");

    // 1. Status codes: every operation returns a VELErr_t; GetErrStr adds the last system error.
    basis::Thread::SetLastSystemErr(0);
    const std::string timeout = VEL_Tools::GetErrStr(kVELErr_Timeout);
    check(timeout == "Timeout error {0}", "status text: " + timeout);

    // 2. Tracing: the application owns the sink; the library writes through it.
    VEL_TraceHandlerMt sink(kVELTrace_Com | kVELTrace_MsgDump | kVELTrace_Error, 64, 0xFFFFFFFF);
    VEL_Tools::SetTraceHandler(&sink);
    {
        VEL_ComEnabler network;  // traces the start and end of network use
    }
    const char message[] = "Hello from vel: a 32-byte buffer";
    VEL_Tools::MemDump(basis::Tools::Basename(__FILE__), __LINE__, 3, message, sizeof(message) - 1,
                       0);
    VEL_Tools::SetTraceHandler(nullptr);
    check(true, "trace lines and a message dump written above");

    // 3. Buffers: message bodies come from a pool and are reused by size class.
    basis::BufferMgr* buffers = basis::BufferMgr::Default();
    basis::Buffer* first = buffers->allocate(1000);
    char* storage = first->data();
    first->release();
    basis::Buffer* second = buffers->allocate(1500);
    check(second->data() == storage, "a released buffer is reused for the next message");
    second->release();
    check(buffers->allocate(buffers->getMaxBufferSize() + 1) == nullptr,
          "a body above the largest buffer is refused instead of allocated");

    std::printf("\n%s\n", failures == 0 ? "all steps worked" : "some steps FAILED");
    return failures == 0 ? 0 : 1;
}
