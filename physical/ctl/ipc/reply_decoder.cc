#include "ipc/reply_decoder.h"

#include <boost/json/parse_options.hpp>
#include <boost/json/parser.hpp>
#include <boost/system/error_code.hpp>
#include <exception>

namespace {

/// Values of an object take up to this many times the bytes of their text. Asking for it all at once costs
/// nothing, since pages that are not used are never touched, and saves the arena's copies as it grows.
constexpr std::size_t kArenaBytesPerBodyByte = 8;
constexpr std::size_t kParserScratchBytes = 4096;

}  // namespace

DecodeResult ReplyDecoder::decode(std::string_view body) noexcept {
    try {
        // Without the larger block the arena starts with the small one and grows by itself.
        const std::size_t wanted = body.size() * kArenaBytesPerBodyByte;
        if (wanted > sizeof small_ && large_.reserve(wanted)) {
            arena_.emplace(large_.data(), large_.size());
        } else {
            arena_.emplace(static_cast<unsigned char*>(small_), sizeof small_);
        }
        boost::json::parse_options options;
        options.max_depth = kMaxJsonDepth;
        unsigned char scratch[kParserScratchBytes];
        boost::json::parser parser({}, options, scratch);
        parser.reset(&*arena_);
        boost::system::error_code error;
        parser.write({body.data(), body.size()}, error);
        if (error) {
            return DecodeResult::kInvalid;
        }
        value_.emplace(parser.release());
        if (value_->is_object()) {
            return DecodeResult::kObject;
        }
        // A string, a number or a literal alone is only a fragment of a JSON text.
        return value_->is_array() ? DecodeResult::kNotObject : DecodeResult::kInvalid;
    } catch (const std::exception&) {
        return DecodeResult::kInvalid;  // no memory: the text cannot be decoded
    }
}
