#include "Tools.h"

#include <cstring>

namespace basis {

const char* Tools::Basename(const char* path) {
    const char* slash = std::strrchr(path, '/');
    return slash ? slash + 1 : path;
}

std::string Tools::GetErrStr(Err_t code) {
    switch (code) {
        case kErr_Ok:
            return "No error";
        case kErr_ThreadAcquire:
            return "Cannot acquire the lock";
        case kErr_ThreadRelease:
            return "Cannot release the lock";
        case kErr_Timeout:
            return "Timeout";
        case kErr_Thread:
            return "Cannot start a thread";
        case kErr_Alloc:
            return "Allocation failed";
        case kErr_BadValue:
            return "Bad value";
        case kErr_NotRunning:
            return "The task is not running";
    }
    return "Unknown error (" + std::to_string(static_cast<int>(code)) + ")";
}

unsigned int nextPrime_(unsigned int n) {
    if (n <= 2) {
        return 2;
    }
    for (unsigned long candidate = n | 1u;; candidate += 2) {
        bool prime = true;
        for (unsigned long divisor = 3; divisor * divisor <= candidate; divisor += 2) {
            if (candidate % divisor == 0) {
                prime = false;
                break;
            }
        }
        if (prime) {
            return static_cast<unsigned int>(candidate);
        }
    }
}

}  // namespace basis
