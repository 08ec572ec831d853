/* path_at - the mail tree reached through directory descriptors (see
 * path_at.h). */
#include "fs/path_at.h"

#include "fs/remove.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <unistd.h>

static const size_t PATH_BUF_SIZE = 4096;

/* The mail names directory and the domain directory reached last, kept open
 * between calls: popuser can neither rename nor replace them (their names
 * live in root's directories), and a removed one is noticed by its link
 * count. */
static struct {
    char base_path[4096];
    int base;
    char domain[256];
    int domain_fd;
} open_dirs = {"", -1, "", -1};

/* Why the last trusted link could not be opened. */
static int link_error;

/* tree_rest - the part of path below QMAIL_MAILNAMES_D, or null when the
 * path does not lie inside the mail tree */
static const char *tree_rest(const char *path)
{
    const char *base = panel_config.QMAIL_MAILNAMES_D;
    size_t len = base ? strlen(base) : 0;

    while (len > 1 && base[len - 1] == '/')
        len--;
    if (len == 0 || strncmp(path, base, len) != 0 || path[len] != '/')
        return nullptr;
    return path + len + 1;
}

/* root_link - 1 when name in dir is a link that root owns */
static int root_link(int dir, const char *name)
{
    struct stat st;

    return fstatat(dir, name, &st, AT_SYMLINK_NOFOLLOW) == 0 && S_ISLNK(st.st_mode)
           && st.st_uid == 0;
}

