/* tree - whole trees removed by path, at once or deferred, owner, mode and
 * names changed through them, and the path helpers (see tree.h).
 *
 * A walk works through the descriptor of each directory it reads, entries
 * addressed by their bare names: no link is ever followed, and every
 * change goes through the effects (owner_mode, move).  The path helpers
 * resolve names with realpath(3) and leave the working directory alone.
 */
#include "fs/tree.h"

#include "fs/file_util.h"
#include "fs/path_at.h"
#include "fs/path_ops.h"
#include "fs/remove.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <dirent.h>
#include <errno.h>
#include <limits.h>
#include <stdlib.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const size_t PATH_BUF_SIZE = 4096;
static const char HDV1_MARKER[] = "/dev/hdv1";

/* Cached answer of hdv1_marker_present(): -1 until first asked. */
static int hdv1_cached = -1;

void remove_tree(const Effects *fx, const char *path)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0) {
        if (errno == ENOENT)
            return;
        report(1, "Unable to get entry %s: %s\n", path, strerror(errno));
    }
    if (fx->remove(&at) != 0)
        report(1, "Unable to remove dir %s: %s\n", path, strerror(errno));
    path_at_close(&at);
}

void deferred_bases(const char *bases[3])
{
    bases[0] = panel_config.HTTPD_VHOSTS_D;
    bases[1] = panel_config.QMAIL_MAILNAMES_D;
    bases[2] = nullptr;
}

void deferred_remove(const Effects *fx, const char *dir)
{
    const char *bases[3];
    const char *base = nullptr;
    char deferred[PATH_BUF_SIZE];
    struct stat st;

    deferred_bases(bases);
    for (int i = 0; base == nullptr && bases[i] != nullptr; i++)
        if (is_subdir(dir, bases[i]) == 1)
            base = bases[i];
    if (base == nullptr)
        report_plain(1, "deferred_remove(): not supported directory for deferred remove: %s\n", dir);
    if (stat(dir, &st) != 0)
        report(1, "deferred_remove(): can't stat directory, skip it.\n");
    errno = 0; /* a name cut by the buffer is no system error */
    int n = snprintf(deferred, sizeof(deferred), "%s/%sXXXXXX", base, DEFERRED_PREFIX);
    /* Six random letters and digits for the X; the move never goes over
     * an existing name. */
    if (n < 0 || static_cast<size_t>(n) >= sizeof(deferred) || random_letters(deferred + n - 6, 6) != 0)
        report(1, "deferred_remove(): Unable create filename for delete directory\n");
    report_plain(0, "deferred_remove(): rename dir %s to %s\n", dir, deferred);
    if (rename_dir(fx, dir, deferred) != 0)
        report(1, "deferred_remove(): Unable to rename directory\n");
}

/* is_subdir - compares resolved names, so "a/../b" and links above the
 * directories count for what they point to; the directories themselves
 * must not be links.  The base itself is not inside itself. */
int is_subdir(const char *path, const char *base)
{
    struct stat pst, bst;
    char rpath[PATH_MAX], rbase[PATH_MAX];

    if (lstat(path, &pst) != 0 || lstat(base, &bst) != 0 || !S_ISDIR(pst.st_mode) || !S_ISDIR(bst.st_mode)
        || !realpath(path, rpath) || !realpath(base, rbase))
        return 0;
    size_t blen = strlen(rbase);
    return strncmp(rpath, rbase, blen) == 0 && rpath[blen] == '/';
}

/* real_path - a directory is resolved as it is; anything else through its
 * directory, the last name appended unresolved.  A result that does not
 * fit the buffer is refused rather than cut. */
const char *real_path(const char *path)
{
    static char buf[PATH_MAX];
    char dir[PATH_MAX] = ".";
    const char *slash = strrchr(path, '/'), *name = path;
    struct stat st;

    if (stat(path, &st) != 0) {
        report(0, "Such path '%s' does not exist\n", path);
        return nullptr;
    }
    if (S_ISDIR(st.st_mode))
        snprintf(dir, sizeof(dir), "%s", path), name = nullptr;
    else if (slash) /* "/name" lies in the root directory */
        snprintf(dir, sizeof(dir), "%.*s", slash == path ? 1 : static_cast<int>(slash - path), path), name = slash + 1;
    if (!realpath(dir, buf)) {
        report(0, "Unable to get real path information\n");
        return nullptr;
    }
    size_t used = strlen(buf);
    if (name && static_cast<size_t>(snprintf(buf + used, sizeof(buf) - used, "%s%s", used > 1 ? "/" : "", name))
                    >= sizeof(buf) - used) {
        report_plain(0, "Unable to get real path information\n");
        return nullptr;
    }
    return buf;
}

int is_empty_string(const char *text)
{
    return text == nullptr || text[0] == '\0';
}

/* WalkOp - what a walk changes: owner and modes (-1: left), or with
 * old_name set the regular files of that name renamed */
