/// Packet capture by a packet(7) socket, whose packets are put into records here. It needs no library, and
/// the framing had to be made in any case.
#include "platform/packet_capture.h"

#include <arpa/inet.h>
#include <linux/if_packet.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <net/ethernet.h>
#include <net/if.h>
#include <net/if_arp.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr std::uint32_t kLeastBlockBytes = 32;
constexpr std::uint32_t kMostBlockBytes = 524288;
constexpr std::size_t kEthernetHeaderBytes = 14;
constexpr std::size_t kVlanTagBytes = 4;
constexpr std::size_t kAddressBytes = 12;  // destination and source, before the place of a VLAN tag
constexpr std::uint16_t kVlanProtocol = 0x8100;
// Room for bursts between two turns of a reader: the system's default holds a few hundred small packets.
constexpr int kLeastQueueBytes = 2 << 20;
constexpr std::uint32_t kQueuedBlocks = 8;

static_assert(offsetof(bpf_hdr, bh_hdrlen) + sizeof(std::uint16_t) == kCaptureHeaderBytes);

bool switchOn(int fd, int level, int option) noexcept {
    const int on = 1;
    return setsockopt(fd, level, option, &on, sizeof on) == 0;
}

void enlargeQueue(int fd, std::uint32_t blockLength) noexcept {
    const int bytes = std::max(kLeastQueueBytes, static_cast<int>(kQueuedBlocks * blockLength));
    if (setsockopt(fd, SOL_SOCKET, SO_RCVBUFFORCE, &bytes, sizeof bytes) == 0) return;
    (void)setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &bytes, sizeof bytes);  // as much as the system allows
}

int hardwareTypeOf(int fd, const char* interfaceName) noexcept {
    struct ifreq request = {};
    std::memcpy(request.ifr_name, interfaceName, strnlen(interfaceName, sizeof request.ifr_name - 1));
    return ioctl(fd, SIOCGIFHWADDR, &request) == 0 ? request.ifr_hwaddr.sa_family : -1;
}

// The packet starts at a multiple of four behind its link header.
std::size_t headerBytesFor(std::size_t linkHeaderBytes) noexcept {
    return captureAlign(linkHeaderBytes + kCaptureHeaderBytes) - linkHeaderBytes;
}

// What comes beside a packet.
struct Ancillary {
    struct timeval time = {};
    bool hasTag = false;
    std::uint16_t tagProtocol = kVlanProtocol;
    std::uint16_t tagControl = 0;
};

Ancillary ancillaryOf(struct msghdr* message) noexcept {
    Ancillary result;
    for (struct cmsghdr* part = CMSG_FIRSTHDR(message); part != nullptr; part = CMSG_NXTHDR(message, part)) {
        if (part->cmsg_level == SOL_SOCKET && part->cmsg_type == SO_TIMESTAMP) {
            std::memcpy(&result.time, CMSG_DATA(part), sizeof result.time);
        } else if (part->cmsg_level == SOL_PACKET && part->cmsg_type == PACKET_AUXDATA) {
            struct tpacket_auxdata data;
            std::memcpy(&data, CMSG_DATA(part), sizeof data);
            result.hasTag = (data.tp_status & TP_STATUS_VLAN_VALID) != 0;
            result.tagControl = data.tp_vlan_tci;
            if ((data.tp_status & TP_STATUS_VLAN_TPID_VALID) != 0) result.tagProtocol = data.tp_vlan_tpid;
        }
    }
    return result;
}

// The system takes the VLAN tag out of a frame; on the wire it stood behind the addresses.
// Returns how many bytes of the packet are there now, at most `room`.
std::size_t putTagBack(char* packet, std::size_t captured, std::size_t room,
                       const Ancillary& beside) noexcept {
    if (captured < kAddressBytes || room < kAddressBytes + kVlanTagBytes) return captured;
    const std::size_t moved = std::min(captured - kAddressBytes, room - kAddressBytes - kVlanTagBytes);
    char* const place = packet + kAddressBytes;
    std::memmove(place + kVlanTagBytes, place, moved);
    const std::uint16_t tag[2] = {htons(beside.tagProtocol), htons(beside.tagControl)};
    std::memcpy(place, tag, sizeof tag);
    return kAddressBytes + kVlanTagBytes + moved;
}

int openLinkEvents() noexcept {
    const int sock = socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE);
    if (sock == -1) return -1;
    struct sockaddr_nl address = {};
    address.nl_family = AF_NETLINK;
    address.nl_groups = RTMGRP_LINK;
    if (bind(sock, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0) return sock;
    (void)::close(sock);
    return -1;
}

// What has changed does not matter, nor that some changes had no room (ENOBUFS).
void dropLinkEvents(int sock) noexcept {
    char start;
    ssize_t bytes = 0;
    do {
        bytes = recv(sock, &start, sizeof start, MSG_DONTWAIT);
    } while (bytes > 0 || (bytes == -1 && errno == ENOBUFS));
}

void closeOnce(std::atomic<int>* fd) noexcept {
    const int open = fd->exchange(-1);
    if (open != -1) (void)::close(open);  // nothing is left to undo
}

}  // namespace

PacketCapture::~PacketCapture() {
    close();
}

