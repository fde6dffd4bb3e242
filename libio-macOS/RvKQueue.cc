#include "libio-macOS/RvKQueue.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <exception>
#include <thread>

#include "libio-macOS/RvKQueueTimer.h"

namespace {

constexpr long kTurnTimeoutNs = 5'000'000;
constexpr std::size_t kMaxEvents = 1000;
constexpr std::size_t kInitialChangeBytes = 3200;
constexpr std::size_t kInitialStopObjects = 100;
constexpr std::size_t kInitialObjects = 16;
constexpr std::size_t kAddressTextBytes = 100;
constexpr std::chrono::seconds kStopPoll{1};
// A timer this long can wait for the end of the current turn, which is at most a twentieth of it.
constexpr std::int64_t kPatientTimerMs = 100;

// Where an address has its port and its bytes; empty for a family without them.
struct InetParts {
    std::uint16_t bigEndianPort = 0;
    const void* bytes = nullptr;
};

InetParts inetParts(const struct sockaddr* address) noexcept {
    if (address->sa_family == AF_INET) {
        const auto* in4 = reinterpret_cast<const struct sockaddr_in*>(address);
        return {in4->sin_port, &in4->sin_addr};
    }
    if (address->sa_family == AF_INET6) {
        const auto* in6 = reinterpret_cast<const struct sockaddr_in6*>(address);
        return {in6->sin6_port, &in6->sin6_addr};
    }
    return {};
}

bool isPatient(const struct kevent& change) noexcept {
    return change.filter == EVFILT_TIMER && change.data >= kPatientTimerMs;
}

}  // namespace

thread_local const std::shared_ptr<RvKQueue>* RvKQueue::here = nullptr;

std::shared_ptr<RvKQueue> RvKQueue::initWithSubsystem(const char* subsystem) noexcept try {
    auto loop = std::make_shared<RvKQueue>(Key{}, subsystem);
    if (const char* const failure = loop->prepare()) {
        RV_LOG_ERROR(loop->logger, "%s", failure);
        return nullptr;
    }
    RV_LOG_DEBUG(loop->logger, "kqueue is initialized");
    return loop;
} catch (const std::exception&) {
    return nullptr;
}

RvKQueue::RvKQueue(Key, const char* subsystem) noexcept : logger(OsLog::create(subsystem, "kqueue")) {}

RvKQueue::~RvKQueue() {
    if (kq != -1) (void)close(kq);  // nothing is left to undo
}

// Acquires what can be refused, in this order. Returns the message of what was refused, or null.
const char* RvKQueue::prepare() noexcept {
    if (!timersLock.isUsable()) return "cannot initialize timer lock";
    {
        const LockGuard guard(timersLock);
        if (!timerIdents.reserve()) return "cannot initialize timer id dict";
        if (!reserveTimers()) return "cannot initialize timer obj dict";
    }
    if (!lock.isUsable()) return "cannot initialize lock";
    {
        const LockGuard guard(lock);
        if (changeList.prepare(kInitialChangeBytes) == nullptr) return "cannot initialize change list";
        if (!stopList.reserve(kInitialStopObjects)) return "cannot initialize stop list";
        if (!activeList.reserve(kInitialObjects)) return "cannot initialize active list";
    }
    kq = kqueue();
    if (kq == -1) return "cannot initialize kqueue";
    keventLeaveUncounted(kq);
    ioThread = Thread::create(&ioThreadBody, this);
    if (!ioThread) return "cannot initialize io thread";
    wakeup.emplace();  // the loop can do without either
    ticker.emplace(kTurnTimeoutNs);
    return nullptr;
}

bool RvKQueue::reserveTimers() noexcept try {
    timerObjects.reserve(kInitialObjects);
    return true;
} catch (const std::exception&) {
    return false;
}

void RvKQueue::start() noexcept {
    runningSelf = shared_from_this();
    ioThread->start();
    RV_LOG_DEBUG(logger, "kqueue io thread is started");
}

void RvKQueue::stop() noexcept {
    ioThread->cancel();
    // Deliberate: the thread is looked at once a second and not joined, so that stopping a running loop takes
    // its second. Owners rely on events that were under way having been delivered by then. Held by
    // RvKQueueStop.TakesAboutASecond.
    while (!ioThread->isFinished()) std::this_thread::sleep_for(kStopPoll);
    while (stopRemaining()) {
    }
    (void)close(kq);  // nothing is left to undo
    kq = -1;
    while (signallers.load() != 0) std::this_thread::yield();
    wakeup.reset();
    ticker.reset();
}

