#include "unit/libio-macOS/support/faults.h"

#include <pthread.h>
#include <sys/socket.h>
#include <time.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <new>

namespace {

using faults::Kind;

struct Plan {
    Kind kind = Kind::kMemory;
    int before = 0;  // calls that succeed before the first failure
    int times = 0;   // failures still to come
};

thread_local Plan planHere;
thread_local int suspensions = 0;
thread_local bool isExempt = false;

constinit std::atomic<int> kindElsewhere{-1};
constinit std::atomic<int> beforeElsewhere{0};  // calls that succeed before the failure
constinit std::atomic<bool> failureHappened{false};
constinit std::atomic<std::int64_t> secondsSlept{0};
constinit std::atomic<std::int64_t> longestSleep{0};
constinit std::atomic<int> closesInVain{0};

bool matches(Kind asked, Kind called) {
    if (asked == called) return true;
    return asked == Kind::kMemory && (called == Kind::kNew || called == Kind::kRealloc);
}

bool shouldFail(Kind called) {
    if (suspensions > 0) return false;
    if (planHere.times > 0 && matches(planHere.kind, called) && planHere.before-- <= 0) {
        --planHere.times;
        failureHappened = true;
        return true;
    }
    int asked = kindElsewhere.load();
    if (isExempt || asked == -1 || !matches(static_cast<Kind>(asked), called)) return false;
    if (beforeElsewhere-- > 0) return false;
    if (!kindElsewhere.compare_exchange_strong(asked, -1)) return false;
    failureHappened = true;
    return true;
}

}  // namespace

void faults::failHere(Kind kind, int nth, int times) {
    failureHappened = false;
    planHere = {kind, nth - 1, times};
}

void faults::failElsewhere(Kind kind, int nth) {
    failureHappened = false;
    isExempt = true;
    beforeElsewhere = nth - 1;
    kindElsewhere = static_cast<int>(kind);
}

bool faults::hasFailed() {
    planHere.times = 0;
    kindElsewhere = -1;
    return failureHappened.exchange(false);
}

faults::Suspension::Suspension() {
    ++suspensions;
}
faults::Suspension::~Suspension() {
    --suspensions;
}

std::int64_t faults::sleptSeconds() {
    return secondsSlept;
}

std::int64_t faults::longestSleepSeconds() {
    return longestSleep;
}

int faults::vainCloses() {
    return closesInVain;
}

void* operator new(std::size_t size) {
    if (shouldFail(Kind::kNew)) throw std::bad_alloc();
    if (void* const memory = std::malloc(size == 0 ? 1 : size)) return memory;
    throw std::bad_alloc();
}

void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap fixes these names
extern "C" {

void* __real_realloc(void* memory, std::size_t size);
int __real_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __real_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __real_eventfd(unsigned int initial, int flags);
int __real_socket(int family, int type, int protocol);
int __real_listen(int sock, int backlog);
int __real_accept4(int sock, struct sockaddr* address, socklen_t* length, int flags);
int __real_nanosleep(const struct timespec* wanted, struct timespec* left);
int __real_close(int descriptor);

void* __wrap_realloc(void* memory, std::size_t size);
int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes);
int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument);
int __wrap_eventfd(unsigned int initial, int flags);
int __wrap_socket(int family, int type, int protocol);
int __wrap_listen(int sock, int backlog);
int __wrap_accept4(int sock, struct sockaddr* address, socklen_t* length, int flags);
int __wrap_nanosleep(const struct timespec* wanted, struct timespec* left);
int __wrap_close(int descriptor);

void* __wrap_realloc(void* memory, std::size_t size) {
    return shouldFail(Kind::kRealloc) ? nullptr : __real_realloc(memory, size);
}

int __wrap_pthread_mutex_init(pthread_mutex_t* mutex, const pthread_mutexattr_t* attributes) {
    return shouldFail(Kind::kMutex) ? ENOMEM : __real_pthread_mutex_init(mutex, attributes);
}

int __wrap_pthread_create(pthread_t* thread, const pthread_attr_t* attributes, void* (*body)(void*),
                          void* argument) {
    return shouldFail(Kind::kThread) ? EAGAIN : __real_pthread_create(thread, attributes, body, argument);
}

int __wrap_eventfd(unsigned int initial, int flags) {
    if (!shouldFail(Kind::kEventfd)) return __real_eventfd(initial, flags);
    errno = EMFILE;
    return -1;
}

int __wrap_socket(int family, int type, int protocol) {
    if (!shouldFail(Kind::kSocket)) return __real_socket(family, type, protocol);
    errno = EMFILE;
    return -1;
}

int __wrap_listen(int sock, int backlog) {
    if (!shouldFail(Kind::kListen)) return __real_listen(sock, backlog);
    errno = EADDRINUSE;
    return -1;
}

int __wrap_accept4(int sock, struct sockaddr* address, socklen_t* length, int flags) {
    if (!shouldFail(Kind::kAccept)) return __real_accept4(sock, address, length, flags);
    errno = EMFILE;
    return -1;
}

int __wrap_nanosleep(const struct timespec* wanted, struct timespec* left) {
    secondsSlept += wanted->tv_sec;
    if (wanted->tv_sec > longestSleep) longestSleep = wanted->tv_sec;
    return __real_nanosleep(wanted, left);
}

int __wrap_close(int descriptor) {
    const int result = __real_close(descriptor);
    if (result == -1 && errno == EBADF) ++closesInVain;
    return result;
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)
