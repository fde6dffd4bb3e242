/// rvusbprules-check: tells whether rule files can be loaded, without a daemon.
#include <cstdio>
#include <cstring>

#include "cli/exit_status.h"
#include "rules/rule_file.h"

namespace {

constexpr char kUsage[] =
    "Usage: rvusbprules-check FILE...\n"
    "Reads each FILE (- for standard input) as `rvusbpctl rule load` would and says whether it is a rule "
    "set.\n";

/// One line on standard output when the file is a rule set, else the reason and the file's name on standard
/// error.
bool check(const char* name) noexcept {
    const bool usesStdin = std::strcmp(name, "-") == 0;
    const bool accepted = load_rule_file(usesStdin ? nullptr : name) != nullptr;
    if (accepted) {
        (void)std::printf("%s: OK\n", name);
    } else {
        (void)std::fprintf(stderr, "%s: refused\n", name);
    }
    return accepted;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        (void)std::fputs(kUsage, stderr);
        return kExitInvalid;
    }
    bool accepted = true;
    for (int word = 1; word < argc; ++word) {
        accepted = check(argv[word]) && accepted;
    }
    return accepted && std::fflush(stdout) == 0 ? kExitOk : kExitIo;
}
