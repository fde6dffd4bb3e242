// echo_server PATH: a Unix-domain server that sends back what it receives, until its standard input ends.
#include <csignal>
#include <cstdio>
#include <cstring>

#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueStreamSocket.h"
#include "libio-macOS/RvKQueueUnixServer.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    (void)std::signal(SIGPIPE, SIG_IGN);
    const auto loop = RvKQueue::initWithSubsystem("org.example.echo-server");
    if (!loop) return 1;
    loop->start();

    const auto echo = [&](RvKQueueEventProtocol* connection, const char* buffer, std::uint64_t size,
                          std::uint64_t*, std::int32_t event) {
        if (event == kEventData) loop->write(connection, buffer, size);
        if (event == kEventClosed) loop->stopObject(connection);
        return true;
    };
    const auto server = loop->createUnixServer(argv[1], 0600);  // for this user only
    if (!server) return 1;
    loop->startObject(server, [&](RvKQueueEventProtocol*, const char* buffer, auto...) {
        AcceptedConnection accepted;
        std::memcpy(&accepted, buffer, sizeof accepted);
        const auto connection = loop->createStreamSocket(accepted.descriptor, true);
        if (!connection) return false;  // the server closes the descriptor
        loop->startObject(connection, echo);
        return true;
    });

    std::puts("listening");
    (void)std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    loop->stop();
    (void)std::remove(argv[1]);
    return 0;
}
