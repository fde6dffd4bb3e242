/// Failures on demand: allocations, locks, threads and descriptors of a program linked with
/// --wrap=realloc,pthread_mutex_init,pthread_create,eventfd,socket,listen,accept4,nanosleep,close. The
/// program's operator new is replaced.
#ifndef RV_TESTS_ENGINE_FAULTS_H
#define RV_TESTS_ENGINE_FAULTS_H

#include <cstdint>

namespace faults {

/// What can be made to fail. kMemory is operator new and realloc together.
enum class Kind { kMemory, kNew, kRealloc, kMutex, kThread, kEventfd, kSocket, kListen, kAccept };

/// Makes the n-th call (1: the next) of this kind on this thread fail, and `times` - 1 calls after it.
void failHere(Kind kind, int nth, int times = 1);
/// Makes the n-th call of this kind on any thread but this one fail, once.
void failElsewhere(Kind kind, int nth = 1);
/// Whether the failure asked for has happened. Forgets it.
bool hasFailed();

/// No failure happens to this thread during its lifetime.
class Suspension {
  public:
    Suspension();
    ~Suspension();
    Suspension(const Suspension&) = delete;
    Suspension& operator=(const Suspension&) = delete;
};

/// Seconds that nanosleep was asked for on any thread, in all, and the most in one call.
std::int64_t sleptSeconds();
std::int64_t longestSleepSeconds();

/// How many calls of close on any thread were given a number that is not open.
int vainCloses();

}  // namespace faults

#endif
