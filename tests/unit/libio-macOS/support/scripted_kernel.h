/// A kernel event queue that the test case plays: kqueue() and kevent() of a program linked with
/// --wrap=kqueue --wrap=kevent. It keeps what it is handed and returns what it is told to.
#ifndef RV_TESTS_ENGINE_SCRIPTED_KERNEL_H
#define RV_TESTS_ENGINE_SCRIPTED_KERNEL_H

#include <functional>
#include <thread>
#include <vector>

#include "platform/kevent.h"

struct KernelCall {
    std::vector<struct kevent> changes;
    int room;
    struct timespec timeout;
    std::thread::id thread;
};

namespace scripted_kernel {

/// Forgets calls and batches; time-outs count again.
void reset();
/// One of the next kevent() calls returns these records; batches come one a call, in order.
void deliver(std::vector<struct kevent> batch);
/// One of the next kevent() calls returns -1 with this errno.
void fail(int error);
/// The next kqueue() calls return -1 with EMFILE, until told otherwise.
void refuseQueues(bool refuse);

/// From now on a call ends only with a batch or when the loop is woken up, whatever its time-out, until the
/// time-outs count again. Returns once the I/O thread waits in such a call.
void ignoreTimeouts();
void heedTimeouts();
/// How often the loop has been woken up since time-outs are ignored.
int wakeUps();

/// The calls so far, without the one that registers the loop's wake-up.
std::vector<KernelCall> calls();
/// That one.
KernelCall registrationOfTheWakeUp();
/// All changes handed over so far that have an endpoint, in order.
std::vector<struct kevent> changes();
/// Wait until every batch has been returned and a further call has been made after it; until a change comes
/// that the condition holds for. False after a generous limit.
bool waitForBatches();
bool waitForChange(const std::function<bool(const struct kevent&)>& condition);

}  // namespace scripted_kernel

#endif
