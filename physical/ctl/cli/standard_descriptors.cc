#include "cli/standard_descriptors.h"

#include <fcntl.h>
#include <unistd.h>

#include <initializer_list>

void fillStandardDescriptors() noexcept {
    for (const int fd : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
        if (fcntl(fd, F_GETFD) == -1) {
            // Takes the lowest free number, which is fd. A directory can be opened everywhere and refuses
            // both.
            (void)open("/", O_RDONLY | O_CLOEXEC);  // refused: the descriptor stays closed
        }
    }
}
