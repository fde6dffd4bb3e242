#include "fake_daemon/fake_daemon.h"

#include <fcntl.h>
#include <linux/sockios.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <system_error>

namespace fake {

namespace {

constexpr int kDrainLookMs = 1;
constexpr std::size_t kChunkBytes = 1U << 16;

[[noreturn]] void throwLast(const char* what) {
    throw std::system_error(errno, std::generic_category(), what);
}

sockaddr_un addressOf(const std::string& path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.size() >= sizeof address.sun_path) {
        errno = ENAMETOOLONG;
        throwLast("socket path");
    }
    std::memcpy(address.sun_path, path.data(), path.size());
    return address;
}

}  // namespace

FakeDaemon::FakeDaemon(const Script& script, const std::string& path) : steps_(script.steps()), path_(path) {
    listenAt(path);
    wakeup_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (wakeup_ == -1) {
        throwLast("eventfd");
    }
    thread_ = std::thread([this] { run(); });
}

FakeDaemon::~FakeDaemon() {
    finish();
    (void)close(wakeup_);  // nothing is left to undo
}

void FakeDaemon::listenAt(const std::string& path) {
    const sockaddr_un address = addressOf(path);
    listener_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (listener_ == -1) {
        throwLast("socket");
    }
    if (bind(listener_, reinterpret_cast<const sockaddr*>(&address), sizeof address) == -1 ||
        listen(listener_, SOMAXCONN) == -1) {
        throwLast("control socket");
    }
}

void FakeDaemon::run() {
    while (!isStopping()) {
        waitForWork();
        acceptAll();
        for (Connection& connection : open_) {
            readAll(connection);
        }
        runScript();
        for (Connection& connection : open_) {
            flush(connection);
        }
    }
    acceptAll();
    for (Connection& connection : open_) {
        readAll(connection);
        const std::lock_guard<std::mutex> hold(lock_);
        leftovers_ += connection.input;
    }
}

bool FakeDaemon::isStopping() const {
    const std::lock_guard<std::mutex> hold(lock_);
    return stopping_;
}

void FakeDaemon::waitForWork() {
    std::vector<pollfd> watched = {{listener_, POLLIN, 0}, {wakeup_, POLLIN, 0}};
    for (const Connection& connection : open_) {
        const int events = POLLIN | (connection.output.empty() ? 0 : POLLOUT);
        watched.push_back({connection.fd, static_cast<short>(events), 0});
    }
    (void)poll(watched.data(), watched.size(),
               waitsForPeer_ ? kDrainLookMs : -1);  // any end: look at everything
    std::uint64_t count = 0;
    (void)!read(wakeup_, &count, sizeof count);  // empty when another descriptor woke us
}

void FakeDaemon::acceptAll() {
    for (;;) {
        const int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (fd == -1) {
            return;
        }
        open_.push_back({.fd = fd});
        const std::lock_guard<std::mutex> hold(lock_);
        ++connections_;
        changed_.notify_all();
    }
}

void FakeDaemon::readAll(Connection& connection) {
    std::string chunk(kChunkBytes, '\0');
    ssize_t count = 0;
    while (connection.fd != -1 && (count = read(connection.fd, chunk.data(), chunk.size())) > 0) {
        connection.input.append(chunk, 0, static_cast<std::size_t>(count));
    }
    const bool ended = connection.fd != -1 && (count == 0 || errno != EAGAIN);
    Frame cut;
    while (cutFrame(connection.input, cut)) {
        const std::lock_guard<std::mutex> hold(lock_);
        requests_.push_back(cut);
        scripted_ += &connection == &open_.front() ? 1U : 0U;
        changed_.notify_all();
    }
    if (ended) {
        closeConnection(connection);
    }
}

void FakeDaemon::flush(Connection& connection) {
    while (connection.fd != -1 && connection.sent < connection.output.size()) {
        const ssize_t count = ::send(connection.fd, connection.output.data() + connection.sent,
                                     connection.output.size() - connection.sent, MSG_NOSIGNAL);
        if (count == -1 && errno == EAGAIN) {
            return;
        }
        if (count == -1) {
            closeConnection(connection);
            return;
        }
        connection.sent += static_cast<std::size_t>(count);
    }
    connection.output.clear();
    connection.sent = 0;
}

