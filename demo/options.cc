#include "demo/options.h"

#include <getopt.h>

#include <charconv>
#include <cstdio>
#include <string_view>
#include <system_error>

namespace demo {
namespace {

constexpr char kUsage[] =
    "usage: rvusbpd-demo [--socket PATH] [--sysfs DIR] [--sample FILE] [--events SECONDS]\n"
    "\n"
    "A demo of the daemon that rvusbpctl controls. It shows the USB devices of this machine, or made-up\n"
    "ones where there are none; connections, rules and preferences are made up. It shares nothing: all it\n"
    "does is to keep its state in memory and to answer requests.\n"
    "\n"
    "  --socket PATH     listen here instead of on /var/run/rvusbpctl.sock\n"
    "  --sysfs DIR       look for devices here instead of in /sys/bus/usb/devices\n"
    "  --sample FILE     what is made up is in this file\n"
    "  --events SECONDS  let something happen this often (1 to 86400)\n"
    "  --help            print this and end\n";

constexpr std::uint32_t kMaxSeconds = 86'400;  // one day

constexpr option kOptions[] = {
    {"socket", required_argument, nullptr, 's'}, {"sysfs", required_argument, nullptr, 'd'},
    {"sample", required_argument, nullptr, 'f'}, {"events", required_argument, nullptr, 'e'},
    {"help", no_argument, nullptr, 'h'},         {nullptr, 0, nullptr, 0},
};

bool parseSeconds(std::string_view text, std::uint32_t* seconds) noexcept {
    const char* const end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data(), end, *seconds);
    if (error == std::errc() && stop == end && *seconds >= 1 && *seconds <= kMaxSeconds) {
        return true;
    }
    (void)std::fprintf(stderr, "rvusbpd-demo: --events takes a number from 1 to %u\n", kMaxSeconds);
    return false;
}

/// False, after the message that is due, for what is no option.
bool apply(int letter, Options* options) {
    switch (letter) {
        case 's':
            options->socketPath = optarg;
            return true;
        case 'd':
            options->sysfsDirectory = optarg;
            return true;
        case 'f':
            options->samplePath = optarg;
            return true;
        case 'e':
            return parseSeconds(optarg, &options->eventSeconds);
        case 'h':
            options->wantsHelp = true;
            return true;
        default:
            return false;  // getopt_long has written its message
    }
}

}  // namespace

std::optional<Options> parseOptions(int argc, char** argv) {
    Options options;
    for (int letter = 0; (letter = getopt_long(argc, argv, "", kOptions, nullptr)) != -1;) {
        if (!apply(letter, &options)) {
            printUsage(false);
            return std::nullopt;
        }
    }
    if (optind < argc) {
        (void)std::fprintf(stderr, "rvusbpd-demo: unexpected word %s\n", argv[optind]);
        printUsage(false);
        return std::nullopt;
    }
    return options;
}

void printUsage(bool isHelp) noexcept {
    (void)std::fputs(kUsage, isHelp ? stdout : stderr);
}

}  // namespace demo
