#include "rules/rule_tokens.h"

#include "ipc/byte_words.h"
#include "ipc/utf8.h"
#include "rules/rule_record.h"

namespace {

/// Marks the bytes at which a run of plain token bytes ends outside quotes, and other control characters with
/// them.
constexpr ByteWord markStops(ByteWord word) noexcept {
    return bytesBelow(word, ' ' + 1) | bytesEqual(word, '"') | bytesEqual(word, '\\');
}

/// Marks the bytes at which one ends inside quotes.
constexpr ByteWord markQuotedStops(ByteWord word) noexcept {
    return bytesEqual(word, '"') | bytesEqual(word, '\\');
}

bool isStop(char byte, bool quoted) noexcept {
    return byte == '"' || byte == '\\' || (!quoted && isRuleSpace(byte));
}

}  // namespace

RuleTokens::RuleTokens(std::string_view line, std::string& arena) noexcept : line_(line), arena_(arena) {}

/// The first position from `at` on where a run of plain bytes ends, or the line's end. Looks out for bytes
/// above 0x7f on the way.
std::size_t RuleTokens::findStop(std::size_t at) noexcept {
    while (line_.size() - at >= kByteWordSize) {
        const ByteWord word = loadByteWord(line_.data() + at);
        const ByteWord stops = quoted_ ? markQuotedStops(word) : markStops(word);
        if (stops == 0) {
            seen_ |= word;
            at += kByteWordSize;
            continue;
        }
        seen_ |= wordBeforeMark(word, stops);
        at += bytesBeforeMark(stops);
        if (isStop(line_[at], quoted_)) {
            return at;
        }
        ++at;
    }
    for (; at < line_.size() && !isStop(line_[at], quoted_); ++at) {
        seen_ |= static_cast<unsigned char>(line_[at]);
    }
    return at;
}

/// Adds bytes of the line to the buffer.
void RuleTokens::append(std::size_t start, std::size_t size) {
    if (size == 0) {
        return;
    }
    if (buffer_.empty()) {
        buffer_ = line_.substr(start, size);
    } else if (!copied_ && buffer_.data() + buffer_.size() == line_.data() + start) {
        buffer_ = {buffer_.data(), buffer_.size() + size};
    } else {
        join(line_.substr(start, size));
    }
}

// The arena gets its full size at once: all tokens together are no longer than their line, so it never moves
// under the tokens that point into it.
void RuleTokens::join(std::string_view bytes) {
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
    const std::size_t total = buffer_.size() + bytes.size();
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
    seen_ = 0;
    while (at_ < line_.size()) {
        const std::size_t start = at_;
        at_ = findStop(start);
        append(start, at_ - start);
        if (at_ == line_.size()) {
            return;
        }
        const char byte = line_[at_++];
        if (byte == '"') {
            quoted_ = !quoted_;
        } else if (byte == '\\') {
            if (at_ < line_.size()) {  // the last byte of a line escapes nothing
                seen_ |= static_cast<unsigned char>(line_[at_]);
                append(at_++, 1);
            }
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
    return (seen_ & kHighBits) == 0 || isUtf8(token);
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
