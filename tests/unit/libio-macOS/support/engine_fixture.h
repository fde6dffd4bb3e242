/// A running loop for a test case, with descriptors and places to use on it.
#ifndef RV_TESTS_ENGINE_FIXTURE_H
#define RV_TESTS_ENGINE_FIXTURE_H

#include <gtest/gtest.h>
#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "libio-macOS/RvKQueue.h"
#include "unit/libio-macOS/support/log_capture.h"
#include "unit/libio-macOS/support/recorder.h"

inline constexpr const char* kTestSubsystem = "org.example.test.engine";

/// An endpoint that does nothing but count what is asked of it.
class ProbeEndpoint : public RvKQueueEventProtocol {
  public:
    void enableOnData(EventBlock) noexcept override { ++enables; }
    void kevent(const struct kevent*) noexcept override { ++kevents; }
    void write(const void*, std::uint64_t) noexcept override { ++writes; }
    void stop() noexcept override { ++stops; }

    std::atomic<int> enables{0};
    std::atomic<int> kevents{0};
    std::atomic<int> writes{0};
    std::atomic<int> stops{0};
};

/// Two connected sockets or the two ends of a pipe; a number handed to an endpoint is taken out with release.
class DescriptorPair {
  public:
    static DescriptorPair socketPair();
    /// first is the read end.
    static DescriptorPair pipe();
    DescriptorPair(DescriptorPair&& other) noexcept : ends{other.release(0), other.release(1)} {}
    DescriptorPair& operator=(DescriptorPair&&) = delete;
    ~DescriptorPair();

    int operator[](int index) const { return ends[index]; }
    int release(int index) { return std::exchange(ends[index], -1); }
    void close(int index);

  private:
    DescriptorPair() = default;
    int ends[2] = {-1, -1};
};

/// A directory of its own under /tmp, removed with what is in it.
class TemporaryDirectory {
  public:
    TemporaryDirectory();
    ~TemporaryDirectory();
    /// A path in it.
    std::string path(const std::string& name) const { return directory + "/" + name; }
    /// A path in it of exactly so many bytes.
    std::string pathOfLength(std::size_t bytes) const;

  private:
    std::string directory;
};

bool isOpen(int descriptor);
int openDescriptorCount();
/// Reads until that many bytes or the end; blocks.
std::string readExactly(int descriptor, std::size_t count);
void writeAll(int descriptor, const std::string& bytes);
/// Bytes in which an error of order, a gap or a repetition shows; they begin again after 65,521 of them.
std::string patternBytes(std::size_t count, unsigned seed);

/// 127.0.0.1 with this port.
struct sockaddr_in loopback(std::uint16_t port);
/// The port a listening descriptor was given, from the log line of its creation, is not known to the engine;
/// these find a free one by binding and closing.
std::uint16_t freePort();
const struct sockaddr* asSockaddr(const struct sockaddr_in& address);

class EngineTest : public testing::Test {
  protected:
    void SetUp() override;
    /// Stops the loop unless the case has.
    void TearDown() override;

    void stopLoop();
    /// Returns once the I/O thread has begun and ended a turn after this call: what was asked for is done.
    void waitForTurn();

    /// Starts the endpoint, writes to its peer, closes that: event 2 comes again and again, and no more once
    /// the endpoint is retired. Uses up peer[end].
    void expectEventTwoUntilRetired(const std::shared_ptr<RvKQueueEventProtocol>& endpoint,
                                    DescriptorPair* peer, int end);
    /// Hands a listener that a connection waits for, or soon will, its record under filters that are not its
    /// own.
    void expectOtherFiltersAreIgnored(RvKQueueEventProtocol* listener, struct kevent record);
    /// That the log ends with an endpoint's stop and then this failure.
    static void expectLoggedStopAndThen(const char* failure);

    std::shared_ptr<RvKQueue> loop;
};

/// A loop whose I/O thread never runs: the case itself calls kevent() of its endpoints.
class IdleLoopTest : public testing::Test {
  protected:
    void SetUp() override;

    std::shared_ptr<RvKQueue> loop;
};

#endif
