#include "manual/manual_page.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>

#include "cli/process.h"
#include "demo_session/demo_session.h"

namespace manual {
namespace {

/// A bold or underlined letter is three bytes with a backspace in the middle, as teletypes had it.
std::string withoutOverstrikes(std::string_view rendered) {
    std::string plain;
    for (const char letter : rendered) {
        if (letter == '\b') {
            while (!plain.empty() && (plain.back() & 0xc0) == 0x80) {
                plain.pop_back();  // the letter that is struck over may have several bytes
            }
            plain.pop_back();
        } else {
            plain.push_back(letter);
        }
    }
    return plain;
}

}  // namespace

std::vector<std::string> pages() {
    std::vector<std::string> paths;
    for (const auto& entry : std::filesystem::directory_iterator(RV_MANUAL_DIR)) {
        const std::string extension = entry.path().extension();
        if (extension == ".1" || extension == ".3" || extension == ".5") {
            paths.push_back(entry.path());
        }
    }
    std::sort(paths.begin(), paths.end());
    return paths;
}

std::string text(std::string_view name, int columns) {
    const std::string path = std::string(RV_MANUAL_DIR "/").append(name);
    const cli::Result result = run(demo_session::shell("mandoc -Tutf8 -O width=" + std::to_string(columns) +
                                                       " " + demo_session::quoted(path)));
    EXPECT_EQ(0, result.status) << result.err;
    return withoutOverstrikes(result.out);
}

std::vector<std::string> section(std::string_view name, std::string_view heading, int columns) {
    std::vector<std::string> lines;
    bool inside = false;
    for (const std::string& line : demo_session::linesOf(text(name, columns))) {
        if (!line.empty() && line[0] != ' ') {
            inside = line == heading;
        } else if (inside) {
            lines.push_back(line);
        }
    }
    return lines;
}

std::vector<std::string> exampleCommands(std::string_view name) {
    std::vector<std::string> commands;
    std::size_t indentation = std::string::npos;  // of the command that goes on, if any
    for (const std::string& line : section(name, "EXAMPLES", kTerminalColumns)) {
        const std::size_t start = line.find_first_not_of(' ');
        if (start != std::string::npos && line.compare(start, 2, "$ ") == 0) {
            commands.push_back(line.substr(start + 2));
            indentation = start;
        } else if (start != std::string::npos && indentation != std::string::npos && start > indentation) {
            commands.back() += "\n" + line.substr(start);
        } else {
            indentation = std::string::npos;
        }
    }
    return commands;
}

}  // namespace manual
