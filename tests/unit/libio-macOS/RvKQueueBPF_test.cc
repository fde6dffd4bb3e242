#include "libio-macOS/RvKQueueBPF.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <linux/capability.h>
#include <linux/if_packet.h>
#include <linux/if_tun.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/kevent.h"
#include "unit/libio-macOS/support/engine_fixture.h"

namespace {
bool refusesPacketSockets = false;
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap fixes these names
extern "C" {

int __real_bind(int sock, const struct sockaddr* address, socklen_t length);
int __wrap_bind(int sock, const struct sockaddr* address, socklen_t length);

int __wrap_bind(int sock, const struct sockaddr* address, socklen_t length) {
    if (!refusesPacketSockets || address->sa_family != AF_PACKET) return __real_bind(sock, address, length);
    errno = ENETDOWN;
    return -1;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

namespace {

constexpr const char* kFailure = "cannot initialize BPF";
constexpr std::size_t kLinkHeaderBytes = 14;

struct Packet {
    bpf_hdr header;
    std::string bytes;
};

// Walks the records of one block as the framing says; expects them to end with the block.
std::vector<Packet> packetsIn(const std::string& block) {
    std::vector<Packet> packets;
    std::size_t at = 0;
    while (at < block.size()) {
        Packet packet = {};
        EXPECT_LE(at + kCaptureHeaderBytes, block.size());
        std::memcpy(&packet.header, block.data() + at, kCaptureHeaderBytes);
        const std::size_t end = at + packet.header.bh_hdrlen + packet.header.bh_caplen;
        EXPECT_LE(end, block.size());
        if (end > block.size() || packet.header.bh_hdrlen < kCaptureHeaderBytes) break;
        packet.bytes = block.substr(at + packet.header.bh_hdrlen, packet.header.bh_caplen);
        packets.push_back(packet);
        if (end == block.size()) break;
        at += captureAlign(end - at);
    }
    return packets;
}

bool isUp(const char* name, bool wanted) {
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request = {};
    std::memcpy(request.ifr_name, name, std::strlen(name) + 1);
    bool done = ioctl(sock, SIOCGIFFLAGS, &request) == 0;
    request.ifr_flags = static_cast<short>(wanted ? request.ifr_flags | IFF_UP : request.ifr_flags & ~IFF_UP);
    done = done && ioctl(sock, SIOCSIFFLAGS, &request) == 0;
    EXPECT_EQ(0, close(sock));
    return done;
}

bool isLoopbackUp(bool wanted) {
    return isUp("lo", wanted);
}

constexpr const char* kTunnel = "t0";
constexpr std::size_t kTunnelHeaderBytes = 20;  // no link header: the packet starts at a multiple of four

// An interface that exists as long as the descriptor is open; -1 where such ones may not be made. Packets
// that are written to it come in through it.
int openTunnel() {
    const int tunnel = open("/dev/net/tun", O_RDWR | O_CLOEXEC);
    struct ifreq request = {};
    std::memcpy(request.ifr_name, kTunnel, std::strlen(kTunnel) + 1);
    request.ifr_flags = IFF_TUN | IFF_NO_PI;
    if (tunnel == -1 || ioctl(tunnel, TUNSETIFF, &request) == -1) {
        if (tunnel != -1) close(tunnel);
        return -1;
    }
    EXPECT_TRUE(isUp(kTunnel, true));
    return tunnel;
}

// Each case has a network of its own, whose only interface is lo.
class RvKQueueBPFCapture : public EngineTest {
  protected:
    void SetUp() override {
        captureLog();
        if (unshare(CLONE_NEWNET) == -1 && unshare(CLONE_NEWUSER | CLONE_NEWNET) == -1) {
            GTEST_SKIP() << "this process may not have a network of its own";
        }
        ASSERT_TRUE(isLoopbackUp(true));
        EngineTest::SetUp();
        sender = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        receiver = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        socklen_t length = sizeof address;
        ASSERT_EQ(0, bind(receiver, asSockaddr(address), length));
        ASSERT_EQ(0, getsockname(receiver, reinterpret_cast<struct sockaddr*>(&address), &length));
    }
    void TearDown() override {
        EngineTest::TearDown();
        if (sender == -1) return;
        EXPECT_EQ(0, close(sender));
        EXPECT_EQ(0, close(receiver));
    }

    void send(const std::string& payload) {
        EXPECT_EQ(static_cast<ssize_t>(payload.size()),
                  sendto(sender, payload.data(), payload.size(), 0, asSockaddr(address), sizeof address));
    }
    void start(const std::shared_ptr<RvKQueueBPF>& endpoint) {
        loop->startObject(endpoint, recorder.block());
    }

    // All packets so far, of all events.
    std::vector<Packet> captured() {
        std::vector<Packet> all;
        for (const RecordedEvent& event : recorder.eventsWith(kEventData)) {
            for (const Packet& packet : packetsIn(event.bytes)) all.push_back(packet);
        }
        return all;
    }
    bool waitForPackets(std::size_t count) {
        return waitUntil([&] { return captured().size() >= count; });
    }

    struct sockaddr_in address = loopback(0);
    int sender = -1;
    int receiver = -1;
    Recorder recorder;
};

TEST_F(RvKQueueBPFCapture, AFilterThatCannotBeArmedIsEventTwo) {
    const auto endpoint = loop->createBPF("lo", 4096);
    ASSERT_TRUE(endpoint);
    loop->stop();  // the records are this thread's to report
    loop = RvKQueue::initWithSubsystem(kTestSubsystem);
    const auto idle = loop->createBPF("lo", 4096);
    start(idle);
    const struct kevent record = {0, EVFILT_READ, EV_ADD | EV_ERROR, 0, ENOMEM, idle.get()};
    idle->kevent(&record);
    EXPECT_EQ(1, recorder.count(kEventClosed));
    loop->start();
}

TEST_F(RvKQueueBPFCapture, StartIsLoggedAndIsEventZero) {
    const auto endpoint = loop->createBPF("lo", 4096);
    ASSERT_TRUE(endpoint);
    EXPECT_TRUE(isLogged(LogLevel::kDebug, "<" + pointerText(endpoint.get()) + ">: lo monitoring started"));
    start(endpoint);
    const auto events = recorder.events();
    ASSERT_EQ(1u, events.size());
    EXPECT_EQ(kEventConnected, events[0].code);
    EXPECT_FALSE(events[0].hasBuffer);
    EXPECT_FALSE(events[0].hasDropSize);
    EXPECT_EQ(std::this_thread::get_id(), events[0].thread);
}

TEST_F(RvKQueueBPFCapture, APacketIsOneRecordAtOnce) {
    const auto endpoint = loop->createBPF("lo", 4096);
    start(endpoint);
    const std::time_t before = std::time(nullptr);
    send("the payload");
    ASSERT_TRUE(waitForPackets(1));
    const Packet packet = captured()[0];
    EXPECT_EQ(18, packet.header.bh_hdrlen);
    EXPECT_EQ(packet.bytes.size(), packet.header.bh_caplen);
    EXPECT_EQ(packet.header.bh_caplen, packet.header.bh_datalen);
    EXPECT_EQ(kLinkHeaderBytes + 20 + 8 + 11, packet.bytes.size());
    EXPECT_TRUE(packet.bytes.ends_with("the payload"));
    EXPECT_EQ(0x45, packet.bytes[kLinkHeaderBytes]);
    EXPECT_GE(packet.header.bh_tstamp.tv_sec, before - 1);
    EXPECT_LE(packet.header.bh_tstamp.tv_sec, std::time(nullptr) + 1);
    EXPECT_LT(packet.header.bh_tstamp.tv_usec, 1'000'000);
}

TEST_F(RvKQueueBPFCapture, PacketsFollowOneAnotherInWholeRecords) {
    const auto endpoint = loop->createBPF("lo", 600);
    // All are there before the first read: several share a block.
    for (int i = 0; i < 100; ++i)
        send(std::string(static_cast<std::size_t>(i % 50), 'x') + std::to_string(i));
    start(endpoint);
    ASSERT_TRUE(waitForPackets(100));
    const auto packets = captured();
    ASSERT_EQ(100u, packets.size());  // each once, though lo sees it on its way out and in
    for (std::size_t i = 0; i < packets.size(); ++i) {
        EXPECT_TRUE(packets[i].bytes.ends_with(std::to_string(i))) << i;
        EXPECT_EQ(packets[i].header.bh_caplen, packets[i].header.bh_datalen);
    }
    bool isShared = false;
    for (const RecordedEvent& event : recorder.eventsWith(kEventData)) {
        EXPECT_LE(event.size, 600u);
        isShared = isShared || packetsIn(event.bytes).size() > 1;
    }
    EXPECT_TRUE(isShared);
}

TEST_F(RvKQueueBPFCapture, APacketLargerThanTheBlockIsCut) {
    const auto endpoint = loop->createBPF("lo", 100);
    start(endpoint);
    send(std::string(1000, 'y'));
    send("next");
    ASSERT_TRUE(waitForPackets(2));
    const auto packets = captured();
    EXPECT_EQ(100u - 18, packets[0].header.bh_caplen);
    EXPECT_EQ(kLinkHeaderBytes + 28 + 1000, packets[0].header.bh_datalen);
    EXPECT_TRUE(packets[1].bytes.ends_with("next"));
}

TEST_F(RvKQueueBPFCapture, TheLengthInForceMayDifferFromTheOneWanted) {
    const auto small = loop->createBPF("lo", 1);  // 32 at least
    ASSERT_TRUE(small);
    start(small);
    send("a packet");
    ASSERT_TRUE(waitForPackets(1));
    EXPECT_EQ(32u, recorder.eventsWith(kEventData)[0].size);
    EXPECT_TRUE(loop->createBPF("lo", 0xffffffff));
}

TEST_F(RvKQueueBPFCapture, KeptBytesAreOfferedAgainWithTheNextOnes) {
    const auto endpoint = loop->createBPF("lo", 4096);
    loop->startObject(endpoint, recorder.block([](const RecordedEvent& event, std::uint64_t* dropSize) {
        if (event.code == kEventData) *dropSize = 0;
        return true;
    }));
    send("one");
    ASSERT_TRUE(recorder.waitFor(kEventData, 1));
    const std::string first = recorder.eventsWith(kEventData)[0].bytes;
    send("two");
    ASSERT_TRUE(recorder.waitFor(kEventData, 2));
    const std::string second = recorder.eventsWith(kEventData)[1].bytes;
    EXPECT_GT(second.size(), first.size());
    EXPECT_TRUE(second.starts_with(first));
}

TEST_F(RvKQueueBPFCapture, AStrippedVlanTagIsPutBack) {
    const auto endpoint = loop->createBPF("lo", 4096);
    start(endpoint);
    std::string frame(12, '\0');
    frame +=
        std::string("\x81\x00\x60\x2a\x88\xb5", 6) + "inside";  // tag 0x602a, then a type for experiments
    const int raw = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    struct sockaddr_ll target = {};
    target.sll_family = AF_PACKET;
    target.sll_ifindex = static_cast<int>(if_nametoindex("lo"));
    ASSERT_EQ(static_cast<ssize_t>(frame.size()),
              sendto(raw, frame.data(), frame.size(), 0, reinterpret_cast<const struct sockaddr*>(&target),
                     sizeof target));
    ASSERT_TRUE(waitForPackets(1));
    const Packet packet = captured()[0];
    EXPECT_EQ(frame, packet.bytes);
    EXPECT_EQ(frame.size(), packet.header.bh_datalen);
    EXPECT_EQ(0, close(raw));
}

TEST_F(RvKQueueBPFCapture, AnInterfaceMayGoDownAndComeBack) {
    const auto endpoint = loop->createBPF("lo", 4096);
    start(endpoint);
    send("before");
    ASSERT_TRUE(waitForPackets(1));
    ASSERT_TRUE(isLoopbackUp(false));
    waitForTurn();
    waitForTurn();
    ASSERT_TRUE(isLoopbackUp(true));
    send("after");
    ASSERT_TRUE(waitUntil([&] {
        const auto packets = captured();
        return packets.back().bytes.ends_with("after");
    }));
    EXPECT_EQ(0, recorder.count(kEventClosed));
}

TEST_F(RvKQueueBPFCapture, AnInterfaceMayBeDownAtTheStart) {
    ASSERT_TRUE(isLoopbackUp(false));
    const auto endpoint = loop->createBPF("lo", 4096);
    ASSERT_TRUE(endpoint);
    start(endpoint);
    waitForTurn();
    waitForTurn();
    ASSERT_TRUE(isLoopbackUp(true));
    send("up again");
    ASSERT_TRUE(waitUntil([&] {
        const auto packets = captured();
        return !packets.empty() && packets.back().bytes.ends_with("up again");
    }));
    EXPECT_EQ(0, recorder.count(kEventClosed));
}

TEST_F(RvKQueueBPFCapture, AnInterfaceThatGoesAwayIsEventTwo) {
    const int tunnel = openTunnel();
    if (tunnel == -1) GTEST_SKIP() << "no interface can be made";
    start(loop->createBPF(kTunnel, 4096));
    waitForTurn();
    EXPECT_EQ(0, recorder.count(kEventClosed));
    EXPECT_EQ(0, close(tunnel));
    EXPECT_TRUE(recorder.waitFor(kEventClosed));
}

TEST_F(RvKQueueBPFCapture, AnInterfaceThatGoesAwayWhileItIsDownIsEventTwo) {
    const int tunnel = openTunnel();
    if (tunnel == -1) GTEST_SKIP() << "no interface can be made";
    const int before = openDescriptorCount();
    const auto endpoint = loop->createBPF(kTunnel, 4096);
    start(endpoint);
    for (int time = 0; time < 2; ++time) {
        ASSERT_TRUE(isUp(kTunnel, false));
        ASSERT_TRUE(waitUntil([&] { return openDescriptorCount() == before + 2; }));
        ASSERT_TRUE(isUp(kTunnel, true));
    }
    ASSERT_TRUE(isUp(kTunnel, false));
    waitForTurn();
    EXPECT_EQ(0, recorder.count(kEventClosed));
    EXPECT_EQ(0, close(tunnel));
    EXPECT_TRUE(recorder.waitFor(kEventClosed));
    loop->stopObject(endpoint);
    EXPECT_TRUE(waitUntil([&] { return openDescriptorCount() == before - 1; }));
}

TEST_F(RvKQueueBPFCapture, AnInterfaceWithoutLinkHeaderShowsBothDirections) {
    const int tunnel = openTunnel();
    if (tunnel == -1) GTEST_SKIP() << "no interface can be made";
    start(loop->createBPF(kTunnel, 4096));
    const std::string in = std::string("\x45\0\0\x16\0\0\0\0\x40\xfd", 10) + std::string(10, '\0') + "in";
    ASSERT_EQ(static_cast<ssize_t>(in.size()), write(tunnel, in.data(), in.size()));
    ASSERT_TRUE(waitForPackets(1));
    const std::string out = in.substr(0, 20) + "ex";
    const int raw = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    struct sockaddr_ll target = {};
    target.sll_family = AF_PACKET;
    target.sll_protocol = htons(ETH_P_IP);
    target.sll_ifindex = static_cast<int>(if_nametoindex(kTunnel));
    ASSERT_EQ(static_cast<ssize_t>(out.size()),
              sendto(raw, out.data(), out.size(), 0, reinterpret_cast<const struct sockaddr*>(&target),
                     sizeof target));
    const auto has = [this](const std::string& bytes) {
        for (const Packet& packet : captured()) {
            if (packet.bytes == bytes) return packet.header.bh_hdrlen == kTunnelHeaderBytes;
        }
        return false;
    };
    EXPECT_TRUE(waitUntil([&] { return has(in) && has(out); }));
    EXPECT_EQ(0, close(raw));
    EXPECT_EQ(0, close(tunnel));
}

TEST_F(RvKQueueBPFCapture, OnlyReadRecordsAreLookedAt) {
    loop->stop();  // the records are this thread's to report
    loop = RvKQueue::initWithSubsystem(kTestSubsystem);
    const auto idle = loop->createBPF("lo", 4096);
    start(idle);
    send("waiting");
    const struct kevent others[] = {{0, EVFILT_WRITE, 0, 0, 1000, idle.get()},
                                    {0, EVFILT_TIMER, 0, 0, 1000, idle.get()},
                                    {0, EVFILT_WRITE, EV_ERROR, 0, ENOMEM, idle.get()}};
    for (const struct kevent& other : others) idle->kevent(&other);
    EXPECT_EQ(1u, recorder.events().size());
    const struct kevent record = {0, EVFILT_READ, 0, 0, 1000, idle.get()};
    idle->kevent(&record);
    EXPECT_EQ(1, recorder.count(kEventData));
    loop->start();
}

TEST_F(RvKQueueBPFCapture, EventZeroComesBeforeAnyPacket) {
    const auto endpoint = loop->createBPF("lo", 4096);
    send("early");
    loop->startObject(endpoint, recorder.block([this](const RecordedEvent& event, std::uint64_t*) {
        if (event.code == kEventConnected) waitForTurn();
        return true;
    }));
    ASSERT_TRUE(waitForPackets(1));
    EXPECT_EQ(kEventConnected, recorder.events()[0].code);
}

TEST_F(RvKQueueBPFCapture, StopLetsGoOfTheBlock) {
    const auto endpoint = loop->createBPF("lo", 4096);
    const auto held = std::make_shared<int>(0);
    loop->startObject(endpoint, [held](auto...) { return true; });
    loop->stopObject(endpoint);
    EXPECT_TRUE(waitUntil([&] { return held.use_count() == 1; }));
}

TEST_F(RvKQueueBPFCapture, SeveralCapturesOfOneInterfaceAllSeeAPacket) {
    Recorder others;
    const auto one = loop->createBPF("lo", 4096);
    const auto other = loop->createBPF("lo", 4096);
    ASSERT_TRUE(one && other);
    start(one);
    loop->startObject(other, others.block());
    send("x");
    EXPECT_TRUE(recorder.waitFor(kEventData));
    EXPECT_TRUE(others.waitFor(kEventData));
}

TEST_F(RvKQueueBPFCapture, AnUnknownInterfaceFailsAtCreation) {
    const int before = openDescriptorCount();
    EXPECT_FALSE(loop->createBPF("nosuch0", 4096));
    EXPECT_FALSE(loop->createBPF("", 4096));
    EXPECT_FALSE(loop->createBPF("a name far too long for an interface", 4096));
    EXPECT_EQ(3, countLogged(LogLevel::kError, kFailure));
    EXPECT_EQ(before, openDescriptorCount());
}

TEST_F(RvKQueueBPFCapture, WithoutTheRightToCaptureItFailsAtCreation) {
    // Of this thread alone, and for the rest of the case, which is a process of its own.
    struct __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    struct __user_cap_data_struct data[2] = {};
    ASSERT_EQ(0, syscall(SYS_capset, &header, data));
    const int before = openDescriptorCount();
    EXPECT_FALSE(loop->createBPF("lo", 4096));
    EXPECT_EQ(1, countLogged(LogLevel::kError, kFailure));
    EXPECT_EQ(before, openDescriptorCount());
}

TEST_F(RvKQueueBPFCapture, ASocketThatCannotBeAttachedIsClosed) {
    const int before = openDescriptorCount();
    refusesPacketSockets = true;
    EXPECT_FALSE(loop->createBPF("lo", 4096));
    refusesPacketSockets = false;
    EXPECT_EQ(1, countLogged(LogLevel::kError, kFailure));
    EXPECT_EQ(before, openDescriptorCount());
    EXPECT_TRUE(loop->createBPF("lo", 4096));
}

TEST_F(RvKQueueBPFCapture, ItTakesNoOutput) {
    const auto endpoint = loop->createBPF("lo", 4096);
    start(endpoint);
    EXPECT_TRUE(loop->write(endpoint, "x", 1));
    send("seen");
    ASSERT_TRUE(waitForPackets(1));
    EXPECT_EQ(1u, captured().size());
}

TEST_F(RvKQueueBPFCapture, StopClosesOnceAndLogsNothing) {
    const auto endpoint = loop->createBPF("lo", 4096);
    start(endpoint);
    struct kevent record;
    endpoint->initReadEvent(&record, EV_ADD);
    EXPECT_EQ(EVFILT_READ, record.filter);
    waitForTurn();
    const std::size_t linesBefore = capturedLog().size();
    loop->stopObject(endpoint);
    EXPECT_TRUE(waitUntil([&] { return !isOpen(static_cast<int>(record.ident)); }));
    waitForTurn();
    endpoint->stop();
    EXPECT_EQ(linesBefore, capturedLog().size());
    send("unseen");
    waitForTurn();
    EXPECT_EQ(0, recorder.count(kEventData));
    endpoint->initReadEvent(&record, EV_ADD);
    EXPECT_EQ(static_cast<std::uint64_t>(-1), record.ident);
}

TEST_F(RvKQueueBPFCapture, AFailedReadIsEventTwoWithWhatWasKept) {
    const auto endpoint = loop->createBPF("lo", 4096);
    loop->startObject(endpoint, recorder.block([](const RecordedEvent& event, std::uint64_t* dropSize) {
        if (event.code == kEventData) *dropSize = 0;
        return true;
    }));
    send("kept");
    ASSERT_TRUE(recorder.waitFor(kEventData));
    // Something that is no socket, and readable for ever, in the capture's place.
    struct kevent record;
    endpoint->initReadEvent(&record, EV_ADD);
    DescriptorPair pair = DescriptorPair::pipe();
    ASSERT_NE(-1, dup2(pair[0], static_cast<int>(record.ident)));
    pair.close(1);
    loop->submitChange({record.ident, EVFILT_READ, EV_ADD | EV_ENABLE, 0, 0, endpoint.get()});
    ASSERT_TRUE(recorder.waitFor(kEventClosed));
    EXPECT_EQ(recorder.eventsWith(kEventData)[0].bytes, recorder.eventsWith(kEventClosed)[0].bytes);
}

}  // namespace
