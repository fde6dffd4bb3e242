#include "unit/libio-macOS/support/scripted_kernel.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <mutex>

#include "unit/libio-macOS/support/recorder.h"

namespace {

struct Reply {
    std::vector<struct kevent> records;
    int error = 0;
};

struct Kernel {
    std::mutex mutex;
    std::condition_variable changed;
    std::deque<Reply> replies;
    std::vector<KernelCall> calls;
    KernelCall registration = {};
    bool owesCall = false;  // a batch was returned and no call has been made since
    bool refusesQueues = false;
    bool ignoresTimeouts = false;
    bool isWaiting = false;  // a call waits without a time-out
    int wakeUps = 0;
};

// Never destroyed: an I/O thread may still be waiting while the process ends.
Kernel& kernel() {
    static Kernel* const instance = new Kernel;
    return *instance;
}

bool isWakeupRegistration(const KernelCall& call) {
    return call.changes.size() == 1 && call.changes[0].udata == nullptr;
}

// Takes from the wake-up descriptor what has been signalled; whether there was anything.
bool takeWakeUps(Kernel& k) {
    std::uint64_t count = 0;
    if (k.registration.changes.empty()) return false;
    if (read(static_cast<int>(k.registration.changes[0].ident), &count, sizeof count) != sizeof count)
        return false;
    k.wakeUps += static_cast<int>(count);
    return true;
}

}  // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the linker's --wrap fixes these names
extern "C" {

int __wrap_kqueue();
int __wrap_kevent(int kq, const struct kevent* changelist, int nchanges, struct kevent* eventlist,
                  int nevents, const struct timespec* timeout);

int __wrap_kqueue() {
    Kernel& k = kernel();
    const std::lock_guard guard(k.mutex);
    errno = EMFILE;
    return k.refusesQueues ? -1 : open("/dev/null", O_RDONLY | O_CLOEXEC);
}

int __wrap_kevent(int, const struct kevent* changelist, int nchanges, struct kevent* eventlist, int nevents,
                  const struct timespec* timeout) {
    Kernel& k = kernel();
    std::unique_lock guard(k.mutex);
    const KernelCall call = {
        {changelist, changelist + nchanges}, nevents, *timeout, std::this_thread::get_id()};
    if (isWakeupRegistration(call)) {
        k.registration = call;
        return 0;
    }
    k.calls.push_back(call);
    k.owesCall = false;
    k.changed.notify_all();
    const auto wait = std::chrono::seconds(timeout->tv_sec) + std::chrono::nanoseconds(timeout->tv_nsec);
    while (k.ignoresTimeouts && k.replies.empty() && !takeWakeUps(k)) {
        k.isWaiting = true;
        k.changed.notify_all();
        k.changed.wait_for(guard, std::chrono::milliseconds(1));
    }
    k.isWaiting = false;
    if (!k.ignoresTimeouts) k.changed.wait_for(guard, wait, [&] { return !k.replies.empty(); });
    if (k.replies.empty()) return 0;
    const Reply reply = k.replies.front();
    k.replies.pop_front();
    k.owesCall = true;
    std::copy(reply.records.begin(), reply.records.end(), eventlist);
    errno = reply.error;
    return reply.error != 0 ? -1 : static_cast<int>(reply.records.size());
}

}  // extern "C"
// NOLINTEND(bugprone-reserved-identifier)

void scripted_kernel::reset() {
    Kernel& k = kernel();
    const std::lock_guard guard(k.mutex);
    k.replies.clear();
    k.calls.clear();
    k.owesCall = false;
    k.registration = {};
    k.refusesQueues = false;
    k.ignoresTimeouts = false;
    k.wakeUps = 0;
}

void scripted_kernel::deliver(std::vector<struct kevent> batch) {
    Kernel& k = kernel();
    const std::lock_guard guard(k.mutex);
    k.replies.push_back({std::move(batch), 0});
    k.changed.notify_all();
}

void scripted_kernel::fail(int error) {
    Kernel& k = kernel();
    const std::lock_guard guard(k.mutex);
    k.replies.push_back({{}, error});
    k.changed.notify_all();
}

void scripted_kernel::refuseQueues(bool refuse) {
    Kernel& k = kernel();
    const std::lock_guard guard(k.mutex);
    k.refusesQueues = refuse;
}

void scripted_kernel::ignoreTimeouts() {
    Kernel& k = kernel();
    std::unique_lock guard(k.mutex);
    (void)takeWakeUps(k);  // those of the turns before
    k.wakeUps = 0;
    k.ignoresTimeouts = true;
    k.changed.wait_for(guard, kWaitLimit, [&] { return k.isWaiting; });
}

void scripted_kernel::heedTimeouts() {
    Kernel& k = kernel();
    const std::lock_guard guard(k.mutex);
    k.ignoresTimeouts = false;
}

int scripted_kernel::wakeUps() {
    Kernel& k = kernel();
    const std::lock_guard guard(k.mutex);
    (void)takeWakeUps(k);
    return k.wakeUps;
}

KernelCall scripted_kernel::registrationOfTheWakeUp() {
    Kernel& k = kernel();
    const std::lock_guard guard(k.mutex);
    return k.registration;
}

std::vector<KernelCall> scripted_kernel::calls() {
    Kernel& k = kernel();
    const std::lock_guard guard(k.mutex);
    return k.calls;
}

std::vector<struct kevent> scripted_kernel::changes() {
    std::vector<struct kevent> all;
    for (const KernelCall& call : calls()) all.insert(all.end(), call.changes.begin(), call.changes.end());
    return all;
}

bool scripted_kernel::waitForBatches() {
    Kernel& k = kernel();
    std::unique_lock guard(k.mutex);
    return k.changed.wait_for(guard, kWaitLimit, [&] { return k.replies.empty() && !k.owesCall; });
}

bool scripted_kernel::waitForChange(const std::function<bool(const struct kevent&)>& condition) {
    return waitUntil([&] {
        const auto all = changes();
        return std::any_of(all.begin(), all.end(), condition);
    });
}
