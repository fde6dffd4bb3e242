/// Gives a test program a private, empty /run and /tmp, so that all tests can use the fixed socket path at
/// once.
///
/// A program that links test_sandbox gets its main() from there: it starts itself again inside a mount
/// namespace and then runs its cases as usual. Where no namespace can be had the program is skipped with the
/// reason, or, with CI=true in the environment, fails. Listing the cases needs no sandbox.
#ifndef RV_SANDBOX_SANDBOX_H
#define RV_SANDBOX_SANDBOX_H

#include <string>
#include <vector>

namespace sandbox {

/// The words that run a further program with other directories covered: the launcher and its options, to be
/// followed by the program's path and arguments.
///
/// cover   directories that are to be empty
/// freeze  directories that are to be empty and refuse new files
std::vector<std::string> launcherWords(const std::vector<std::string>& cover,
                                       const std::vector<std::string>& freeze);

/// Becomes the same program inside a sandbox unless it is there already or only lists its cases.
///
/// Returns an empty string inside (or when nothing but a list is wanted), else the reason why there is no
/// sandbox.
std::string enter(int argc, char** argv);

}  // namespace sandbox

#endif
