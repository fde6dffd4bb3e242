#include "libio-macOS/ByteBuffer.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <utility>

namespace {

constexpr std::size_t kLeastCapacity = 512;

// Storage is sparse when less than one part in this many is in use.
constexpr std::size_t kSparseFactor = 8;
// It is given back after this many drops that found it sparse, at once if there is more than this of it:
// memory that comes and goes with each burst costs more than the burst.
constexpr unsigned kSparseDrops = 64;
constexpr std::size_t kLargeBytes = 4 << 20;

}  // namespace

ByteBuffer::~ByteBuffer() {
    std::free(storage);
}

char* ByteBuffer::prepare(std::size_t count) noexcept {
    if (count > SIZE_MAX / 2 - length) return nullptr;
    const std::size_t needed = length + count;
    if (front + needed > capacity && !makeRoom(needed)) return nullptr;
    return data() + length;
}

bool ByteBuffer::append(const void* bytes, std::size_t count) noexcept {
    if (count == 0) return true;
    char* const end = prepare(count);
    if (end == nullptr) return false;
    std::memcpy(end, bytes, count);
    commit(count);
    return true;
}

void ByteBuffer::drop(std::size_t count) noexcept {
    const bool isSparse = capacity > kKeptBytes && length < capacity / kSparseFactor;
    count = std::min(count, length);
    front += count;
    length -= count;
    if (length == 0) front = 0;
    sparseDrops = isSparse ? sparseDrops + 1 : 0;
    const bool isLarge = capacity > kLargeBytes && length < capacity / kSparseFactor;
    if (isLarge || sparseDrops >= kSparseDrops) giveBack();
}

void ByteBuffer::clear() noexcept {
    front = 0;
    length = 0;
}

void ByteBuffer::swap(ByteBuffer& other) noexcept {
    std::swap(storage, other.storage);
    std::swap(front, other.front);
    std::swap(length, other.length);
    std::swap(capacity, other.capacity);
    std::swap(sparseDrops, other.sparseDrops);
}

bool ByteBuffer::makeRoom(std::size_t needed) noexcept {
    // Moving at most as many bytes as were consumed since the last move keeps the cost per byte constant.
    if (needed <= capacity && front >= length) {
        moveToFront();
        return true;
    }
    const std::size_t generous = std::max({needed, 2 * capacity, kLeastCapacity});
    if (resizeStorage(generous)) return true;
    // The bytes stand at the front by now.
    return needed <= capacity || (needed < generous && resizeStorage(needed));
}

// On failure everything is as before, except that the bytes may have moved to the front of the storage.
bool ByteBuffer::resizeStorage(std::size_t newCapacity) noexcept {
    moveToFront();
    char* const resized = static_cast<char*>(std::realloc(storage, newCapacity));
    if (resized == nullptr) return false;
    storage = resized;
    capacity = newCapacity;
    return true;
}

void ByteBuffer::moveToFront() noexcept {
    if (front == 0) return;
    std::memmove(storage, storage + front, length);
    front = 0;
}

void ByteBuffer::giveBack() noexcept {
    sparseDrops = 0;
    if (length == 0) {
        std::free(storage);
        storage = nullptr;
        capacity = 0;
    } else {
        // A shrinking realloc that fails leaves the storage as it was, which is as good.
        (void)resizeStorage(std::max(2 * length, kKeptBytes));
    }
}