struct WalkOp {
    const Effects *fx;
    uid_t uid;
    gid_t gid;
    mode_t file_mode;
    mode_t dir_mode;
    const char *old_name;
    const char *new_name;
};

/* rename_entry - the regular file old_name in dir renamed to new_name
 * through the effects */
static void rename_entry(const WalkOp &op, int dir)
{
    PathAt from, to;

    at_child(op.fx, &from, dir, op.old_name, op.old_name);
    at_child(op.fx, &to, dir, op.new_name, op.new_name);
    if (op.fx->move(&from, &to) != 0)
        report(1, "Unable to rename directory entry %s to %s: %s\n", op.old_name, op.new_name, strerror(errno));
}

/* walk_at - op on name in the open directory parent (path names it in
 * messages) and, for a directory, on everything below it.  top is the
 * walk's flag (a directory inside is walked with 1); inner tells an entry
 * found in a walked directory from the path the walk started at.  Links
 * and special files are left alone; every failure ends the process. */
static void walk_at(const WalkOp &op, int parent, const char *name, const char *path, int top, int inner)
{
    struct stat st;
    FileStep step = op.uid == static_cast<uid_t>(-1) && op.gid == static_cast<gid_t>(-1) ? STEP_CHMOD : STEP_CHOWN;

    if (fstatat(parent, name, &st, AT_SYMLINK_NOFOLLOW) != 0) {
        if (inner && errno == ENOENT)
            return;
        report(1, inner ? "Unable to check directory entry %s: %s\n" : "Unable to get entry %s: %s\n", path,
               strerror(errno));
    }
    int is_dir = S_ISDIR(st.st_mode);
    if (S_ISREG(st.st_mode) && op.old_name) {
        if (!inner)
            report_plain(0, "It's a regulat entry(not directory): %s\n", path);
        else if (top == 1 && strcmp(name, op.old_name) == 0)
            rename_entry(op, parent);
        return;
    }
    if (!is_dir && !S_ISREG(st.st_mode))
        return;
    top = inner && is_dir ? 1 : top;
    int fd = openat(parent, name, O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (is_dir) {
        int list_fd = fd < 0 ? -1 : dup(fd);
        DIR *dir = list_fd < 0 ? nullptr : fdopendir(list_fd);
        if (dir == nullptr)
            report(1, "Unable to open dir %s: %s\n", path, strerror(errno));
        while (struct dirent *ent = readdir(dir))
            if (strcmp(ent->d_name, ".") != 0 && strcmp(ent->d_name, "..") != 0)
                walk_at(op, fd, ent->d_name, ent->d_name, top, 1);
        if (closedir(dir) != 0)
            report(1, "Unable to close dir %s: %s\n", path, strerror(errno));
    }
    if (op.old_name == nullptr && (!is_dir || top == 1)
        && (fd < 0 || op.fx->owner_mode(fd, path, op.uid, op.gid, is_dir ? op.dir_mode : op.file_mode, &step) != 0)) {
        if (is_dir)
            report(1, "Unable to %s dir %s: %s\n", step_word(step), path, strerror(errno));
        else if (!inner && step == STEP_CHMOD)
            report(1, "Unable to chmod entry %s: %s\n", path, strerror(errno));
        report(1, "Unable to %s directory entry %s: %s\n", step_word(step), path, strerror(errno));
    }
    if (fd >= 0)
        close(fd);
}

/* walk - walk_at for a path, reached without following a link below a
 * mail domain directory */
static void walk(const WalkOp &op, const char *path, int top)
{
    PathAt at;

    if (path_at(op.fx, path, &at) != 0)
        report(1, "Unable to get entry %s: %s\n", path, strerror(errno));
    walk_at(op, at.dir, at.name, path, top, 0);
    path_at_close(&at);
}

int chown_chmod_tree(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t file_mode,
                     mode_t dir_mode, int top)
{
    walk(WalkOp{fx, uid, gid, file_mode, dir_mode, nullptr, nullptr}, path, top);
    return 0;
}

void chmod_tree(const Effects *fx, const char *path, mode_t file_mode, mode_t dir_mode, int top)
{
    chown_chmod_tree(fx, path, static_cast<uid_t>(-1), static_cast<gid_t>(-1), file_mode, dir_mode, top);
}

void chown_tree(const Effects *fx, const char *path, uid_t uid, gid_t gid, int top)
{
    chown_chmod_tree(fx, path, uid, gid, static_cast<mode_t>(-1), static_cast<mode_t>(-1), top);
}

void rename_in_tree(const Effects *fx, const char *path, const char *old_name, const char *new_name, int top)
{
    walk(WalkOp{fx, 0, 0, 0, 0, old_name, new_name}, path, top);
}

int hdv1_marker_present(void)
{
    struct stat st;

    if (hdv1_cached < 0)
        hdv1_cached = stat(HDV1_MARKER, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0;
    return hdv1_cached;
}
