/// The tool's commands as the fault sweeps run them, and what the tool may do when something fails.
#ifndef RV_FAULT_COMMANDS_UNDER_FAULT_H
#define RV_FAULT_COMMANDS_UNDER_FAULT_H

#include <functional>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

#include "cli/cli_support.h"

namespace fault {

/// One command and the daemon that it talks to. Nothing is wrong with either.
struct Scene {
    std::string name;
    cli::Words words;
    std::string input;
    cli::Script script;
    int status = 0;
    bool edits = false;  ///< the user's editor runs
};

/// For the names of the cases.
inline void PrintTo(const Scene& scene, std::ostream* out) {
    *out << scene.name;
}

/// Every command once, with replies that take it to its end.
std::vector<Scene> scenes();

/// Removes what an earlier run has left in /tmp and writes the rule file.
cli::Command prepare(const Scene& scene);

/// Runs the command with its fault. A tool that still runs long after it has been left waiting gets its
/// connection closed, which must end it.
struct Outcome {
    cli::Exchange exchange;
    bool waited = false;
    bool hung = false;  ///< not even that ended it
};
Outcome runScene(const cli::Command& command, const Scene& scene);

/// Whether what the tool writes must be there, or may be cut because writing was what failed.
enum class Output { kWhole, kMayBeCut };

/// What holds after any fault: a message and a status that belong together, nothing but whole requests, only
/// those of the undisturbed run and in its order, and the user's text in its file unless it was committed.
///
/// whole  the undisturbed run, which is waited for without impatience
void expectDefinedEnd(const Scene& scene, const Outcome& run, const cli::Exchange& whole,
                      Output output = Output::kWhole);

/// The path that `rule edit` tells differs from run to run.
std::string withoutPath(std::string text);

}  // namespace fault

#endif
