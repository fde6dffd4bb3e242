#include "cli/process.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace cli {

namespace {

using Clock = std::chrono::steady_clock;

// What a program built with a sanitizer or for coverage reads from its environment.
constexpr const char* kPassedOn[] = {"ASAN_OPTIONS", "UBSAN_OPTIONS",     "TSAN_OPTIONS",
                                     "LSAN_OPTIONS", "LLVM_PROFILE_FILE", "LD_LIBRARY_PATH",
                                     "GCOV_PREFIX",  "GCOV_PREFIX_STRIP"};

void closeFd(int& fd) {
    if (fd != -1) {
        (void)::close(fd);  // nothing is left to undo
    }
    fd = -1;
}

std::size_t countOf(std::string_view text, std::string_view part) {
    std::size_t count = 0;
    for (std::size_t at = text.find(part); at != std::string_view::npos;
         at = text.find(part, at + part.size())) {
        ++count;
    }
    return count;
}

bool makePipe(int& readEnd, int& writeEnd) {
    int ends[2];
    if (pipe2(ends, O_CLOEXEC) == -1) {
        return false;
    }
    readEnd = ends[0];
    writeEnd = ends[1];
    return true;
}

// Our own ends never block; the program's ends are left as any shell would hand them over.
void unblock(int fd) {
    if (fd != -1) {
        (void)fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);  // pipes and terminals take the flag
    }
}

std::vector<char*> pointersTo(std::vector<std::string>& texts) {
    std::vector<char*> pointers;
    for (std::string& text : texts) {
        pointers.push_back(text.data());
    }
    pointers.push_back(nullptr);
    return pointers;
}

std::vector<std::string> environmentOf(const Command& command) {
    std::map<std::string, std::string> all = baseEnvironment();
    for (const auto& [name, value] : command.environment) {
        all[name] = value;
    }
    std::vector<std::string> lines;
    for (const auto& [name, value] : all) {
        lines.push_back(name + "=" + value);
    }
    return lines;
}

}  // namespace

std::map<std::string, std::string> baseEnvironment() {
    std::map<std::string, std::string> base = {{"PATH", "/usr/local/bin:/usr/bin:/bin"}, {"LC_ALL", "C"}};
    for (const char* name : kPassedOn) {
        if (const char* value = getenv(name); value != nullptr) {
            base[name] = value;
        }
    }
    // The thread sanitizer would let every tool linger for a second at its end; a caller's own word still
    // counts.
    base["TSAN_OPTIONS"].insert(0, "atexit_sleep_ms=0 ");
    return base;
}

Process::Process(const Command& command) {
    int childEnds[3] = {-1, -1, -1};
    openStreams(command, childEnds);
    spawn(command, childEnds);
    for (int& fd : childEnds) {
        closeFd(fd);
    }
    for (const int fd : {stdin_, out_.fd, err_.fd, terminal_.fd}) {
        unblock(fd);
    }
    feed();
}

Process::~Process() {
    if (pid_ != -1) {
        kill(SIGKILL);
        (void)waitpid(pid_, nullptr, 0);  // a killed child ends
    }
    for (int* fd : {&pidFd_, &stdin_, &out_.fd, &err_.fd, &terminal_.fd}) {
        closeFd(*fd);
    }
}

