/// What the tests of everything around the tool share: the demo daemon, and a shell that finds the tool.
#ifndef RV_DEMO_SESSION_H
#define RV_DEMO_SESSION_H

#include <string>
#include <string_view>
#include <vector>

#include "cli/process.h"

namespace demo_session {

/// The demo daemon with its made-up devices on the fixed socket path, from construction to destruction.
/// With eventSeconds above 0 something happens this often.
class Daemon {
  public:
    explicit Daemon(int eventSeconds = 0);
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

  private:
    cli::Process process_;
};

/// bash with one command line and nothing on standard input. Its PATH begins with the tool and the checker,
/// its working directory is /tmp, its locale is UTF-8.
cli::Command shell(std::string_view line);

/// The same at a terminal.
cli::Command terminalShell(std::string_view line);

/// Without the line feeds that end them.
std::vector<std::string> linesOf(std::string_view text);

/// "'text'", for a command line.
std::string quoted(std::string_view text);

}  // namespace demo_session

#endif
