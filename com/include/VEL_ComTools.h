// VEL_ComTools: static helpers of the network module: marking the start and end of network use
// and the platform's descriptor limits.
//
// Thread safety: every function is static and safe from any thread.
#ifndef COM_INCLUDE_VEL_COMTOOLS_H
#define COM_INCLUDE_VEL_COMTOOLS_H

#include "VEL_Err.h"

class VEL_ComTools {
public:
    VEL_ComTools() = delete;

    // Traces "COM - Initializing Com resources" (trace bit 2). The socket layer needs no start-up
    // on this platform. Always kVELErr_Ok.
    static VELErr_t Initialize();
    // Traces "COM - Cleaning COM resources" (trace bit 2).
    static void Cleanup();

    // The descriptor limits the library works with: both store 2048. Always kVELErr_Ok.
    static VELErr_t GetFileDescLimit(unsigned long* limit);
    static VELErr_t GetFileDescMaxLimit(unsigned long* limit);
    // Accepted and ignored (the limits above are fixed). Always kVELErr_Ok.
    static VELErr_t SetFileDescLimit(unsigned long limit);
    // Nothing to do: every send of the library passes MSG_NOSIGNAL, so no SIGPIPE is raised.
    static void IgnoreSigPipe();

private:
    static bool _IsInitialized;
};

#endif  // COM_INCLUDE_VEL_COMTOOLS_H
