/// The demo daemon's command line.
#ifndef RV_DEMO_OPTIONS_H
#define RV_DEMO_OPTIONS_H

#include <cstdint>
#include <optional>
#include <string>

#include "demo/device_source.h"

namespace demo {

struct Options {
    std::string socketPath = "/var/run/rvusbpctl.sock";
    std::string sysfsDirectory = kSysfsDirectory;
    std::string samplePath = RVUSBPD_DEMO_SAMPLE;  ///< the file in the source tree
    std::uint32_t eventSeconds = 0;                ///< 0: nothing happens by itself
    bool wantsHelp = false;
};

/// Reads the command line. Nothing after a line on standard error and the usage text. Uses getopt_long, so
/// once per process and on one thread only.
std::optional<Options> parseOptions(int argc, char** argv);

/// Writes the usage text to standard error, or for --help to standard output.
void printUsage(bool isHelp) noexcept;

}  // namespace demo

#endif
