/// Runs a program and keeps what it writes: arguments, standard input, both output streams and the exit
/// status.
///
/// Every wait has a limit of kLimit; when it is reached the program is killed and the running test fails.
#ifndef RV_CLI_TEST_PROCESS_H
#define RV_CLI_TEST_PROCESS_H

#include <sys/types.h>

#include <chrono>
#include <cstddef>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace cli {

inline constexpr std::chrono::seconds kLimit{60};

enum class Input {
    kText,      ///< `text`, then end of input
    kOpen,      ///< `text`, then whatever type() adds, until closeInput()
    kClosed,    ///< no descriptor 0 at all
    kFile,      ///< the file named by `text`
    kTerminal,  ///< a pseudo-terminal, the program's controlling terminal; type() types
};

struct Command {
    std::string path;                ///< the program to run
    std::vector<std::string> words;  ///< its arguments
    std::string name = "rvusbpctl";  ///< element 0 of the argument vector
    bool emptyVector = false;        ///< no element 0 either
    Input input = Input::kText;
    std::string text;               ///< see Input
    bool outputToTerminal = false;  ///< standard output goes to the pseudo-terminal as well
    std::string outputFile;         ///< standard output goes to this file when it is not empty
    std::map<std::string, std::string> environment;  ///< added to baseEnvironment()
};

struct Result {
    std::string out;
    std::string err;
    std::string terminal;  ///< what appeared on the pseudo-terminal
    int status = -1;       ///< exit status, or -1
    int signal = 0;        ///< the signal that ended the program, or 0
};

/// PATH and what sanitizers and coverage need; nothing else of the caller's environment reaches the program.
std::map<std::string, std::string> baseEnvironment();

class Process {
  public:
    /// Starts the program; a failure fails the running test and leaves a process that has ended.
    explicit Process(const Command& command);
    /// Kills the program if it still runs.
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    /// Until the stream holds `text` at least `count` times. False when the program ends before, or at the
    /// limit.
    bool waitForOut(std::string_view text, std::size_t count = 1);
    bool waitForErr(std::string_view text, std::size_t count = 1);
    bool waitForTerminal(std::string_view text, std::size_t count = 1);

    void type(std::string_view text);
    void closeInput();
    /// Closes the reading end of standard output.
    void closeOut();
    void kill(int signal);
    bool isRunning();
    /// -1 once it has been seen to have ended.
    pid_t pid() const { return pid_; }

    /// Waits for the end of the program.
    Result wait();

    /// So far.
    const std::string& out() const { return out_.text; }

  private:
    struct Stream {
        int fd = -1;
        std::string text{};
    };

    void openStreams(const Command& command, int childEnds[3]);
    bool openTerminal(int& slave);
    void spawn(const Command& command, const int childEnds[3]);
    bool turn(std::chrono::steady_clock::time_point limit);
    void feed();
    static void take(Stream& stream);
    bool waitFor(const Stream& stream, std::string_view text, std::size_t count);
    void reap();
    void expire();

    pid_t pid_ = -1;  ///< -1 once it is reaped
    int pidFd_ = -1;
    int stdin_ = -1;
    std::string toType_;
    bool closeWhenTyped_ = false;
    Stream out_;
    Stream err_;
    Stream terminal_;  ///< the master side
    int status_ = -1;
    int signal_ = 0;
};

/// Runs the program to its end.
Result run(const Command& command);

}  // namespace cli

#endif
