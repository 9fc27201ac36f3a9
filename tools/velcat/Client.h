// velcat's client mode: one connection, or a pipe across several endpoints. Standard input and
// the connection are read at once, by two threads: the main thread sends each line of standard
// input as one message, a reader thread waits for input on the connection and prints each
// message as it arrives. The transport is shared under a lock held only while a frame moves.
//
// The end of standard input closes the connection at once, or, with -c, once the count of
// messages has been received, or once no input has come for the -w seconds (status 1). A peer
// that closes ends the client (status 1 when -c was not reached); over a pipe, the pipe
// reconnects instead.
#ifndef TOOLS_VELCAT_CLIENT_H
#define TOOLS_VELCAT_CLIENT_H

#include "Options.h"

namespace velcat {

// Runs the client; returns the exit status (0 ok, 1 runtime failure).
int RunClient(const Options& options);

}  // namespace velcat

#endif  // TOOLS_VELCAT_CLIENT_H
