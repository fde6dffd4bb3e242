// rules_session: one function of the editing cycle in a process of its own, as the tool runs it: on a thread
// beside the main one, with SIGPIPE ignored.
//
//   rules_session run FILE    runEditor           says "run: true" or "run: false"
//   rules_session edit FILE   loadRulesFromEditor says "edit: " and the records, or "null"
//   rules_session ask PROMPT  areYouSure          says "ask: " and the answer, then what is left of the line
//
// With RV_FAIL_FORK, RV_FAIL_WAIT or RV_INTERRUPT_WAIT in the environment the system call fails, or is
// interrupted a few times; with RV_SHOW_STATUS standard error tells how the editor has ended. With
// RV_CONTINUE_EDITOR an editor that has stopped goes on before anybody hears of it, and with RV_END_EDITOR it
// has ended by then; standard error tells when the tool waits for it (again). With RV_STOP_AGAIN it has
// stopped once more before the tool, itself continued, looks at it. The linker puts the functions below in
// the place of the real ones. With RV_SAY its text is what has been said before, with RV_INTERRUPT_READ the
// signal SIGUSR1 interrupts what the thread reads.
#include <pthread.h>
#include <sys/types.h>
#include <sys/wait.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <latch>
#include <thread>

#include "cli/confirm.h"
#include "rule_text.h"
#include "rules/rule_editor.h"

extern "C" {
pid_t __real_fork();
pid_t __real_waitpid(pid_t child, int* status, int options);
int __real_waitid(idtype_t kind, id_t id, siginfo_t* news, int options);

pid_t __wrap_fork() {
    if (std::getenv("RV_FAIL_FORK") != nullptr) {
        errno = EAGAIN;
        return -1;
    }
    return __real_fork();
}

pid_t __wrap_waitpid(pid_t child, int* status, int options) {
    static int interruptions = std::getenv("RV_INTERRUPT_WAIT") != nullptr ? 3 : 0;
    if (interruptions > 0) {
        --interruptions;
        errno = EINTR;
        return -1;
    }
    if (std::getenv("RV_CONTINUE_EDITOR") != nullptr) {
        (void)std::fputs("waits\n", stderr);
    }
    const pid_t result = __real_waitpid(child, status, options);
    if (std::getenv("RV_FAIL_WAIT") != nullptr) {
        errno = ECHILD;
        return -1;
    }
    if (std::getenv("RV_SHOW_STATUS") != nullptr) {
        (void)std::fprintf(stderr, "status %d\n", *status);
    }
    if (std::getenv("RV_CONTINUE_EDITOR") != nullptr && result == child && WIFSTOPPED(*status)) {
        siginfo_t news;
        (void)::kill(child, SIGCONT);
        const int until = std::getenv("RV_END_EDITOR") != nullptr ? WEXITED : WCONTINUED;
        (void)__real_waitid(P_PID, static_cast<id_t>(child), &news, until | WNOWAIT);
    }
    return result;
}

int __wrap_waitid(idtype_t kind, id_t id, siginfo_t* news, int options) {
    static int looks = std::getenv("RV_STOP_AGAIN") != nullptr ? 0 : 2;
    if ((options & WCONTINUED) != 0 && ++looks == 2) {
        siginfo_t stop;
        (void)__real_waitid(kind, id, &stop, WSTOPPED | WNOWAIT);
    }
    return __real_waitid(kind, id, news, options);
}
}

namespace {

void run(const char* path) {
    std::printf("run: %s\n", runEditor(path) ? "true" : "false");
}

void edit(const char* path) {
    const RuleSet rules = loadRulesFromEditor(path);
    std::printf("edit: %s\n", rules ? rules->c_str() : "null");
}

void ask(const char* prompt) {
    std::printf("ask: %c", areYouSure(prompt));
    char rest[100] = "";
    std::printf(" rest: %s", std::fgets(rest, sizeof rest, stdin) != nullptr ? rest : "none\n");
}

void (*handlerOf(int signal))(int) {
    struct sigaction now = {};
    return ::sigaction(signal, nullptr, &now) == 0 ? now.sa_handler : SIG_ERR;
}

constexpr int kKeys[] = {SIGINT, SIGQUIT, SIGTSTP};

/// What ends the tool, or stops it, must still do so after an editor has run.
class Dispositions {
  public:
    Dispositions() { std::transform(std::begin(kKeys), std::end(kKeys), before_, handlerOf); }
    void check() const {
        for (std::size_t key = 0; key < std::size(kKeys); ++key) {
            if (handlerOf(kKeys[key]) != before_[key]) {
                std::printf("signal %d is not as it was\n", kKeys[key]);
            }
        }
    }

  private:
    void (*before_[std::size(kKeys)])(int);
};

void interrupt(int) {}

void blockInterruption(int how) {
    sigset_t signals;
    (void)::sigemptyset(&signals);
    (void)::sigaddset(&signals, SIGUSR1);
    (void)::pthread_sigmask(how, &signals, nullptr);
}

/// Without SA_RESTART: what waits is interrupted.
void catchInterruption() {
    struct sigaction action = {};
    action.sa_handler = interrupt;
    (void)::sigaction(SIGUSR1, &action, nullptr);
}

void work(const char* what, const char* argument) {
    // The engine's thread is not where signals are taken; the editor must get them all the same.
    sigset_t all;
    (void)::sigfillset(&all);
    (void)::pthread_sigmask(SIG_BLOCK, &all, nullptr);
    if (std::getenv("RV_INTERRUPT_READ") != nullptr) {
        blockInterruption(SIG_UNBLOCK);
    }
    if (const char* const said = std::getenv("RV_SAY")) {
        (void)std::fputs(said, stdout);
    }
    const Dispositions dispositions;
    if (std::strcmp(what, "run") == 0) {
        run(argument);
    } else if (std::strcmp(what, "edit") == 0) {
        edit(argument);
    } else {
        ask(argument);
    }
    dispositions.check();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 3) {
        return 2;
    }
    (void)std::signal(SIGPIPE, SIG_IGN);
    if (std::getenv("RV_INTERRUPT_READ") != nullptr) {
        catchInterruption();
        blockInterruption(SIG_BLOCK);  // the thread alone takes it
    }
    // This thread blocks all signals while it makes the other one. A suspend key that came meanwhile would
    // not be ignored but kept, and stop the process after the editor's time.
    std::latch made(1);
    std::thread worker([&made, argv] {
        made.wait();
        work(argv[1], argv[2]);
    });
    made.count_down();
    worker.join();
    return std::fflush(stdout);
}
