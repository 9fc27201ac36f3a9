/// @file
#ifndef COM_INCLUDE_VEL_CRYPTOTOOLS_H
#define COM_INCLUDE_VEL_CRYPTOTOOLS_H

/// VEL_CryptoTools: CAST-128 in CBC mode for secure sessions.
///
/// A session key is 16 raw bytes. A key schedule is a 132-byte block keyed with (key XOR mask),
/// the mask being a 16-byte deployment constant built into the library; the CBC initialisation
/// vector is another deployment constant, copied fresh for every call, so every buffer is its own
/// CBC chain. Both constants are build settings (CMake cache variables VEL_CAST_IV and
/// VEL_CAST_KEY_MASK): peers built with other values cannot talk to each other.
///
/// Blocks these functions allocate (when given a null pointer) come from malloc and are the
/// caller's to release with free(). When memory runs out the pointer stays null and nothing is
/// written.
///
/// Thread safety: every function is reentrant.
class VEL_CryptoTools {
public:
    VEL_CryptoTools() = delete;

    static constexpr unsigned long kKeySize = 16;        ///< bytes of a key
    static constexpr unsigned long kScheduleSize = 132;  ///< bytes of a key schedule

    /// Encrypts `length` bytes of `in` into `out`, padding the last block with zero bytes;
    /// outLength = length rounded up to a multiple of 8, the number of bytes written. A null `out`
    /// is allocated with outLength + 1 bytes; otherwise it must hold outLength bytes.
    static void Encrypt(const char* in, char*& out, unsigned long length, unsigned long& outLength,
                        const char* schedule);
    /// Decrypts `length` bytes (a multiple of 8) of `in` into `out`; padding stays in the output.
    /// A null `out` is allocated with length + 1 bytes.
    static void Decrypt(const char* in, char*& out, unsigned long length, const char* schedule);
    /// XORs the 16 bytes at `key` with the mask IN PLACE (the caller's bytes change despite the
    /// const), then keys `schedule` (allocated when null) with them.
    static void GenerateCastKey(const char* key, char*& schedule);
    /// Fills a 17-byte block (allocated when null) with 16 random bytes of value 1 to 255 and a
    /// terminating 0. Draws from the kernel's random source; the C library's rand state is left
    /// alone.
    static void GenerateSrcKey(char*& key);
    /// Keys `schedule` (allocated when null) with the 16 bytes at `key` as they are (the mask
    /// applied by GenerateCastKey is cancelled on a private copy); `key` is not modified.
    static void DecryptSessionKey(const char* key, char*& schedule);
};

#endif  // COM_INCLUDE_VEL_CRYPTOTOOLS_H
