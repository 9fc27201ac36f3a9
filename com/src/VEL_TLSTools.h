// Internal to the network module (not installed, never included by a public header): reading
// OpenSSL's per-thread error queue for trace lines.
//
// Thread safety: OpenSSL keeps one error queue per thread; these read the calling thread's.
#ifndef COM_SRC_VEL_TLSTOOLS_H
#define COM_SRC_VEL_TLSTOOLS_H

#include <string>

namespace velcom {

// The reasons of the errors queued on this thread, oldest (the cause) first, separated by
// ", "; the queue is emptied. Empty when nothing was queued.
std::string takeTLSErrors();

}  // namespace velcom

#endif  // COM_SRC_VEL_TLSTOOLS_H
