#include "bench/process/canned_daemon.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr char kSocketPath[] = "/var/run/rvusbpctl.sock";

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::_Exit(1);
}

int listenOnControlSocket() {
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kSocketPath);
    (void)unlink(kSocketPath);
    if (bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
        listen(listener, 16) == -1) {
        fail("cannot listen on the control socket");
    }
    return listener;
}

bool sendAll(int peer, const std::string& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t count = send(peer, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
        if (count < 1) {
            return false;
        }
        done += static_cast<std::size_t>(count);
    }
    return true;
}

void answer(int peer, const std::string& reply) {
    char request[8];
    if (read(peer, request, sizeof request) != static_cast<ssize_t>(sizeof request) ||
        !sendAll(peer, reply)) {
        return;
    }
    while (read(peer, request, sizeof request) > 0) {
    }
}

void flood(int peer, const std::string& events, std::size_t times) {
    for (std::size_t i = 0; i < times && sendAll(peer, events); ++i) {
    }
}

[[noreturn]] void serve(int listener, const std::string& bytes, std::size_t times) {
    for (;;) {
        const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (peer == -1) {
            fail("cannot accept");
        }
        if (times == 0) {
            answer(peer, bytes);
        } else {
            flood(peer, bytes, times);
        }
        (void)close(peer);
    }
}

}  // namespace

CannedDaemon::CannedDaemon(const Make& make, std::size_t times) {
    int report[2];
    if (pipe(report) == -1) {
        fail("cannot make a pipe");
    }
    process_ = fork();
    if (process_ == -1) {
        fail("cannot fork");
    }
    if (process_ == 0) {
        const std::string bytes = make();
        const int listener = listenOnControlSocket();
        const std::size_t size = bytes.size();
        (void)!write(report[1], &size, sizeof size);  // a reader that got nothing gives up
        serve(listener, bytes, times);
    }
    (void)close(report[1]);
    if (read(report[0], &size_, sizeof size_) != static_cast<ssize_t>(sizeof size_)) {
        fail("the canned daemon did not start");
    }
    (void)close(report[0]);
}

CannedDaemon::~CannedDaemon() {
    (void)kill(process_, SIGKILL);
    (void)waitpid(process_, nullptr, 0);
    (void)unlink(kSocketPath);
}
