// A velcat process driven as a user would drive it: its standard input, output and error are
// pipes to the test. The process is killed and reaped when the object goes, whatever happened.
#ifndef TESTS_TOOLS_VELCATPROCESS_H
#define TESTS_TOOLS_VELCATPROCESS_H

#include "ChildProcess.h"

namespace veltest {

class VelcatProcess : public ChildProcess {
public:
    // Starts velcat with `args`. `fileLimit` > 0 lowers its RLIMIT_NOFILE to that.
    explicit VelcatProcess(const std::vector<std::string>& args, unsigned long fileLimit = 0);

    // The port of a listener, read from its "listening on ... port N" line (0 if none came).
    unsigned short listeningPort();
    // User plus system CPU time it has used so far, in seconds (from /proc).
    double cpuSeconds() const;
};

}  // namespace veltest

#endif  // TESTS_TOOLS_VELCATPROCESS_H
