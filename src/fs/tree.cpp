/* tree - directory tree walks (remove, chmod, chown, rename by name),
 * deferred removal of domain directories and the path helpers they use.
 *
 * A walk works through the descriptor of each directory it reads and
 * addresses entries by their bare names with the *at calls.  Symbolic links
 * are never followed: a link found in a tree is removed as a link or left
 * alone.
 */
#include "fs/tree.h"

#include "fs/effect.h"
#include "fs/file_util.h"
#include "fs/path_at.h"
#include "fs/remove.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <dirent.h>
#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>


static const size_t PATH_BUF_SIZE = 4096;

/* The three walks share one traversal; WalkOp says what is done per entry. */
enum WalkKind { WALK_CHMOD, WALK_CHOWN, WALK_RENAME };

struct WalkOp {
    WalkKind kind;
    uid_t uid;
    gid_t gid;
    mode_t file_mode;
    mode_t dir_mode;
    const char *old_name;
    const char *new_name;
};

/* chmod_entry - mode for the regular file name in dir, through a
 * descriptor opened without following a link; 0 or -1 */
static int chmod_entry(int dir, const char *name, mode_t mode)
{
    int fd = openat(dir, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    struct stat st;

    if (fd < 0)
        return -1;
    int rc = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) ? fchmod(fd, mode) : 0;
    int err = errno;
    close(fd);
    errno = err;
    return rc;
}

/* top_entry - a top path that is not a directory */
static void top_entry(int dir, const char *name, const char *path, const struct stat &st,
                      const WalkOp &op)
{
    switch (op.kind) {
    case WALK_CHMOD:
        if (S_ISREG(st.st_mode) && chmod_entry(dir, name, op.file_mode) != 0)
            report(1, "Unable to chmod entry %s: %s\n", path, strerror(errno));
        break;
    case WALK_CHOWN:
        if (S_ISREG(st.st_mode) && fchownat(dir, name, op.uid, op.gid, AT_SYMLINK_NOFOLLOW) != 0)
            report(1, "Unable to chown directory entry %s: %s\n", path, strerror(errno));
        break;
    case WALK_RENAME:
        if (S_ISREG(st.st_mode)) {
            errno = 0;
            report(0, "It's a regulat entry(not directory): %s\n", path);
        }
        break;
    }
}

/* inner_entry - an entry of the walked directory dir that is not a
 * directory */
static void inner_entry(int dir, const char *name, const struct stat &st, const WalkOp &op,
                        int top)
{
    switch (op.kind) {
    case WALK_CHMOD:
        if (S_ISREG(st.st_mode) && chmod_entry(dir, name, op.file_mode) != 0)
            report(1, "Unable to chmod directory entry %s: %s\n", name, strerror(errno));
        break;
    case WALK_CHOWN:
        if (S_ISREG(st.st_mode) && fchownat(dir, name, op.uid, op.gid, AT_SYMLINK_NOFOLLOW) != 0)
            report(1, "Unable to chown directory entry %s: %s\n", name, strerror(errno));
        break;
    case WALK_RENAME:
        if (top == 1 && S_ISREG(st.st_mode) && strcmp(name, op.old_name) == 0 &&
            renameat(dir, op.old_name, dir, op.new_name) != 0)
            report(1, "Unable to rename directory entry %s to %s: %s\n", op.old_name,
                   op.new_name, strerror(errno));
        break;
    }
}

/* finish_dir - the walked directory itself (open as fd), once its entries
 * are done */
static void finish_dir(int fd, const char *path, const WalkOp &op)
{
    switch (op.kind) {
    case WALK_CHMOD:
        if (fchmod(fd, op.dir_mode) != 0)
            report(1, "Unable to chmod dir %s: %s\n", path, strerror(errno));
        break;
    case WALK_CHOWN:
        if (fchown(fd, op.uid, op.gid) != 0)
            report(1, "Unable to chown dir %s: %s\n", path, strerror(errno));
        break;
    case WALK_RENAME:
        break;
    }
}

/* walk_at - apply op to name in the open directory parent (path names it
 * in messages) and, for a directory, to everything below it.  Every step
 * goes through the descriptor of the directory it works in, and no link is
 * ever followed, so a tree changed while it is walked cannot lead the walk
 * out of it. */
