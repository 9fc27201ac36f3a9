// VELIoVec: one element of a scatter/gather list. Vector transfers take an array of them and a
// count, and partial transfers advance the caller's array in place.
#ifndef BASE_INCLUDE_VELIOVEC_H
#define BASE_INCLUDE_VELIOVEC_H

#include <cstdint>

struct VELIoVec {
    char* iov_base;
    std::uint32_t iov_len;
};

#endif  // BASE_INCLUDE_VELIOVEC_H
