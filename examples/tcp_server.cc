// tcp_server PORT: greets every peer by its address and closes, until its standard input ends.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "libio-macOS/AcceptedConnection.h"
#include "libio-macOS/RvKQueue.h"
#include "libio-macOS/RvKQueueTCPServer.h"

namespace {

std::string greetingFor(const struct sockaddr_storage& peer) {
    char text[INET_ADDRSTRLEN] = "";
    struct sockaddr_in address;
    std::memcpy(&address, &peer, sizeof address);
    (void)inet_ntop(AF_INET, &address.sin_addr, text, sizeof text);
    return std::string("hello, ") + text + "\n";
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    (void)std::signal(SIGPIPE, SIG_IGN);
    const auto loop = RvKQueue::initWithSubsystem("org.example.tcp-server");
    if (!loop) return 1;
    loop->start();

    struct sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    const auto server = loop->createTCPServer(reinterpret_cast<const struct sockaddr*>(&address));
    if (!server) return 1;
    loop->startObject(server, [](RvKQueueEventProtocol*, const char* buffer, auto...) {
        AcceptedConnection accepted;
        std::memcpy(&accepted, buffer, sizeof accepted);
        const std::string greeting = greetingFor(accepted.peer.address);
        (void)send(accepted.descriptor, greeting.data(), greeting.size(), 0);
        return false;  // not taken: the server shuts it down and closes it
    });

    std::puts("listening");
    (void)std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    loop->stop();
    return 0;
}