void FakeDaemon::runScript() {
    waitsForPeer_ = false;
    while (!open_.empty() && nextStep_ < steps_.size()) {
        if (!runStep(steps_[nextStep_], open_.front())) {
            return;
        }
        const std::lock_guard<std::mutex> hold(lock_);
        ++nextStep_;
        changed_.notify_all();
    }
}

// Returns true when the step is done. A peer that has gone away is never waited for.
bool FakeDaemon::runStep(const Step& step, Connection& connection) {
    switch (step.kind) {
        case Step::Kind::kReceive: {
            const std::lock_guard<std::mutex> hold(lock_);
            if (scripted_ == received_) {
                return false;
            }
            ++received_;
            return true;
        }
        case Step::Kind::kSend:
            connection.output += step.bytes;
            return connection.fd != -1;
        case Step::Kind::kDrain:
            flush(connection);
            waitsForPeer_ = connection.fd != -1 && connection.output.empty() && !isDrained(connection);
            return connection.fd != -1 && connection.output.empty() && !waitsForPeer_;
        case Step::Kind::kHold: {
            const std::lock_guard<std::mutex> hold(lock_);
            holdsReached_ = holdsDone_ + 1;
            changed_.notify_all();
            holdsDone_ += releases_ > holdsDone_ ? 1U : 0U;
            return holdsDone_ == holdsReached_;
        }
        case Step::Kind::kClose:
            flush(connection);
            if (!connection.output.empty()) {
                return false;
            }
            closeConnection(connection);
            return true;
    }
    return true;
}

// A stream of the Unix domain counts a byte as pending until its peer has read it (unix(7), SIOCOUTQ).
bool FakeDaemon::isDrained(const Connection& connection) {
    int pending = 0;
    return ioctl(connection.fd, SIOCOUTQ, &pending) == -1 || pending == 0;
}

void FakeDaemon::closeConnection(Connection& connection) {
    if (connection.fd != -1) {
        (void)close(connection.fd);  // the peer notices; nothing is left to undo
    }
    connection.fd = -1;
    connection.output.clear();
    connection.sent = 0;
}

void FakeDaemon::wake() {
    const std::uint64_t one = 1;
    (void)!write(wakeup_, &one, sizeof one);  // a full counter wakes just as well
}

void FakeDaemon::release() {
    {
        const std::lock_guard<std::mutex> hold(lock_);
        ++releases_;
    }
    wake();
}

bool FakeDaemon::waitUntil(const std::function<bool()>& condition) {
    std::unique_lock<std::mutex> hold(lock_);
    return changed_.wait_for(hold, kLimit, condition);
}

bool FakeDaemon::waitForConnections(std::size_t count) {
    return waitUntil([this, count] { return connections_ >= count; });
}

bool FakeDaemon::waitForRequests(std::size_t count) {
    return waitUntil([this, count] { return requests_.size() >= count; });
}

bool FakeDaemon::waitForHold(std::size_t number) {
    return waitUntil([this, number] { return holdsReached_ >= number; });
}

bool FakeDaemon::waitForEndOfScript() {
    return waitUntil([this] { return nextStep_ == steps_.size(); });
}

void FakeDaemon::finish() {
    if (!thread_.joinable()) {
        return;
    }
    {
        const std::lock_guard<std::mutex> hold(lock_);
        stopping_ = true;
    }
    wake();
    thread_.join();
    for (Connection& connection : open_) {
        closeConnection(connection);
    }
    (void)close(listener_);       // nothing is left to undo
    (void)unlink(path_.c_str());  // the test may have removed it already
}

std::size_t FakeDaemon::connections() const {
    const std::lock_guard<std::mutex> hold(lock_);
    return connections_;
}

std::vector<Frame> FakeDaemon::requests() const {
    const std::lock_guard<std::mutex> hold(lock_);
    return requests_;
}

std::string FakeDaemon::leftovers() const {
    const std::lock_guard<std::mutex> hold(lock_);
    return leftovers_;
}

bool FakeDaemon::isScriptDone() const {
    const std::lock_guard<std::mutex> hold(lock_);
    return nextStep_ == steps_.size();
}

}  // namespace fake
