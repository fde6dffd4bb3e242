/// rvusbpctl: one command line, one conversation with the daemon. This is the order of start-up.

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <memory>

#include "IPCClient.h"
#include "cli/commands.h"
#include "cli/exit_status.h"
#include "cli/options.h"
#include "cli/preparation.h"
#include "cli/reply_status.h"
#include "cli/shared_slots.h"
#include "cli/standard_descriptors.h"
#include "libio-macOS/RvKQueue.h"
#include "platform/single_heap.h"

namespace {

/// Names the tool's lines in the system log.
constexpr char kLogSubsystem[] = "org.rvusbp.usb.phys.ctl";

[[noreturn]] void failStart(const char* message) noexcept {
    (void)std::fputs(message, stderr);  // nobody is left to tell
    std::exit(kExitNoMemory);
}

}  // namespace

int main(int argc, char** argv) {
    fillStandardDescriptors();
    useSingleHeap();
    (void)std::signal(SIGPIPE, SIG_IGN);  // a write to a closed socket fails instead of ending the process
    Invocation invocation = parseCommandLine(argc, argv);
    SharedSlots slots;
    prepareLocally(invocation, slots);

    const std::shared_ptr<RvKQueue> engine = RvKQueue::initWithSubsystem(kLogSubsystem);
    if (!engine) {
        failStart("cannot initialize kqueue\n");
    }
    engine->start();
    const std::shared_ptr<RvTetherIPCClient> client = RvTetherIPCClient::initWithKQueue(engine);
    if (!client || !client->setOnError([] { std::exit(kExitIo); }) ||
        !installCommand(client, invocation, slots)) {
        failStart("cannot connect to the daemon\n");
    }
    client->start();
    engine->waitForEnd();  // everything else happens on the engine's I/O thread, which ends the process
    printStatusAndExit(kExitIo, "");  // unless it had to give up; the log says why
}
