/// The table of event queues by descriptor number: read without a lock, written when a queue is made.
#include "platform/linux/kevent_queue.h"

#include <errno.h>
#include <stdlib.h>

#include <atomic>

namespace rvkevent {

namespace {

constexpr size_t kChunkSize = 1024;
constexpr size_t kChunks = 1024;  // together the kernel's default limit of descriptor numbers

struct Chunk {
    std::atomic<Kqueue*> queues[kChunkSize];
};

std::atomic<Chunk*> chunks[kChunks];
std::atomic<uint64_t> process{1};
pthread_mutex_t makeLock = PTHREAD_MUTEX_INITIALIZER;
pthread_once_t atForkOnce = PTHREAD_ONCE_INIT;
int atForkError = 0;

/// The child of a fork has no queues: what it inherited belongs to its parent, as on the systems kqueue comes
/// from. Locks that other threads of the parent held are never looked at again.
void inChild() {
    process.fetch_add(1, std::memory_order_relaxed);
    makeLock = PTHREAD_MUTEX_INITIALIZER;
}

void registerAtFork() {
    atForkError = pthread_atfork(nullptr, nullptr, inChild);
}

std::atomic<Kqueue*>* slotOf(int fd, bool make) {
    const size_t number = static_cast<size_t>(fd);
    if (fd < 0 || number >= kChunks * kChunkSize) return nullptr;
    std::atomic<Chunk*>& place = chunks[number / kChunkSize];
    Chunk* chunk = place.load(std::memory_order_acquire);
    if (chunk == nullptr && make) {
        chunk = static_cast<Chunk*>(calloc(1, sizeof(Chunk)));
        place.store(chunk, std::memory_order_release);
    }
    return chunk == nullptr ? nullptr : &chunk->queues[number % kChunkSize];
}

void resetQueue(Kqueue& queue, int fd) {
    const QueueLock guard(queue);
    clearKnotes(queue.knotes);
    clearTimers(queue.timers);
    queue.fd = fd;
    ++queue.instance;
    queue.pollsChanged = false;
    queue.tickNs = 0;
    queue.ticking = false;
    queue.busy = 0;
    queue.uncounted = false;
    queue.epollSkipped = false;
}

bool makeQueueLocked(int fd) {
    std::atomic<Kqueue*>* slot = slotOf(fd, true);
    if (slot == nullptr) return false;
    Kqueue* queue = slot->load(std::memory_order_acquire);
    if (queue == nullptr || queue->process != currentProcess()) {
        auto* made = static_cast<Kqueue*>(calloc(1, sizeof(Kqueue)));
        if (made == nullptr) return false;
        (void)pthread_mutex_init(&made->lock, nullptr);  // cannot fail for a plain mutex
        made->process = currentProcess();
        made->older = queue;
        queue = made;
    }
    resetQueue(*queue, fd);
    slot->store(queue, std::memory_order_release);
    return true;
}

}  // namespace

uint64_t currentProcess() {
    return process.load(std::memory_order_relaxed);
}

Kqueue* findQueue(int kq) {
    std::atomic<Kqueue*>* slot = slotOf(kq, false);
    Kqueue* queue = slot == nullptr ? nullptr : slot->load(std::memory_order_acquire);
    if (queue != nullptr && queue->process == currentProcess()) return queue;
    errno = EBADF;
    return nullptr;
}

bool makeQueue(int fd) {
    (void)pthread_once(&atForkOnce, registerAtFork);
    if (atForkError != 0) {
        errno = atForkError;
        return false;
    }
    (void)pthread_mutex_lock(&makeLock);
    const bool made = makeQueueLocked(fd);
    (void)pthread_mutex_unlock(&makeLock);
    if (!made) errno = ENOMEM;
    return made;
}

}  // namespace rvkevent
