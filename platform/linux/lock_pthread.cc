/// The recursive lock, made of a pthread mutex.
#include "platform/lock.h"

namespace {

bool makeRecursive(pthread_mutex_t* mutex) noexcept {
    pthread_mutexattr_t attributes;
    if (pthread_mutexattr_init(&attributes) != 0) return false;
    const bool made = pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE) == 0 &&
                      pthread_mutex_init(mutex, &attributes) == 0;
    pthread_mutexattr_destroy(&attributes);
    return made;
}

}  // namespace

RecursiveLock::RecursiveLock() noexcept : mutex(), usable(makeRecursive(&mutex)) {}

RecursiveLock::~RecursiveLock() {
    if (usable) pthread_mutex_destroy(&mutex);
}