bool PacketCapture::open(const char* interfaceName, std::uint32_t* blockLength) noexcept {
    close();
    const unsigned index = if_nametoindex(interfaceName);
    if (index == 0) return false;
    // Without a protocol nothing is queued before the socket is bound to the one interface.
    fd = socket(AF_PACKET, SOCK_RAW | SOCK_CLOEXEC, 0);
    if (fd == -1) return false;
    const std::uint32_t length = std::clamp(*blockLength, kLeastBlockBytes, kMostBlockBytes);
    if (!prepare(index, interfaceName, length)) {
        close();
        return false;
    }
    *blockLength = length;
    return true;
}

bool PacketCapture::prepare(unsigned interfaceIndex, const char* interfaceName,
                            std::uint32_t blockLength) noexcept {
    const int type = hardwareTypeOf(fd, interfaceName);
    const bool isLoopback = type == ARPHRD_LOOPBACK;
    linkHeaderBytes = isLoopback || type == ARPHRD_ETHER ? kEthernetHeaderBytes : 0;
    // The loopback interface shows each packet twice, on its way out and on its way in.
    if (isLoopback && !switchOn(fd, SOL_PACKET, PACKET_IGNORE_OUTGOING)) return false;
    if (!switchOn(fd, SOL_SOCKET, SO_TIMESTAMP) || !switchOn(fd, SOL_PACKET, PACKET_AUXDATA)) return false;
    enlargeQueue(fd, blockLength);
    struct sockaddr_ll address = {};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ALL);
    address.sll_ifindex = static_cast<int>(interfaceIndex);
    return bind(fd, reinterpret_cast<const struct sockaddr*>(&address), sizeof address) == 0;
}

PacketCapture::Outcome PacketCapture::read(char* block, std::size_t blockLength,
                                           std::size_t* stored) noexcept {
    std::size_t used = 0;
    for (;;) {
        const std::size_t start = captureAlign(used);
        if (used > 0 && (start >= blockLength || !nextFits(blockLength - start))) break;
        const std::ptrdiff_t bytes = readRecord(block + start, blockLength - start);
        if (bytes < 0) break;
        std::memset(block + used, 0, start - used);
        used = start + static_cast<std::size_t>(bytes);
    }
    *stored = used;
    if (used > 0) return Outcome::kPackets;
    const int failure = errno;
    const bool isPassing = failure == EAGAIN || failure == EINTR || failure == ENETDOWN;
    if (linkFd != -1) dropLinkEvents(linkFd);  // before isDetached is asked: a later change is told again
    if (failure == ENETDOWN) watchLinks();
    return isPassing && !isDetached() ? Outcome::kNothing : Outcome::kEnded;
}

// Whether the packet that is next can be stored whole. The socket tells its length, and 0 when there is none.
bool PacketCapture::nextFits(std::size_t room) const noexcept {
    int bytes = 0;
    if (ioctl(fd, FIONREAD, &bytes) == -1 || bytes <= 0) return false;
    return headerBytesFor(linkHeaderBytes) + static_cast<std::size_t>(bytes) + kVlanTagBytes <= room;
}

// Stores one record and returns its length without padding, or -1 with errno.
std::ptrdiff_t PacketCapture::readRecord(char* record, std::size_t room) const noexcept {
    const std::size_t headerBytes = headerBytesFor(linkHeaderBytes);
    char* const packet = record + headerBytes;
    const std::size_t packetRoom = room - headerBytes;
    struct iovec place = {packet, packetRoom};
    alignas(struct cmsghdr) char
        control[CMSG_SPACE(sizeof(struct timeval)) + CMSG_SPACE(sizeof(struct tpacket_auxdata))];
    struct msghdr message = {};
    message.msg_iov = &place;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof control;
    const ssize_t onWire = recvmsg(fd, &message, MSG_DONTWAIT | MSG_TRUNC);
    if (onWire < 0) return -1;
    const Ancillary beside = ancillaryOf(&message);
    std::size_t length = static_cast<std::size_t>(onWire);
    std::size_t captured = std::min(length, packetRoom);
    if (beside.hasTag && linkHeaderBytes == kEthernetHeaderBytes) {
        captured = putTagBack(packet, captured, packetRoom, beside);
        length += kVlanTagBytes;
    }
    const bpf_hdr header = {
        {static_cast<std::int32_t>(beside.time.tv_sec), static_cast<std::int32_t>(beside.time.tv_usec)},
        static_cast<std::uint32_t>(captured),
        static_cast<std::uint32_t>(length),
        static_cast<std::uint16_t>(headerBytes)};
    std::memset(record, 0, headerBytes);
    std::memcpy(record, &header, kCaptureHeaderBytes);
    return static_cast<std::ptrdiff_t>(headerBytes + captured);
}

// An interface that has gone away leaves the socket bound to none; one that is only down comes back.
bool PacketCapture::isDetached() const noexcept {
    struct sockaddr_ll address = {};
    socklen_t length = sizeof address;
    if (getsockname(fd, reinterpret_cast<struct sockaddr*>(&address), &length) == -1) return true;
    return address.sll_ifindex <= 0;
}

// From before isDetached is asked, so that no change is missed.
void PacketCapture::watchLinks() noexcept {
    if (linkFd == -1) linkFd = openLinkEvents();
}

void PacketCapture::close() noexcept {
    closeOnce(&fd);
    closeOnce(&linkFd);
}