void RvKQueue::waitForEnd() noexcept {
    ioThread->waitForEnd();
}

// Stops what is registered or retiring. Returns whether there was anything: destructors of what the blocks
// had captured may have added more. The objects themselves go away after the lock is released.
bool RvKQueue::stopRemaining() noexcept {
    EndpointTable retired;
    EndpointTable active;
    const LockGuard guard(lock);
    retired = releaseStoppedUnlocked();
    active.swap(activeList);
    active.forEach([](const auto& endpoint) { endpoint->stop(); });
    return !retired.isEmpty() || !active.isEmpty();
}

// Stops the endpoints of the stop list and returns them, so that the caller destroys them without the lock.
//
// The deletions that they submit go before the changes that were waiting: a descriptor that its owner has
// already handed to a new endpoint must not lose that endpoint's filters. Additions that the stopped ones had
// left waiting are dropped, unless they have been registered again; their descriptor number may belong to
// another file by the time of the call.
EndpointTable RvKQueue::releaseStoppedUnlocked() noexcept {
    EndpointTable stopped;
    if (stopList.isEmpty()) return stopped;
    stopped.swap(stopList);
    ByteBuffer waiting;
    waiting.swap(changeList);
    stopped.forEach([this](const auto& endpoint) {
        removeTimer(endpoint.get());
        endpoint->stop();
    });
    resubmit(waiting, stopped);
    return stopped;
}

void RvKQueue::resubmit(const ByteBuffer& records, const EndpointTable& stopped) noexcept {
    const std::size_t count = records.size() / sizeof(struct kevent);
    for (std::size_t i = 0; i < count; ++i) {
        struct kevent change;
        std::memcpy(&change, records.data() + i * sizeof change, sizeof change);
        const bool isDelete = (change.flags & EV_DELETE) != 0;
        if (isDelete || !stopped.contains(change.udata) || activeList.contains(change.udata)) {
            (void)appendChange(change, &changeList);
        }
    }
}

// Deliberate: an endpoint that has left the registry can still remove its filters, which its stop does after
// it has left, but never add new ones. Held by RvKQueueScript.AnAdditionForAnUnregisteredEndpointIsDropped.
void RvKQueue::submitChange(const struct kevent& change) noexcept {
    if (here != nullptr && here->get() == this) {
        ioThread->assertCurrent();
        if (submitHere(change)) return;
    }
    {
        const LockGuard guard(lock);
        const bool isDelete = (change.flags & EV_DELETE) != 0;
        if (!isDelete && !activeList.contains(change.udata)) return;
        if (!appendChange(change, &changeList)) return;
        isTouched.store(true, std::memory_order_relaxed);
    }
    if (!isPatient(change)) wakeIoThread();
}

// The same for the I/O thread alone, as long as its snapshot is the registry and nobody's changes wait that
// ought to go before its own. Returns false when that is not so.
bool RvKQueue::submitHere(const struct kevent& change) noexcept {
    if (isTouched.load(std::memory_order_relaxed)) return false;
    const bool isDelete = (change.flags & EV_DELETE) != 0;
    if (isDelete || snapshot.contains(change.udata)) (void)appendChange(change, &changes);
    return true;
}

bool RvKQueue::appendChange(const struct kevent& change, ByteBuffer* list) noexcept {
    const bool appended = list->append(&change, sizeof change);
    if (!appended) RV_LOG_ERROR(logger, "<%p>: cannot submit change", change.udata);
    return appended;
}

void RvKQueue::wakeIoThread() noexcept {
    if (!sleeping.load(std::memory_order_relaxed)) return;
    signallers.fetch_add(1);
    if (sleeping.exchange(false)) wakeup->signal();
    signallers.fetch_sub(1);
}

// Deliberate: true whatever happened, also for endpoints that cannot write: what becomes of output is known
// only later and reported as event 2. Held by RvKQueueRun.WriteIsTrueForEndpointsThatCannotWrite.
bool RvKQueue::write(RvKQueueEventProtocol* endpoint, const void* buffer, std::uint64_t size) noexcept {
    if (endpoint != nullptr) endpoint->write(buffer, size);
    return true;
}

