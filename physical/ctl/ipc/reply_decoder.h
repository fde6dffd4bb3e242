/// Decodes the JSON body of one frame into a dictionary that lives in an arena of its own.
#ifndef RV_IPC_REPLY_DECODER_H
#define RV_IPC_REPLY_DECODER_H

#include <boost/json/monotonic_resource.hpp>
#include <cstddef>
#include <optional>
#include <string_view>

#include "ipc/json.h"
#include "platform/arena_memory.h"

enum class DecodeResult {
    kObject,     ///< object() is the dictionary
    kNotObject,  ///< valid JSON whose top-level value is an array
    kInvalid,    ///< not JSON: syntax, UTF-8, nesting over kMaxJsonDepth, a fragment, or no memory to hold it
};

inline constexpr std::size_t kMaxJsonDepth = 512;

/// One frame's lifetime scope: everything decoded is released at once with the decoder.
/// Used by one thread; neither copied nor moved, since the values point into it.
class ReplyDecoder {
  public:
    ReplyDecoder() noexcept = default;
    ReplyDecoder(const ReplyDecoder&) = delete;
    ReplyDecoder& operator=(const ReplyDecoder&) = delete;

    /// Decodes `body`, UTF-8 JSON text; called once. Nothing of `body` is kept.
    DecodeResult decode(std::string_view body) noexcept;

    /// The dictionary after kObject; borrowed, valid as long as the decoder.
    const JsonObject& object() const noexcept { return value_->get_object(); }

  private:
    static constexpr std::size_t kSmallArenaBytes = 8192;

    alignas(std::max_align_t) unsigned char small_[kSmallArenaBytes];
    ArenaMemory large_;  ///< for bodies whose values do not fit in small_
    std::optional<boost::json::monotonic_resource> arena_;
    std::optional<JsonValue> value_;  ///< lives in arena_, so it comes after it
};

#endif
