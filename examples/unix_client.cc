// unix_client PATH TEXT: sends a line to a Unix-domain server and prints the line that comes back.
#include <atomic>
#include <csignal>
#include <cstdio>
#include <string>
#include <string_view>

#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueUnixClient.h"

int main(int argc, char** argv) {
    if (argc != 3) return 2;
    (void)std::signal(SIGPIPE, SIG_IGN);
    const auto loop = RvKQueue::initWithSubsystem("org.example.unix-client");
    if (!loop) return 1;
    loop->start();

    const auto client = loop->createUnixClient(argv[1]);
    if (!client) return 1;  // the path is too long, or memory or descriptors have run out
    const std::string line = std::string(argv[2]) + "\n";
    std::atomic_flag done;
    bool isAnswered = false;  // the I/O thread's until done is set
    loop->startObject(client, [&](RvKQueueEventProtocol* object, const char* buffer, std::uint64_t size,
                                  std::uint64_t* dropSize, std::int32_t event) {
        if (event == kEventConnected) {
            loop->write(object, line.data(), line.size());
            return true;
        }
        if (event == kEventData && std::string_view(buffer, size).find('\n') == std::string_view::npos) {
            *dropSize = 0;  // not a whole line yet
            return true;
        }
        isAnswered = event == kEventData;
        if (isAnswered) std::printf("%.*s", static_cast<int>(size), buffer);
        if (event == kEventClosed) std::puts("the server has closed the connection");
        if (event == kEventConnectFailed) std::puts("there is no server");
        loop->stopObject(object);
        done.test_and_set();
        done.notify_one();
        return true;
    });

    done.wait(false);
    loop->stop();
    return isAnswered ? 0 : 1;
}
