/* loopback_up COMMAND...: brings the loopback interface up and becomes the command. */
#include <net/if.h>
#include <stdio.h>
#include <string.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

static int bring_up(void) {
    const int sock = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    struct ifreq request;
    memset(&request, 0, sizeof request);
    memcpy(request.ifr_name, "lo", 3);
    if (sock == -1 || ioctl(sock, SIOCGIFFLAGS, &request) == -1) return -1;
    request.ifr_flags = (short)(request.ifr_flags | IFF_UP);
    return ioctl(sock, SIOCSIFFLAGS, &request);
}

int main(int argc, char** argv) {
    if (argc < 2 || bring_up() == -1) {
        perror("loopback_up");
        return 1;
    }
    execvp(argv[1], argv + 1);
    perror(argv[1]);
    return 1;
}
