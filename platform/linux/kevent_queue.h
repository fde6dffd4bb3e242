/// One kernel event queue, and the table that finds it by descriptor number.
///
/// The queue's descriptor is the epoll instance itself and no other descriptor belongs to it, so that a plain
/// close(2) frees all the kernel holds. The memory of a closed queue is kept for the next queue under the
/// same number.
#ifndef RV_PLATFORM_LINUX_KEVENT_QUEUE_H
#define RV_PLATFORM_LINUX_KEVENT_QUEUE_H

#include <pthread.h>
#include <stdint.h>

#include "platform/linux/kevent_knotes.h"
#include "platform/linux/kevent_timers.h"

namespace rvkevent {

/// Everything but `process` and `older` is guarded by `lock`, which is never held during a wait.
struct Kqueue {
    pthread_mutex_t lock;
    uint64_t process;   // constant: the process that made it; a forked child is another one
    Kqueue* older;      // constant: a queue under this number that a fork left behind
    int fd;             // the epoll instance
    uint64_t instance;  // counts the queues that had this number
    uint64_t call;      // counts the calls of kevent()
    uint64_t changes;   // counts the changes of descriptors' registrations
    uint32_t generations;
    int waiters;        // threads that wait in epoll
    uint32_t turn;      // of the sources of events
    int64_t tickNs;     // how long a wait may be left to tickFd; 0: there is none
    int tickFd;         // ticks once more after each read
    uint32_t busy;      // waits that ended with events, since the last tick or time-out
    bool ticking;       // waits are left to tickFd
    bool pollsChanged;  // a timer or a polled entry is new: a waiting thread must look again
    bool kernelSeen;    // in this call epoll accepted the descriptor
    bool uncounted;     // the caller counts bytes by taking them
    bool epollSkipped;  // the call before did not ask epoll
    KnoteTable knotes;
    TimerSet timers;
};

/// The queue under a descriptor number, or null with errno EBADF if kqueue() never returned this number in
/// this process. Takes no lock.
Kqueue* findQueue(int kq);

/// Gives the new epoll instance `fd` an empty queue. Returns false with errno.
bool makeQueue(int fd);

/// The number of this process: a fork changes it in the child.
uint64_t currentProcess();

/// Locks a queue for a scope.
class QueueLock {
  public:
    explicit QueueLock(Kqueue& queue) : queue_(queue) { (void)pthread_mutex_lock(&queue_.lock); }
    ~QueueLock() { (void)pthread_mutex_unlock(&queue_.lock); }
    QueueLock(const QueueLock&) = delete;
    QueueLock& operator=(const QueueLock&) = delete;

  private:
    Kqueue& queue_;
};

}  // namespace rvkevent

#endif
