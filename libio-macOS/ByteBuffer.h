/// A growable run of bytes that is filled at the end and consumed from the front.
///
/// Stands in for std::vector<char>, which clears what a read is about to fill, moves all that is left when
/// the front goes, and reports a lack of memory by an exception.
#ifndef RV_LIBIO_BYTE_BUFFER_H
#define RV_LIBIO_BYTE_BUFFER_H

#include <cstddef>
#include <cstdint>

/// Growth is geometric and consumption moves an offset, so that neither is quadratic in the backlog. Storage
/// beyond kKeptBytes is given back when it has been mostly empty for a while. Used by one thread at a time.
class ByteBuffer {
  public:
    /// Storage up to this size is kept for the next bytes when a buffer runs empty.
    static constexpr std::size_t kKeptBytes = 65536;

    ByteBuffer() noexcept = default;
    ~ByteBuffer();
    ByteBuffer(const ByteBuffer&) = delete;
    ByteBuffer& operator=(const ByteBuffer&) = delete;

    /// The bytes held; never null. Valid until the next call that is not const.
    char* data() noexcept { return storage == nullptr ? &nothing : storage + front; }
    const char* data() const noexcept { return storage == nullptr ? &nothing : storage + front; }
    std::size_t size() const noexcept { return length; }
    bool isEmpty() const noexcept { return length == 0; }

    /// How many more bytes there is room for without another allocation.
    std::size_t spare() const noexcept { return capacity - front - length; }

    /// Makes room for `count` bytes behind those held and returns where they begin, not cleared; null without
    /// memory, the buffer being unchanged. The bytes count only once commit is called.
    char* prepare(std::size_t count) noexcept;
    /// Adds `count` of the bytes last prepared to those held.
    void commit(std::size_t count) noexcept { length += count; }

    /// Appends a copy. Returns false without memory, the buffer being unchanged.
    bool append(const void* bytes, std::size_t count) noexcept;

    /// Forgets the first `count` bytes, or all if there are fewer.
    void drop(std::size_t count) noexcept;
    /// Forgets all bytes; the storage stays.
    void clear() noexcept;

    void swap(ByteBuffer& other) noexcept;

  private:
    bool makeRoom(std::size_t needed) noexcept;
    bool resizeStorage(std::size_t newCapacity) noexcept;
    void moveToFront() noexcept;
    void giveBack() noexcept;

    char* storage = nullptr;  ///< owned; from malloc
    std::size_t front = 0;    ///< where the held bytes begin
    std::size_t length = 0;   ///< how many there are
    std::size_t capacity = 0;
    unsigned sparseDrops = 0;  ///< in a row that found little in much storage
    char nothing = 0;          ///< what data() shows of a buffer without storage
};

#endif
