#include "cli/usage.h"

#include <libgen.h>

#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "cli/exit_status.h"
#include "output/text_writer.h"

namespace {

/// "%s" stands for the program's name.
constexpr std::string_view kCommands =
    "Usage:\t%s dev\t\t- show list of devices\n"
    "\t%s dev list \t- show list of devices\n"
    "\t%s dev unplug <devId>\t- disconnect the device\n"
    "\t%s dev share <devId>\t- create rule for sharing exact device\n"
    "\t%s dev block <devId>\t- create rule for blocking exact device\n"
    "\t%s conn\t\t- show list of active connections\n"
    "\t%s conn list\t\t- show list of active connections\n"
    "\t%s conn drop [-p port] <host>\t- drop connection with the host\n"
    "\t%s rule\t\t- show numbered list of sharing rules\n"
    "\t%s rule list [-N]\t- same as above\n"
    "\t\t-N - output without rule index\n"
    "\t%s rule load [<path>]\t- load ruleset from <path> or stdin\n"
    "\t%s rule edit\t\t- edit current ruleset\n"
    "\t%s rule test [-f <path>] -r|-h <host> <devId>\t- test rules\n"
    "\t\t-r - remote desktop connection\n"
    "\t\t-h <host> - connection from host\n"
    "\t\t-f <path> - ruleset from <path> or - for stdin\n"
    "\t%s pref\t\t- show list of preferences\n"
    "\t%s pref list\t\t- show list of preferences\n"
    "\t%s pref add vid:[pid[:revision]] preferences - add preferences for devices\n"
    "\t\tpreferences: grab_on_plug\n"
    "\t%s pref remove vid:[pid[:revision]] - remove preferences for devices\n"
    "\t%s monitor\t- monitor events from the daemon\n";
constexpr std::string_view kHelp = "\t%s -h\t\t- this help\n";

const char* programName = "";

void writeNamed(std::FILE* stream, std::string_view text) noexcept {
    constexpr std::string_view kName = "%s";
    TextWriter out(stream);
    for (;;) {
        const std::size_t place = text.find(kName);
        out.text(text.substr(0, place));
        if (place == std::string_view::npos) {
            return;
        }
        out.text(programName);
        text.remove_prefix(place + kName.size());
    }
}

}  // namespace

void setProgramName(int argc, char** argv) noexcept {
    programName = argc < 1 ? "" : basename(argv[0]);
}

void usage(int status) noexcept {
    std::FILE* const stream = status == kExitOk ? stdout : stderr;
    writeNamed(stream, kCommands);
    writeNamed(stream, kHelp);
    std::exit(status);
}

void usageError(const char* message) noexcept {
    (void)std::fputs(message, stderr);  // nobody is left to tell
    usage(kExitInvalid);
}
