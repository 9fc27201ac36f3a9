#include "VelcatProcess.h"

#include <unistd.h>

#include <fstream>
#include <iterator>
#include <sstream>

namespace veltest {

namespace {

std::vector<std::string> velcatArgv(const std::vector<std::string>& args) {
    std::vector<std::string> argv{VELCAT_PATH};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
}

}  // namespace

VelcatProcess::VelcatProcess(const std::vector<std::string>& args, unsigned long fileLimit)
    : ChildProcess(velcatArgv(args), fileLimit) {}

unsigned short VelcatProcess::listeningPort() {
    const std::string marker = "listening on ";
    if (!waitForError(marker) || !waitForError(")\n")) {
        return 0;
    }
    const std::string text = errors();
    const std::size_t at = text.find(" port ", text.find(marker));
    return at == std::string::npos ? 0
                                   : static_cast<unsigned short>(std::stoul(text.substr(at + 6)));
}

double VelcatProcess::cpuSeconds() const {
    std::ifstream stat("/proc/" + std::to_string(pid()) + "/stat");
    const std::string text((std::istreambuf_iterator<char>(stat)),
                           std::istreambuf_iterator<char>());
    // Fields 14 and 15 (utime, stime) follow the command name, which ends with ')'.
    std::istringstream fields(text.substr(text.rfind(')') + 2));
    std::string field;
    unsigned long long ticks = 0;
    for (int index = 3; fields >> field && index <= 15; ++index) {
        if (index >= 14) {
            ticks += std::stoull(field);
        }
    }
    return static_cast<double>(ticks) / static_cast<double>(::sysconf(_SC_CLK_TCK));
}

}  // namespace veltest