void Process::openStreams(const Command& command, int childEnds[3]) {
    bool good = true;
    switch (command.input) {
        case Input::kText:
        case Input::kOpen:
            good = makePipe(childEnds[0], stdin_);
            toType_ = command.text;
            closeWhenTyped_ = command.input == Input::kText;
            break;
        case Input::kFile:
            childEnds[0] = ::open(command.text.c_str(), O_RDONLY | O_CLOEXEC);
            good = childEnds[0] != -1;
            break;
        case Input::kTerminal:
            good = openTerminal(childEnds[0]);
            toType_ = command.text;
            break;
        case Input::kClosed:
            break;
    }
    if (command.outputToTerminal) {
        childEnds[1] = fcntl(childEnds[0], F_DUPFD_CLOEXEC, 0);
    } else if (!command.outputFile.empty()) {
        childEnds[1] = ::open(command.outputFile.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    } else {
        good = makePipe(out_.fd, childEnds[1]) && good;
    }
    good = makePipe(err_.fd, childEnds[2]) && good;
    EXPECT_TRUE(good && childEnds[1] != -1) << "streams for the program: " << strerror(errno);
}

bool Process::openTerminal(int& slave) {
    terminal_.fd = posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
    if (terminal_.fd == -1 || grantpt(terminal_.fd) == -1 || unlockpt(terminal_.fd) == -1) {
        return false;
    }
    const char* name = ptsname(terminal_.fd);
    slave = name == nullptr ? -1 : ::open(name, O_RDWR | O_NOCTTY | O_CLOEXEC);
    return slave != -1;
}

void Process::spawn(const Command& command, const int childEnds[3]) {
    std::vector<std::string> words = command.words;
    if (!command.emptyVector) {
        words.insert(words.begin(), command.name);
    }
    std::vector<std::string> environment = environmentOf(command);
    posix_spawn_file_actions_t actions;
    posix_spawnattr_t attributes;
    (void)posix_spawn_file_actions_init(&actions);  // these fail for want of memory alone
    (void)posix_spawnattr_init(&attributes);
    short flags = POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK;
    if (command.input == Input::kTerminal) {
        // A new session whose first terminal, opened by name, becomes its controlling one.
        flags |= POSIX_SPAWN_SETSID;
        (void)posix_spawn_file_actions_addopen(&actions, 0, ptsname(terminal_.fd), O_RDWR, 0);
    } else if (childEnds[0] != -1) {
        (void)posix_spawn_file_actions_adddup2(&actions, childEnds[0], 0);
    } else {
        (void)posix_spawn_file_actions_addclose(&actions, 0);
    }
    (void)posix_spawn_file_actions_adddup2(&actions, childEnds[1], 1);
    (void)posix_spawn_file_actions_adddup2(&actions, childEnds[2], 2);
    sigset_t signals;
    (void)sigfillset(&signals);
    (void)posix_spawnattr_setsigdefault(&attributes, &signals);
    (void)sigemptyset(&signals);
    (void)posix_spawnattr_setsigmask(&attributes, &signals);
    (void)posix_spawnattr_setflags(&attributes, flags);
    const int error = posix_spawn(&pid_, command.path.c_str(), &actions, &attributes,
                                  pointersTo(words).data(), pointersTo(environment).data());
    (void)posix_spawnattr_destroy(&attributes);
    (void)posix_spawn_file_actions_destroy(&actions);
    if (error != 0) {
        pid_ = -1;
        ADD_FAILURE() << "cannot start " << command.path << ": " << strerror(error);
        return;
    }
    pidFd_ = static_cast<int>(syscall(SYS_pidfd_open, pid_, 0));
    EXPECT_NE(-1, pidFd_) << strerror(errno);
}

// Writes what is still to be typed, as far as the program takes it.
void Process::feed() {
    int& fd = terminal_.fd != -1 ? terminal_.fd : stdin_;
    while (fd != -1 && !toType_.empty()) {
        const ssize_t count = ::write(fd, toType_.data(), toType_.size());
        if (count == -1 && errno == EAGAIN) {
            return;
        }
        if (count == -1) {  // the program reads no more
            toType_.clear();
            break;
        }
        toType_.erase(0, static_cast<std::size_t>(count));
    }
    if (closeWhenTyped_) {
        closeFd(stdin_);
    }
}

void Process::take(Stream& stream) {
    char bytes[1 << 16];
    while (stream.fd != -1) {
        const ssize_t count = ::read(stream.fd, bytes, sizeof bytes);
        if (count > 0) {
            stream.text.append(bytes, static_cast<std::size_t>(count));
        } else if (count == -1 && errno == EAGAIN) {
            return;
        } else {
            closeFd(stream.fd);  // a terminal whose other side is gone reports an error instead of an end
        }
    }
}

// One round of waiting and moving bytes. False when nothing more can come, or at the limit.
bool Process::turn(Clock::time_point limit) {
    if (pid_ == -1) {
        return false;
    }
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(limit - Clock::now());
    if (left.count() <= 0) {
        expire();
        return false;
    }
    const short typing = toType_.empty() ? 0 : POLLOUT;
    pollfd watched[] = {{pidFd_, POLLIN, 0},
                        {out_.fd, POLLIN, 0},
                        {err_.fd, POLLIN, 0},
                        {terminal_.fd, static_cast<short>(POLLIN | typing), 0},
                        {typing == 0 ? -1 : stdin_, typing, 0}};
    (void)poll(watched, std::size(watched), static_cast<int>(left.count()));  // any end: look at everything
    const bool ended = watched[0].revents != 0;
    feed();
    for (Stream* stream : {&out_, &err_, &terminal_}) {
        take(*stream);
    }
    if (ended) {
        reap();
    }
    return true;
}

void Process::reap() {
    int status = 0;
    if (waitpid(pid_, &status, 0) == pid_) {
        status_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        signal_ = WIFSIGNALED(status) ? WTERMSIG(status) : 0;
    }
    pid_ = -1;
    for (Stream* stream : {&out_, &err_, &terminal_}) {
        take(*stream);  // what it wrote last
    }
}

void Process::expire() {
    ADD_FAILURE() << "the program still runs after " << kLimit.count() << " seconds; standard output:\n"
                  << out_.text.substr(0, 4096) << "\nstandard error:\n"
                  << err_.text.substr(0, 4096) << "\nterminal:\n"
                  << terminal_.text.substr(0, 4096);
    kill(SIGKILL);
    reap();
}

bool Process::waitFor(const Stream& stream, std::string_view text, std::size_t count) {
    const Clock::time_point limit = Clock::now() + kLimit;
    while (countOf(stream.text, text) < count) {
        if (!turn(limit)) {
            return false;
        }
    }
    return true;
}

bool Process::waitForOut(std::string_view text, std::size_t count) {
    return waitFor(out_, text, count);
}

bool Process::waitForErr(std::string_view text, std::size_t count) {
    return waitFor(err_, text, count);
}

bool Process::waitForTerminal(std::string_view text, std::size_t count) {
    return waitFor(terminal_, text, count);
}

void Process::type(std::string_view text) {
    toType_ += text;
    feed();
}

void Process::closeInput() {
    closeWhenTyped_ = true;
    feed();
}

void Process::closeOut() {
    closeFd(out_.fd);
}

void Process::kill(int signal) {
    if (pid_ != -1) {
        (void)::kill(pid_, signal);  // a child not yet reaped can always be signalled
    }
}

bool Process::isRunning() {
    pollfd ended = {pidFd_, POLLIN, 0};
    return pid_ != -1 && poll(&ended, 1, 0) == 0;
}

Result Process::wait() {
    const Clock::time_point limit = Clock::now() + kLimit;
    while (turn(limit)) {
    }
    return {out_.text, err_.text, terminal_.text, status_, signal_};
}

Result run(const Command& command) {
    return Process(command).wait();
}

}  // namespace cli
