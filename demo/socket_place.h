/// The place in the file system where the daemon listens: looked at before, tidied up after.
#ifndef RV_DEMO_SOCKET_PLACE_H
#define RV_DEMO_SOCKET_PLACE_H

#include <sys/types.h>

#include <string>
#include <utility>

namespace demo {

/// Listening on a Unix-domain path replaces whatever file stands there, so a look goes first.
class SocketPlace {
  public:
    explicit SocketPlace(std::string socketPath) noexcept : path(std::move(socketPath)) {}
    SocketPlace(const SocketPlace&) = delete;
    SocketPlace& operator=(const SocketPlace&) = delete;
    /// Removes the socket if it is still the one of noteSocket().
    ~SocketPlace();

    /// Says why the daemon must not or cannot listen at the path: it is too long for an address, another file
    /// than a socket stands there, a daemon answers there, or the directory is missing or closed to us. Empty
    /// when nothing speaks against it. Throws std::bad_alloc.
    std::string findObstacle() const;

    /// Remembers the socket that stands at the path now as our own.
    void noteSocket() noexcept;

  private:
    const std::string path;
    bool isOurs = false;
    dev_t device = 0;  ///< with inode: which file is ours
    ino_t inode = 0;
};

}  // namespace demo

#endif
