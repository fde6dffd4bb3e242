/// An event block that writes down what it is called with, and waits for it.
#ifndef RV_TESTS_ENGINE_RECORDER_H
#define RV_TESTS_ENGINE_RECORDER_H

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "libio-macOS/RvKQueueEventProtocol.h"

/// The limit of every wait in these tests; what is waited for comes at once unless something is broken.
inline constexpr std::chrono::seconds kWaitLimit{60};

/// Waits until the condition holds, looking at it again and again; false after the limit.
bool waitUntil(const std::function<bool()>& condition);

struct RecordedEvent {
    RvKQueueEventProtocol* object;
    std::int32_t code;
    std::string bytes;
    std::uint64_t size;
    bool hasBuffer;
    bool hasDropSize;
    std::uint64_t initialDropSize;
    std::thread::id thread;
};

class Recorder {
  public:
    /// What the block does beside recording: it may change *dropSize; its result is the block's.
    using Reaction = std::function<bool(const RecordedEvent& event, std::uint64_t* dropSize)>;

    /// A block that records, runs the reaction if there is one, and returns its result, or true. It shares
    /// the record with this object, which may go first.
    EventBlock block(Reaction reaction = {});

    std::vector<RecordedEvent> events() const;
    std::vector<RecordedEvent> eventsWith(std::int32_t code) const;
    int count(std::int32_t code) const;
    /// The bytes of all events 1, one after the other. Right only where the block consumes everything.
    std::string received() const;

    /// Wait for at least so many events of a code, or so many received bytes; false after the limit.
    bool waitFor(std::int32_t code, int atLeast = 1);
    bool waitForBytes(std::size_t atLeast);

  private:
    struct Record {
        mutable std::mutex mutex;
        std::condition_variable changed;
        std::vector<RecordedEvent> events;
        std::size_t dataBytes = 0;
    };

    std::shared_ptr<Record> record = std::make_shared<Record>();
};

#endif
