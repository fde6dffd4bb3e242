/// Reads the members of many objects that were all written with the same keys in the same order.
///
/// Each row of a list remembers where the row before it had the member, so that a lookup is one comparison
/// instead of a search. Which order the keys come in makes no difference to the result.
#ifndef RV_REPORTS_MEMBER_READER_H
#define RV_REPORTS_MEMBER_READER_H

#include <cstddef>
#include <string_view>

#include "ipc/json.h"

/// One member of the rows of a list; used by one thread.
class MemberReader {
  public:
    /// key  borrowed for the life of the reader: a literal
    constexpr explicit MemberReader(std::string_view key) noexcept : key_(key) {}

    /// As member(row, key): null when the row has no such member.
    const JsonValue* of(const JsonObject& row) noexcept {
        if (place_ < row.size()) {
            const auto& candidate = row.begin()[place_];
            if (std::string_view(candidate.key().data(), candidate.key().size()) == key_) {
                return &candidate.value();
            }
        }
        const auto found = row.find({key_.data(), key_.size()});
        if (found == row.end()) {
            return nullptr;
        }
        place_ = static_cast<std::size_t>(found - row.begin());
        return &found->value();
    }

  private:
    std::string_view key_;
    std::size_t place_ = 0;  ///< where the last row that had the member had it
};

#endif
