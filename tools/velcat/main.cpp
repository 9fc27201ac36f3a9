// velcat: talks to a vel service from a shell, or serves one. See `velcat --help`.
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>

#include "Client.h"
#include "Framing.h"
#include "Listener.h"
#include "Options.h"
#include "VEL_ComEnabler.h"
#include "VEL_Encryptor.h"
#include "VEL_TimerManager.h"
#include "VEL_Tools.h"

int main(int argc, char** argv) {
    velcat::Options options;
    std::string error;
    switch (velcat::ParseOptions(argc, argv, options, error)) {
        case velcat::ParseResult::kHelp:
            std::fputs(velcat::UsageText(), stdout);
            return 0;
        case velcat::ParseResult::kUsageError:
            velcat::Say(error + " (velcat --help for usage)");
            return 2;
        case velcat::ParseResult::kRun:
            break;
    }

    // A failover pipe starts at an endpoint drawn with std::rand: a different one from run to run.
    std::srand(static_cast<unsigned>(std::time(nullptr)) ^ static_cast<unsigned>(::getpid()));
    const VEL_ComEnabler network;
    std::unique_ptr<velcat::StderrTraceSink> sink;
    if (options.traceMask != 0) {
        sink.reset(new velcat::StderrTraceSink(options.traceMask));
        (void)VEL_Tools::SetTraceHandler(sink.get());  // always Ok
    }
    const int status = options.listen ? velcat::RunListener(options) : velcat::RunClient(options);
    // Every thread of ours has ended: the singletons and the sink can go.
    VEL_TimerManager::CloseSingleton();
    VEL_Encryptor::CloseSingleton();
    (void)VEL_Tools::SetTraceHandler(nullptr);
    return status;
}
