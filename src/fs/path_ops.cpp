/* path_ops - single operations on a path, through its PathAt (see
 * path_ops.h). */
#include "fs/path_ops.h"

#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

int path_open(const Effects *fx, const char *path, int flags, mode_t mode)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0)
        return -1;
    int fd = at_open(&at, flags, mode);
    path_at_close(&at);
    return fd;
}

int path_read(const Effects *fx, const char *path, TextBuf *text)
{
    int fd = path_open(fx, path, O_RDONLY, 0);

    if (fd < 0)
        return 0;
    int rc = text_buf_read(text, fd);
    int err = errno;
    close(fd);
    errno = err;
    return rc;
}

DIR *path_opendir(const Effects *fx, const char *path)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0)
        return nullptr;
    int fd = at_open_dir(&at);
    path_at_close(&at);
    DIR *d = fd < 0 ? nullptr : fdopendir(fd);
    if (d == nullptr && fd >= 0) {
        int err = errno;
        close(fd);
        errno = err;
    }
    return d;
}

int path_stat(const Effects *fx, const char *path, struct stat *st)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0)
        return -1;
    int rc = at_stat(&at, st);
    path_at_close(&at);
    return rc;
}

int path_rmdir(const Effects *fx, const char *path)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0)
        return -1;
    int rc = fx->remove_dir(at.dir, at.name);
    path_at_close(&at);
    return rc;
}

int fd_owner_mode(const Effects *fx, int fd, const char *path, uid_t uid, gid_t gid, mode_t mode,
                  FileStep *step)
{
    return fx->owner_mode(fd, path, uid, gid, mode, step);
}

int path_owner_mode(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode,
                    FileStep *step)
{
    PathAt at;
    struct stat st;
    int fd = -1;

    *step = STEP_CHOWN;
    if (path_at(fx, path, &at) != 0)
        return -1;
    /* Only a regular file or a directory is opened: a device or a fifo
     * planted in its place is neither opened nor given away. */
    if (at_stat(&at, &st) == 0) {
        if (S_ISREG(st.st_mode) || S_ISDIR(st.st_mode))
            fd = openat(at.dir, at.name,
                        O_RDONLY | O_NONBLOCK | O_NOCTTY | O_CLOEXEC | (at.guarded ? O_NOFOLLOW : 0));
        else
            errno = EPERM;
    }
    int err = errno;
    path_at_close(&at);
    if (fd < 0) {
        errno = err == ELOOP ? EPERM : err;
        return -1;
    }
    int rc = 0;
    if (fstat(fd, &st) != 0 || (S_ISREG(st.st_mode) && st.st_nlink > 1 && at.guarded)) {
        errno = EPERM;
        rc = -1;
    } else {
        rc = fd_owner_mode(fx, fd, path, uid, gid, mode, step);
    }
    err = errno;
    close(fd);
    errno = err;
    return rc;
}

const char *step_word(FileStep step)
{
    static const char *const words[] = {"lock", "open", "write", "chown", "chmod", "rename"};

    return words[step];
}

int make_dir_noting(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode, int *made, int keep)
{
    PathAt at;
    int fd = -1, kept = 0;

    *made = 0;
    if (path_at(fx, path, &at) == 0) {
        fd = at_dir(&at, mode, made);
        kept = fd >= 0 && *made && keep && path_at_keep_fresh(&at, fd, uid, gid);
        path_at_close(&at);
    }
    if (kept)
        return 0;
    if (fd < 0) {
        if (errno != ENOLINK)
            report(0, "ERROR: Unable to mkdir %s: %s\n", path, strerror(errno));
        return -1;
    }
    /* Owner and mode are set only where they differ: an unchanged
     * directory is not touched. */
    FileStep step;
    int rc = fd_owner_mode(fx, fd, path, uid, gid, mode, &step);
    if (rc != 0)
        report(0, "ERROR: Unable to %s %s: %s\n", step_word(step), path, strerror(errno));
    close(fd);
    return rc;
}
