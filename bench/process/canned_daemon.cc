#include "bench/process/canned_daemon.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr char kSocketPath[] = "/var/run/rvusbpctl.sock";

[[noreturn]] void fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

}  // namespace

CannedDaemon::CannedDaemon(std::string reply)
    : reply_(std::move(reply)), listener_(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    std::strcpy(address.sun_path, kSocketPath);
    (void)unlink(kSocketPath);
    if (bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address) == -1 ||
        listen(listener_, 16) == -1) {
        fail("cannot listen on the control socket");
    }
    thread_ = std::thread([this] { serve(); });
}

CannedDaemon::~CannedDaemon() {
    (void)shutdown(listener_, SHUT_RDWR);
    thread_.join();
    (void)close(listener_);
    (void)unlink(kSocketPath);
}

void CannedDaemon::serve() const {
    for (;;) {
        const int peer = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (peer == -1) {
            return;
        }
        char request[8];
        std::size_t done = 0;
        if (read(peer, request, sizeof request) == static_cast<ssize_t>(sizeof request)) {
            while (done < reply_.size()) {
                const ssize_t count = send(peer, reply_.data() + done, reply_.size() - done, MSG_NOSIGNAL);
                if (count < 1) {
                    break;
                }
                done += static_cast<std::size_t>(count);
            }
            while (read(peer, request, sizeof request) > 0) {
            }
        }
        (void)close(peer);
    }
}
