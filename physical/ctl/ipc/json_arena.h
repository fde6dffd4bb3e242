/// One block of memory for JSON values that are built once and released together.
#ifndef RV_IPC_JSON_ARENA_H
#define RV_IPC_JSON_ARENA_H

#include <boost/json/memory_resource.hpp>
#include <boost/json/monotonic_resource.hpp>
#include <boost/json/storage_ptr.hpp>
#include <cstddef>
#include <memory>

#include "ipc/json.h"
#include "platform/arena_memory.h"

using JsonStorage = boost::json::storage_ptr;

/// Hands out pieces of one large block, then of blocks that it gets as it goes. Nothing is reused before the
/// end. Values of one arena are built by one thread at a time.
class JsonArena final : public boost::json::memory_resource {
  public:
    /// expectedBytes  how much will be wanted at most, by and large; what is not used of it costs nothing
    explicit JsonArena(std::size_t expectedBytes) noexcept {
        if (expectedBytes >= kWorthwhileBytes) {
            (void)block_.reserve(expectedBytes);  // without it the other blocks do
        }
    }

  private:
    static constexpr std::size_t kWorthwhileBytes = 65536;  // below, a mapping costs more than it saves

    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        const std::size_t start = (used_ + alignment - 1) & ~(alignment - 1);  // the block is aligned for all
        if (start > block_.size() || block_.size() - start < bytes) {
            return rest_.allocate(bytes, alignment);
        }
        used_ = start + bytes;
        return block_.data() + start;
    }
    void do_deallocate(void*, std::size_t, std::size_t) override {}  // all at once, at the end
    bool do_is_equal(const boost::json::memory_resource& other) const noexcept override {
        return this == &other;
    }

    ArenaMemory block_;
    std::size_t used_ = 0;  ///< bytes of block_
    boost::json::monotonic_resource rest_;
};

template <>
struct boost::json::is_deallocate_trivial<JsonArena> {
    static constexpr bool value = true;
};

/// An empty array in an arena of its own. The pointer owns both: values that are moved out of the array still
/// live in the arena and must not outlive the pointer and its copies. Throws std::bad_alloc.
inline std::shared_ptr<JsonArray> makeArenaArray(std::size_t expectedBytes) {
    struct Holder {
        explicit Holder(std::size_t bytes) : arena(bytes), array(&arena) {}
        JsonArena arena;
        JsonArray array;
    };
    const auto holder = std::make_shared<Holder>(expectedBytes);
    return {holder, &holder->array};
}

#endif
