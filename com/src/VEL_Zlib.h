// Internal to the network module (not installed, never included by a public header): the one
// place where the library calls zlib, and the compression of whole message bodies that the
// compressing transports share.
//
// Thread safety: every function is safe from any thread on distinct data.
#ifndef COM_SRC_VEL_ZLIB_H
#define COM_SRC_VEL_ZLIB_H

#include <cstdint>

#include "VEL_Err.h"

class VEL_Message;

namespace velcom {

// The only stream format the compress entry knows: a standard zlib stream (header, deflate
// data, Adler-32 trailer).
constexpr int kZlibStream = 1;

// The compression level that `algorithm` selects: 0 to 9 as they are, higher values 9.
int zlibLevel(unsigned long algorithm);

// The largest zlib stream that `sourceLength` bytes can compress to.
unsigned long zlibBound(unsigned long sourceLength);

// Compresses `sourceLength` bytes at `source` into `destination`, which holds
// *destinationLength bytes; on success *destinationLength becomes the length of the stream.
// `algorithm` selects the level (zlibLevel); `format` must be kZlibStream. Returns 0 on success,
// otherwise a non-zero zlib status (Z_BUF_ERROR when the stream does not fit, Z_STREAM_ERROR for
// another format).
int zlibCompress(const char* source, unsigned long sourceLength, char* destination,
                 unsigned long* destinationLength, unsigned long algorithm, int format);
// Uncompresses the zlib stream at `source` into `destination`, which holds *destinationLength
// bytes; on success *destinationLength becomes the uncompressed length. Bytes after the end of
// the stream are ignored. `algorithm` is what the sender compressed with; a zlib stream carries
// everything decompression needs, so it does not change the result. Returns 0 on success,
// otherwise a non-zero zlib status (Z_DATA_ERROR for a damaged stream, Z_BUF_ERROR when the
// output does not fit or the stream is cut).
int zlibUncompress(const char* source, unsigned long sourceLength, char* destination,
                   unsigned long* destinationLength, unsigned long algorithm);

// Replaces the message's body by its compressed form. The destination holds
// floor(size x 1.1) bytes truncated to their low 16 bits, so a body whose stream does not fit
// there, and an empty body (no room at all), fail with kVELErr_Compression and stay as they are.
// kVELErr_Alloc when no destination buffer can be had.
VELErr_t compressBody(VEL_Message* message, unsigned long algorithm);
// Replaces the message's body by its uncompressed form, announced as `size` bytes.
// kVELErr_Uncompression when the body is not a zlib stream that fits in `size` bytes (the
// message keeps the compressed body), or when the stream inflates to fewer than `size` bytes
// (the body is released: the message is left empty); kVELErr_Alloc when no buffer of `size`
// bytes can be had.
VELErr_t uncompressBody(VEL_Message* message, std::uint32_t size, unsigned long algorithm);

}  // namespace velcom

#endif  // COM_SRC_VEL_ZLIB_H
