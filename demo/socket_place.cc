#include "demo/socket_place.h"

#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace demo {
namespace {

constexpr std::size_t kMaxPathBytes = 103;  // the engine's limit for Unix-domain addresses

bool answers(const std::string& path) noexcept {
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (probe == -1) {
        return false;
    }
    struct sockaddr_un address {};
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());  // the rest is zero
    const int connected = connect(probe, reinterpret_cast<const struct sockaddr*>(&address), sizeof address);
    const bool listens = connected == 0 || errno == EAGAIN;  // EAGAIN: its backlog is full
    (void)close(probe);                                      // nothing was sent
    return listens;
}

std::string directoryOf(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    if (slash == std::string::npos) {
        return ".";
    }
    return slash == 0 ? "/" : path.substr(0, slash);
}

}  // namespace

SocketPlace::~SocketPlace() {
    struct stat found {};
    if (isOurs && lstat(path.c_str(), &found) == 0 && found.st_dev == device && found.st_ino == inode) {
        (void)unlink(path.c_str());  // the process ends; the next one would replace it anyway
    }
}

std::string SocketPlace::findObstacle() const {
    if (path.empty() || path.size() > kMaxPathBytes) {
        return "a socket's path has 1 to " + std::to_string(kMaxPathBytes) + " bytes";
    }
    struct stat found {};
    if (lstat(path.c_str(), &found) == 0) {
        if (!S_ISSOCK(found.st_mode)) {
            return "there is a file of that name";
        }
        if (answers(path)) {
            return "a daemon is running there already";
        }
    }
    return access(directoryOf(path).c_str(), W_OK | X_OK) == -1 ? std::strerror(errno) : "";
}

void SocketPlace::noteSocket() noexcept {
    struct stat found {};
    isOurs = lstat(path.c_str(), &found) == 0 && S_ISSOCK(found.st_mode);
    device = found.st_dev;
    inode = found.st_ino;
}

}  // namespace demo
