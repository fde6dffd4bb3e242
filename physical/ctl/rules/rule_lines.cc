#include "rules/rule_lines.h"

#include "ipc/byte_words.h"
#include "rules/rule_record.h"

namespace {

/// Whether a run of kept bytes may have to stop at this one.
constexpr bool mayStop(char byte) noexcept {
    return byte == '\0' || byte == '\n' || byte == '#' || byte == '\\';
}

/// Marks the bytes at which a run may have to stop, and some control characters with them.
constexpr ByteWord markStops(ByteWord word) noexcept {
    return bytesBelow(word, '\n' + 1) | bytesEqual(word, '#') | bytesEqual(word, '\\');
}

constexpr bool hasOddQuotes(ByteWord word) noexcept {
    return (countBytes(word, '"') & 1) != 0;
}

}  // namespace

/// The first position from `at` on where a run may have to stop, or `last`. Quotes on the way flip the flag.
std::size_t RuleLines::findStop(std::size_t at, std::size_t last) noexcept {
    while (last - at >= kByteWordSize) {
        const ByteWord word = loadByteWord(text_.data() + at);
        const ByteWord stops = markStops(word);
        if (stops != 0) {
            quoted_ = quoted_ != hasOddQuotes(wordBeforeMark(word, stops));
            return at + bytesBeforeMark(stops);
        }
        quoted_ = quoted_ != hasOddQuotes(word);
        at += kByteWordSize;
    }
    for (; at < last && !mayStop(text_[at]); ++at) {
        quoted_ = quoted_ != (text_[at] == '"');
    }
    return at;
}

bool RuleLines::endsLine(std::size_t at) const noexcept {
    return text_[at] == '\n' || text_[at] == '\0';
}

/// Of a byte that is not the last of the text.
bool RuleLines::stopsRun(std::size_t at) const noexcept {
    switch (text_[at]) {
        case '#':
            return !quoted_;
        case '\\':
            return text_[at + 1] == '\n';
        default:
            return endsLine(at);
    }
}

// The last byte of the text is never skipped here: finish() has its own rule for it.
void RuleLines::skipLeadingSpace() noexcept {
    while (at_ + 1 < text_.size() && isRuleSpace(text_[at_]) && text_[at_] != '\n') {
        ++at_;
    }
}

void RuleLines::skipComment() noexcept {
    while (at_ + 1 < text_.size() && !endsLine(at_)) {
        ++at_;
    }
}

// A line in one piece, the usual case, stays a view of the text; a second piece turns it into a copy.
void RuleLines::append(std::string_view bytes) {
    if (bytes.empty()) {
        return;
    }
    if (line_.empty()) {
        line_ = bytes;
        return;
    }
    if (!copied_) {
        if (line_.data() + line_.size() == bytes.data()) {
            line_ = {line_.data(), line_.size() + bytes.size()};
            return;
        }
        joined_.assign(line_);
        copied_ = true;
    }
    joined_.append(bytes);
    line_ = joined_;
}

// Keeps bytes up to the next one that ends the line, starts a comment or continues the line, or up to the
// last byte of the text.
//
// Deliberate: a backslash does not protect the quote after it, here, so an escaped quote flips the flag as
// any other does and a later "#" is text where it looks like a comment, or the other way round. Rule texts
// have always been read in these two independent passes. Held by RuleLines.EscapedQuoteFlipsTheFlag.
//
// Deliberate: the flag is not reset where a line ends, so one odd quote turns the comments of all later lines
// into text. Held by RuleLines.QuoteFlagOutlivesTheLine.
void RuleLines::takeRun() {
    const std::size_t start = at_;
    const std::size_t last = text_.size() - 1;
    at_ = findStop(start, last);
    while (at_ < last && !stopsRun(at_)) {
        at_ = findStop(at_ + 1, last);
    }
    append(text_.substr(start, at_ - start));
}

// Hands out the current line, if it has any bytes, and begins the next one.
bool RuleLines::finish(std::string_view& line) {
    line = line_;
    line_ = {};
    copied_ = false;
    return !line.empty();
}

// Deliberate: the last byte of a text that does not end in a line feed is kept whatever it is, the last byte
// of a comment or a blank after the last line included, so that most such texts are refused: a text without
// its final line feed may have been cut off. Held by RuleLines.LastByteIsAlwaysKept.
//
// Deliberate: a text that ends in a backslash and a line feed promises a line that never comes, and the line
// that was to be continued is not handed out. Held by RuleLines.LineContinuedIntoNothingIsDropped.
bool RuleLines::next(std::string_view& line) {
    while (at_ < text_.size()) {
        if (line_.empty()) {
            skipLeadingSpace();
        }
        takeRun();
        if (text_[at_] == '#' && !quoted_) {
            skipComment();
        }
        if (text_[at_] == '\\' && at_ + 1 < text_.size()) {
            at_ += 2;  // a continuation: the run stopped before backslash and line feed
            continue;
        }
        if (!endsLine(at_)) {
            append(text_.substr(at_, 1));  // the last byte of the text
        }
        ++at_;
        if (finish(line)) {
            return true;
        }
    }
    return false;
}

bool RuleLines::nextPlain(PlainLine& line) noexcept {
    const std::size_t taken = quoted_ ? 0 : line.cut(text_.substr(at_));
    at_ += taken;
    return taken != 0;
}
