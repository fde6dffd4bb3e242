/// Megabytes both ways through one loop of blocking reads and writes that trust data: it finishes, and what
/// arrives is what was sent.
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>

#include "kevent_support.h"

namespace {

using namespace keventtest;

#ifdef NDEBUG
constexpr size_t kPlainBytes = size_t{64} << 20;
#else
constexpr size_t kPlainBytes = size_t{24} << 20;
#endif
constexpr size_t kBytes = kSanitized ? size_t{4} << 20 : kPlainBytes;
constexpr size_t kPeriod = 65'521;  // of the pattern; a prime, so that no power of two hides a shift

/// The pattern, long enough to be read from any phase.
const std::vector<char>& pattern() {
    static const std::vector<char> bytes = [] {
        std::vector<char> made(kPeriod + (size_t{4} << 20));
        for (size_t i = 0; i < made.size(); ++i)
            made[i] = static_cast<char>((i % kPeriod) * 131 + (i % kPeriod) / 251);
        return made;
    }();
    return bytes;
}

/// One end: it sends the pattern through one descriptor and expects it from another.
struct End {
    int in;
    int out;
    size_t received = 0;
    size_t sent = 0;

    bool done() const { return received == kBytes && sent == kBytes; }
};

void onRead(End& end, const struct kevent& event) {
    static std::vector<char> buffer;
    ASSERT_GE(event.data, 1);
    ASSERT_EQ(event.flags & EV_EOF, 0);
    const auto size = static_cast<size_t>(event.data);
    buffer.resize(std::max(buffer.size(), size));
    const ssize_t n = read(end.in, buffer.data(), size);
    ASSERT_GE(n, 1);
    ASSERT_EQ(memcmp(buffer.data(), pattern().data() + end.received % kPeriod, static_cast<size_t>(n)), 0);
    end.received += static_cast<size_t>(n);
}

void onWrite(const Queue& queue, End& end, const struct kevent& event) {
    ASSERT_GE(event.data, 1);
    size_t size = std::min(static_cast<size_t>(event.data), kBytes - end.sent);
    size = std::min(size, pattern().size() - kPeriod);
    const ssize_t n = write(end.out, pattern().data() + end.sent % kPeriod, size);
    ASSERT_EQ(n, static_cast<ssize_t>(size)) << "errno " << errno;
    end.sent += size;
    if (end.sent == kBytes) {
        ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(end.out), EVFILT_WRITE, EV_DELETE)), 0);
    }
}

void drive(std::array<End, 2>& ends) {
    const Queue queue;
    for (const End& end : ends) {
        ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(end.in), EVFILT_READ, kArm, 0, 0, 1)), 0);
        ASSERT_EQ(queue.apply(change(static_cast<uint64_t>(end.out), EVFILT_WRITE, kArm, 0, 0, 1)), 0);
    }
    (void)alarm(100);  // a write that blocks is a deadlock, and this ends it
    while (!ends[0].done() || !ends[1].done()) {
        const auto events = queue.collect(kLimitMs);
        ASSERT_FALSE(events.empty()) << "received " << ends[0].received << " and " << ends[1].received;
        for (const auto& event : events) {
            for (End& end : ends) {
                if (event.filter == EVFILT_READ && event.ident == static_cast<uint64_t>(end.in))
                    onRead(end, event);
                if (event.filter == EVFILT_WRITE && event.ident == static_cast<uint64_t>(end.out)) {
                    onWrite(queue, end, event);
                }
            }
            if (testing::Test::HasFatalFailure()) return;
        }
    }
    (void)alarm(0);
}

void driveSockets(const Pair& pair) {
    std::array<End, 2> ends{End{pair.reader.get(), pair.reader.get()},
                            End{pair.writer.get(), pair.writer.get()}};
    drive(ends);
}

TEST(KeventBulk, UnixPairBothWays) {
    driveSockets(unixPair());
}

TEST(KeventBulk, TcpPairBothWays) {
    driveSockets(tcpPair());
}

TEST(KeventBulk, PipePairBothWays) {
    const Pair there = pipePair();
    const Pair back = pipePair();
    std::array<End, 2> ends{End{there.reader.get(), back.writer.get()},
                            End{back.reader.get(), there.writer.get()}};
    drive(ends);
}

TEST(KeventBulk, SmallBuffersBothWays) {
    const Pair pair = unixPair();
    for (const int fd : {pair.reader.get(), pair.writer.get()}) {
        const int small = 4608;
        ASSERT_EQ(setsockopt(fd, SOL_SOCKET, SO_SNDBUF, &small, sizeof small), 0);
    }
    driveSockets(pair);
}

}  // namespace
