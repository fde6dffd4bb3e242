#include "unit/libio-macOS/support/engine_fixture.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>

DescriptorPair DescriptorPair::socketPair() {
    DescriptorPair pair;
    EXPECT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, pair.ends));
    return pair;
}

DescriptorPair DescriptorPair::pipe() {
    DescriptorPair pair;
    EXPECT_EQ(0, pipe2(pair.ends, O_CLOEXEC));
    return pair;
}

DescriptorPair::~DescriptorPair() {
    close(0);
    close(1);
}

void DescriptorPair::close(int index) {
    const int descriptor = release(index);
    if (descriptor == -1) return;
    EXPECT_EQ(0, ::close(descriptor));
}

TemporaryDirectory::TemporaryDirectory() {
    char pattern[] = "/tmp/engine.XXXXXX";
    EXPECT_NE(nullptr, mkdtemp(pattern));
    directory = pattern;
}

TemporaryDirectory::~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(directory, ignored);
}

std::string TemporaryDirectory::pathOfLength(std::size_t bytes) const {
    const std::string prefix = directory + "/";
    return prefix + std::string(bytes - prefix.size(), 'p');
}

bool isOpen(int descriptor) {
    return fcntl(descriptor, F_GETFD) != -1;
}

int openDescriptorCount() {
    int count = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) ++count;
    return count;
}

std::string readExactly(int descriptor, std::size_t count) {
    std::string bytes(count, '\0');
    std::size_t filled = 0;
    while (filled < count) {
        const ssize_t got = read(descriptor, bytes.data() + filled, count - filled);
        if (got <= 0) break;
        filled += static_cast<std::size_t>(got);
    }
    bytes.resize(filled);
    return bytes;
}

void writeAll(int descriptor, const std::string& bytes) {
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t put = write(descriptor, bytes.data() + done, bytes.size() - done);
        ASSERT_GT(put, 0);
        done += static_cast<std::size_t>(put);
    }
}

std::string patternBytes(std::size_t count, unsigned seed) {
    constexpr std::size_t kPeriod = 65'521;  // a prime: pieces of round sizes that change places are noticed
    std::string bytes(std::min(count, kPeriod), '\0');
    std::uint32_t state = seed * 2654435761u + 1;
    for (char& byte : bytes) {
        state = state * 1664525u + 1013904223u;
        byte = static_cast<char>(state >> 24);
    }
    bytes.reserve(count);
    while (bytes.size() < count) bytes.append(bytes, 0, std::min(bytes.size(), count - bytes.size()));
    return bytes;
}

struct sockaddr_in loopback(std::uint16_t port) {
    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    return address;
}

std::uint16_t freePort() {
    const int probe = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    struct sockaddr_in address = loopback(0);
    socklen_t length = sizeof address;
    EXPECT_EQ(0, bind(probe, asSockaddr(address), length));
    EXPECT_EQ(0, getsockname(probe, reinterpret_cast<struct sockaddr*>(&address), &length));
    EXPECT_EQ(0, close(probe));
    return ntohs(address.sin_port);
}

const struct sockaddr* asSockaddr(const struct sockaddr_in& address) {
    return reinterpret_cast<const struct sockaddr*>(&address);
}

void EngineTest::SetUp() {
    captureLog();
    loop = RvKQueue::initWithSubsystem(kTestSubsystem);
    ASSERT_TRUE(loop);
    loop->start();
}

void EngineTest::TearDown() {
    if (loop) stopLoop();
}

void EngineTest::stopLoop() {
    loop->stop();
    loop.reset();
}

void EngineTest::waitForTurn() {
    // The first may be stopped before others that are retired in the same turn; the second is stopped a turn
    // later.
    for (int i = 0; i < 2; ++i) {
        const auto probe = std::make_shared<ProbeEndpoint>();
        loop->addActiveObject(probe);
        loop->stopObject(probe);
        ASSERT_TRUE(waitUntil([&] { return probe->stops == 1; }));
    }
}

void EngineTest::expectEventTwoUntilRetired(const std::shared_ptr<RvKQueueEventProtocol>& endpoint,
                                            DescriptorPair* peer, int end) {
    Recorder recorder;
    loop->startObject(endpoint, recorder.block());
    writeAll((*peer)[end], "last words");
    peer->close(end);
    EXPECT_TRUE(recorder.waitFor(kEventClosed, 3));
    EXPECT_EQ("last words", recorder.received());
    loop->stopObject(endpoint);
    waitForTurn();
    const int afterwards = recorder.count(kEventClosed);
    waitForTurn();
    EXPECT_EQ(afterwards, recorder.count(kEventClosed));
}

void EngineTest::expectOtherFiltersAreIgnored(RvKQueueEventProtocol* listener, struct kevent record) {
    struct pollfd waiting = {static_cast<int>(record.ident), POLLIN, 0};
    ASSERT_TRUE(waitUntil([&] { return poll(&waiting, 1, 0) == 1; }));
    waitForTurn();
    const std::size_t linesBefore = capturedLog().size();
    record.filter = EVFILT_WRITE;
    listener->kevent(&record);
    record.filter = EVFILT_TIMER;
    record.flags |= EV_ERROR;
    listener->kevent(&record);
    EXPECT_EQ(1, poll(&waiting, 1, 0));  // nobody has accepted
    EXPECT_EQ(linesBefore, capturedLog().size());
}

void EngineTest::expectLoggedStopAndThen(const char* failure) {
    const auto lines = capturedLog();
    ASSERT_GE(lines.size(), 2u);
    const LogLine& stopped = lines[lines.size() - 2];
    EXPECT_EQ(LogLevel::kDebug, stopped.level);
    EXPECT_TRUE(stopped.text.starts_with("<0x") && stopped.text.ends_with(">: stop")) << stopped.text;
    EXPECT_EQ(failure, lines.back().text);
}

void IdleLoopTest::SetUp() {
    captureLog();
    loop = RvKQueue::initWithSubsystem(kTestSubsystem);
    ASSERT_TRUE(loop);
}
