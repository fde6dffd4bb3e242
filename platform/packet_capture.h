/// Capture of the packets of one network interface, in the framing of a Berkeley Packet Filter device.
#ifndef RV_PLATFORM_PACKET_CAPTURE_H
#define RV_PLATFORM_PACKET_CAPTURE_H

#include <atomic>
#include <cstddef>
#include <cstdint>

/// What stands before each captured packet, as bpf(4) of the BSDs has it. 18 bytes are in use; with the size
/// that a compiler gives the structure, the first bytes of the packet would be taken for padding, so read
/// kCaptureHeaderBytes of it and find the packet by bh_hdrlen.
struct bpf_hdr {
    struct {
        std::int32_t tv_sec;
        std::int32_t tv_usec;
    } bh_tstamp;               ///< when the packet was seen, since 1970
    std::uint32_t bh_caplen;   ///< bytes of the packet that follow
    std::uint32_t bh_datalen;  ///< bytes it had on the wire
    std::uint16_t bh_hdrlen;   ///< from the start of this header to the packet, padding included
};

inline constexpr std::size_t kCaptureHeaderBytes = 18;

/// Where the next header begins, counted from the start of one: captureAlign(bh_hdrlen + bh_caplen).
constexpr std::size_t captureAlign(std::size_t bytes) noexcept {
    return (bytes + 3) & ~std::size_t{3};
}

/// One open capture. Used by one thread at a time, except that any may ask for the descriptor.
class PacketCapture {
  public:
    /// What a read has come to.
    enum class Outcome {
        kPackets,  ///< whole records were stored
        kNothing,  ///< there is no packet after all; wait for the next event
        kEnded     ///< capture has failed for good, for instance because the interface is gone
    };

    PacketCapture() noexcept = default;
    ~PacketCapture();
    PacketCapture(const PacketCapture&) = delete;
    PacketCapture& operator=(const PacketCapture&) = delete;

    /// Starts capture; packets are reported as they come and not when a block is full. On an interface that
    /// is down it starts with the interface.
    ///
    /// interfaceName  zero-terminated, such as "lo"
    /// blockLength    in: the wanted length of a block, in bytes; out: the length in force, which is the
    /// nearest
    ///                from 32 to 524288
    /// Returns false, with nothing left open, when the interface is not known, the process may not capture
    /// (on Linux: CAP_NET_RAW) or descriptors have run out. Any number of captures may be open on an
    /// interface.
    bool open(const char* interfaceName, std::uint32_t* blockLength) noexcept;

    /// What to watch with EVFILT_READ; close-on-exec; owned by this object. -1 when closed.
    int descriptor() const noexcept { return fd; }

    /// A second one to watch with EVFILT_READ, for which read is to be called as well: there from the read on
    /// that first found the interface down, as the capture itself does not tell that such an interface goes
    /// away (packet(7): ENETDOWN comes once). Close-on-exec; owned by this object. -1 before, when closed,
    /// and when there is no descriptor left for it.
    int linkDescriptor() const noexcept { return linkFd; }

    /// Stores what has been captured: records of a bpf_hdr and the packet, each but the last one padded. No
    /// record is split over two reads; a packet that no block can hold is cut. Never blocks.
    ///
    /// block   room for blockLength bytes
    /// stored  out, with kPackets: how many bytes were stored
    Outcome read(char* block, std::size_t blockLength, std::size_t* stored) noexcept;

    /// Ends capture; may be called again.
    void close() noexcept;

  private:
    bool prepare(unsigned interfaceIndex, const char* interfaceName, std::uint32_t blockLength) noexcept;
    bool nextFits(std::size_t room) const noexcept;
    std::ptrdiff_t readRecord(char* record, std::size_t room) const noexcept;
    bool isDetached() const noexcept;
    void watchLinks() noexcept;

    std::atomic<int> fd{-1};  ///< atomic, so that descriptor may be asked while another thread closes
    std::atomic<int> linkFd{-1};
    std::size_t linkHeaderBytes = 0;
};

#endif
