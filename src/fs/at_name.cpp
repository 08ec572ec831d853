/* at_name - the last name of a PathAt opened, made or looked at under the
 * rules of the guarded tree (see at_name.h). */
#include "fs/at_name.h"

#include "fs/trusted_link.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

/* nothing_there - a lookup in an absent directory: -1 with ENOENT */
static int nothing_there(void)
{
    errno = ENOENT;
    return -1;
}

int at_in_the_way(int err)
{
    /* ENOENT: the rebuild makes every directory of the tree before it
     * works in it, so a directory or file it just made and then does not
     * find (or finds deleted under its descriptor) was taken away
     * meanwhile. */
    return err == ELOOP || err == ENOTDIR || err == EISDIR || err == ENOENT || err == ENOLINK;
}

int at_clear_foreign(PathAt *at)
{
    struct stat st;

    if (!at->guarded || at->absent || at_unmade(at) || fstatat(at->dir, at->name, &st, AT_SYMLINK_NOFOLLOW) != 0
        || (S_ISREG(st.st_mode) && st.st_nlink == 1))
        return 0;
    return at->fx->set_aside(at, "file");
}

int at_open(PathAt *at, int flags, mode_t mode)
{
    if (at->absent || (at_unmade(at) && !(flags & O_CREAT)))
        return nothing_there();
    if (!at->guarded)
        return openat(at->dir, at->name, flags | O_CLOEXEC, mode);
    /* A new file in a directory the run keeps to itself is made at once;
     * one found standing there is looked at as anywhere else. */
    if (at_unmade(at)) {
        at_note_made(at);
        int fd = openat(at->dir, at->name, flags | O_EXCL | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode);
        if (fd >= 0 || errno != EEXIST || (flags & O_EXCL))
            return fd;
    }
    /* Emptied only once it is known to be a file of its own: a hard link
     * to another file must not be cut by the open itself. */
    int truncate = flags & O_TRUNC;
    flags &= ~O_TRUNC;
    for (int attempt = 0;; attempt++) {
        struct stat st;
        int fd = -1;
        /* A link, device or fifo is not even opened. */
        if (fstatat(at->dir, at->name, &st, AT_SYMLINK_NOFOLLOW) != 0 || S_ISREG(st.st_mode))
            fd = openat(at->dir, at->name, flags | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY, mode);
        else
            errno = ELOOP;
        if (fd >= 0) {
            if (fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_nlink == 1) {
                if (truncate && ftruncate(fd, 0) != 0) {
                    int err = errno;
                    close(fd);
                    errno = err;
                    return -1;
                }
                return fd;
            }
            close(fd);
        } else if (errno != ELOOP && errno != EISDIR && errno != ENXIO && errno != ENODEV) {
            return -1;
        }
        if (attempt > 0) {
            errno = ELOOP;
            return -1;
        }
        if (at->fx->set_aside(at, "file") != 0)
            return -1;
        if (!(flags & O_CREAT)) {
            errno = ENOENT;
            return -1;
        }
        flags |= O_EXCL;
    }
}

int at_open_dir(PathAt *at)
{
    if (at->absent || at_unmade(at))
        return nothing_there();
    if (at->trusted_link)
        return trusted_link_open(at->dir, at->name);
    return openat(at->dir, at->name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | (at->guarded ? O_NOFOLLOW : 0));
}

int at_dir(PathAt *at, mode_t mode, int *made)
{
    if (made)
        *made = 0;
    int fd = at_open_dir(at);
    if (fd >= 0 || at->trusted_link)
        return fd;
    /* Missing, or something else stands there: the effects make it, or
     * report it. */
    return at->fx->new_dir(at, mode, made);
}

int at_stat(PathAt *at, struct stat *st)
{
    if (at->absent || at_unmade(at))
        return nothing_there();
    return fstatat(at->dir, at->name, st, at->guarded ? AT_SYMLINK_NOFOLLOW : 0);
}

