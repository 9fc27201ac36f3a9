#include "VEL_FrameCodec.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <stdexcept>

#include "VEL_StaticInit.h"

namespace {

const VEL_StaticInit kStaticInit;

}  // namespace

VEL_FrameCodec::~VEL_FrameCodec() = default;

VELErr_t VEL_FrameCodec::encode(VEL_Message* message, std::string& out) {
    VELIoVec parts[kVEL_MaxFrameParts];
    unsigned long count = 0;
    const VELErr_t code = encodeParts(message, parts, &count);
    if (code != kVELErr_Ok) {
        return code;
    }
    std::size_t total = 0;
    for (unsigned long i = 0; i < count; ++i) {
        total += parts[i].iov_len;
    }
    try {
        out.reserve(out.size() + total);
    } catch (const std::bad_alloc&) {
        return kVELErr_Alloc;
    } catch (const std::length_error&) {
        return kVELErr_Alloc;
    }
    for (unsigned long i = 0; i < count; ++i) {
        out.append(parts[i].iov_base, parts[i].iov_len);
    }
    return kVELErr_Ok;
}

VELErr_t VEL_FrameCodec::decode(const char* data, std::size_t size, std::size_t* used,
                                VEL_Message* target) {
    *used = 0;
    VELErr_t code = kVELErr_Incomplete;
    while (code == kVELErr_Incomplete && *used < size) {
        VELIoVec parts[kVEL_MaxFrameParts];
        unsigned long count = 0;
        (void)nextParts(target, parts, &count);  // the total is the sum of the parts
        unsigned long copied = 0;
        for (unsigned long i = 0; i < count && *used < size; ++i) {
            const std::size_t take = std::min<std::size_t>(parts[i].iov_len, size - *used);
            if (take > 0) {
                std::memcpy(parts[i].iov_base, data + *used, take);
            }
            *used += take;
            copied += static_cast<unsigned long>(take);
            if (take < parts[i].iov_len) {
                break;
            }
        }
        code = received(target, copied);
    }
    return code;
}

void VEL_PartCursor::clear() {
    _count = 0;
    _size = 0;
    _have = 0;
}

void VEL_PartCursor::add(char* at, std::uint32_t length) {
    if (length > 0) {
        _places[_count++] = VELIoVec{at, length};
        _size += length;
    }
}

bool VEL_PartCursor::fill(unsigned long received) {
    _have += static_cast<std::uint32_t>(received);
    return _have >= _size;
}

unsigned long VEL_PartCursor::next(VELIoVec* parts, unsigned long* count) const {
    std::uint32_t skip = _have;
    *count = 0;
    for (unsigned long i = 0; i < _count; ++i) {
        if (skip >= _places[i].iov_len) {
            skip -= _places[i].iov_len;
            continue;
        }
        parts[(*count)++] = VELIoVec{_places[i].iov_base + skip, _places[i].iov_len - skip};
        skip = 0;
    }
    return _size - _have;
}
