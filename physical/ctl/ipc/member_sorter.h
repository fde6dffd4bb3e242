/// Finds the members that are wanted of many objects in one pass over each.
///
/// A daemon writes the rows of a list with their keys in the same order, so the key that stood at a place in
/// the last object is the one that is expected there in the next: one comparison instead of a search. Which
/// order the keys come in makes no difference to the result.
#ifndef RV_IPC_MEMBER_SORTER_H
#define RV_IPC_MEMBER_SORTER_H

#include <algorithm>
#include <array>
#include <cstddef>
#include <string_view>

#include "ipc/json.h"

/// Knows `Count` keys; used by one thread.
template <std::size_t Count>
class MemberSorter {
  public:
    /// The member of each key, in the order of the keys; null where there is none.
    using Members = std::array<const JsonValue*, Count>;

    /// keys  all different; literals, as only views of them are kept
    constexpr explicit MemberSorter(const std::array<std::string_view, Count>& keys) noexcept : keys_(keys) {}

    Members sort(const JsonObject& object) noexcept {
        Members members{};
        std::size_t place = 0;
        for (const auto& member : object) {
            std::size_t& expected = expected_[std::min(place++, Count)];
            const std::string_view key(member.key().data(), member.key().size());
            if (expected == Count || keys_[expected] != key) {
                expected =
                    static_cast<std::size_t>(std::find(keys_.begin(), keys_.end(), key) - keys_.begin());
            }
            if (expected != Count) {
                members[expected] = &member.value();
            }
        }
        return members;
    }

  private:
    std::array<std::string_view, Count> keys_;
    std::array<std::size_t, Count + 1> expected_{};  ///< by place, the last for all further ones; Count: none
};

#endif
