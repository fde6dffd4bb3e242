#include "reference_parser.h"

#include <utf8.h>

namespace reference {

namespace {

bool isSpace(char byte) {
    return std::string_view(" \t\n\v\f\r").find(byte) != std::string_view::npos;
}

/// Moves the buffer to the tokens. False when it is not UTF-8.
bool flush(std::string& buffer, std::vector<std::string>& tokens) {
    if (buffer.empty()) {
        return true;
    }
    std::string rest = buffer;
    buffer.clear();
    if (rest[0] == '!' && rest.size() >= 2) {
        tokens.push_back("!");
        rest.erase(0, 1);
    }
    if (!utf8::is_valid(rest.begin(), rest.end())) {
        return false;
    }
    tokens.push_back(rest);
    return true;
}

}  // namespace

std::vector<std::string> cutText(std::string_view text) {
    std::vector<std::string> lines;
    std::string buffer;
    bool comment = false;
    bool quote = false;
    const auto endLine = [&] {
        if (!buffer.empty()) {
            lines.push_back(buffer);
        }
        buffer.clear();
        comment = false;
    };
    for (std::size_t at = 0; at < text.size(); ++at) {
        const char byte = text[at];
        if (byte == '\n' || byte == '\0') {
            endLine();
        } else if (at == text.size() - 1) {
            buffer += byte;
            endLine();
        } else if (isSpace(byte) && buffer.empty()) {
            continue;
        } else if (byte == '#' && !quote) {
            comment = true;
        } else if (comment) {
            continue;
        } else if (byte == '\\' && text.size() - at >= 2 && text[at + 1] == '\n') {
            ++at;
        } else {
            buffer += byte;
            if (byte == '"') {
                quote = !quote;
            }
        }
    }
    return lines;
}

std::optional<std::vector<std::string>> cutLine(std::string_view line) {
    std::vector<std::string> tokens;
    std::string buffer;
    bool quote = false;
    bool escape = false;
    for (std::size_t at = 0; at < line.size(); ++at) {
        const char byte = line[at];
        if (escape) {
            buffer += byte;
            escape = false;
        } else if (byte == '\\') {
            escape = true;
        } else if (byte == '"') {
            quote = !quote;
        } else if (isSpace(byte) && !quote) {
            while (at + 1 < line.size() && isSpace(line[at + 1])) {
                ++at;
            }
            if (!flush(buffer, tokens)) {
                return {};
            }
        } else {
            buffer += byte;
        }
    }
    if (!buffer.empty() && quote && line.back() != '"') {
        return {};
    }
    if (!flush(buffer, tokens)) {
        return {};
    }
    return tokens;
}

}  // namespace reference
