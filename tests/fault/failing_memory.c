/* Preloaded into the tool: lets some of its requests for memory fail, from the first line of main on.
 *
 *   RV_FAIL_FIRST   which request is the first to fail, counted from 1 over all threads
 *   RV_FAIL_TIMES   how many fail from there on
 *   RV_FAIL_MARK    a file that comes to exist when the first of them fails
 *
 * What the tool starts is left alone. Needs a tool with shared libraries.
 */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdatomic.h>
#include <stddef.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <unistd.h>

/* The C library's own, under the names that it keeps for those who replace the usual ones. */
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* memory, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

static atomic_long left_before; /* requests that succeed before the first failure */
static atomic_long left_to_fail;
static atomic_int armed;
static const char* mark;
static int (*real_main)(int, char**, char**);

static void leave_mark(void) {
    const int saved = errno;
    const long fd = syscall(SYS_openat, AT_FDCWD, mark, O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    if (fd >= 0) (void)syscall(SYS_close, fd);
    errno = saved;
}

static int fails(void) {
    if (!atomic_load(&armed) || atomic_fetch_sub(&left_before, 1) > 0) return 0;
    if (atomic_fetch_sub(&left_to_fail, 1) <= 0) return 0;
    leave_mark();
    errno = ENOMEM;
    return 1;
}

void* malloc(size_t size) {
    return fails() ? NULL : __libc_malloc(size);
}

void* calloc(size_t count, size_t size) {
    return fails() ? NULL : __libc_calloc(count, size);
}

void* realloc(void* memory, size_t size) {
    return fails() ? NULL : __libc_realloc(memory, size);
}

void* memalign(size_t alignment, size_t size) {
    return fails() ? NULL : __libc_memalign(alignment, size);
}

void* aligned_alloc(size_t alignment, size_t size) {
    return fails() ? NULL : __libc_memalign(alignment, size);
}

int posix_memalign(void** memory, size_t alignment, size_t size) {
    if (fails()) return ENOMEM;
    *memory = __libc_memalign(alignment, size);
    return *memory == NULL ? ENOMEM : 0;
}

void* mmap(void* address, size_t size, int protection, int flags, int fd, off_t offset) {
    if ((flags & MAP_ANONYMOUS) != 0 && fails()) return MAP_FAILED;
    return (void*)syscall(SYS_mmap, address, size, protection, flags, fd, offset);
}

static long number(const char* name) {
    const char* const text = getenv(name);
    return text == NULL ? 0 : atol(text);
}

static int main_with_faults(int argc, char** argv, char** environment) {
    mark = getenv("RV_FAIL_MARK");
    if (mark != NULL) {
        left_before = number("RV_FAIL_FIRST") - 1;
        left_to_fail = number("RV_FAIL_TIMES");
        (void)unsetenv("LD_PRELOAD");
        armed = 1;
    }
    return real_main(argc, argv, environment);
}

typedef int (*Start)(int (*)(int, char**, char**), int, char**, void (*)(void), void (*)(void),
                     void (*)(void), void*);

int __libc_start_main(int (*main)(int, char**, char**), int argc, char** argv, void (*init)(void),
                      void (*fini)(void), void (*loader_fini)(void), void* stack_end);

int __libc_start_main(int (*main)(int, char**, char**), int argc, char** argv, void (*init)(void),
                      void (*fini)(void), void (*loader_fini)(void), void* stack_end) {
    real_main = main;
    Start start;
    *(void**)&start = dlsym(RTLD_NEXT, "__libc_start_main");
    return start(main_with_faults, argc, argv, init, fini, loader_fini, stack_end);
}
