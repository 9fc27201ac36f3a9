// velcat's TLS settings: the context of each side from the command line, and how a failure is
// told to the user.
#ifndef TOOLS_VELCAT_TLS_H
#define TOOLS_VELCAT_TLS_H

#include <string>

#include "Options.h"
#include "VEL_Err.h"

class VEL_TLSContext;

namespace velcat {

// A client's context (client and pipe): --ca or the system's store, or with --insecure no check
// (said on stderr as a warning); --cert and --key when given. False (said) when a file cannot be
// used.
bool MakeClientContext(const Options& options, VEL_TLSContext& context);
// The listener's context: --cert and --key; with --ca, clients must present a certificate that
// chains to its certificates. False (said) when a file cannot be used.
bool MakeServerContext(const Options& options, VEL_TLSContext& context);

// "<status text> [<status code>]", then " (<detail>)" when there is a detail: what velcat says
// of a failure.
std::string FailureText(VELErr_t code, const std::string& detail = std::string());

// True for the TLS statuses (the "tls" group, 401 and up).
bool IsTLSFailure(VELErr_t code);

}  // namespace velcat

#endif  // TOOLS_VELCAT_TLS_H