static void walk_at(int parent, const char *name, const char *path, int top, const WalkOp &op)
{
    struct stat st;

    /* Any failure (a missing path, a parent that is not a directory, a
     * name too long, no permission) ends the walk, with the system's
     * reason. */
    if (fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0)
        report(1, "Unable to get entry %s: %s\n", path, strerror(errno));
    if (!S_ISDIR(st.st_mode)) {
        top_entry(parent, name, path, st, op);
        return;
    }

    /* O_NOFOLLOW: a directory swapped for a link since the look above is
     * refused instead of being walked. */
    int fd = openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    int list_fd = fd < 0 ? -1 : dup(fd);
    DIR *dir = list_fd < 0 ? nullptr : fdopendir(list_fd);
    if (dir == nullptr)
        report(1, "Unable to open dir %s: %s\n", path, strerror(errno));

    struct dirent *ent;
    while ((ent = readdir(dir)) != nullptr) {
        const char *entry = ent->d_name;
        struct stat est;

        if (strcmp(entry, ".") == 0 || strcmp(entry, "..") == 0)
            continue;
        if (fstatat(fd, entry, &est, AT_SYMLINK_NOFOLLOW) != 0) {
            if (errno == ENOENT)
                continue;
            report(1, "Unable to check directory entry %s: %s\n", entry, strerror(errno));
        }
        if (S_ISDIR(est.st_mode))
            walk_at(fd, entry, entry, 1, op);
        else
            inner_entry(fd, entry, est, op, top);
    }
    if (closedir(dir) != 0)
        report(1, "Unable to close dir %s: %s\n", path, strerror(errno));
    if (top == 1)
        finish_dir(fd, path, op);
    close(fd);
}

/* walk - walk_at for a path, reached without following a link below a
 * mail domain directory */
static void walk(const char *path, int top, const WalkOp &op)
{
    PathAt at;

    if (path_at(path, &at) != 0)
        report(1, "Unable to get entry %s: %s\n", path, strerror(errno));
    walk_at(at.dir, at.name, path, top, op);
    path_at_close(&at);
}

void remove_tree(const char *path, int top)
{
    PathAt at;

    if (path_at(path, &at) != 0) {
        if (errno == ENOENT)
            return;
        report(1, "Unable to get entry %s: %s\n", path, strerror(errno));
    }
    /* The whole path goes through the effects; emptying a directory that
     * stays is this library's own, and no run asks for it. */
    if ((top ? effects()->remove(&at) : remove_tree_at(at.dir, at.name, 0)) != 0)
        report(1, "Unable to remove dir %s: %s\n", path, strerror(errno));
    path_at_close(&at);
}

void chmod_tree(const char *path, mode_t file_mode, mode_t dir_mode, int top)
{
    WalkOp op = {};
    op.kind = WALK_CHMOD;
    op.file_mode = file_mode;
    op.dir_mode = dir_mode;
    walk(path, top, op);
}

void chown_tree(const char *path, uid_t uid, gid_t gid, int top)
{
    WalkOp op = {};
    op.kind = WALK_CHOWN;
    op.uid = uid;
    op.gid = gid;
    walk(path, top, op);
}

int chown_chmod_tree(const char *path, uid_t uid, gid_t gid, mode_t file_mode,
                     mode_t dir_mode, int top)
{
    chown_tree(path, uid, gid, top);
    chmod_tree(path, file_mode, dir_mode, top);
    return 0;
}

void rename_in_tree(const char *path, const char *old_name, const char *new_name, int top)
{
    WalkOp op = {};
    op.kind = WALK_RENAME;
    op.old_name = old_name;
    op.new_name = new_name;
    walk(path, top, op);
}

void deferred_bases(const char *bases[3])
{
    bases[0] = panel_config.HTTPD_VHOSTS_D;
    bases[1] = panel_config.QMAIL_MAILNAMES_D;
    bases[2] = nullptr;
}

/* fill_unique_name - replace the trailing six X of templ with letters and
 * digits so that no entry of that name exists yet; 0 on success, -1 */
static int fill_unique_name(char *templ)
{
    size_t len = strlen(templ);
    struct stat st;

    if (len < 6 || strcmp(templ + len - 6, "XXXXXX") != 0)
        return -1;
    for (int attempt = 0; attempt < 100; attempt++) {
        if (random_letters(templ + len - 6, 6) != 0)
            return -1;
        if (lstat(templ, &st) != 0 && errno == ENOENT)
            return 0;
        memcpy(templ + len - 6, "XXXXXX", 6);
    }
    return -1;
}

