/* path_at - the mail tree reached through directory descriptors (see
 * path_at.h). */
#include "fs/path_at.h"

#include "fs/trusted_link.h"
#include "runtime/config.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <unordered_set>

static const size_t PATH_BUF_SIZE = 4096;

/* HeldDir - a directory held open by the run: its path, its descriptor,
 * whom it goes to, how deep below QMAIL_MAILNAMES_D it lies (0 for that
 * directory itself), whether the run made it and keeps it to itself
 * (fresh) and the names made in it then */
struct HeldDir {
    std::string path;
    int fd;
    uid_t uid;
    gid_t gid;
    int depth;
    int fresh;
    std::unordered_set<std::string> made;
};

/* The held directories (the mail names directory, a domain's, a home, its
 * Maildir: one chain at a time); an entry with fd -1 is free. */
static HeldDir held_dirs[6] = {{"", -1, 0, 0, 0, 0, {}}, {"", -1, 0, 0, 0, 0, {}}, {"", -1, 0, 0, 0, 0, {}},
                                 {"", -1, 0, 0, 0, 0, {}}, {"", -1, 0, 0, 0, 0, {}}, {"", -1, 0, 0, 0, 0, {}}};

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

/* The object every descriptor from absent_dir_fd() is a copy of, and its
 * identity; made at the first call. */
static int absent_proto = -1;
static struct stat absent_id;

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

/* held_by_fd - the held directory of descriptor fd, or null */
static HeldDir *held_by_fd(int fd)
{
    for (HeldDir &f : held_dirs)
        if (fd >= 0 && f.fd == fd)
            return &f;
    return nullptr;
}

/* fresh_by_fd - the directory of descriptor fd when the run keeps it to
 * itself, or null */
static HeldDir *fresh_by_fd(int fd)
{
    HeldDir *f = held_by_fd(fd);

    return f != nullptr && f->fresh ? f : nullptr;
}

/* held_above - the deepest held directory that path lies below, with
 * *rest set to the part of path below it; null when none */
static HeldDir *held_above(const char *path, const char **rest)
{
    HeldDir *best = nullptr;

    for (HeldDir &f : held_dirs) {
        size_t len = f.path.size();
        if (f.fd >= 0 && (best == nullptr || len > best->path.size()) && strncmp(path, f.path.c_str(), len) == 0
            && path[len] == '/') {
            best = &f;
            *rest = path + len;
        }
    }
    return best;
}

/* kept - fd is one of the directories kept open between calls */
static int kept(int fd)
{
    return fd == open_dirs.base || fd == open_dirs.domain_fd || held_by_fd(fd) != nullptr;
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
    if (fd < 0 && (errno == ENOTDIR || errno == ELOOP) && trusted_link_at(base, name))
        fd = trusted_link_open(base, name);
    open_dirs.domain_fd = fd;
    if (fd >= 0)
        snprintf(open_dirs.domain, sizeof(open_dirs.domain), "%s", name);
    return fd;
}

int path_at(const Effects *fx, const char *path, PathAt *at)
{
    const char *rest = tree_rest(path);

    *at = PathAt{.fx = fx, .dir = -1, .name = "", .guarded = 0, .trusted_link = 0, .absent = 0, .owned = 1,
                 .path = path, .fresh = nullptr};
    /* Relative paths are refused: the working directory is no anchor. */
    if (path[0] != '/') {
        errno = EINVAL;
        return -1;
    }
    if (rest == nullptr)
        return plain_at(path, at);

    /* Below a directory the run holds, or else below the domain directory
     * reached last, the walk starts there. */
    size_t first = strcspn(rest, "/");
    int depth = 1, dir;
    const char *below;
    HeldDir *held = held_above(path, &below);
    if (held != nullptr) {
        dir = held->fd;
        rest = below;
        depth = held->depth + 1;
    } else if (rest[first] == '/' && rest[first + strspn(rest + first, "/")] != '\0'
        && first == strlen(open_dirs.domain) && strncmp(rest, open_dirs.domain, first) == 0
        && alive(open_dirs.domain_fd)) {
        dir = open_dirs.domain_fd;
        rest += first;
        depth = 2;
    } else {
        dir = mail_names_dir();
        if (dir < 0) {
            dir = fx->missing_dir(path);
            if (dir < 0)
                return -1;
            at->absent = 1;
        }
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
            at->fresh = fresh_by_fd(dir);
            /* A link that root made directly in the mail names directory
             * is followed; popuser cannot make or change one there. */
            at->trusted_link = depth == 1 && !at->absent && !at_unmade(at) && trusted_link_at(dir, at->name);
            at->guarded = !at->trusted_link;
            return 0;
        }
        /* Below an absent directory only the names are walked. */
        if (at->absent) {
            rest = next;
            continue;
        }
        HeldDir *in = fresh_by_fd(dir);
        int sub = -1;
        if (in != nullptr && in->made.count(at->name) == 0)
            errno = ENOENT;
        else if (depth == 1)
            sub = domain_dir(dir, at->name);
        else
            sub = openat(dir, at->name, O_RDONLY | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW);
        int err = errno;
        /* Below a directory that is missing or is not one, the walk goes
         * on where the effects say (nowhere, when they are applied). */
        if (sub < 0) {
            sub = fx->missing_dir(path);
            at->absent = sub >= 0;
            if (sub < 0)
                errno = err;
        }
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
    int err = errno;

    if (at->dir >= 0 && at->owned)
        close(at->dir);
    at->dir = -1;
    errno = err;
}

