/// The endpoint that captures the packets of one network interface.
#ifndef RV_LIBIO_RVKQUEUE_BPF_H
#define RV_LIBIO_RVKQUEUE_BPF_H

#include <cstdint>
#include <memory>

#include "libio-macOS/ByteBuffer.h"
#include "libio-macOS/EventBlockSlot.h"
#include "libio-macOS/ParentLoop.h"
#include "libio-macOS/RvKQueueEventProtocol.h"
#include "platform/oslog.h"
#include "platform/packet_capture.h"

class RvKQueue;

/// Offers captured packets to the event block as they come: a sequence of records, each a bpf_hdr and the
/// packet, the framing of platform/packet_capture.h. It does not look into them and never writes.
///
/// Events: 0 inside startObject, 1 with records, 2 when capture has failed.
///
/// RvKQueue::createBPF(interfaceName, blockLength) makes one:
///
/// interfaceName  zero-terminated name of an interface
/// blockLength    wanted length of the blocks read, in bytes; the system may choose another
/// It fails when the interface is not known or the process may not capture. See docs/engine.md, "Packet
/// capture".
class RvKQueueBPF : public RvKQueueEventProtocol {
  public:
    /// An endpoint that captures nothing yet; null without memory.
    static std::shared_ptr<RvKQueueBPF> initWithParent(const std::shared_ptr<RvKQueue>& parent,
                                                       const OsLog& logger) noexcept;
    /// For initWithParent.
    RvKQueueBPF(std::weak_ptr<RvKQueue> parentLoop, const OsLog& log) noexcept;

    /// Starts capture. Returns false, with nothing left open, when that is not possible.
    bool openInterface(const char* interfaceName, std::uint32_t wantedBlockLength) noexcept;

    void enableOnData(EventBlock block) noexcept override;
    void kevent(const struct kevent* record) noexcept override;
    /// Does nothing: a capture takes no output.
    void write(const void* bytes, std::uint64_t size) noexcept override;
    void stop() noexcept override;

    /// Buffered delivery of all captured bytes with the given event code. The I/O thread.
    void callEvent(std::int32_t event) noexcept;

    /// Fills in a change record for the capture's read filter.
    void initReadEvent(struct kevent* record, std::uint16_t flags) noexcept;

  private:
    ParentLoop parent;
    OsLog logger;
    PacketCapture fd;               ///< the capture with its descriptor, -1 when closed
    std::uint32_t blockLength = 0;  ///< the length in force
    ByteBuffer rx;                  ///< captured and not yet consumed; the I/O thread's alone
    EventBlockSlot eventBlock;
};

#endif