void RvKQueue::startObject(RvKQueueEventProtocol* endpoint, EventBlock onEvent) noexcept {
    if (endpoint != nullptr) endpoint->enableOnData(std::move(onEvent));
}

void RvKQueue::addActiveObject(const std::shared_ptr<RvKQueueEventProtocol>& endpoint) noexcept {
    const LockGuard guard(lock);
    if (endpoint && activeList.insert(endpoint)) {
        noteActiveChange(endpoint.get());
        return;
    }
    RV_LOG_ERROR(logger, "<%p>: cannot be added", static_cast<void*>(endpoint.get()));
}

bool RvKQueue::isActive(const RvKQueueEventProtocol* endpoint) noexcept {
    const LockGuard guard(lock);
    return activeList.contains(endpoint);
}

void RvKQueue::stopObject(const RvKQueueEventProtocol* endpoint) noexcept {
    bool isUrgent = true;
    {
        const LockGuard guard(lock);
        EndpointTable::Pointer object = activeList.take(endpoint);
        if (!object) return;
        // What is left of a stopped timer is nothing that anybody would miss before the turn ends by itself.
        isUrgent = object->timerIdent() < 0;
        if (!stopList.insert(object)) {
            (void)activeList.insert(std::move(object));  // has room: one has just left
            RV_LOG_ERROR(logger, "<%p>: cannot stop object", static_cast<const void*>(endpoint));
            return;
        }
        noteActiveChange(endpoint);
    }
    if (isUrgent) wakeIoThread();
}

void RvKQueue::noteActiveChange(const void* endpoint) noexcept {
    activeListChanged = true;
    isTouched.store(true, std::memory_order_relaxed);
    if (allActiveChanged) return;
    // Once there are more changes than endpoints a copy of everything is the cheaper refresh.
    allActiveChanged = changedObjects.size() > 2 * activeList.size() + kInitialObjects;
    try {
        if (!allActiveChanged) changedObjects.push_back(endpoint);
    } catch (const std::exception&) {
        allActiveChanged = true;
    }
    if (allActiveChanged) changedObjects.clear();
}

void RvKQueue::removeTimer(const RvKQueueEventProtocol* object) noexcept {
    const LockGuard guard(timersLock);
    const std::int32_t ident = object == nullptr ? -1 : object->timerIdent();
    if (!timerIdents.contains(ident)) return;
    std::shared_ptr<RvKQueueTimer>& timer = timerObjects[static_cast<std::size_t>(ident)];
    if (timer.get() != object) return;
    timer.reset();
    timerIdents.erase(ident);
}

bool RvKQueue::isHereTimerIdent(std::int32_t number) noexcept {
    const LockGuard guard(timersLock);
    return timerIdents.contains(number);
}

void RvKQueue::logInet(const char* label, const struct sockaddr* address,
                       const RvKQueueEventProtocol* object) noexcept {
    if (!logger.isEnabled(LogLevel::kDebug)) return;
    const InetParts parts = inetParts(address);
    char text[kAddressTextBytes];
    const bool isKnown =
        parts.bytes != nullptr && inet_ntop(address->sa_family, parts.bytes, text, sizeof text) != nullptr;
    RV_LOG_DEBUG(logger, "<%p>: %s (%s:%hu) created", static_cast<const void*>(object), label,
                 isKnown ? text : "unknown", ntohs(parts.bigEndianPort));
}

void RvKQueue::ioThreadBody(void* loop) noexcept {
    // The loop's own reference ends with this function; the loop may then go away on this thread.
    const std::shared_ptr<RvKQueue> self = std::move(static_cast<RvKQueue*>(loop)->runningSelf);
    self->ioThread->assertCurrent();
    here = &self;
    self->ioThreadRoutine();
    here = nullptr;
    self->snapshot.clear();
}

void RvKQueue::ioThreadRoutine() noexcept {
    RV_LOG_DEBUG(logger, "io thread started");
    char* const eventList = events.prepare(kMaxEvents * sizeof(struct kevent));
    // The two lists of changes swap places each turn: both have their room from the start.
    if (eventList == nullptr || changes.prepare(kInitialChangeBytes) == nullptr) {
        RV_LOG_ERROR(logger, "cannot initialize event list");
        return;
    }
    std::memset(eventList, 0, kMaxEvents * sizeof(struct kevent));
    if (!takeFirstSnapshot()) {
        RV_LOG_ERROR(logger, "cannot initialize active list");
        return;
    }
    if (ioThread->isCancelled()) return;
    registerWakeup();
    while (turn() && !ioThread->isCancelled()) {
    }
}