void deferred_remove(const char *dir)
{
    const char *bases[3];
    const char *base = nullptr;
    char deferred[PATH_BUF_SIZE];
    struct stat st;

    deferred_bases(bases);
    for (int i = 0; bases[i] != nullptr; i++) {
        if (is_subdir(dir, bases[i]) == 1) {
            base = bases[i];
            break;
        }
    }
    if (base == nullptr) {
        errno = 0; /* a refusal, not a system error */
        report(1, "deferred_remove(): not supported directory for deferred remove: %s\n", dir);
    }
    if (stat(dir, &st) != 0)
        report(1, "deferred_remove(): can't stat directory, skip it.\n");
    errno = 0; /* a name cut by the buffer is no system error */
    int n = snprintf(deferred, sizeof(deferred), "%s/%sXXXXXX", base, DEFERRED_PREFIX);
    if (n < 0 || static_cast<size_t>(n) >= sizeof(deferred) || fill_unique_name(deferred) != 0)
        report(1, "deferred_remove(): Unable create filename for delete directory\n");
    errno = 0;
    report(0, "deferred_remove(): rename dir %s to %s\n", dir, deferred);
    if (rename_dir(dir, deferred) != 0)
        report(1, "deferred_remove(): Unable to rename directory\n");
}

/* resolve_dir - the absolute, link-free name of directory dir into out
 * (PATH_BUF_SIZE bytes), going back to saved_cwd; 0 or -1 */
static int resolve_dir(const char *dir, char *out, const char *saved_cwd)
{
    if (chdir(dir) != 0)
        return -1;
    int rc = getcwd(out, PATH_BUF_SIZE) == nullptr ? -1 : 0;
    if (chdir(saved_cwd) != 0)
        report(1, "Unable to change dir %s: %s\n", saved_cwd, strerror(errno));
    return rc;
}

/* is_subdir - compares resolved names, so "a/../b" and links above the
 * directories count for what they point to; the directories themselves
 * must not be links.  The base itself is not inside itself. */
int is_subdir(const char *path, const char *base)
{
    struct stat pst, bst;
    char saved[PATH_BUF_SIZE], rpath[PATH_BUF_SIZE], rbase[PATH_BUF_SIZE];

    if (lstat(path, &pst) != 0 || lstat(base, &bst) != 0)
        return 0;
    if (!S_ISDIR(pst.st_mode) || !S_ISDIR(bst.st_mode))
        return 0;
    if (getcwd(saved, sizeof(saved)) == nullptr)
        return 0;
    if (resolve_dir(path, rpath, saved) != 0 || resolve_dir(base, rbase, saved) != 0)
        return 0;
    size_t blen = strlen(rbase);
    return strncmp(rpath, rbase, blen) == 0 && rpath[blen] == '/';
}

/* real_path - a directory is resolved as it is; anything else through its
 * parent directory, with the last name appended unresolved.  A result that
 * does not fit the buffer is refused rather than cut. */
const char *real_path(const char *path)
{
    static char buf[PATH_BUF_SIZE];
    char saved[PATH_BUF_SIZE], dir[PATH_BUF_SIZE];
    const char *name = nullptr;
    struct stat st;

    if (getcwd(saved, sizeof(saved)) == nullptr) {
        report(0, "Unable to save current path\n");
        return nullptr;
    }
    if (stat(path, &st) != 0) {
        report(0, "Such path '%s' does not exist\n", path);
        return nullptr;
    }
    if (S_ISDIR(st.st_mode)) {
        snprintf(dir, sizeof(dir), "%s", path);
    } else {
        const char *slash = strrchr(path, '/');
        if (slash == nullptr) {
            snprintf(dir, sizeof(dir), ".");
            name = path;
        } else {
            /* "/name" lies in the root directory */
            int dlen = slash == path ? 1 : static_cast<int>(slash - path);
            snprintf(dir, sizeof(dir), "%.*s", dlen, path);
            name = slash + 1;
        }
    }
    if (resolve_dir(dir, buf, saved) != 0) {
        report(0, "Unable to get real path information\n");
        return nullptr;
    }
    if (name != nullptr) {
        size_t used = strlen(buf);
        const char *sep = used > 0 && buf[used - 1] == '/' ? "" : "/";
        int n = snprintf(buf + used, sizeof(buf) - used, "%s%s", sep, name);
        if (n < 0 || static_cast<size_t>(n) >= sizeof(buf) - used) {
            errno = 0;
            report(0, "Unable to get real path information\n");
            return nullptr;
        }
    }
    return buf;
}

int is_empty_string(const char *text)
{
    return text == nullptr || text[0] == '\0';
}
