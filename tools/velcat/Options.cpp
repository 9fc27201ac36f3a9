#include "Options.h"

#include <getopt.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <string>

#include "BufferMgr.h"

namespace velcat {

namespace {

constexpr int kOptionPipe = 256;
constexpr int kOptionFailover = 257;
constexpr int kOptionBackend = 258;
constexpr int kOptionTls = 259;
constexpr int kOptionCert = 260;
constexpr int kOptionKey = 261;
constexpr int kOptionCa = 262;
constexpr int kOptionInsecure = 263;
// Seconds whose milliseconds fit a poll() time-out.
constexpr unsigned long kLongestWait = 2147483;
constexpr int kOptionDeadline = 264;

const option kLongOptions[] = {{"listen", no_argument, nullptr, 'l'},
                               {"source", required_argument, nullptr, 's'},
                               {"proto", required_argument, nullptr, 'p'},
                               {"compress", no_argument, nullptr, 'z'},
                               {"secure", no_argument, nullptr, 'S'},
                               {"echo", no_argument, nullptr, 'e'},
                               {"hex", no_argument, nullptr, 'x'},
                               {"max-size", required_argument, nullptr, 'm'},
                               {"count", required_argument, nullptr, 'c'},
                               {"wait", required_argument, nullptr, 'w'},
                               {"trace", required_argument, nullptr, 't'},
                               {"pipe", required_argument, nullptr, kOptionPipe},
                               {"failover", no_argument, nullptr, kOptionFailover},
                               {"backend", required_argument, nullptr, kOptionBackend},
                               {"tls", no_argument, nullptr, kOptionTls},
                               {"cert", required_argument, nullptr, kOptionCert},
                               {"key", required_argument, nullptr, kOptionKey},
                               {"ca", required_argument, nullptr, kOptionCa},
                               {"insecure", no_argument, nullptr, kOptionInsecure},
                               {"deadline", required_argument, nullptr, kOptionDeadline},
                               {"help", no_argument, nullptr, 'h'},
                               {nullptr, 0, nullptr, 0}};

const char kUsage[] =
        "usage:\n"
        "  velcat [OPTIONS] HOST PORT          connect; send each stdin line (without its "
        "newline)\n"
        "                                      as one message; print each received message body\n"
        "                                      followed by a newline\n"
        "  velcat [OPTIONS] --pipe H:P[,H:P...] [--failover]\n"
        "                                      the same over a pipe across these endpoints\n"
        "  velcat [OPTIONS] -l [-s HOST] PORT  listen on HOST (default all interfaces) and serve\n"
        "                                      any number of clients; port 0 lets the system\n"
        "                                      choose. The listener writes\n"
        "                                      \"velcat: listening on ADDRESS port N (...)\" to\n"
        "                                      stderr once it accepts, prints each received body\n"
        "                                      (unless -e), and runs until SIGINT or SIGTERM.\n"
        "\n"
        "options:\n"
        "  -l, --listen       listen mode, as above\n"
        "  -s, --source HOST  listen mode: the interface to listen on (default all)\n"
        "  -p, --proto NAME   oxl1 (default) | oxl2 | oxl5 | holm | tn3270\n"
        "  -z, --compress     client: compress outgoing bodies (oxl2, holm); a body that does\n"
        "                     not compress into its room is sent plain\n"
        "  -S, --secure       holm client: open a secure session (as initiator) before the first\n"
        "                     message\n"
        "  -e, --echo         listen mode: send every received message back on the same\n"
        "                     connection (following the peer's compression and secure session)\n"
        "  -x, --hex          print received bodies as hex instead of raw bytes\n"
        "  -m, --max-size N   largest body accepted (default 16777216)\n"
        "  -c, --count N      client: exit 0 after N messages have been received\n"
        "  -w, --wait SECONDS client: once input has ended with replies still due (-c), exit 1\n"
        "                     when no byte arrives for SECONDS (default 10; 0 waits for ever)\n"
        "  -t, --trace MASK   write trace lines with these category bits to stderr\n"
        "                     (2 network, 4 timers, 8 reactor and pipes, 16 dumps, 32 errors)\n"
        "      --pipe H:P[,H:P...]  client: send over a pipe across these endpoints instead of "
        "one\n"
        "                     connection (multi-connection mode; oxl1, oxl2, holm without -S)\n"
        "      --failover     with --pipe: one connection at a time, failing over between the\n"
        "                     endpoints (also oxl5, tn3270 and holm with -S)\n"
        "      --backend NAME the reactor's back end, epoll (default) or select: the\n"
        "                     listener's, or the pipe's. A select listener serves at most 2046\n"
        "                     clients: the back end holds 2048 handlers, its own wake-up socket\n"
        "                     and the listening socket included; beyond, connections are closed\n"
        "                     at once and said on stderr (once per second at most)\n"
        "      --deadline N   listen mode: seconds a peer has to complete a frame it has begun,\n"
        "                     its TLS handshake, and to take what is sent to it; a peer that\n"
        "                     does not is closed (default 10)\n"
        "      --tls          every protocol over TLS (1.2 or later). Client and pipe: the\n"
        "                     server's certificate must chain to a trusted certificate and\n"
        "                     name HOST (with --pipe, each endpoint's host). Listener: needs\n"
        "                     --cert and --key; a peer must complete its handshake within\n"
        "                     --deadline seconds, and a failed handshake is said on stderr\n"
        "                     (10 lines a second at most) while the others are served\n"
        "      --ca FILE      with --tls: client: trust the certificates of this PEM file\n"
        "                     (default: the system's store); listener: require a client\n"
        "                     certificate that chains to them\n"
        "      --cert FILE    with --tls: this side's certificate chain (PEM), with --key\n"
        "      --key FILE     with --tls: this side's private key (PEM, not encrypted)\n"
        "      --insecure     with --tls, client and pipe: do not check the server's\n"
        "                     certificate (anybody on the path can then read and change the\n"
        "                     traffic)\n"
        "  -h, --help         print this help\n"
        "\n"
        "exit status: 0 ok, 1 runtime failure, 2 usage error\n";

// Reads a whole decimal or 0x-prefixed number in [low, high].
bool parseNumber(const char* text, unsigned long low, unsigned long high, unsigned long& value) {
    if (text == nullptr || *text == '\0' || *text == '-') {
        return false;
    }
    char* end = nullptr;
    errno = 0;
    const unsigned long long parsed = std::strtoull(text, &end, 0);
    if (errno != 0 || *end != '\0' || parsed < low || parsed > high) {
        return false;
    }
    value = static_cast<unsigned long>(parsed);
    return true;
}

bool parsePort(const char* text, unsigned long low, unsigned short& port) {
    unsigned long value = 0;
    if (!parseNumber(text, low, 65535, value)) {
        return false;
    }
    port = static_cast<unsigned short>(value);
    return true;
}

bool parseProtocol(const char* name, Protocol& protocol) {
    const struct {
        const char* name;
        Protocol protocol;
    } kNames[] = {{"oxl1", Protocol::kOXLv1},
                  {"oxl2", Protocol::kOXLv2},
                  {"oxl5", Protocol::kOXLv5},
                  {"holm", Protocol::kHOLM},
                  {"tn3270", Protocol::kTN3270}};
    for (const auto& each : kNames) {
        if (std::strcmp(name, each.name) == 0) {
            protocol = each.protocol;
            return true;
        }
    }
    return false;
}

// "H:P[,H:P...]": each host non-empty, each port 1..65535.
bool parseEndpoints(const std::string& list, std::vector<Endpoint>& endpoints) {
    std::size_t start = 0;
    for (;;) {
        const std::size_t comma = list.find(',', start);
        const std::string item = list.substr(start, comma - start);
        const std::size_t colon = item.rfind(':');
        Endpoint endpoint;
        if (colon == std::string::npos || colon == 0 ||
            !parsePort(item.c_str() + colon + 1, 1, endpoint.port)) {
            return false;
        }
        endpoint.host = item.substr(0, colon);
        endpoints.push_back(endpoint);
        if (comma == std::string::npos) {
            return true;
        }
        start = comma + 1;
    }
}

// One option; false with `error` set when its argument is wrong.
bool applyOption(int option, const char* argument, Options& options, std::string& error) {
    unsigned long number = 0;
    switch (option) {
        case 'l':
            options.listen = true;
            return true;
        case 's':
            options.host = argument;
            return true;
        case 'p':
            error = "unknown protocol: " + std::string(argument);
            return parseProtocol(argument, options.protocol);
        case 'z':
            options.compress = true;
            return true;
        case 'S':
            options.secure = true;
            return true;
        case 'e':
            options.echo = true;
            return true;
        case 'x':
            options.hex = true;
            return true;
        case 'm':
            error = "--max-size takes 1 to " +
                    std::to_string(basis::BufferMgr::Default()->getMaxBufferSize());
            return parseNumber(argument, 1, basis::BufferMgr::Default()->getMaxBufferSize(),
                               options.maxSize);
        case 'c':
            error = "--count takes a positive number";
            return parseNumber(argument, 1, 0xFFFFFFFFul, options.count);
        case 'w':
            error = "--wait takes 0 to " + std::to_string(kLongestWait) + " seconds";
            return parseNumber(argument, 0, kLongestWait, options.wait);
        case 't':
            error = "--trace takes a mask of 0 to 65535";
            if (!parseNumber(argument, 0, 0xFFFF, number)) {
                return false;
            }
            options.traceMask = static_cast<unsigned short>(number);
            return true;
        case kOptionPipe:
            error = "--pipe takes HOST:PORT[,HOST:PORT...]";
            return parseEndpoints(argument, options.pipe);
        case kOptionFailover:
            options.failover = true;
            return true;
        case kOptionTls:
            options.tls = true;
            return true;
        case kOptionCert:
            options.certFile = argument;
            return true;
        case kOptionKey:
            options.keyFile = argument;
            return true;
        case kOptionCa:
            options.caFile = argument;
            return true;
        case kOptionInsecure:
            options.insecure = true;
            return true;
        case kOptionBackend:
            error = "unknown back end: " + std::string(argument);
            if (std::strcmp(argument, "epoll") == 0 || std::strcmp(argument, "select") == 0) {
                options.backend = *argument == 'e' ? Backend::kEpoll : Backend::kSelect;
                return true;
            }
            return false;
        case kOptionDeadline:
            error = "--deadline takes 1 to 86400 seconds";
            options.deadlineSet = true;
            return parseNumber(argument, 1, 86400, options.deadline);
        default:
            error = "unknown option";
            return false;
    }
}

// The rules of the TLS options.
bool checkTls(const Options& options, std::string& error) {
    const bool tlsDetails = !options.certFile.empty() || !options.keyFile.empty() ||
                            !options.caFile.empty() || options.insecure;
    if (tlsDetails && !options.tls) {
        error = "--cert, --key, --ca and --insecure need --tls";
    } else if (options.certFile.empty() != options.keyFile.empty()) {
        error = "--cert and --key go together";
    } else if (options.tls && options.listen && options.certFile.empty()) {
        error = "a TLS listener needs --cert and --key";
    } else if (options.insecure && options.listen) {
        error = "--insecure is for clients (a listener checks client certificates with --ca)";
    } else if (options.insecure && !options.caFile.empty()) {
        error = "--insecure skips the check that --ca is for";
    } else {
        return true;
    }
    return false;
}

// The rules that tie options together.
bool checkCombination(const Options& options, std::string& error) {
    if (!checkTls(options, error)) {
        return false;
    }
    const bool compressing =
            options.protocol == Protocol::kOXLv2 || options.protocol == Protocol::kHOLM;
    if (options.compress && !compressing) {
        error = "-z needs -p oxl2 or -p holm";
    } else if (options.compress && options.listen) {
        error = "-z is for client mode (the listener's echo follows its peer)";
    } else if (options.secure && (options.listen || options.protocol != Protocol::kHOLM)) {
        error = "-S is for a holm client";
    } else if (options.echo && !options.listen) {
        error = "-e is for listen mode";
    } else if (options.count != 0 && options.listen) {
        error = "-c is for client mode";
    } else if (options.deadlineSet && !options.listen) {
        error = "--deadline is for listen mode";
    } else if (options.waitGiven && options.listen) {
        error = "-w is for client mode";
    } else if (!options.pipe.empty() && options.listen) {
        error = "--pipe is for client mode";
    } else if (options.failover && options.pipe.empty()) {
        error = "--failover needs --pipe";
    } else if (!options.pipe.empty() && !options.failover &&
               (options.protocol == Protocol::kOXLv5 || options.protocol == Protocol::kTN3270)) {
        // Their frames are read in more than one receive, which must find one connection.
        error = "oxl5 and tn3270 run over a pipe with --failover only";
    } else if (!options.pipe.empty() && options.secure && !options.failover) {
        error = "a secure session over a pipe needs --failover (one server at a time)";
    } else {
        return true;
    }
    return false;
}

// HOST PORT (client), PORT (listener), nothing (pipe client).
bool takeOperands(int count, char** operands, Options& options, std::string& error) {
    if (options.listen) {
        error = "listen mode takes PORT";
        return count == 1 && parsePort(operands[0], 0, options.port);
    }
    if (!options.pipe.empty()) {
        error = options.host.empty() ? "--pipe takes no HOST PORT" : "-s is for listen mode";
        return count == 0 && options.host.empty();
    }
    if (!options.host.empty()) {
        error = "-s is for listen mode";
        return false;
    }
    error = "client mode takes HOST PORT";
    if (count != 2 || *operands[0] == '\0') {
        return false;
    }
    options.host = operands[0];
    return parsePort(operands[1], 1, options.port);
}

}  // namespace

ParseResult ParseOptions(int argc, char** argv, Options& options, std::string& error) {
    optind = 1;
    opterr = 0;
    int option = 0;
    while ((option = getopt_long(argc, argv, "ls:p:zSexm:c:w:t:h", kLongOptions, nullptr)) != -1) {
        if (option == 'h') {
            return ParseResult::kHelp;
        }
        if (option == '?' || option == ':') {
            error = "unknown option or missing argument: " + std::string(argv[optind - 1]);
            return ParseResult::kUsageError;
        }
        if (!applyOption(option, optarg, options, error)) {
            return ParseResult::kUsageError;
        }
        options.waitGiven = options.waitGiven || option == 'w';
    }
    if (!takeOperands(argc - optind, argv + optind, options, error) ||
        !checkCombination(options, error)) {
        return ParseResult::kUsageError;
    }
    error.clear();
    return ParseResult::kRun;
}

const char* UsageText() {
    return kUsage;
}

const char* ProtocolName(Protocol protocol) {
    switch (protocol) {
        case Protocol::kOXLv1:
            return "oxl1";
        case Protocol::kOXLv2:
            return "oxl2";
        case Protocol::kOXLv5:
            return "oxl5";
        case Protocol::kHOLM:
            return "holm";
        case Protocol::kTN3270:
            return "tn3270";
    }
    return "?";
}

}  // namespace velcat
