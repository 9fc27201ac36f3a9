/// @file
#ifndef BASE_INCLUDE_VELIOVEC_H
#define BASE_INCLUDE_VELIOVEC_H

#include <cstdint>

/// VELIoVec: one element of a scatter/gather list. Vector transfers take an array of them and a
/// count, and partial transfers advance the caller's array in place.
struct VELIoVec {
    char* iov_base;         ///< the first byte
    std::uint32_t iov_len;  ///< the number of bytes
};

#endif  // BASE_INCLUDE_VELIOVEC_H
