/// Socket addresses on Linux, where the length is not part of the address.
#include "platform/socket_address.h"

#include <netinet/in.h>

#include <cstring>

socklen_t socketAddressLength(const struct sockaddr* address) noexcept {
    switch (address->sa_family) {
        case AF_INET:
            return sizeof(struct sockaddr_in);
        case AF_INET6:
            return sizeof(struct sockaddr_in6);
        case AF_UNIX:
            return sizeof(struct sockaddr_un);
        default:
            return sizeof(struct sockaddr);
    }
}

void makeUnixAddress(const char* path, struct sockaddr_un* address) noexcept {
    std::memset(address, 0, sizeof *address);
    address->sun_family = AF_UNIX;
    std::memcpy(address->sun_path, path, strnlen(path, sizeof address->sun_path - 1));
}
