#include "sandbox/sandbox.h"

#include <limits.h>
#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string_view>

namespace sandbox {

namespace {

bool onlyLists(int argc, char** argv) {
    for (int index = 1; index < argc; ++index) {
        if (std::string_view(argv[index]).starts_with("--gtest_list_tests")) {
            return true;
        }
    }
    return false;
}

std::string ownPath() {
    char path[PATH_MAX];
    const ssize_t length = readlink("/proc/self/exe", path, sizeof path);
    return length < 1 ? std::string() : std::string(path, static_cast<std::size_t>(length));
}

std::vector<std::string> withKept(std::vector<std::string> words) {
    words.insert(words.begin() + 1, {"--keep", RV_SANDBOX_SOURCE_DIR, "--keep", RV_SANDBOX_BINARY_DIR});
    words.emplace_back("--");
    return words;
}

std::string become(std::vector<std::string> words) {
    std::vector<char*> vector;
    for (std::string& word : words) {
        vector.push_back(word.data());
    }
    vector.push_back(nullptr);
    (void)execv(vector[0], vector.data());
    return std::string("cannot run the launcher: ") + strerror(errno);
}

}  // namespace

std::vector<std::string> launcherWords(const std::vector<std::string>& cover,
                                       const std::vector<std::string>& freeze) {
    std::vector<std::string> words = {RV_SANDBOX_LAUNCHER};
    for (const std::string& directory : cover) {
        words.insert(words.end(), {"--cover", directory});
    }
    for (const std::string& directory : freeze) {
        words.insert(words.end(), {"--freeze", directory});
    }
    return withKept(words);
}

std::string enter(int argc, char** argv) {
    if (onlyLists(argc, argv)) {
        return {};
    }
    if (const char* place = getenv("RV_SANDBOX"); place != nullptr) {
        return std::strcmp(place, "inside") == 0 ? std::string() : std::string(place);
    }
    std::vector<std::string> words = withKept({RV_SANDBOX_LAUNCHER, "--or-tell"});
    words.push_back(ownPath());
    words.insert(words.end(), argv + 1, argv + argc);
    return become(words);
}

}  // namespace sandbox
