#include "unit/libio-macOS/support/recorder.h"

#include <algorithm>
#include <utility>

namespace {

int countLocked(const std::vector<RecordedEvent>& events, std::int32_t code) {
    return static_cast<int>(
        std::count_if(events.begin(), events.end(), [&](const RecordedEvent& e) { return e.code == code; }));
}

}  // namespace

bool waitUntil(const std::function<bool()>& condition) {
    const auto limit = std::chrono::steady_clock::now() + kWaitLimit;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > limit) return false;
        std::this_thread::yield();
    }
    return true;
}

EventBlock Recorder::block(Reaction reaction) {
    return [shared = record, reaction = std::move(reaction)](RvKQueueEventProtocol* object,
                                                             const char* buffer, std::uint64_t size,
                                                             std::uint64_t* dropSize, std::int32_t event) {
        RecordedEvent recorded = {object,
                                  event,
                                  buffer ? std::string(buffer, size) : std::string(),
                                  size,
                                  buffer != nullptr,
                                  dropSize != nullptr,
                                  dropSize ? *dropSize : 0,
                                  std::this_thread::get_id()};
        {
            const std::lock_guard guard(shared->mutex);
            if (event == kEventData) shared->dataBytes += size;
            shared->events.push_back(recorded);
            shared->changed.notify_all();
        }
        return reaction ? reaction(recorded, dropSize) : true;
    };
}

std::vector<RecordedEvent> Recorder::events() const {
    const std::lock_guard guard(record->mutex);
    return record->events;
}

std::vector<RecordedEvent> Recorder::eventsWith(std::int32_t code) const {
    std::vector<RecordedEvent> all = events();
    std::erase_if(all, [&](const RecordedEvent& e) { return e.code != code; });
    return all;
}

int Recorder::count(std::int32_t code) const {
    const std::lock_guard guard(record->mutex);
    return countLocked(record->events, code);
}

std::string Recorder::received() const {
    std::string bytes;
    for (const RecordedEvent& event : eventsWith(kEventData)) bytes += event.bytes;
    return bytes;
}

bool Recorder::waitFor(std::int32_t code, int atLeast) {
    std::unique_lock guard(record->mutex);
    return record->changed.wait_for(guard, kWaitLimit,
                                    [&] { return countLocked(record->events, code) >= atLeast; });
}

bool Recorder::waitForBytes(std::size_t atLeast) {
    std::unique_lock guard(record->mutex);
    return record->changed.wait_for(guard, kWaitLimit, [&] { return record->dataBytes >= atLeast; });
}
