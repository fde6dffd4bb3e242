/// Memory for values that are built once and released together.
#ifndef RV_PLATFORM_ARENA_MEMORY_H
#define RV_PLATFORM_ARENA_MEMORY_H

#include <cstddef>

/// A block of zeroed memory that costs only what is touched of it, in the largest pages the system offers
/// cheaply: filling it takes few page faults. Owned by one holder; used by any thread.
class ArenaMemory {
  public:
    ArenaMemory() noexcept = default;
    ~ArenaMemory() { release(); }
    ArenaMemory(const ArenaMemory&) = delete;
    ArenaMemory& operator=(const ArenaMemory&) = delete;

    /// Takes a block of `bytes`, in the place of the one before. Returns false when there is none.
    bool reserve(std::size_t bytes) noexcept;
    void release() noexcept;

    unsigned char* data() const noexcept { return data_; }
    std::size_t size() const noexcept { return size_; }

  private:
    unsigned char* data_ = nullptr;  ///< borrowed from mapping_
    std::size_t size_ = 0;
    void* mapping_ = nullptr;
    std::size_t mappedBytes_ = 0;
};

#endif