void at_child(const Effects *fx, PathAt *at, int dir_fd, const char *name, const char *path)
{
    HeldDir *fresh = fresh_by_fd(dir_fd);

    *at = PathAt{.fx = fx, .dir = dir_fd, .name = "", .guarded = 1, .trusted_link = 0,
                 .absent = fresh == nullptr && is_absent_dir(dir_fd), .owned = 0, .path = path, .fresh = fresh};
    set_name(at, name, strlen(name));
}

/* hold - fd held as the directory at path; 1, or 0 when no entry is free */
static int hold(const char *path, int fd, uid_t uid, gid_t gid, int fresh)
{
    const char *rest = tree_rest(path);
    int depth = 0;

    for (const char *p = rest; p != nullptr && *p != '\0'; p = strchr(p + 1, '/'))
        depth++;
    for (HeldDir &f : held_dirs) {
        if (f.fd < 0) {
            f.path = path;
            f.fd = fd;
            f.uid = uid;
            f.gid = gid;
            f.depth = depth;
            f.fresh = fresh;
            f.made.clear();
            return 1;
        }
    }
    return 0;
}

int path_at_keep_fresh(const PathAt *at, int fd, uid_t uid, gid_t gid)
{
    const char *rest = tree_rest(at->path);

    /* Nobody but root can have put anything in a directory made in one
     * the run keeps, in the mail names directory, or as that directory. */
    if (at->fresh == nullptr && !(rest != nullptr && at->dir == open_dirs.base && strchr(rest, '/') == nullptr)
        && strcmp(at->path, panel_config.QMAIL_MAILNAMES_D) != 0)
        return 0;
    return hold(at->path, fd, uid, gid, 1);
}

int path_at_hold(const char *path, int fd)
{
    /* One that is only reported missing stands for nothing to hold. */
    if (is_absent_dir(fd))
        return 0;
    return hold(path, fd, static_cast<uid_t>(-1), static_cast<gid_t>(-1), 0);
}

int path_at_give_fresh(const Effects *fx, const char *path)
{
    int rc = 0;

    for (HeldDir &f : held_dirs) {
        if (f.fd < 0 || f.path != path)
            continue;
        if (f.uid != static_cast<uid_t>(-1))
            rc = fx->give(f.fd, f.uid, f.gid);
        int err = errno;
        close(f.fd);
        f.fd = -1;
        f.path.clear();
        f.made.clear();
        errno = err;
    }
    return rc;
}

int at_unmade(const PathAt *at)
{
    return at->fresh != nullptr && at->fresh->made.count(at->name) == 0;
}

void at_note_made(const PathAt *at)
{
    if (at->fresh != nullptr)
        at->fresh->made.insert(at->name);
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

int absent_dir_fd(void)
{
    /* A memory file: not a directory, so even a lookup made through it
     * fails, and an object of its own that no other descriptor can be. */
    if (absent_proto < 0 && (absent_proto = memfd_create("absent directory", MFD_CLOEXEC)) >= 0)
        fstat(absent_proto, &absent_id);
    return absent_proto < 0 ? -1 : fcntl(absent_proto, F_DUPFD_CLOEXEC, 0);
}

int is_absent_dir(int fd)
{
    struct stat st;

    return absent_proto >= 0 && fd >= 0 && fstat(fd, &st) == 0 && st.st_dev == absent_id.st_dev
           && st.st_ino == absent_id.st_ino;
}
