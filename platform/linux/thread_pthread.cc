/// Thread, made of a pthread that waits for its start on an atomic word.
#include "platform/thread.h"

#include <pthread.h>

#include <atomic>
#include <new>
#include <utility>

namespace {

enum class Phase : int { kParked, kAbandoned, kRunning, kFinished };

}  // namespace

struct Thread::State {
    static void* run(void* holder) noexcept;

    Body body = nullptr;
    void* argument = nullptr;
    std::atomic<Phase> phase{Phase::kParked};
    std::atomic<bool> cancelled{false};
    pthread_t handle{};  ///< written by create before the object is handed out
};

void* Thread::State::run(void* holder) noexcept {
    auto* passed = static_cast<std::shared_ptr<State>*>(holder);
    const std::shared_ptr<State> state = std::move(*passed);
    delete passed;
    state->phase.wait(Phase::kParked, std::memory_order_acquire);
    if (state->phase.load(std::memory_order_acquire) == Phase::kAbandoned) return nullptr;
    state->body(state->argument);
    state->phase.store(Phase::kFinished, std::memory_order_release);
    state->phase.notify_all();
    return nullptr;
}

Thread::Thread(std::shared_ptr<State> sharedState) noexcept : state(std::move(sharedState)) {}

std::unique_ptr<Thread> Thread::create(Body body, void* argument) noexcept try {
    auto state = std::make_shared<State>();
    state->body = body;
    state->argument = argument;
    auto holder = std::make_unique<std::shared_ptr<State>>(state);
    // The constructor is private, which make_unique cannot call.
    std::unique_ptr<Thread> thread(new Thread(state));
    if (pthread_create(&state->handle, nullptr, &State::run, holder.get()) != 0) {
        thread->state.reset();
        return nullptr;
    }
    (void)holder.release();  // the new thread deletes it
    return thread;
} catch (const std::bad_alloc&) {
    return nullptr;
}

Thread::~Thread() {
    if (!state) return;
    Phase expected = Phase::kParked;
    if (state->phase.compare_exchange_strong(expected, Phase::kAbandoned, std::memory_order_acq_rel)) {
        state->phase.notify_one();
        expected = Phase::kFinished;
    }
    if (expected == Phase::kFinished && pthread_equal(state->handle, pthread_self()) == 0) {
        pthread_join(state->handle, nullptr);
    } else {
        pthread_detach(state->handle);
    }
}

void Thread::start() noexcept {
    // The body may destroy this object as soon as it runs.
    const std::shared_ptr<State> kept = state;
    Phase expected = Phase::kParked;
    if (kept->phase.compare_exchange_strong(expected, Phase::kRunning, std::memory_order_acq_rel)) {
        kept->phase.notify_one();
    }
}

void Thread::cancel() noexcept {
    state->cancelled.store(true, std::memory_order_release);
}

bool Thread::isCancelled() const noexcept {
    return state->cancelled.load(std::memory_order_acquire);
}

bool Thread::isFinished() const noexcept {
    return state->phase.load(std::memory_order_acquire) != Phase::kRunning;
}

void Thread::waitForEnd() const noexcept {
    state->phase.wait(Phase::kRunning, std::memory_order_acquire);
}
