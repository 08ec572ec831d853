/* trusted_link - root's domain links resolved one component at a time (see
 * trusted_link.h). */
#include "fs/trusted_link.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Why the last trusted link could not be opened. */
static int link_error;

int trusted_link_at(int dir, const char *name)
{
    struct stat st;

    return fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)
           && st.st_uid == 0;
}

/* root_held - 1 when the open directory fd is root's and no one else may
 * rename or replace what is in it: not writable by group or others, or
 * sticky (where only root may move root's entries) */
static int root_held(int fd)
{
    struct stat st;

    return fstat(fd, &st) == 0 && st.st_uid == 0
           && ((st.st_mode & (S_IWGRP | S_IWOTH)) == 0 || (st.st_mode & S_ISVTX) != 0);
}

int trusted_link_open(int dir, const char *name)
{
    char target[4096];
    int fd = -1;

    ssize_t n = readlinkat(dir, name, target, sizeof(target) - 1);
    if (n < 0 || n == 0 || target[0] != '/') {
        link_error = n < 0 ? errno : EINVAL;
        errno = ENOLINK;
        return -1;
    }
    target[n] = '\0';
    fd = open("/", O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    link_error = errno;
    for (char *rest = target; fd >= 0;) {
        rest += strspn(rest, "/");
        if (*rest == '\0')
            return fd;
        size_t len = strcspn(rest, "/");
        char *next = rest + len;
        if (*next != '\0')
            *next++ = '\0';
        if (strcmp(rest, "..") == 0 || !root_held(fd)) {
            link_error = strcmp(rest, "..") == 0 ? EINVAL : EPERM;
            close(fd);
            fd = -1;
            break;
        }
        int sub = openat(fd, rest, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
        link_error = errno;
        close(fd);
        fd = sub;
        rest = next;
    }
    errno = ENOLINK;
    return -1;
}

int trusted_link_error(void)
{
    return link_error;
}
