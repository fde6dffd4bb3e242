/// The idents of a loop's timers: small integers, each new one the smallest that is free.
#ifndef RV_LIBIO_TIMER_IDENTS_H
#define RV_LIBIO_TIMER_IDENTS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

/// A set of idents as a bit map that remembers where the first gap may be, so that thousands of timers come
/// and go without a scan for each. Used under the loop's timersLock.
class TimerIdents {
  public:
    /// Idents are below this.
    static constexpr std::int32_t kEnd = 0x7fffffff;

    explicit TimerIdents(std::int32_t identsEnd = kEnd) noexcept : end(identsEnd) {}

    /// Makes room for the first idents. Returns false without memory.
    bool reserve() noexcept;

    /// Finds the smallest ident not in the set and makes sure that it can be inserted. Returns false without
    /// memory; otherwise `ident` is that ident, or empty when every ident is in use.
    bool findFree(std::optional<std::int32_t>* ident) noexcept;

    /// Adds an ident that findFree has just returned.
    void insert(std::int32_t ident) noexcept;
    /// Frees an ident that is in the set.
    void erase(std::int32_t ident) noexcept;
    /// Whether the ident is in the set; any number may be asked about.
    bool contains(std::int32_t ident) const noexcept;

  private:
    std::vector<std::uint64_t> words;  ///< bit i % 64 of word i / 64 stands for ident i
    std::size_t firstGap = 0;          ///< all words before this one are full
    std::int32_t end;
};

#endif
