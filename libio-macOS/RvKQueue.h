/// The event loop: one kernel event queue, one I/O thread that waits on it, and the endpoints it serves.
///
/// Calling order: initWithSubsystem, start, createX, startObject, any number of writes, stopObject
/// (optional), stop. Only the I/O thread calls kevent(); other threads leave change records in a list that it
/// hands over on its next turn. A turn lasts 5 ms at most, and a request from another thread ends the current
/// one at once.
///
/// Each factory is defined in the source of the endpoint it makes, so that a program links only the kinds of
/// endpoint it uses. docs/engine.md describes a turn of the loop and has an example for each endpoint.
#ifndef RV_LIBIO_RVKQUEUE_H
#define RV_LIBIO_RVKQUEUE_H

#include <sys/socket.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <vector>

#include "libio-macOS/ByteBuffer.h"
#include "libio-macOS/EndpointTable.h"
#include "libio-macOS/RvKQueueEventProtocol.h"
#include "libio-macOS/TimerIdents.h"
#include "platform/kevent.h"
#include "platform/lock.h"
#include "platform/oslog.h"
#include "platform/thread.h"
#include "platform/ticker.h"
#include "platform/wakeup.h"

class RvKQueueBPF;
class RvKQueueBipipeClient;
class RvKQueueStreamSocket;
class RvKQueueTCPClient;
class RvKQueueTCPServer;
class RvKQueueTimer;
class RvKQueueUnixClient;
class RvKQueueUnixServer;

class RvKQueue : public std::enable_shared_from_this<RvKQueue> {
    struct Key {};

  public:
    /// Creates a loop whose I/O thread does not run yet.
    ///
    /// subsystem  zero-terminated name under which the loop and its endpoints log; copied. The category is
    ///            "kqueue".
    /// Returns null after one error line in the log when memory, descriptors or threads have run out. The
    /// loop lives as long as the caller's reference or its I/O thread, whichever is longer.
    static std::shared_ptr<RvKQueue> initWithSubsystem(const char* subsystem) noexcept;

    /// For initWithSubsystem alone.
    RvKQueue(Key, const char* subsystem) noexcept;
    /// A loop that was not stopped closes its queue here; its endpoints are released without being stopped.
    ~RvKQueue();
    RvKQueue(const RvKQueue&) = delete;
    RvKQueue& operator=(const RvKQueue&) = delete;

    /// Lets the I/O thread run. Called once, on any thread.
    void start() noexcept;

    /// Ends the I/O thread, stops all endpoints and closes the queue and the loop's other descriptors; the
    /// loop is of no use afterwards. Takes about a second, for the thread is looked at once a second. Called
    /// once, on any thread except the I/O thread: never from an event block.
    void stop() noexcept;

    /// Returns when the I/O thread has ended: after stop(), or because it found no memory, which is in the
    /// log. Any thread except the I/O thread.
    void waitForEnd() noexcept;

    /// The loop on whose I/O thread this is called; null on every other thread.
    static const std::shared_ptr<RvKQueue>* current() noexcept { return here; }

    /// Queues one change record for the I/O thread's next kevent() call; the record is copied.
    ///
    /// change  udata is the endpoint on whose behalf the change is made. Unless the flags have EV_DELETE the
    ///         change is dropped silently when that endpoint is not registered (any more).
    /// Any thread. Without memory: an error line in the log, and the change is lost.
    void submitChange(const struct kevent& change) noexcept;

    /// Queues a copy of `size` bytes for output by the endpoint; the queue has no limit. Returns true, also
    /// for null and for endpoints that cannot write: a failure is reported as event 2. Any thread.
    bool write(RvKQueueEventProtocol* endpoint, const void* buffer, std::uint64_t size) noexcept;
    bool write(const std::shared_ptr<RvKQueueEventProtocol>& endpoint, const void* buffer,
               std::uint64_t size) noexcept {
        return write(endpoint.get(), buffer, size);
    }

