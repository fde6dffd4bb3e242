/// A place for one callback that any thread may set and get.
#ifndef RV_IPC_CALLBACK_SLOT_H
#define RV_IPC_CALLBACK_SLOT_H

#include <exception>
#include <memory>
#include <utility>

#include "platform/lock.h"

/// Callback  a std::function. Its destructor, which may end whatever the callback holds, never runs under the
///           lock.
template <class Callback>
class CallbackSlot {
  public:
    /// Replaces the callback; an empty one leaves the slot empty. Returns false, and changes nothing, when
    /// there is no memory for it. Any thread.
    bool set(Callback&& callback) noexcept {
        std::shared_ptr<const Callback> fresh;
        try {
            if (callback) {
                fresh = std::make_shared<const Callback>(std::move(callback));
            }
        } catch (const std::exception&) {
            return false;
        }
        const LockGuard<Lock> guard(slotLock);
        current.swap(fresh);
        return true;
    }

    /// The callback of that moment, or null. Any thread.
    std::shared_ptr<const Callback> get() const noexcept {
        const LockGuard<Lock> guard(slotLock);
        return current;
    }

  private:
    mutable Lock slotLock;
    std::shared_ptr<const Callback> current RV_GUARDED_BY(slotLock);
};

#endif
