/* Runs a program in a mount namespace of its own, with empty directories in the places named.
 *
 *   launcher [--or-tell] [--keep DIR]... [--cover DIR]... [--freeze DIR]... -- PROGRAM [ARGUMENT]...
 *
 *   --cover DIR   an empty tmpfs on DIR. Without --cover and --freeze: /run, /tmp, and /var/run where that is
 *                 not a link to /run
 *   --freeze DIR  the same, but nothing can be created in it
 *   --keep DIR    DIR stays visible although it lies under a covered directory (a build tree in /tmp)
 *   --or-tell     when there is no namespace to be had, run PROGRAM all the same
 *
 * PROGRAM finds RV_SANDBOX in its environment: "inside", or with --or-tell the reason why it is outside.
 * Standard input, output and error are passed on untouched. Root takes a mount namespace; everybody else, and
 * a root without the right to mount, takes a user namespace in which its own ids are mapped onto themselves
 * (user_namespaces(7), mount_namespaces(7)). Ends with status 125 and a line on standard error on failure.
 */
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <limits.h>
#include <sched.h>
#include <stdbool.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <unistd.h>

enum { kFailed = 125, kMaxPlaces = 16 };

struct Place {
    const char* path;
    bool frozen;
    int keptFd; /* of a kept directory: what it was before anything was covered */
};

static const unsigned long kCoverFlags = MS_NOSUID | MS_NODEV;
static struct Place covers[kMaxPlaces];
static size_t coverCount;
static struct Place keeps[kMaxPlaces];
static size_t keepCount;
static char reason[256];

/* Remembers why the sandbox could not be made; the first reason is the one that counts. */
static bool fail(const char* what, const char* where) {
    if (reason[0] == '\0') {
        (void)snprintf(reason, sizeof reason, "%s %.160s: %s", what, where, strerror(errno));
    }
    return false;
}

static bool writeFile(const char* path, const char* text) {
    const int fd = open(path, O_WRONLY | O_CLOEXEC);
    if (fd == -1) {
        return fail("cannot open", path);
    }
    const bool written = write(fd, text, strlen(text)) == (ssize_t)strlen(text);
    if (!written) {
        (void)fail("cannot write", path);
    }
    (void)close(fd); /* the write told all there is to tell */
    return written;
}

static bool mapIds(uid_t user, gid_t group) {
    char map[64];
    (void)snprintf(map, sizeof map, "%u %u 1\n", (unsigned)user, (unsigned)user);
    if (!writeFile("/proc/self/uid_map", map) || !writeFile("/proc/self/setgroups", "deny\n")) {
        return false;
    }
    (void)snprintf(map, sizeof map, "%u %u 1\n", (unsigned)group, (unsigned)group);
    return writeFile("/proc/self/gid_map", map);
}

static bool enterNamespace(void) {
    const uid_t user = geteuid();
    const gid_t group = getegid();
    if (user == 0 && unshare(CLONE_NEWNS) == 0) {
        return true;
    }
    if (unshare(CLONE_NEWUSER | CLONE_NEWNS) == -1) {
        return fail("cannot enter", "a private namespace");
    }
    return mapIds(user, group);
}

static bool isBeneath(const char* path, const char* directory) {
    const size_t length = strlen(directory);
    return strncmp(path, directory, length) == 0 && path[length] == '/';
}

/* Opens what is to stay visible before it is covered; a directory that no cover hides needs no keeping. */
static bool openKept(void) {
    for (size_t k = 0; k < keepCount; ++k) {
        for (size_t c = 0; c < coverCount && keeps[k].keptFd == -1; ++c) {
            if (!isBeneath(keeps[k].path, covers[c].path)) {
                continue;
            }
            keeps[k].keptFd = open(keeps[k].path, O_PATH | O_DIRECTORY | O_CLOEXEC);
            if (keeps[k].keptFd == -1) {
                return fail("cannot open", keeps[k].path);
            }
        }
    }
    return true;
}

static bool cover(const struct Place* place) {
    const char* mode = strcmp(place->path, "/tmp") == 0 ? "mode=1777" : "mode=755";
    return mount("tmpfs", place->path, "tmpfs", kCoverFlags, mode) == 0 ||
           fail("cannot mount on", place->path);
}