    /// Registers an endpoint; the loop holds a strong reference until the endpoint has been retired. The
    /// factories below have done this for what they return. Any thread. Null, or without memory: an error
    /// line.
    void addActiveObject(const std::shared_ptr<RvKQueueEventProtocol>& endpoint) noexcept;

    /// Hands the block to the endpoint and arms its filters: events flow from here on. Some kinds call the
    /// block with event 0 before this returns, on the caller's thread. An empty block is allowed and sees
    /// nothing; a null endpoint is ignored. Any thread.
    void startObject(RvKQueueEventProtocol* endpoint, EventBlock onEvent) noexcept;
    void startObject(const std::shared_ptr<RvKQueueEventProtocol>& endpoint, EventBlock onEvent) noexcept {
        startObject(endpoint.get(), std::move(onEvent));
    }

    /// Has the endpoint retired: it leaves the registry now and is stopped by the I/O thread at the start of
    /// its next turn. Events that the current turn has already collected may still reach it; output that is
    /// still queued is not sent. An endpoint that is not registered (any more) is ignored. Any thread, event
    /// blocks included. Without memory: an error line, and the endpoint stays registered.
    void stopObject(const RvKQueueEventProtocol* endpoint) noexcept;
    void stopObject(const std::shared_ptr<RvKQueueEventProtocol>& endpoint) noexcept {
        stopObject(endpoint.get());
    }

    /// Logs at debug level which endpoint was created for which address.
    ///
    /// label    zero-terminated, "TCP Client" or "TCP Server"
    /// address  IPv4 or IPv6; of any other family the text is "unknown" and the port 0
    void logInet(const char* label, const struct sockaddr* address,
                 const RvKQueueEventProtocol* object) noexcept;

    /// Factories. Each returns a registered endpoint, or null after one error line in the log; the loop and
    /// the caller share it, and the caller need not keep it. Nothing is reported before startObject. Any
    /// thread. The endpoints' headers say what the arguments are; all are copied.
    std::shared_ptr<RvKQueueStreamSocket> createStreamSocket(std::int32_t sock, bool closeOnStop) noexcept;
    std::shared_ptr<RvKQueueTCPClient> createTCPClient(const struct sockaddr* address) noexcept;
    std::shared_ptr<RvKQueueUnixClient> createUnixClient(const char* path) noexcept;
    std::shared_ptr<RvKQueueBipipeClient> createBipipeClient(const std::int32_t* descriptors,
                                                             bool closeOnStop) noexcept;
    std::shared_ptr<RvKQueueTCPServer> createTCPServer(const struct sockaddr* address) noexcept;
    std::shared_ptr<RvKQueueUnixServer> createUnixServer(const char* path, std::uint16_t perm) noexcept;
    std::shared_ptr<RvKQueueTimer> createTimer(std::uint64_t ms, bool oneShot) noexcept;
    std::shared_ptr<RvKQueueBPF> createBPF(const char* interfaceName, std::uint32_t blockLength) noexcept;

    /// Makes a timer under the smallest ident not in use and lists it; registering it is left to createTimer.
    ///
    /// ms     the period or delay in milliseconds; its low 32 bits count
    /// ident  out: the timer's ident; not written on failure
    /// Returns null without memory (after an error line) or when every ident is in use. Any thread.
    std::shared_ptr<RvKQueueTimer> addTimer(std::uint64_t ms, std::int32_t* ident, bool oneShot) noexcept;

    /// Frees the ident of a timer; ignores everything that is not a listed timer of this loop. Any thread.
    void removeTimer(const RvKQueueEventProtocol* object) noexcept;

    /// Whether a listed timer has this ident. Any thread.
    bool isHereTimerIdent(std::int32_t number) noexcept;

