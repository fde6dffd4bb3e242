// The sandbox itself: what a test finds in it, and what stays outside.
#include "sandbox/sandbox.h"

#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

// The exit status of a shell script that runs behind the given launcher words.
int statusOfScript(std::vector<std::string> words, const std::string& script) {
    words.insert(words.end(), {"/bin/sh", "-c", script});
    std::vector<char*> vector;
    for (std::string& word : words) {
        vector.push_back(word.data());
    }
    vector.push_back(nullptr);
    pid_t child = 0;
    if (posix_spawn(&child, vector[0], nullptr, nullptr, vector.data(), environ) != 0) {
        return -1;
    }
    int status = 0;
    return waitpid(child, &status, 0) == child && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Sandbox, RunHoldsNothingButKeptDirectories) {
    const std::string source = fs::current_path();
    if (source.starts_with("/run/")) {
        GTEST_SKIP() << "the build lies under /run";
    }
    EXPECT_TRUE(fs::is_empty("/run"));
    EXPECT_TRUE(fs::is_empty("/var/run"));
}

TEST(Sandbox, RunAndTmpTakeFiles) {
    for (const char* path : {"/run/one", "/var/run/two", "/tmp/three"}) {
        EXPECT_FALSE(fs::exists(path)) << path;
        std::ofstream(path) << "text";
        EXPECT_EQ(4U, fs::file_size(path)) << path;
        EXPECT_TRUE(fs::remove(path)) << path;
    }
}

TEST(Sandbox, FilesOfOneSandboxAreUnseenInTheNext) {
    const std::string script = "test ! -e /tmp/one-name && touch /tmp/one-name";
    EXPECT_EQ(0, statusOfScript(sandbox::launcherWords({"/tmp"}, {}), script));
    EXPECT_EQ(0, statusOfScript(sandbox::launcherWords({"/tmp"}, {}), script));
    EXPECT_FALSE(fs::exists("/tmp/one-name"));
}

TEST(Sandbox, CoveredDirectoryIsEmptyInside) {
    EXPECT_EQ(0, statusOfScript(sandbox::launcherWords({"/var"}, {}), "test ! -e /var/run && test -d /var"));
    EXPECT_TRUE(fs::exists("/var/run"));
}

TEST(Sandbox, FrozenDirectoryRefusesNewFiles) {
    EXPECT_EQ(0, statusOfScript(sandbox::launcherWords({}, {"/tmp"}), "! touch /tmp/file 2>/dev/null"));
    std::ofstream("/tmp/file") << "text";
    EXPECT_TRUE(fs::remove("/tmp/file"));
}

TEST(Sandbox, UnknownDirectoryIsAFailure) {
    EXPECT_EQ(125, statusOfScript(sandbox::launcherWords({"/no/such/directory"}, {}), "exit 0"));
}

}  // namespace
