// tcp_client PORT: prints what a server on this machine says until it closes the connection.
#include <arpa/inet.h>
#include <netinet/in.h>

#include <atomic>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueTCPClient.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    (void)std::signal(SIGPIPE, SIG_IGN);
    const auto loop = RvKQueue::initWithSubsystem("org.example.tcp-client");
    if (!loop) return 1;
    loop->start();

    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto client = loop->createTCPClient(reinterpret_cast<const struct sockaddr*>(&address));
    if (!client) return 1;
    std::atomic_flag done;
    loop->startObject(client, [&](RvKQueueEventProtocol* object, const char* buffer, std::uint64_t size,
                                  std::uint64_t*, std::int32_t event) {
        if (event == kEventConnected) std::puts("connected");
        if (event == kEventData) std::printf("%.*s", static_cast<int>(size), buffer);
        if (event == kEventClosed || event == kEventConnectFailed) {
            std::puts(event == kEventClosed ? "closed" : "refused");
            loop->stopObject(object);
            done.test_and_set();
            done.notify_one();
        }
        return true;
    });

    done.wait(false);
    loop->stop();
    return 0;
}