  private:
    const char* prepare() noexcept;
    bool isActive(const RvKQueueEventProtocol* endpoint) noexcept;
    bool reserveTimers() noexcept RV_REQUIRES(timersLock);
    bool listTimer(const std::shared_ptr<RvKQueueTimer>& timer, std::int32_t ident) noexcept
        RV_REQUIRES(timersLock);

    static void ioThreadBody(void* loop) noexcept;
    void ioThreadRoutine() noexcept RV_REQUIRES(ioThread);
    bool takeFirstSnapshot() noexcept RV_REQUIRES(ioThread);
    bool refreshSnapshot() noexcept RV_REQUIRES(ioThread, lock);
    void registerWakeup() noexcept RV_REQUIRES(ioThread);
    bool turn() noexcept RV_REQUIRES(ioThread);
    bool joinChanges() noexcept RV_REQUIRES(ioThread, lock);
    bool submitHere(const struct kevent& change) noexcept RV_REQUIRES(ioThread);
    int waitForEvents() noexcept RV_REQUIRES(ioThread);
    void dispatch(int count) noexcept RV_REQUIRES(ioThread);

    [[nodiscard]] EndpointTable releaseStoppedUnlocked() noexcept RV_REQUIRES(lock);
    void resubmit(const ByteBuffer& records, const EndpointTable& stopped) noexcept RV_REQUIRES(lock);
    bool stopRemaining() noexcept;
    void noteActiveChange(const void* endpoint) noexcept RV_REQUIRES(lock);
    bool appendChange(const struct kevent& change, ByteBuffer* list) noexcept;
    void wakeIoThread() noexcept;

    static thread_local const std::shared_ptr<RvKQueue>* here;  ///< see current

    int kq = -1;  ///< owned; closed by stop
    OsLog logger;

    RecursiveLock lock RV_ACQUIRED_BEFORE(timersLock);
    ByteBuffer changeList RV_GUARDED_BY(lock);   ///< struct kevent records, back to back
    EndpointTable stopList RV_GUARDED_BY(lock);  ///< strong; until the next turn has stopped them
    bool activeListChanged RV_GUARDED_BY(lock) = false;
    EndpointTable activeList RV_GUARDED_BY(lock);  ///< strong; until stopObject or stop
    /// Whether changeList has changes or activeList differs from the snapshot. Written under lock; while it
    /// is false the I/O thread submits changes of its own without the lock.
    std::atomic<bool> isTouched = false;
    /// Endpoints that entered or left activeList since the last snapshot: a refresh costs what changed, not
    /// what there is. allActiveChanged says that the list was given up and the whole registry must be copied.
    std::vector<const void*> changedObjects RV_GUARDED_BY(lock);
    bool allActiveChanged RV_GUARDED_BY(lock) = false;

    std::unique_ptr<Thread> ioThread;
    /// Strong, from start until the I/O thread ends: keeps the loop alive.
    std::shared_ptr<RvKQueue> runningSelf;
    /// Set by the I/O thread, under lock, once it has taken the changes and is about to wait; another thread
    /// that clears it owes a wake-up.
    std::atomic<bool> sleeping = false;
    /// Threads that may be about to use wakeup.
    std::atomic<int> signallers = 0;
    std::optional<Wakeup> wakeup;  ///< from prepare to stop, as ticker is
    std::optional<Ticker> ticker;

    EndpointTable snapshot RV_GUARDED_BY(ioThread);  ///< strong; what events are dispatched against
    /// What the I/O thread has submitted since changeList was empty; then what the current turn hands over.
    ByteBuffer changes RV_GUARDED_BY(ioThread);
    ByteBuffer events RV_GUARDED_BY(ioThread);  ///< room for what kevent() returns; never committed

    RecursiveLock timersLock;
    TimerIdents timerIdents RV_GUARDED_BY(timersLock);
    /// The timers at the places of their idents; strong, until they are retired.
    std::vector<std::shared_ptr<RvKQueueTimer>> timerObjects RV_GUARDED_BY(timersLock);
};

#endif
