/// Pairs, queues and printing for the suites of the kernel event queue.
#include "kevent_support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <ostream>
#include <sstream>
#include <utility>

namespace keventtest {

Fd& Fd::operator=(Fd&& other) noexcept {
    reset(other.release());
    return *this;
}

int Fd::release() {
    const int fd = fd_;
    fd_ = -1;
    return fd;
}

void Fd::reset(int fd) {
    if (fd_ != -1) ::close(fd_);
    fd_ = fd;
}

Pair unixPair() {
    std::array<int, 2> fds{-1, -1};
    EXPECT_EQ(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds.data()), 0);
    return {Fd(fds[0]), Fd(fds[1])};
}

Pair pipePair() {
    std::array<int, 2> fds{-1, -1};
    EXPECT_EQ(pipe2(fds.data(), O_CLOEXEC), 0);
    return {Fd(fds[0]), Fd(fds[1])};
}

Fd temporaryFile() {
    FILE* file = tmpfile();
    EXPECT_NE(file, nullptr);
    if (file == nullptr) return Fd();
    Fd fd(dup(fileno(file)));
    (void)fclose(file);
    return fd;
}

Fd listenTcp() {
    Fd listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    EXPECT_EQ(bind(listener.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(listener.get(), 16), 0);
    return listener;
}

Fd connectTo(int listener) {
    sockaddr_in address{};
    socklen_t size = sizeof address;
    EXPECT_EQ(getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size), 0);
    Fd client(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
    EXPECT_EQ(connect(client.get(), reinterpret_cast<sockaddr*>(&address), size), 0);
    return client;
}

Pair tcpPair() {
    const Fd listener = listenTcp();
    Fd client = connectTo(listener.get());
    Fd server(accept4(listener.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_NE(server.get(), -1);
    return {std::move(client), std::move(server)};
}

void* markAddress(int mark) {
    static std::array<char, 20'000> places;
    return mark == 0 ? nullptr : &places.at(static_cast<size_t>(mark));
}

struct kevent change(uint64_t ident, int filter, unsigned flags, int64_t data, unsigned fflags, int mark) {
    struct kevent record {};
    EV_SET(&record, ident, filter, flags, fflags, data, markAddress(mark));
    return record;
}

Queue::Queue() : fd_(kqueue()) {
    EXPECT_NE(fd_.get(), -1);
}

int Queue::apply(const struct kevent& one) const {
    return kevent(fd_.get(), &one, 1, nullptr, 0, nullptr) == 0 ? 0 : errno;
}

std::vector<struct kevent> Queue::collect(int ms, int room, const std::vector<struct kevent>& changes) const {
    // Every field of an event must have been written.
    const struct kevent unwritten { ~0ULL, 0x5a5a, 0x5a5a, ~0U, 0x5a5a5a5a, markAddress(1) };
    std::vector<struct kevent> events(static_cast<size_t>(room), unwritten);
    const timespec timeout{ms / 1000, ms % 1000 * 1'000'000L};
    const int n =
        kevent(fd_.get(), changes.data(), static_cast<int>(changes.size()), events.data(), room, &timeout);
    EXPECT_GE(n, 0) << "errno " << errno;
    events.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return events;
}

struct kevent Queue::next() const {
    const auto events = collect(kLimitMs);
    EXPECT_EQ(events.size(), 1U) << describe(events);
    return events.empty() ? change(0, 0, 0) : events.front();
}

struct kevent Queue::nextOf(int filter) const {
    const int64_t limit = nowMs() + kLimitMs;
    do {
        for (const auto& event : collect(100)) {
            if (event.filter == filter) return event;
        }
    } while (nowMs() < limit);
    ADD_FAILURE() << "no event of filter " << filter;
    return {};
}

std::string describe(const std::vector<struct kevent>& events) {
    std::ostringstream text;
    for (const auto& event : events) PrintTo(event, &text);
    return text.str();
}

std::vector<struct kevent> only(const std::vector<struct kevent>& events, int filter) {
    std::vector<struct kevent> found;
    for (const auto& event : events) {
        if (event.filter == filter) found.push_back(event);
    }
    return found;
}

void writeAll(int fd, const std::string& bytes) {
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
}

std::string readSome(int fd, size_t limit) {
    std::string bytes(limit, '\0');
    const ssize_t n = read(fd, bytes.data(), limit);
    bytes.resize(n < 0 ? 0 : static_cast<size_t>(n));
    return bytes;
}

void fill(int fd) {
    const int flags = fcntl(fd, F_GETFL);
    ASSERT_EQ(fcntl(fd, F_SETFL, flags | O_NONBLOCK), 0);
    const std::string block(65536, 'x');
    // A TCP peer acknowledges a little later and makes room again: full is what stays full for a moment.
    pollfd request{fd, POLLOUT, 0};
    do {
        while (write(fd, block.data(), block.size()) > 0) continue;
        while (write(fd, block.data(), 1) > 0) continue;
    } while (poll(&request, 1, kSilenceMs) == 1);
    ASSERT_EQ(fcntl(fd, F_SETFL, flags), 0);
}

void waitReadable(int fd, int bytes) {
    const int64_t limit = nowMs() + kLimitMs;
    int queued = 0;
    do {
        ASSERT_EQ(ioctl(fd, FIONREAD, &queued), 0);
    } while (queued < bytes && nowMs() < limit);
    ASSERT_GE(queued, bytes);
}

void resetConnection(Fd& fd) {
    const linger hard{1, 0};
    ASSERT_EQ(setsockopt(fd.get(), SOL_SOCKET, SO_LINGER, &hard, sizeof hard), 0);
    fd.reset();
}

char threadState(pid_t tid) {
    const std::string path = "/proc/self/task/" + std::to_string(tid) + "/stat";
    FILE* file = fopen(path.c_str(), "re");
    if (file == nullptr) return '?';
    char state = '?';
    if (fscanf(file, "%*d %*s %c", &state) != 1) state = '?';
    (void)fclose(file);
    return state;
}

std::vector<int> eventfds() {
    std::vector<int> found;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code gone;  // the directory's own number
        const auto target = std::filesystem::read_symlink(entry.path(), gone);
        if (target == "anon_inode:[eventfd]") found.push_back(std::stoi(entry.path().filename()));
    }
    return found;
}

Waiter::Waiter(const Queue& queue, std::vector<struct kevent> changes)
    : changes_(std::move(changes)), thread_([this, fd = queue.fd()] { run(fd); }) {
    const int64_t limit = nowMs() + kLimitMs;
    while ((tid_ == 0 || threadState(tid_) != 'S') && nowMs() < limit) std::this_thread::yield();
}

Waiter::~Waiter() {
    if (thread_.joinable()) thread_.join();
}

struct kevent Waiter::finish() {
    thread_.join();
    EXPECT_EQ(result_, 1);
    return event_;
}

int Waiter::failure() {
    thread_.join();
    EXPECT_EQ(result_, -1);
    return error_;
}

void Waiter::run(int fd) {
    tid_ = gettid();
    result_ = kevent(fd, changes_.data(), static_cast<int>(changes_.size()), &event_, 1, nullptr);
    error_ = errno;
}

void raiseDescriptorLimit() {
    rlimit limit{};
    ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &limit), 0);
    limit.rlim_cur = limit.rlim_max;
    ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
}

int64_t nowNs(clockid_t clock) {
    timespec ts{};
    EXPECT_EQ(clock_gettime(clock, &ts), 0);
    return ts.tv_sec * 1'000'000'000 + ts.tv_nsec;
}

int64_t nowMs() {
    return nowNs() / 1'000'000;
}

}  // namespace keventtest

void PrintTo(const struct kevent& event, std::ostream* out) {
    *out << "{ident " << event.ident << " filter " << event.filter << " flags 0x" << std::hex << event.flags
         << std::dec << " fflags " << event.fflags << " data " << event.data << " udata " << event.udata
         << "}";
}
