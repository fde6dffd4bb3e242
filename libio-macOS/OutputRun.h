/// A run of output: bytes that were copied, and behind them bytes that someone else keeps.
#ifndef RV_LIBIO_OUTPUT_RUN_H
#define RV_LIBIO_OUTPUT_RUN_H

#include <cstddef>
#include <memory>

#include "libio-macOS/ByteBuffer.h"

/// Bytes that are not copied. They must not change as long as `owner` is held.
struct SharedBytes {
    std::shared_ptr<const void> owner;
    const char* bytes = nullptr;
    std::size_t size = 0;
};

/// Used by one thread at a time.
class OutputRun {
  public:
    std::size_t size() const noexcept { return copied.size() + shared.size; }
    std::size_t copiedSize() const noexcept { return copied.size(); }
    bool isEmpty() const noexcept { return size() == 0; }
    /// Whether there are shared bytes: nothing can be appended then.
    bool isClosed() const noexcept { return shared.size != 0; }

    /// Appends a copy to a run that is not closed. Returns false without memory, the run being unchanged.
    bool append(const void* bytes, std::size_t count) noexcept { return copied.append(bytes, count); }
    /// Appends the bytes themselves, at least one, to a run that is not closed.
    void share(SharedBytes bytes) noexcept;

    /// The first bytes, as many as stand in one place; valid until the next call that is not const.
    const char* data() const noexcept { return copied.isEmpty() ? shared.bytes : copied.data(); }
    std::size_t pieceSize() const noexcept { return copied.isEmpty() ? shared.size : copied.size(); }
    /// Forgets the first `count` bytes, at most pieceSize(). With the last shared byte goes its owner.
    void drop(std::size_t count) noexcept;

    void swap(OutputRun& other) noexcept;
    /// Exchanges the copied bytes alone.
    void swapCopied(ByteBuffer& other) noexcept { copied.swap(other); }
    /// Moves all that `next` has behind this run, which is not closed; false without memory, nothing being
    /// moved.
    bool take(OutputRun& next) noexcept;

  private:
    ByteBuffer copied;
    SharedBytes shared;
};

#endif
