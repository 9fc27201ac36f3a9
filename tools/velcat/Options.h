// velcat's command line: what the user asked for, checked for consistency before anything runs.
#ifndef TOOLS_VELCAT_OPTIONS_H
#define TOOLS_VELCAT_OPTIONS_H

#include <string>
#include <vector>

namespace velcat {

enum class Protocol { kOXLv1, kOXLv2, kOXLv5, kHOLM, kTN3270 };

enum class Backend { kSelect, kEpoll };

struct Endpoint {
    std::string host;
    unsigned short port = 0;
};

struct Options {
    bool listen = false;
    std::string host;  // client: the server; listener: the interface (empty: all)
    unsigned short port = 0;
    Protocol protocol = Protocol::kOXLv1;
    bool compress = false;
    bool secure = false;
    bool echo = false;
    bool hex = false;
    unsigned long maxSize = 16777216;
    unsigned long count = 0;  // 0: no limit
    unsigned long wait = 10;  // seconds without input before a client gives up; 0: for ever
    bool waitGiven = false;   // -w was on the command line
    unsigned short traceMask = 0;
    std::vector<Endpoint> pipe;  // client over a pipe when not empty
    bool failover = false;
    Backend backend = Backend::kEpoll;
    // Client over TLS: this side's certificate and key (both or neither), the certificates
    // that the server's must chain to (empty: the system's store), or no check at all.
    bool tls = false;
    std::string certFile;
    std::string keyFile;
    std::string caFile;
    bool insecure = false;
    unsigned long deadline = 10;  // listener: seconds to complete a frame, to take output
    bool deadlineSet = false;
};

// What the parse found: run, print the help and stop, or stop on a usage error.
enum class ParseResult { kRun, kHelp, kUsageError };

// Parses argv. On kUsageError `error` says what is wrong.
ParseResult ParseOptions(int argc, char** argv, Options& options, std::string& error);

// The text of --help.
const char* UsageText();

// The name of a protocol as the command line spells it.
const char* ProtocolName(Protocol protocol);

}  // namespace velcat

#endif  // TOOLS_VELCAT_OPTIONS_H