bool RvKQueue::takeFirstSnapshot() noexcept {
    const LockGuard guard(lock);
    allActiveChanged = true;
    return refreshSnapshot();
}

// Makes the snapshot equal to the registry. Returns false without memory.
bool RvKQueue::refreshSnapshot() noexcept {
    if (allActiveChanged && !snapshot.copyFrom(activeList)) return false;
    for (const void* const object : changedObjects) {
        const EndpointTable::Pointer* const active = activeList.find(object);
        // What was there under this address before may have been another object.
        (void)snapshot.take(object);
        if (active != nullptr && !snapshot.insert(*active)) return false;
    }
    changedObjects.clear();
    allActiveChanged = false;
    activeListChanged = false;
    return true;
}

// Has the queue end its wait when another thread signals. The record has no endpoint, so its events are
// ignored.
void RvKQueue::registerWakeup() noexcept {
    if (ticker->isUsable()) keventTick(kq, ticker->descriptor(), kTurnTimeoutNs);
    if (!wakeup->isUsable()) return;  // requests then wait for the end of the turn
    const struct kevent change = {static_cast<std::uint64_t>(wakeup->descriptor()),
                                  EVFILT_READ,
                                  EV_ADD | EV_ENABLE | EV_CLEAR,
                                  0,
                                  0,
                                  nullptr};
    struct kevent receipt;
    const struct timespec noWait = {0, 0};
    (void)::kevent(kq, &change, 1, &receipt, 1, &noWait);  // without it requests wait for the end of the turn
}

// Puts what the I/O thread has submitted before the changes of others, which came later. Returns false
// without memory, and then both lists are as they were.
bool RvKQueue::joinChanges() noexcept {
    if (!changes.append(changeList.data(), changeList.size())) return false;
    changeList.clear();
    changes.swap(changeList);
    return true;
}

bool RvKQueue::turn() noexcept {
    EndpointTable retired;
    {
        const LockGuard guard(lock);
        // If the lists cannot be joined, all that others have asked for is left to the next turn.
        if (isTouched.load(std::memory_order_relaxed) && joinChanges()) {
            retired = releaseStoppedUnlocked();
            if (activeListChanged && !refreshSnapshot()) {
                RV_LOG_ERROR(logger, "copying active list error");
                return false;
            }
            changes.swap(changeList);
            // What a stopped endpoint had captured may have asked for more as it went away.
            isTouched.store(activeListChanged || !stopList.isEmpty(), std::memory_order_relaxed);
        }
        sleeping.store(true, std::memory_order_relaxed);
    }
    retired.clear();
    dispatch(waitForEvents());
    return true;
}

int RvKQueue::waitForEvents() noexcept {
    const std::size_t changeCount = changes.size() / sizeof(struct kevent);
    // Changes that fail return a record each, and one without room for it would keep the rest of the list
    // from being applied: thousands of fired one-shot timers retired at once are enough.
    std::size_t room = std::max(kMaxEvents, changeCount);
    if (events.prepare(room * sizeof(struct kevent)) == nullptr) room = kMaxEvents;
    const struct timespec timeout = {0, kTurnTimeoutNs};
    const int count =
        ::kevent(kq, reinterpret_cast<const struct kevent*>(changes.data()), static_cast<int>(changeCount),
                 reinterpret_cast<struct kevent*>(events.data()), static_cast<int>(room), &timeout);
    sleeping.store(false, std::memory_order_relaxed);
    changes.drop(changes.size());
    return count;
}

// A count of 0 or -1 (time-out, interruption, error) has nothing to dispatch.
void RvKQueue::dispatch(int count) noexcept {
    auto* const records = reinterpret_cast<struct kevent*>(events.data());
    for (int i = 0; i < count; ++i) {
        // The receipt of a deletion that failed; true events never carry the flag.
        if ((records[i].flags & EV_DELETE) != 0) continue;
        const EndpointTable::Pointer* const found = snapshot.find(records[i].udata);
        if (found == nullptr) continue;
        RvKQueueEventProtocol& endpoint = **found;
        if (endpoint.takesUncounted() || keventCount(&records[i]) != 0) endpoint.kevent(&records[i]);
    }
}
