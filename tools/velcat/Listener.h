// velcat's listen mode: a reactor server on framed connections. The listening socket and every
// accepted connection are handlers of one reactor; each connection decodes the frames of the
// chosen protocol as they arrive and prints them or, with -e, sends them back, without ever
// waiting on its peer.
//
// Peer input never ends the server and no peer holds up another: a connection that sends a bad
// frame or an over-size body, that is cut in the middle of a frame, that does not complete a frame
// it has begun or take what is sent to it within --deadline seconds, is traced and closed while
// the others are served. When accept runs out of descriptors the listener stops accepting for a
// second instead of spinning on the pending connection; a connection beyond the reactor's size
// (the select back end's 2048 handlers, its own two sockets included) is closed at once and said
// on stderr, once per second at most.
#ifndef TOOLS_VELCAT_LISTENER_H
#define TOOLS_VELCAT_LISTENER_H

#include "Options.h"

namespace velcat {

// Serves until SIGINT or SIGTERM; returns the exit status (0, or 1 when the server cannot
// start). Blocks both signals in every thread it starts.
int RunListener(const Options& options);

}  // namespace velcat

#endif  // TOOLS_VELCAT_LISTENER_H
