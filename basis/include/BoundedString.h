/// @file
#ifndef BASIS_INCLUDE_BOUNDEDSTRING_H
#define BASIS_INCLUDE_BOUNDEDSTRING_H

#include <cstddef>
#include <cstring>

namespace basis {

/// basis::BoundedString<N>: a fixed-capacity byte string of at most N bytes and its length. Bytes
/// are stored as given, zero bytes included (a secure-session key is 16 raw bytes); c_str() adds
/// a terminator for printing.
///
/// Thread safety: a value type.
template <std::size_t N>
class BoundedString {
public:
    static constexpr std::size_t kCapacity = N;  ///< the most bytes held

    BoundedString() = default;
    /// The first min(length, N) bytes of `data`.
    BoundedString(const char* data, std::size_t length) { assign(data, length); }
    /// A zero-terminated string, cut at N bytes.
    explicit BoundedString(const char* text) { assign(text, text ? strnlen(text, N) : 0); }

    /// Replaces the contents by the first min(length, N) bytes of `data`.
    void assign(const char* data, std::size_t length) {
        _length = length < N ? length : N;
        if (_length > 0) {
            std::memcpy(_data, data, _length);
        }
        std::memset(_data + _length, 0, N + 1 - _length);
    }

    ///@{
    /// The bytes, followed by a zero byte.
    const char* data() const { return _data; }
    char* data() { return _data; }
    const char* c_str() const { return _data; }
    ///@}
    ///@{
    /// The number of bytes held.
    std::size_t length() const { return _length; }
    std::size_t size() const { return _length; }
    ///@}
    /// True when no byte is held.
    bool empty() const { return _length == 0; }

    ///@{
    /// Equal when the lengths and the bytes are.
    bool operator==(const BoundedString& other) const {
        return _length == other._length && std::memcmp(_data, other._data, _length) == 0;
    }
    bool operator!=(const BoundedString& other) const { return !(*this == other); }
    ///@}

private:
    char _data[N + 1] = {};
    std::size_t _length = 0;
};

}  // namespace basis

#endif  // BASIS_INCLUDE_BOUNDEDSTRING_H
