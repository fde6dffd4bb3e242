#include "rules/rule_tokens.h"

#include <array>

#include "ipc/utf8.h"
#include "rules/rule_record.h"

namespace {

using ByteSet = std::array<bool, 256>;

/// The bytes at which a run of plain token bytes ends, outside quotes ([0]) and inside ([1]).
constexpr std::array<ByteSet, 2> kStops = [] {
    std::array<ByteSet, 2> stops{};
    for (const char byte : {'"', '\\', ' ', '\t', '\n', '\v', '\f', '\r'}) {
        const auto place = static_cast<unsigned char>(byte);
        stops[0][place] = true;
        stops[1][place] = byte == '"' || byte == '\\';
    }
    return stops;
}();

/// The first position from `at` on where a byte of `stops` is, or the line's end.
std::size_t findStop(std::string_view line, std::size_t at, const ByteSet& stops) noexcept {
    while (at < line.size() && !stops[static_cast<unsigned char>(line[at])]) {
        ++at;
    }
    return at;
}

/// Looks at every byte, so that the compiler can look at many at once.
bool isAscii(std::string_view bytes) noexcept {
    unsigned char all = 0;
    for (const char byte : bytes) {
        all = static_cast<unsigned char>(all | static_cast<unsigned char>(byte));
    }
    return all <= 0x7f;
}

}  // namespace

RuleTokens::RuleTokens(std::string_view line, std::string& arena) noexcept
    : line_(line), arena_(arena), ascii_(isAscii(line)) {}

// Adds bytes of the line to the buffer. The arena gets its full size at once: all tokens together are no
// longer than their line, so it never moves under the tokens that point into it.
void RuleTokens::append(std::size_t start, std::size_t size) {
    const std::string_view bytes = line_.substr(start, size);
    if (buffer_.empty()) {
        buffer_ = bytes;
        return;
    }
    if (bytes.empty()) {
        return;
    }
    if (!copied_ && buffer_.data() + buffer_.size() == bytes.data()) {
        buffer_ = {buffer_.data(), buffer_.size() + size};
        return;
    }
    if (!arenaReady_) {
        arena_.clear();
        arena_.reserve(line_.size());
        arenaReady_ = true;
    }
    if (!copied_) {
        arena_.append(buffer_);
        copied_ = true;
    }
    arena_.append(bytes);
    const std::size_t total = buffer_.size() + size;
    buffer_ = {arena_.data() + arena_.size() - total, total};
}

void RuleTokens::skipSpace() noexcept {
    while (at_ < line_.size() && isRuleSpace(line_[at_])) {
        ++at_;
    }
}

// Reads on until a token is complete, at white space outside quotes or at the end of the line. Quotes do not
// delimit tokens, they only protect white space, and a pair with nothing between adds nothing.
//
// Deliberate: "" is no token, so an empty value cannot be written and the word after it takes its place. Held
// by RuleTokens.EmptyQuotesGiveNoToken.
void RuleTokens::readBuffer() {
    buffer_ = {};
    copied_ = false;
    while (at_ < line_.size()) {
        const std::size_t start = at_;
        at_ = findStop(line_, start, kStops[quoted_ ? 1 : 0]);
        append(start, at_ - start);
        if (at_ == line_.size()) {
            return;
        }
        const char byte = line_[at_++];
        if (byte == '"') {
            quoted_ = !quoted_;
        } else if (byte == '\\') {
            append(at_,
                   std::min<std::size_t>(1, line_.size() - at_));  // the last byte of a line escapes nothing
            at_ = std::min(at_ + 1, line_.size());
        } else {
            skipSpace();
            if (!buffer_.empty()) {
                return;
            }
        }
    }
}

// Deliberate: a line may end inside quotes when its last byte is a quote, even one that opens or is escaped,
// or when the token is empty. Held by RuleTokens.OpenQuoteAsLastByteIsAccepted.
bool RuleTokens::leavesQuoteOpen() const noexcept {
    return quoted_ && line_.back() != '"';
}

bool RuleTokens::isText(std::string_view token) const noexcept {
    return ascii_ || isUtf8(token);
}

// Deliberate: a leading "!" becomes a token of its own even when it was quoted or escaped, so no value can
// begin with it. Held by RuleTokens.QuotedMarkIsSplitOff.
RuleTokens::Step RuleTokens::next(std::string_view& token) {
    if (buffer_.empty()) {
        readBuffer();
        if (buffer_.empty()) {
            return Step::kEnd;
        }
        if (at_ == line_.size() && leavesQuoteOpen()) {
            return Step::kBad;
        }
        if (buffer_.front() == '!' && buffer_.size() > 1) {
            token = buffer_.substr(0, 1);
            buffer_.remove_prefix(1);
            return Step::kToken;
        }
    }
    token = buffer_;
    buffer_ = {};
    return isText(token) ? Step::kToken : Step::kBad;
}
