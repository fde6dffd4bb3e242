#include "bench/process/canned_daemon.h"

#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
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

bool readAll(int peer, char* out, std::size_t count) {
    while (count > 0) {
        const ssize_t got = read(peer, out, count);
        if (got < 1) {
            return false;
        }
        out += got;
        count -= static_cast<std::size_t>(got);
    }
    return true;
}

bool skipRequest(int peer) {
    static char skipped[1 << 20];
    std::uint32_t header[2];
    if (!readAll(peer, reinterpret_cast<char*>(header), sizeof header)) {
        return false;
    }
    for (std::size_t left = header[1]; left > 0;) {
        const std::size_t count = std::min(left, sizeof skipped);
        if (!readAll(peer, skipped, count)) {
            return false;
        }
        left -= count;
    }
    return true;
}

void answer(int peer, const std::vector<std::string>& replies) {
    for (const std::string& reply : replies) {
        if (!skipRequest(peer) || !sendAll(peer, reply)) {
            return;
        }
    }
    (void)skipRequest(peer);  // returns when the peer has gone
}

void flood(int peer, const std::string& events, std::size_t times) {
    for (std::size_t i = 0; i < times && sendAll(peer, events); ++i) {
    }
}

[[noreturn]] void serve(int listener, const std::vector<std::string>& frames, std::size_t times) {
    for (;;) {
        const int peer = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC);
        if (peer == -1) {
            fail("cannot accept");
        }
        if (times == 0) {
            answer(peer, frames);
        } else {
            flood(peer, frames.front(), times);
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
        const std::vector<std::string> frames = make();
        const int listener = listenOnControlSocket();
        std::size_t size = 0;
        for (const std::string& frame : frames) {
            size += frame.size();
        }
        (void)!write(report[1], &size, sizeof size);  // a reader that got nothing gives up
        serve(listener, frames, times);
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
