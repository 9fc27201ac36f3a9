// velcat's listen mode: a reactor server. The acceptor and every accepted connection are
// handlers of one reactor; each connection reads frames of the chosen protocol and prints them
// or, with -e, sends them back.
//
// Peer input never ends the server: a connection that sends a bad frame or an over-size body,
// that is cut in the middle of a frame, or that stops in the middle of one for longer than its
// native time-out (kPeerTimeoutSeconds) is traced and closed, and the other connections are
// served on. When accept runs out of descriptors (EMFILE, ENFILE) or memory, the acceptor stops
// reading for kAcceptPauseSeconds (a timer brings it back) instead of spinning on the pending
// connection.
#ifndef TOOLS_VELCAT_LISTENER_H
#define TOOLS_VELCAT_LISTENER_H

#include "Options.h"

namespace velcat {

constexpr unsigned char kPeerTimeoutSeconds = 3;
constexpr unsigned long kAcceptPauseSeconds = 1;

// Serves until SIGINT or SIGTERM; returns the exit status (0, or 1 when the server cannot
// start). Blocks both signals in every thread it starts.
int RunListener(const Options& options);

}  // namespace velcat

#endif  // TOOLS_VELCAT_LISTENER_H
