/// The waking descriptor: an eventfd that always stays readable and is armed with EPOLLONESHOT where it is
/// needed.
#include "platform/linux/kevent_wake.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>

namespace rvkevent {

namespace {

std::atomic<int> wakeFd{-1};

/// Makes the descriptor if it is not there. Nothing can be done if that fails, or if epoll does not take it:
/// waiting threads then see the news when their time-out ends.
int makeWakeFd(int stale) {
    const int made = eventfd(1, EFD_CLOEXEC | EFD_NONBLOCK);
    if (made == -1) return -1;
    if (wakeFd.compare_exchange_strong(stale, made)) return made;
    (void)close(made);  // another thread was faster
    return stale;
}

int arm(int epoll, uint32_t events) {
    int fd = wakeFd.load();
    for (int tries = 0; tries < 2; ++tries) {
        if (fd == -1) fd = makeWakeFd(fd);
        if (fd == -1) return -1;
        epoll_event event{};
        event.events = events;
        event.data.u64 = kWakeTag;
        if (epoll_ctl(epoll, EPOLL_CTL_MOD, fd, &event) == 0) return fd;
        if (errno == ENOENT && epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) == 0) return fd;
        const bool lost = errno == EPERM || fcntl(fd, F_GETFD) == -1;
        if (!lost) return -1;
        fd = makeWakeFd(fd);  // somebody closed it, with all descriptors perhaps
    }
    return -1;
}

}  // namespace

int wakeOne(int epoll) {
    return arm(epoll, EPOLLIN | EPOLLONESHOT);
}

void wakeAll(int epoll) {
    (void)arm(epoll, EPOLLIN);
}

}  // namespace rvkevent