/* Comes after the kept directories have found their places in it. */
static bool freezeCover(const struct Place* place) {
    const unsigned long flags = MS_REMOUNT | MS_BIND | MS_RDONLY | kCoverFlags;
    return !place->frozen || mount(NULL, place->path, NULL, flags, NULL) == 0 ||
           fail("cannot freeze", place->path);
}

static bool makeDirectories(const char* path) {
    char prefix[PATH_MAX];
    for (const char* slash = strchr(path + 1, '/'); slash != NULL; slash = strchr(slash + 1, '/')) {
        (void)snprintf(prefix, sizeof prefix, "%.*s", (int)(slash - path), path);
        if (mkdir(prefix, 0755) == -1 && errno != EEXIST) {
            return fail("cannot create", prefix);
        }
    }
    return mkdir(path, 0755) == 0 || errno == EEXIST || fail("cannot create", path);
}

static bool showKept(const struct Place* place) {
    if (place->keptFd == -1) {
        return true;
    }
    char source[64];
    (void)snprintf(source, sizeof source, "/proc/self/fd/%d", place->keptFd);
    return makeDirectories(place->path) && (mount(source, place->path, NULL, MS_BIND | MS_REC, NULL) == 0 ||
                                            fail("cannot keep", place->path));
}

static bool build(void) {
    char directory[PATH_MAX];
    const bool known = getcwd(directory, sizeof directory) != NULL;
    if (!enterNamespace() || !openKept()) {
        return false;
    }
    if (mount(NULL, "/", NULL, MS_REC | MS_PRIVATE, NULL) == -1) {
        return fail("cannot make private", "/");
    }
    for (size_t c = 0; c < coverCount; ++c) {
        if (!cover(&covers[c])) {
            return false;
        }
    }
    for (size_t k = 0; k < keepCount; ++k) {
        if (!showKept(&keeps[k])) {
            return false;
        }
    }
    for (size_t c = 0; c < coverCount; ++c) {
        if (!freezeCover(&covers[c])) {
            return false;
        }
    }
    /* The working directory may just have been covered: enter it again by its name. */
    return (known && chdir(directory) == 0) || chdir("/") == 0 || fail("cannot enter", "/");
}

static bool addCover(const char* path, bool frozen) {
    if (coverCount == kMaxPlaces) {
        return false;
    }
    covers[coverCount++] = (struct Place){.path = path, .frozen = frozen, .keptFd = -1};
    return true;
}

static bool addKeep(const char* path) {
    if (keepCount == kMaxPlaces) {
        return false;
    }
    keeps[keepCount++] = (struct Place){.path = path, .frozen = false, .keptFd = -1};
    return true;
}

static void addDefaultCovers(void) {
    struct stat link;
    (void)addCover("/run", false);
    (void)addCover("/tmp", false);
    if (lstat("/var/run", &link) == 0 && !S_ISLNK(link.st_mode)) {
        (void)addCover("/var/run", false);
    }
}

/* Returns the index of PROGRAM, or 0 when the words make no sense. */
static int readWords(int count, char** words, bool* orTell) {
    int next = 1;
    for (; next < count && strcmp(words[next], "--") != 0; ++next) {
        bool taken = true;
        if (strcmp(words[next], "--or-tell") == 0) {
            *orTell = true;
        } else if (next + 1 < count && strcmp(words[next], "--keep") == 0) {
            taken = addKeep(words[++next]);
        } else if (next + 1 < count && strcmp(words[next], "--cover") == 0) {
            taken = addCover(words[++next], false);
        } else if (next + 1 < count && strcmp(words[next], "--freeze") == 0) {
            taken = addCover(words[++next], true);
        } else {
            taken = false;
        }
        if (!taken) {
            return 0;
        }
    }
    return next + 1 < count ? next + 1 : 0;
}

int main(int argc, char** argv) {
    bool orTell = false;
    const int program = readWords(argc, argv, &orTell);
    if (program == 0) {
        (void)fputs("launcher: words not understood\n", stderr);
        return kFailed;
    }
    if (coverCount == 0) {
        addDefaultCovers();
    }
    const bool inside = build();
    if (!inside && !orTell) {
        (void)fprintf(stderr, "launcher: %s\n", reason);
        return kFailed;
    }
    if (setenv("RV_SANDBOX", inside ? "inside" : reason, 1) == 0) {
        (void)execv(argv[program], argv + program);
    }
    (void)fprintf(stderr, "launcher: cannot run %s: %s\n", argv[program], strerror(errno));
    return kFailed;
}
