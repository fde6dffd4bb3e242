/* An editor that writes the user's text. It makes no system call that the tool makes, so that a fault in one
 * of those is always the tool's. */
#define _GNU_SOURCE
#include <sys/syscall.h>
#include <unistd.h>

#include "fault/user_text.h"

int main(int argc, char** argv) {
    static const char text[] = RV_USER_TEXT;
    if (argc != 2) return 2;
    const long file = syscall(SYS_creat, argv[1], 0600);
    if (syscall(SYS_pwrite64, file, text, sizeof text - 1, 0L) != (long)sizeof text - 1) return 3;
    return syscall(SYS_creat, RV_EDITED, 0600) < 0 ? 4 : 0;
}
