/// The usage text.
#ifndef RV_CLI_USAGE_H
#define RV_CLI_USAGE_H

/// Remembers the last component of the program path, argv[0], for usage(); an empty vector gives an empty
/// name. argv is borrowed for the life of the process. Called once, by main, before any other thread runs.
void setProgramName(int argc, char** argv) noexcept;

/// Prints the usage text, to standard output when `status` is 0 and to standard error otherwise, and ends the
/// process with `status`.
[[noreturn]] void usage(int status) noexcept;

/// Writes `message`, a whole line, to standard error and ends with usage(kExitInvalid).
[[noreturn]] void usageError(const char* message) noexcept;

#endif
