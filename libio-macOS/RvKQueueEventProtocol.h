/// What every endpoint of the event loop offers, and the callback through which it reports.
#ifndef RV_LIBIO_RVKQUEUE_EVENT_PROTOCOL_H
#define RV_LIBIO_RVKQUEUE_EVENT_PROTOCOL_H

#include <cstdint>
#include <functional>

struct kevent;
class RvKQueueEventProtocol;

/// Event codes, the last argument of an event block.
inline constexpr std::int32_t kEventConnected = 0;      ///< connected or started
inline constexpr std::int32_t kEventData = 1;           ///< data, a timer's expiry, an accepted connection
inline constexpr std::int32_t kEventClosed = 2;         ///< end of input, read error or write error
inline constexpr std::int32_t kEventConnectFailed = 3;  ///< the connection attempt failed

/// The callback of an endpoint's owner.
///
/// object    the reporting endpoint; borrowed for the call
/// buffer    the bytes received and not yet consumed, valid until the block returns; null on events 0 and 3
///           and for timers. Listening endpoints hand over an AcceptedConnection.
/// size      how many bytes buffer has
/// dropSize  null unless received bytes are offered (events 1 and 2 of sockets, descriptor pairs and packet
///           capture). It then holds `size`: left alone, everything counts as consumed. The block may set it
///           to the number of leading bytes it has consumed; the rest is offered again, followed by new
///           bytes, with the next event.
/// event     one of the codes above
/// Returns, for listening endpoints only, whether the block has taken the accepted descriptor; other
/// endpoints ignore the result. Runs on the loop's I/O thread with no lock held, except for an event 0 that
/// startObject delivers on its caller's thread before it returns. It may call anything of the loop but stop,
/// must not throw, and is kept until its endpoint is stopped. See docs/engine.md, "The event block".
using EventBlock = std::function<bool(RvKQueueEventProtocol* object, const char* buffer, std::uint64_t size,
                                      std::uint64_t* dropSize, std::int32_t event)>;

/// The four operations of an endpoint. Owners reach them through the loop (RvKQueue.h); implementations hold
/// the loop weakly.
class RvKQueueEventProtocol {
  public:
    RvKQueueEventProtocol() noexcept = default;
    virtual ~RvKQueueEventProtocol() = default;
    RvKQueueEventProtocol(const RvKQueueEventProtocol&) = delete;
    RvKQueueEventProtocol& operator=(const RvKQueueEventProtocol&) = delete;

    /// Stores the block and submits the endpoint's filters; some kinds call the block at once with event 0.
    /// Any thread. Without memory for the block the endpoint stays silent.
    virtual void enableOnData(EventBlock block) noexcept = 0;

    /// Handles one record returned by the kernel; borrowed for the call. The I/O thread only.
    virtual void kevent(const struct kevent* record) noexcept = 0;

    /// Queues a copy of `size` bytes for output; does nothing where the endpoint cannot write. Any thread.
    virtual void write(const void* bytes, std::uint64_t size) noexcept = 0;

    /// Releases the kernel's resources and drops the block. Called by the loop, with its lock held: on the
    /// I/O thread, or by the loop's stop once that thread has ended; and by a factory that gives up.
    virtual void stop() noexcept = 0;

    /// The ident of a timer; -1 for all others.
    virtual std::int32_t timerIdent() const noexcept { return -1; }

    /// Whether kevent takes records whose bytes were not counted (KEVENT_UNCOUNTED); for all others the loop
    /// counts them first.
    virtual bool takesUncounted() const noexcept { return false; }
};

#endif
