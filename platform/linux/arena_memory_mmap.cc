/// Arena memory on Linux: mmap(2), with transparent huge pages where madvise(2) may ask for them.
#include <sys/mman.h>

#include <cstdint>

#include "platform/arena_memory.h"

namespace {

constexpr std::size_t kHugePageBytes = std::size_t{2} << 20;  // x86-64; harmless elsewhere

// A larger block gets small pages. A virtual machine has soon used up the huge pages that its host backs, and
// each of the others takes several times as long to clear: a reply of 100 MiB took twice the time with them.
constexpr std::size_t kMostHugeBytes = std::size_t{512} << 20;

unsigned char* alignUp(void* address, std::size_t alignment) noexcept {
    const auto number = reinterpret_cast<std::uintptr_t>(address);
    return static_cast<unsigned char*>(address) + ((alignment - number % alignment) % alignment);
}

}  // namespace

bool ArenaMemory::reserve(std::size_t bytes) noexcept {
    release();
    if (bytes > SIZE_MAX - kHugePageBytes) {
        return false;
    }
    const std::size_t wanted = bytes + kHugePageBytes;  // room to begin at a huge page
    void* const mapping =
        mmap(nullptr, wanted, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (mapping == MAP_FAILED) {
        return false;
    }
    mapping_ = mapping;
    mappedBytes_ = wanted;
    data_ = alignUp(mapping, kHugePageBytes);
    size_ = bytes;
    if (size_ <= kMostHugeBytes) {
        (void)madvise(data_, size_, MADV_HUGEPAGE);  // refused: small pages do as well, only slower
    }
    return true;
}

void ArenaMemory::release() noexcept {
    if (mapping_ != nullptr) {
        (void)munmap(mapping_, mappedBytes_);  // cannot fail for a mapping of ours
    }
    mapping_ = nullptr;
    mappedBytes_ = 0;
    data_ = nullptr;
    size_ = 0;
}
