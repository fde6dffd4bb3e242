#include "rules/rule_file.h"

#include <fcntl.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdio>

#include "rules/rule_parser.h"
#include "rules/rule_printer.h"

namespace {

constexpr std::size_t kStdinChunkBytes = 1024;
constexpr std::size_t kFirstReadBytes = 4096;  // of a file that does not tell its size

/// open(2) and read(2), begun again when a signal interrupts them (opening a pipe may wait).
int openForReading(const char* path) noexcept {
    int fd = -1;
    do {
        fd = ::open(path, O_RDONLY | O_CLOEXEC);
    } while (fd < 0 && errno == EINTR);
    return fd;
}

ssize_t readSome(int fd, char* bytes, std::size_t size) noexcept {
    ssize_t count = -1;
    do {
        count = ::read(fd, bytes, size);
    } while (count < 0 && errno == EINTR);
    return count;
}

/// The size of a regular file, plus the byte that lets one read find its end; else a size to begin with.
std::size_t firstReadBytes(int fd) noexcept {
    struct stat status;
    if (::fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size > 0) {
        return static_cast<std::size_t>(status.st_size) + 1;
    }
    return kFirstReadBytes;
}

/// Appends everything up to the end of `fd` to `content`. A regular file takes one read for its content and
/// one that finds the end; one that grows meanwhile, a pipe or a device takes as many as it needs.
bool readToEnd(int fd, std::string& content) {
    std::size_t used = 0;
    content.resize(firstReadBytes(fd));
    for (;;) {
        const ssize_t count = readSome(fd, content.data() + used, content.size() - used);
        if (count <= 0) {
            content.resize(used);
            return count == 0;
        }
        used += static_cast<std::size_t>(count);
        if (used == content.size()) {
            content.resize(content.size() * 2);
        }
    }
}

bool readFile(const char* path, std::string& content) {
    const int fd = openForReading(path);
    if (fd < 0) {
        return false;
    }
    bool complete = false;
    try {
        complete = readToEnd(fd, content);
    } catch (...) {
        complete = false;
    }
    (void)::close(fd);  // nothing was written, so nothing can be lost
    return complete;
}

/// Through the stream, not the descriptor: the questions of the editing cycle read from the same stream.
bool readStdin(std::string& content) {
    char chunk[kStdinChunkBytes];
    for (;;) {
        const std::size_t count = std::fread(chunk, 1, sizeof chunk, stdin);
        content.append(chunk, count);
        if (std::ferror(stdin) != 0 && errno == EINTR) {
            std::clearerr(stdin);  // a signal is no end
            continue;
        }
        // A terminal tells its end once: another read would wait for a second Ctrl-D.
        if (count == 0 || std::feof(stdin) != 0) {
            return std::ferror(stdin) == 0;
        }
    }
}

/// Prints the reply into `fd` and closes it. A write error shows at the latest when the stream is closed.
bool printToDescriptor(const JsonObject& reply, int fd) noexcept {
    std::FILE* const stream = ::fdopen(fd, "w");
    if (stream == nullptr) {
        (void)::close(fd);  // nothing has been written
        return false;
    }
    const bool accepted = outputRuleList(reply, false, stream) == 0;
    const bool written = std::ferror(stream) == 0;
    return (std::fclose(stream) == 0) && written && accepted;
}

/// Nothing when there is no memory for it.
std::optional<std::string> copyOf(const char* text) noexcept {
    try {
        return text;
    } catch (...) {
        return {};
    }
}

}  // namespace

std::optional<std::string> load_any_file(const char* path, const char* what) noexcept {
    try {
        std::string content;
        if (path == nullptr ? readStdin(content) : readFile(path, content)) {
            return content;
        }
    } catch (...) {
        // no memory to hold it: reported below like any other failure
    }
    if (path == nullptr) {
        (void)std::fprintf(stderr, "Error loading %s from stdin.\n", what);
    } else {
        (void)std::fprintf(stderr, "Error loading %s from %s.\n", what, path);
    }
    return {};
}

RuleSet load_rule_file(const char* path) noexcept {
    const std::optional<std::string> text = load_any_file(path, "rules");
    if (!text) {
        return {};
    }
    return rule_parser_run(*text);
}

std::optional<std::string> rules2file(const JsonObject& reply) noexcept {
    std::optional<std::string> name = copyOf("/tmp/tmp.XXXXXXXXXXXX");
    char* const path = name ? name->data() : nullptr;
    const int fd = name ? ::mkostemp(path, O_CLOEXEC) : -1;
    if (fd < 0) {
        (void)std::fputs("Cannot create temporary file.\n", stderr);
        return {};
    }
    if (!printToDescriptor(reply, fd)) {
        (void)::unlink(path);  // it may be gone already; nothing more can be done about it
        (void)std::fputs("Cannot create reopen file.\n", stderr);
        return {};
    }
    (void)std::printf("In case of error the copy of rules is put into \"%s\".\n", path);
    (void)std::fflush(stdout);  // the editor takes the terminal next
    return name;
}
