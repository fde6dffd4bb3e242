/* The least that a request can cost: connect, write the 8 bytes, read one frame, print its body. */
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

int main(void) {
    struct sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = "/var/run/rvusbpctl.sock"};
    static char buffer[65536];
    const char request[8] = {0};
    size_t have = 0;
    const int sock = socket(AF_UNIX, SOCK_STREAM, 0);
    if (sock == -1 || connect(sock, (struct sockaddr*)&address, sizeof address) == -1 ||
        write(sock, request, sizeof request) != (ssize_t)sizeof request) {
        return 1;
    }
    for (;;) {
        const ssize_t got = read(sock, buffer + have, sizeof buffer - have);
        uint32_t length;
        if (got < 1) {
            return 1;
        }
        have += (size_t)got;
        memcpy(&length, buffer + 4, sizeof length);
        if (have >= 8 && have >= 8 + (size_t)length) {
            fwrite(buffer + 8, 1, length, stdout);
            return 0;
        }
    }
}
