// descriptor_pair: talks to another process, cat(1), through two pipes.
#include <fcntl.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <string_view>

#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueBipipeClient.h"

namespace {

// Starts cat. Returns its process id, or -1; descriptors: what to read from, what to write to.
pid_t startCat(std::int32_t descriptors[2]) {
    int toCat[2];
    int fromCat[2];
    if (pipe2(toCat, O_CLOEXEC) == -1 || pipe2(fromCat, O_CLOEXEC) == -1) return -1;
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, toCat[0], STDIN_FILENO);
    posix_spawn_file_actions_adddup2(&actions, fromCat[1], STDOUT_FILENO);
    char name[] = "cat";
    char* const words[] = {name, nullptr};
    pid_t pid = -1;
    const bool isStarted = posix_spawnp(&pid, name, &actions, nullptr, words, environ) == 0;
    posix_spawn_file_actions_destroy(&actions);
    (void)close(toCat[0]);
    (void)close(fromCat[1]);
    descriptors[0] = fromCat[0];
    descriptors[1] = toCat[1];
    return isStarted ? pid : -1;
}

}  // namespace

int main() {
    (void)std::signal(SIGPIPE, SIG_IGN);
    const auto loop = RvKQueue::initWithSubsystem("org.example.descriptor-pair");
    std::int32_t descriptors[2];
    const pid_t cat = startCat(descriptors);
    if (!loop || cat == -1) return 1;
    loop->start();

    const auto endpoint = loop->createBipipeClient(descriptors, true);  // which closes both when it stops
    if (!endpoint) return 1;
    constexpr std::string_view line = "through cat and back\n";
    std::atomic_flag done;
    loop->startObject(endpoint, [&](RvKQueueEventProtocol* object, const char* buffer, std::uint64_t size,
                                    std::uint64_t* dropSize, std::int32_t event) {
        if (event == kEventConnected) {
            loop->write(object, line.data(), line.size());
        } else if (event == kEventData && size < line.size()) {
            *dropSize = 0;  // more is to come
        } else {
            if (event == kEventData) std::printf("%.*s", static_cast<int>(size), buffer);
            loop->stopObject(object);
            done.test_and_set();
            done.notify_one();
        }
        return true;
    });

    done.wait(false);
    loop->stop();
    int status = 0;
    return waitpid(cat, &status, 0) == cat && status == 0 ? 0 : 1;
}
