#include "bench/engine/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>

#include "bench/engine/loop.h"

namespace enginebench {

namespace {

std::array<int, 2> connectTcp() {
    const int listener = must(socket(AF_INET, SOCK_STREAM, 0));
    sockaddr_in address{};
    socklen_t size = sizeof address;
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    must(bind(listener, reinterpret_cast<sockaddr*>(&address), size));
    must(listen(listener, 1));
    must(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size));
    const int client = must(socket(AF_INET, SOCK_STREAM, 0));
    must(connect(client, reinterpret_cast<sockaddr*>(&address), size));
    const int server = must(accept(listener, nullptr, nullptr));
    const int on = 1;
    for (const int fd : {client, server}) must(setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on));
    must(close(listener));
    return {client, server};
}

double clockSeconds(clockid_t clock) {
    timespec time{};
    must(clock_gettime(clock, &time));
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

}  // namespace

int must(int result) {
    if (result != -1) return result;
    perror("benchmark");
    abort();
}

std::array<int, 2> connectedPair(Family family) {
    if (family == Family::kTcp) return connectTcp();
    std::array<int, 2> fds{};
    must(socketpair(AF_UNIX, SOCK_STREAM, 0, fds.data()));
    return fds;
}

void sendAll(int fd, std::size_t bytes) {
    static const std::array<char, kBufferBytes> message{};
    if (write(fd, message.data(), bytes) != static_cast<ssize_t>(bytes)) must(-1);
}

void receiveAll(int fd, std::size_t bytes) {
    std::array<char, kBufferBytes> message;
    while (bytes > 0) {
        const ssize_t count = read(fd, message.data(), bytes);
        if (count < 1) must(-1);
        bytes -= static_cast<std::size_t>(count);
    }
}

void raiseDescriptorLimit() {
    rlimit limit{};
    must(getrlimit(RLIMIT_NOFILE, &limit));
    limit.rlim_cur = limit.rlim_max;
    must(setrlimit(RLIMIT_NOFILE, &limit));
}

double wallSeconds() {
    return clockSeconds(CLOCK_MONOTONIC);
}

double cpuSeconds() {
    return clockSeconds(CLOCK_PROCESS_CPUTIME_ID);
}

}  // namespace enginebench
