#include <sys/socket.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdlib>
#include <future>
#include <memory>
#include <string>
#include <thread>

#include "bench/engine/peers.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueStreamSocket.h"

namespace {

using Clock = std::chrono::steady_clock;

double secondsSince(Clock::time_point start) {
    return std::chrono::duration<double>(Clock::now() - start).count();
}

/// Two started loops with the ends of one socket pair. They are stopped on threads of their own, since a stop
/// takes a second.
struct Pair {
    Pair() {
        int fds[2];
        if (socketpair(AF_UNIX, SOCK_STREAM, 0, fds) == -1) {
            std::abort();
        }
        for (int i = 0; i < 2; ++i) {
            loops[i] = RvKQueue::initWithSubsystem("bench");
            loops[i]->start();
            ends[i] = loops[i]->createStreamSocket(fds[i], true);
        }
    }
    ~Pair() {
        std::thread other([this] { loops[1]->stop(); });
        loops[0]->stop();
        other.join();
    }
    Pair(const Pair&) = delete;
    Pair& operator=(const Pair&) = delete;

    std::shared_ptr<RvKQueue> loops[2];
    std::shared_ptr<RvKQueueStreamSocket> ends[2];
};

}  // namespace

double rvioPingPong(std::size_t messageBytes, std::size_t rounds) {
    Pair pair;
    std::promise<void> done;
    std::size_t left = rounds;
    std::size_t received = 0;
    const std::string message(messageBytes, 'x');
    pair.loops[1]->startObject(pair.ends[1], [&](RvKQueueEventProtocol* end, const char* bytes,
                                                 std::uint64_t size, std::uint64_t*, std::int32_t event) {
        if (event == kEventData) {
            pair.loops[1]->write(end, bytes, size);
        }
        return true;
    });
    const Clock::time_point start = Clock::now();
    pair.loops[0]->startObject(pair.ends[0], [&](RvKQueueEventProtocol* end, const char*, std::uint64_t size,
                                                 std::uint64_t*, std::int32_t event) {
        if (event == kEventConnected) {
            pair.loops[0]->write(end, message.data(), message.size());
        } else if (event == kEventData && (received += size) >= messageBytes) {
            received = 0;
            if (--left == 0) {
                done.set_value();
            } else {
                pair.loops[0]->write(end, message.data(), message.size());
            }
        }
        return true;
    });
    done.get_future().wait();
    return secondsSince(start);
}

double rvioBulk(std::size_t writeBytes, std::size_t totalBytes) {
    constexpr std::size_t kAhead = 1 << 20;  // bytes on their way
    Pair pair;
    std::promise<void> done;
    std::atomic<std::size_t> received = 0;
    std::size_t sent = 0;
    const std::string block(writeBytes, 'x');
    // The sender has no event for "written", so the receiver's count lets it go on: a byte back per half
    // window.
    std::size_t sinceConfirmed = 0;
    pair.loops[1]->startObject(pair.ends[1], [&](RvKQueueEventProtocol* end, const char*, std::uint64_t size,
                                                 std::uint64_t*, std::int32_t event) {
        if (event == kEventData) {
            received += size;
            sinceConfirmed += size;
            if (received >= totalBytes) {
                done.set_value();
            } else if (sinceConfirmed >= kAhead / 2) {
                sinceConfirmed = 0;
                pair.loops[1]->write(end, "c", 1);
            }
        }
        return true;
    });
    const auto send = [&](RvKQueueEventProtocol* end) {
        while (sent < totalBytes && sent < received + kAhead) {
            pair.loops[0]->write(end, block.data(), block.size());
            sent += block.size();
        }
    };
    const Clock::time_point start = Clock::now();
    pair.loops[0]->startObject(pair.ends[0], [&](RvKQueueEventProtocol* end, const char*, std::uint64_t,
                                                 std::uint64_t*, std::int32_t event) {
        if (event == kEventConnected || event == kEventData) {
            send(end);
        }
        return true;
    });
    done.get_future().wait();
    return secondsSince(start);
}
