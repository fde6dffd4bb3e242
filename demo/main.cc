/// Runs the demo daemon from start to signal.
#include <pthread.h>

#include <csignal>
#include <cstdio>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "demo/device_source.h"
#include "demo/options.h"
#include "demo/sample_file.h"
#include "demo/service.h"
#include "demo/socket_place.h"
#include "libio-macOS/RvKQueue.h"

namespace {

constexpr int kFailed = 1;
constexpr int kUsageError = 2;

void complain(const char* what, const std::string& path, const std::string& reason) noexcept {
    (void)std::fprintf(stderr, "rvusbpd-demo: %s %s: %s\n", what, path.c_str(), reason.c_str());
}

/// The signals that end the daemon are waited for by the main thread alone; the mask is set before there is
/// any other. A client that has gone must not end the daemon.
sigset_t holdSignals() noexcept {
    sigset_t ending;
    sigemptyset(&ending);
    sigaddset(&ending, SIGINT);
    sigaddset(&ending, SIGTERM);
    (void)pthread_sigmask(SIG_BLOCK, &ending, nullptr);  // fails only for an unknown first argument
    (void)std::signal(SIGPIPE, SIG_IGN);
    return ending;
}

/// The sample with this machine's devices in the place of its own, if there are any. `isMachine` tells.
std::optional<demo::Inventory> takeInventory(const demo::Options& options, bool* isMachine) {
    std::optional<demo::Inventory> inventory = demo::readSample(options.samplePath);
    std::vector<demo::Device> devices = demo::readUsbDevices(options.sysfsDirectory);
    *isMachine = !devices.empty();
    if (inventory.has_value() && *isMachine) {
        inventory->devices = std::move(devices);
    }
    return inventory;
}

void tellReady(const demo::Options& options, std::size_t devices, bool isMachine) noexcept {
    (void)std::printf("rvusbpd-demo: a demo that shares nothing, with %zu %s, is ready on %s\n", devices,
                      isMachine ? "devices of this machine" : "made-up devices", options.socketPath.c_str());
    (void)std::fflush(stdout);  // scripts wait for the line
}

int serve(const demo::Options& options, const sigset_t& ending) {
    bool isMachine = false;
    std::optional<demo::Inventory> inventory = takeInventory(options, &isMachine);
    if (!inventory.has_value()) {
        return kFailed;
    }
    const std::size_t devices = inventory->devices.size();
    demo::SocketPlace place(options.socketPath);
    if (const std::string obstacle = place.findObstacle(); !obstacle.empty()) {
        complain("cannot listen on", options.socketPath, obstacle);
        return kFailed;
    }
    const std::shared_ptr<RvKQueue> loop = RvKQueue::initWithSubsystem("demo.usb.phys.daemon");
    if (loop == nullptr) {
        complain("cannot listen on", options.socketPath, "the event engine cannot be created");
        return kFailed;
    }
    demo::Service service(loop, demo::State(std::move(*inventory)));
    if (!service.listen(options.socketPath)) {
        complain("cannot listen on", options.socketPath, "the system refuses; see the system log");
        return kFailed;
    }
    place.noteSocket();
    if (options.eventSeconds > 0 && !service.letThingsHappen(options.eventSeconds)) {
        (void)std::fputs("rvusbpd-demo: there is no timer to be had\n", stderr);
        return kFailed;
    }
    loop->start();
    tellReady(options, devices, isMachine);
    int signal = 0;
    (void)sigwait(&ending, &signal);  // the set is valid, so it fails never
    loop->stop();
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        const std::optional<demo::Options> options = demo::parseOptions(argc, argv);
        if (!options.has_value()) {
            return kUsageError;
        }
        if (options->wantsHelp) {
            demo::printUsage(true);
            return 0;
        }
        const sigset_t ending = holdSignals();
        return serve(*options, ending);
    } catch (const std::exception& error) {
        (void)std::fprintf(stderr, "rvusbpd-demo: %s\n", error.what());
        return kFailed;
    }
}
