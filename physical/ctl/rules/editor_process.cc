#include "rules/editor_process.h"

#include <signal.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cstddef>
#include <cstring>

namespace {

constexpr int kCoreDumpBit = 0x80;  // in a wait status: the child left a core file
constexpr int kLaunchFailedStatus = 1;

void setDisposition(int signal, void (*handler)(int), struct sigaction* previous) noexcept {
    struct sigaction action = {};
    action.sa_handler = handler;
    (void)::sigemptyset(&action.sa_mask);          // cannot fail
    (void)::sigaction(signal, &action, previous);  // cannot fail for these signals
}

/// What the editor's time changes in this process, and how it was before.
///
/// SIGTSTP is ignored so that this process is suspended at one place only, where it has seen that the editor
/// is. SIGCHLD stays as our parent left it: where that is ignored, the editor cannot be waited for, and that
/// is an error that has a message.
class EditorSignals {
  public:
    EditorSignals() noexcept {
        setDisposition(SIGINT, SIG_IGN, &interrupt_);
        setDisposition(SIGQUIT, SIG_IGN, &quit_);
        setDisposition(SIGTSTP, SIG_IGN, &suspend_);
    }
    ~EditorSignals() { restoreKeys(); }
    EditorSignals(const EditorSignals&) = delete;
    EditorSignals& operator=(const EditorSignals&) = delete;

    /// In the child, before it becomes the editor. Async-signal-safe.
    void prepareChild() const noexcept {
        restoreKeys();
        setDisposition(SIGPIPE, SIG_DFL, nullptr);
        setDisposition(SIGCHLD, SIG_DFL, nullptr);
        sigset_t none;
        (void)::sigemptyset(&none);
        (void)::sigprocmask(SIG_SETMASK, &none, nullptr);
    }

  private:
    void restoreKeys() const noexcept {
        (void)::sigaction(SIGINT, &interrupt_, nullptr);
        (void)::sigaction(SIGQUIT, &quit_, nullptr);
        (void)::sigaction(SIGTSTP, &suspend_, nullptr);
    }

    struct sigaction interrupt_ = {};
    struct sigaction quit_ = {};
    struct sigaction suspend_ = {};
};

/// The terminal's modes before the editor changed them. Without a terminal it does nothing.
class TerminalModes {
  public:
    TerminalModes() noexcept : known_(::tcgetattr(STDIN_FILENO, &modes_) == 0) {}

    /// For an editor that died without tidying up: the next question needs echo and whole lines.
    void restore() const noexcept {
        if (known_) {
            (void)::tcsetattr(STDIN_FILENO, TCSADRAIN, &modes_);  // the terminal may be gone
        }
    }

  private:
    struct termios modes_ = {};
    bool known_;
};

/// Says why the editor cannot be launched. Async-signal-safe, in one write.
void reportLaunchFailure(int error) noexcept {
    constexpr char kBefore[] = "Cannot launch editor (";
    constexpr char kAfter[] = ").\n";
    std::array<char, sizeof kBefore + sizeof kAfter + 11> text;
    char* end = text.data();
    std::memcpy(end, kBefore, sizeof kBefore - 1);
    end = std::to_chars(end + sizeof kBefore - 1, text.data() + text.size(), error).ptr;
    std::memcpy(end, kAfter, sizeof kAfter - 1);
    end += sizeof kAfter - 1;
    (void)!::write(STDERR_FILENO, text.data(), static_cast<std::size_t>(end - text.data()));
}

/// The child: other threads of the process are gone, with whatever locks they held, so nothing here allocates
/// or uses a stream. (The C library's execvp builds the paths that it tries on the stack.)
[[noreturn]] void becomeEditor(const EditorSignals& signals, char* const* words) noexcept {
    signals.prepareChild();
    (void)::execvp(words[0], words);
    reportLaunchFailure(errno);
    ::_exit(kLaunchFailedStatus);
}

/// waitpid(2) that a signal does not cut short.
pid_t waitForChange(pid_t child, int& status, int options) noexcept {
    pid_t result = -1;
    do {
        result = ::waitpid(child, &status, options);
    } while (result < 0 && errno == EINTR);
    return result;
}

/// True when `child` has stopped (WSTOPPED), been continued (WCONTINUED) or ended (WEXITED) since and nobody
/// has waited for that yet. It can still be waited for.
bool hasNews(pid_t child, int events) noexcept {
    siginfo_t news = {};
    return ::waitid(P_PID, static_cast<id_t>(child), &news, events | WNOHANG | WNOWAIT) == 0 &&
           news.si_pid == child;
}

sigset_t maskOf(int signal) noexcept {
    sigset_t mask;
    (void)::sigemptyset(&mask);  // neither can fail
    (void)::sigaddset(&mask, signal);
    return mask;
}

/// Stops this process, all threads of it, until the shell continues it, unless it has been continued together
/// with `child` since that was seen stopped: then one and the same event has stopped both. A child that has
/// been continued may have ended by now, and then nothing else tells of it.
///
/// The stop is first put in the queue and only then let through. If another stop comes before it and is over,
/// the kernel takes it out of the queue, so the user never has to continue us twice. Where no shell could
/// continue us (the process group is orphaned) the kernel ignores it.
void suspendSelf(pid_t child) noexcept {
    const sigset_t suspend = maskOf(SIGTSTP);
    sigset_t previous;
    struct sigaction ignored = {};
    (void)::pthread_sigmask(SIG_BLOCK, &suspend, &previous);
    setDisposition(SIGTSTP, SIG_DFL, &ignored);
    (void)::raise(SIGTSTP);  // to this thread, so that it takes effect where it is let through
    if (!hasNews(child, WCONTINUED | WEXITED)) {
        (void)::pthread_sigmask(SIG_UNBLOCK, &suspend, nullptr);
    }
    (void)::sigaction(SIGTSTP, &ignored, nullptr);  // drops a stop that is still in the queue
    (void)::pthread_sigmask(SIG_SETMASK, &previous, nullptr);
}

/// Follows a child that has been seen stopped: the shell waits for us, not for it.
void suspendWith(pid_t child) noexcept {
    suspendSelf(child);
    // The shell continues the whole job, the child included, which may even have stopped again by now. But if
    // nobody could stop us, or only we were continued, the child still waits.
    if (!hasNews(child, WCONTINUED) && !hasNews(child, WSTOPPED)) {
        (void)::kill(child, SIGCONT);  // it is ours and has not been waited for: it cannot be another process
    }
}

bool waitForEnd(pid_t child, int& status) noexcept {
    while (waitForChange(child, status, WUNTRACED) == child) {
        if (!WIFSTOPPED(status)) {
            return true;
        }
        suspendWith(child);
    }
    return false;
}

}  // namespace

EditorRun runEditorProcess(const char* editor, const char* path) noexcept {
    char* const words[] = {const_cast<char*>(editor), const_cast<char*>(path), nullptr};
    const TerminalModes modes;
    const EditorSignals signals;
    const pid_t child = ::fork();
    if (child < 0) {
        return EditorRun::kNotForked;
    }
    if (child == 0) {
        becomeEditor(signals, words);
    }
    int status = 0;
    if (!waitForEnd(child, status)) {
        return EditorRun::kLost;
    }
    if ((status & ~kCoreDumpBit) == 0) {
        return EditorRun::kDone;
    }
    modes.restore();
    return EditorRun::kFailed;
}
