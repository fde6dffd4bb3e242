// stream_socket: reads lines from one end of a socket pair; the main thread writes to the other end.
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <string_view>

#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueStreamSocket.h"

namespace {

// Prints the complete lines and returns how many bytes they have.
std::uint64_t printLines(std::string_view bytes) {
    std::uint64_t used = 0;
    for (auto end = bytes.find('\n'); end != bytes.npos; end = bytes.find('\n', used)) {
        std::printf("line: %.*s\n", static_cast<int>(end - used), bytes.data() + used);
        used = end + 1;
    }
    return used;
}

}  // namespace

int main() {
    const auto loop = RvKQueue::initWithSubsystem("org.example.stream-socket");
    int ends[2];
    if (!loop || socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) == -1) return 1;
    loop->start();

    const auto endpoint = loop->createStreamSocket(ends[0], true);  // from here on ends[0] is the endpoint's
    if (!endpoint) return 1;
    std::atomic_flag done;
    loop->startObject(endpoint, [&](RvKQueueEventProtocol* object, const char* buffer, std::uint64_t size,
                                    std::uint64_t* dropSize, std::int32_t event) {
        if (event == kEventConnected) std::puts("connected");
        // What follows the last complete line is offered again, with what comes next.
        if (event == kEventData) *dropSize = printLines({buffer, size});
        if (event == kEventClosed) {
            std::puts("closed");
            loop->stopObject(object);
            done.test_and_set();
            done.notify_one();
        }
        return true;
    });

    const bool isSent = write(ends[1], "one\ntw", 6) == 6 && write(ends[1], "o\n", 2) == 2;
    (void)close(ends[1]);
    done.wait(false);
    loop->stop();
    return isSent ? 0 : 1;
}
