/// Wakeup over eventfd(2).
#include "platform/wakeup.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>

Wakeup::Wakeup() noexcept : fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {}

Wakeup::~Wakeup() {
    if (fd != -1) (void)close(fd);  // nothing is left to undo
}

void Wakeup::signal() const noexcept {
    const int savedErrno = errno;
    const std::uint64_t one = 1;
    // Fails only without a descriptor, or when 2^64 signals were never read; a waiter's time-out covers both.
    [[maybe_unused]] const ssize_t written = ::write(fd, &one, sizeof one);
    errno = savedErrno;
}