/* set_name - copy the last name into the PathAt; -1 when it is too long */
static int set_name(PathAt *at, const char *name, size_t len)
{
    if (len >= sizeof(at->name)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    memcpy(at->name, name, len);
    at->name[len] = '\0';
    return 0;
}

/* follow_links - path into real, its last name followed through every
 * link an administrator put there (a relative target read from the link's
 * directory); 0, or -1 with errno (ELOOP after 40 links) */
static int follow_links(const char *path, char *real)
{
    char target[PATH_BUF_SIZE];
    struct stat st;

    if (snprintf(real, PATH_BUF_SIZE, "%s", path) >= static_cast<int>(PATH_BUF_SIZE)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    for (int links = 0; lstat(real, &st) == 0 && S_ISLNK(st.st_mode); links++) {
        ssize_t len = readlink(real, target, sizeof(target) - 1);
        if (links == 40 || len < 0) {
            if (len >= 0)
                errno = ELOOP;
            return -1;
        }
        target[len] = '\0';
        char *slash = strrchr(real, '/');
        int dir_len = target[0] == '/' || slash == nullptr ? 0 : static_cast<int>(slash - real) + 1;
        if (dir_len + len >= static_cast<ssize_t>(PATH_BUF_SIZE)) {
            errno = ENAMETOOLONG;
            return -1;
        }
        memcpy(real + dir_len, target, static_cast<size_t>(len) + 1);
    }
    return 0;
}

/* plain_at - a path outside the mail tree: the directory of the file it
 * names opened.  A link there is followed to its end, so that the file is
 * read and replaced where the link points and the link itself stays: root
 * owns these directories, and an administrator who linked a file did so
 * on purpose. */
static int plain_at(const char *named, PathAt *at)
{
    char dir[PATH_BUF_SIZE], path[PATH_BUF_SIZE];

    if (follow_links(named, path) != 0)
        return -1;
    const char *slash = strrchr(path, '/');
    const char *name = slash ? slash + 1 : path;

    if (slash == nullptr) {
        snprintf(dir, sizeof(dir), ".");
    } else if (snprintf(dir, sizeof(dir), "%.*s", slash == path ? 1 : static_cast<int>(slash - path),
                        path) >= static_cast<int>(sizeof(dir))) {
        errno = ENAMETOOLONG;
        return -1;
    }
    if (set_name(at, name, strlen(name)) != 0)
        return -1;
    at->dir = open(dir, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    return at->dir < 0 ? -1 : 0;
}

/* kept - fd is one of the directories kept open between calls */
static int kept(int fd)
{
    return fd == open_dirs.base || fd == open_dirs.domain_fd;
}

/* alive - fd is a directory that has not been removed */
static int alive(int fd)
{
    struct stat st;

    return fd >= 0 && fstat(fd, &st) == 0 && st.st_nlink > 0;
}

void path_at_forget(void)
{
    if (open_dirs.domain_fd >= 0)
        close(open_dirs.domain_fd);
    if (open_dirs.base >= 0)
        close(open_dirs.base);
    open_dirs.base = open_dirs.domain_fd = -1;
    open_dirs.base_path[0] = open_dirs.domain[0] = '\0';
}

/* mail_names_dir - the kept descriptor of QMAIL_MAILNAMES_D, or -1 */
static int mail_names_dir(void)
{
    const char *base = panel_config.QMAIL_MAILNAMES_D;

    if (strcmp(open_dirs.base_path, base) == 0 && alive(open_dirs.base))
        return open_dirs.base;
    path_at_forget();
    if (strlen(base) >= sizeof(open_dirs.base_path)) {
        errno = ENAMETOOLONG;
        return -1;
    }
    open_dirs.base = open(base, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (open_dirs.base >= 0)
        snprintf(open_dirs.base_path, sizeof(open_dirs.base_path), "%s", base);
    return open_dirs.base;
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

/* open_trusted_link - the directory that root's link name in dir points
 * to, reached from its absolute text one component at a time, following
 * no link and passing only through directories that root holds, so that
 * no other user can swap a component for a link or a directory of its own;
 * -1 with ENOLINK (the reason kept for trusted_link_error: EINVAL for a
 * text that is not absolute or holds "..", EPERM for a directory on the
 * way that another user may change) when it cannot be */
static int open_trusted_link(int dir, const char *name)
{
    char target[PATH_BUF_SIZE];
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

/* domain_dir - the kept descriptor of the domain directory name in base,
 * or -1.  A link there is followed only when root owns it. */
static int domain_dir(int base, const char *name)
{
    if (strcmp(open_dirs.domain, name) == 0 && alive(open_dirs.domain_fd))
        return open_dirs.domain_fd;
    if (open_dirs.domain_fd >= 0)
        close(open_dirs.domain_fd);
    open_dirs.domain[0] = '\0';
    int fd = openat(base, name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
    if (fd < 0 && (errno == ENOTDIR || errno == ELOOP) && root_link(base, name))
        fd = open_trusted_link(base, name);
    open_dirs.domain_fd = fd;
    if (fd >= 0)
        snprintf(open_dirs.domain, sizeof(open_dirs.domain), "%s", name);
    return fd;
}

int path_at(const Effects *fx, const char *path, PathAt *at)
{
    const char *rest = tree_rest(path);

    at->fx = fx;
    at->dir = -1;
    at->path = path;
    at->guarded = 0;
    at->trusted_link = 0;
    at->owned = 1;
    /* Relative paths are refused: the working directory is no anchor. */
    if (path[0] != '/') {
        errno = EINVAL;
        return -1;
    }
    if (rest == nullptr)
        return plain_at(path, at);

    /* Below the domain directory reached last, the walk starts there. */
    size_t first = strcspn(rest, "/");
    int depth = 1, dir;
    if (rest[first] == '/' && rest[first + strspn(rest + first, "/")] != '\0'
        && first == strlen(open_dirs.domain) && strncmp(rest, open_dirs.domain, first) == 0
        && alive(open_dirs.domain_fd)) {
        dir = open_dirs.domain_fd;
        rest += first;
        depth = 2;
    } else {
        dir = mail_names_dir();
        if (dir < 0)
            dir = fx->missing_dir(path);
        if (dir < 0)
            return -1;
    }
    for (;; depth++) {
        while (*rest == '/')
            rest++;
        size_t len = strcspn(rest, "/");
        const char *next = rest + len;
        while (*next == '/')
            next++;
        if (set_name(at, rest, len) != 0 || len == 0 || strcmp(at->name, "..") == 0
            || strcmp(at->name, ".") == 0) {
            if (errno != ENAMETOOLONG)
                errno = EINVAL;
            if (!kept(dir))
                close(dir);
            return -1;
        }
        if (*next == '\0') {
            at->dir = dir;
            at->owned = !kept(dir);
            /* A link that root made directly in the mail names directory
             * is followed; popuser cannot make or change one there. */
            at->trusted_link = depth == 1 && root_link(dir, at->name);
            at->guarded = !at->trusted_link;
            return 0;
        }
        int sub = depth == 1 ? domain_dir(dir, at->name)
                             : openat(dir, at->name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
        int err = errno;
        /* Below a directory that is missing or is not one, the walk goes
         * on where the effects say (nowhere, when they are applied). */
        if (sub < 0 && (sub = fx->missing_dir(path)) < 0)
            errno = err;
        if (!kept(dir))
            close(dir);
        if (sub < 0) {
            errno = err == ELOOP ? ENOTDIR : err;
            return -1;
        }
        dir = sub;
        rest = next;
    }
}

void path_at_close(PathAt *at)
{
    if (at->dir >= 0 && at->owned)
        close(at->dir);
    at->dir = -1;
}

void at_child(const Effects *fx, PathAt *at, int dir_fd, const char *name, const char *path)
{
    at->fx = fx;
    at->dir = dir_fd;
    at->path = path;
    at->guarded = 1;
    at->trusted_link = 0;
    at->owned = 0;
    set_name(at, name, strlen(name));
}

int at_temporary(const PathAt *at, PathAt *tmp, char *tmp_path)
{
    *tmp = *at;
    tmp->owned = 0;
    tmp->path = tmp_path;
    if (snprintf(tmp_path, PATH_BUF_SIZE, "%s.tmp", at->path) >= static_cast<int>(PATH_BUF_SIZE)
        || snprintf(tmp->name, sizeof(tmp->name), "%s.tmp", at->name)
               >= static_cast<int>(sizeof(tmp->name))) {
        errno = ENAMETOOLONG;
        return -1;
    }
    return 0;
}

/* apply_set_aside - move the foreign object at the last name aside, in one
 * step, with one warning naming the path, and remove it there; 0, or -1
 * with errno when it could not be moved.  A link that root owns is
 * neither followed nor moved: root made it on purpose, and the caller
 * skips the object it wanted there (ELOOP).  A removal that fails leaves
 * the object aside, with a warning, and is no failure: what popuser
 * planted can cost it a name, never the run. */
int apply_set_aside(PathAt *at, const char *kind)
{
    char aside[32];
    struct stat st;

    if (fstatat(at->dir, at->name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        return errno == ENOENT ? 0 : -1;
    if (S_ISLNK(st.st_mode) && st.st_uid == 0) {
        errno = ELOOP;
        return -1;
    }
    if (rename_aside_at(at->dir, at->name, aside) != 0)
        return -1;
    /* What was moved must be what was judged: an object swapped in between
     * the look and the move (popuser putting a home back) goes back to its
     * name, or stays aside when the name is taken again, and is never
     * removed. */
    struct stat moved;
    if (fstatat(at->dir, aside, &moved, AT_SYMLINK_NOFOLLOW) != 0 || moved.st_dev != st.st_dev
        || moved.st_ino != st.st_ino) {
        renameat2(at->dir, aside, at->dir, at->name, RENAME_NOREPLACE);
        errno = ELOOP;
        return -1;
    }
    report_plain(0, "Replacing %s: a link or another kind of object stood where a %s belongs",
                 at->path, kind);
    if (remove_tree_at(at->dir, aside) != 0)
        report(0, "Unable to remove what stood at %s, left beside it as %s: %s", at->path, aside,
               strerror(errno));
    return 0;
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

    if (!at->guarded || fstatat(at->dir, at->name, &st, AT_SYMLINK_NOFOLLOW) != 0
        || (S_ISREG(st.st_mode) && st.st_nlink == 1))
        return 0;
    return at->fx->set_aside(at, "file");
}

int at_open(PathAt *at, int flags, mode_t mode)
{
    if (!at->guarded)
        return openat(at->dir, at->name, flags | O_CLOEXEC, mode);
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

int path_open(const Effects *fx, const char *path, int flags, mode_t mode)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0)
        return -1;
    int fd = at_open(&at, flags, mode);
    int err = errno;
    path_at_close(&at);
    errno = err;
    return fd;
}

/* open_dir_at - the last name opened as a directory: a trusted link
 * through open_trusted_link, anything guarded without following a link */
static int open_dir_at(PathAt *at)
{
    if (at->trusted_link)
        return open_trusted_link(at->dir, at->name);
    return openat(at->dir, at->name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | (at->guarded ? O_NOFOLLOW : 0));
}

int at_dir(PathAt *at, mode_t mode, int *made)
{
    if (made)
        *made = 0;
    int fd = open_dir_at(at);
    if (fd >= 0 || at->trusted_link)
        return fd;
    /* Missing, or something else stands there: the effects make it, or
     * report it. */
    return at->fx->make_dir(at, mode, made);
}

int apply_make_dir(PathAt *at, mode_t mode, int *made)
{
    int set_aside = 0;

    /* One foreign object is set aside; one that keeps coming back (or a
     * directory that keeps vanishing) is given up with ELOOP. */
    for (int attempt = 0; attempt < 4; attempt++) {
        int fd = open_dir_at(at);
        if (fd >= 0)
            return fd;
        if (errno == ENOENT) {
            if (mkdirat(at->dir, at->name, mode) == 0) {
                if (made)
                    *made = 1;
            } else if (errno != EEXIST) {
                return -1;
            }
        } else if (!at->guarded || (errno != ELOOP && errno != ENOTDIR)) {
            return -1;
        } else if (set_aside++ > 0) {
            errno = ELOOP;
            return -1;
        } else if (at->fx->set_aside(at, "directory") != 0) {
            return -1;
        }
    }
    errno = ELOOP;
    return -1;
}

DIR *path_opendir(const Effects *fx, const char *path)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0)
        return nullptr;
    int fd = open_dir_at(&at);
    int err = errno;
    path_at_close(&at);
    DIR *d = fd < 0 ? nullptr : fdopendir(fd);
    if (d == nullptr && fd >= 0) {
        err = errno;
        close(fd);
    }
    errno = err;
    return d;
}

int path_stat(const Effects *fx, const char *path, struct stat *st)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0)
        return -1;
    int rc = at_stat(&at, st);
    int err = errno;
    path_at_close(&at);
    errno = err;
    return rc;
}

int apply_remove(PathAt *at)
{
    return remove_tree_at(at->dir, at->name);
}

int apply_missing_dir(const char *path)
{
    (void)path;
    return -1;
}

int path_rmdir(const Effects *fx, const char *path)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0)
        return -1;
    int rc = fx->remove_dir(at.dir, at.name);
    int err = errno;
    path_at_close(&at);
    errno = err;
    return rc;
}

int apply_remove_dir(int dir, const char *name)
{
    return unlinkat(dir, name, AT_REMOVEDIR);
}

int at_stat(PathAt *at, struct stat *st)
{
    return fstatat(at->dir, at->name, st, at->guarded ? AT_SYMLINK_NOFOLLOW : 0);
}

int fd_owner_mode(const Effects *fx, int fd, const char *path, uid_t uid, gid_t gid, mode_t mode,
                  const char **step)
{
    return fx->owner_mode(fd, path, uid, gid, mode, step);
}

int apply_owner_mode(int fd, const char *path, uid_t uid, gid_t gid, mode_t mode, const char **step)
{
    struct stat st;

    (void)path;
    *step = "chown";
    if (fstat(fd, &st) != 0)
        return -1;
    if (((uid != static_cast<uid_t>(-1) && st.st_uid != uid) || (gid != static_cast<gid_t>(-1) && st.st_gid != gid))
        && fchown(fd, uid, gid) != 0)
        return -1;
    *step = "chmod";
    if (mode != static_cast<mode_t>(-1) && (st.st_mode & 07777) != mode && fchmod(fd, mode) != 0)
        return -1;
    return 0;
}

int path_owner_mode(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode,
                    const char **step)
{
    PathAt at;
    struct stat st;
    int fd = -1;

    *step = "chown";
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

int make_dir_noting(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode, int *made)
{
    PathAt at;
    int fd = -1;

    *made = 0;
    if (path_at(fx, path, &at) == 0) {
        fd = at_dir(&at, mode, made);
        int err = errno;
        path_at_close(&at);
        errno = err;
    }
    if (fd < 0) {
        if (errno != ENOLINK)
            report(0, "ERROR: Unable to mkdir %s: %s\n", path, strerror(errno));
        return -1;
    }
    /* Owner and mode are set only where they differ: an unchanged
     * directory is not touched. */
    const char *step;
    int rc = fd_owner_mode(fx, fd, path, uid, gid, mode, &step);
    if (rc != 0)
        report(0, "ERROR: Unable to %s %s: %s\n", step, path, strerror(errno));
    close(fd);
    return rc;
}
