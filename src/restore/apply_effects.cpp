/* apply_effects - the table of effects that makes a run's changes, and
 * the bodies of its file slots (see apply_effects.h). */
#include "restore/apply_effects.h"

#include "fs/at_name.h"
#include "fs/file_lock.h"
#include "fs/remove.h"
#include "fs/replace_file.h"
#include "proc/exec.h"
#include "proc/send_sig.h"
#include "restore/apply_edit.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* Files replaced by this process. */
static unsigned long replaced;

/* apply_new_dir - at_dir's directory that is missing or not one, made:
 * one foreign object is set aside; one that keeps coming back (or a
 * directory that keeps vanishing) is given up with ELOOP */
static int apply_new_dir(PathAt *at, mode_t mode, int *made)
{
    int set_aside = 0;

    for (int attempt = 0; attempt < 4; attempt++) {
        int fd = at_open_dir(at);
        if (fd >= 0)
            return fd;
        if (errno == ENOENT) {
            if (mkdirat(at->dir, at->name, mode) == 0) {
                if (made)
                    *made = 1;
            } else if (errno != EEXIST) {
                return -1;
            }
            at_note_made(at);
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

/* apply_owner_mode - owner, group and mode of the open object, each set
 * only where it differs */
static int apply_owner_mode(int fd, const char *, uid_t uid, gid_t gid, mode_t mode, FileStep *step)
{
    struct stat st;

    *step = STEP_CHOWN;
    if (fstat(fd, &st) != 0)
        return -1;
    if (((uid != static_cast<uid_t>(-1) && st.st_uid != uid) || (gid != static_cast<gid_t>(-1) && st.st_gid != gid))
        && fchown(fd, uid, gid) != 0)
        return -1;
    *step = STEP_CHMOD;
    if (mode != static_cast<mode_t>(-1) && (st.st_mode & 07777) != mode && fchmod(fd, mode) != 0)
        return -1;
    return 0;
}

/* apply_set_aside - move the foreign object at the last name aside, in one
 * step, with one warning naming the path, and remove it there; 0, or -1
 * with errno when it could not be moved.  A link that root owns is
 * neither followed nor moved: root made it on purpose, and the caller
 * skips the object it wanted there (ELOOP).  A removal that fails leaves
 * the object aside, with a warning, and is no failure: what popuser
 * planted can cost it a name, never the run. */
static int apply_set_aside(PathAt *at, const char *kind)
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

/* write_whole - all of text to fd; 0 or -1 */
static int write_whole(int fd, const char *text, size_t len)
{
    while (len > 0) {
        ssize_t put = write(fd, text, len);
        if (put < 0 && errno == EINTR)
            continue;
        if (put <= 0) {
            if (put == 0)
                errno = EIO;
            return -1;
        }
        text += put;
        len -= static_cast<size_t>(put);
    }
    return 0;
}

/* umask_now - the process's file mode creation mask */
static mode_t umask_now(void)
{
    mode_t mask = umask(022);

    umask(mask);
    return mask;
}

/* in_place - the prepared file was written at the file's own name (tmp
 * is at itself) */
static bool in_place(const PathAt *at, const PathAt *tmp)
{
    return tmp->dir == at->dir && strcmp(tmp->name, at->name) == 0;
}

/* apply_replace_prepare - the temporary file written beside a file that
 * does not match, with its owner and mode; 0 when it matches, 1 ready, -1
 * (the temporary file gone).  In a directory the run keeps to itself a
 * name it has not made is written at once, under its own name (tmp is
 * then at itself): nobody can look in before the directory is given
 * away. */
static int apply_replace_prepare(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid,
                                 mode_t mode, int durable, FileStep *step, PathAt *tmp, char *tmp_path)
{
    static const mode_t mask = umask_now();

    if (file_matches_at(at, text, len, uid, gid, mode))
        return 0;
    *step = STEP_OPEN;
    int fd = -1;
    if (at_unmade(at)) {
        fd = at_open(at, O_WRONLY | O_CREAT | O_EXCL, mode);
        if (fd >= 0) {
            *tmp = *at;
            tmp->owned = 0;
            tmp->path = at->path;
        } else if (errno != EEXIST) {
            return -1;
        }
    }
    if (fd < 0) {
        if (at_clear_foreign(at) != 0 || at_temporary(at, tmp, tmp_path) != 0)
            return -1;
        /* The temporary file is always a new one: whatever stands at its
         * name (a leftover, a planted link) goes first. */
        if (!at_unmade(tmp))
            unlinkat(tmp->dir, tmp->name, 0);
        fd = at_open(tmp, O_WRONLY | O_CREAT | O_EXCL, 0600);
        if (fd < 0)
            return -1;
    }
    int rc = -1;
    *step = STEP_WRITE;
    if (write_whole(fd, text, len) == 0 && (!durable || fsync(fd) == 0)) {
        *step = STEP_CHOWN;
        if (fchown(fd, uid, gid) == 0) {
            *step = STEP_CHMOD;
            /* Made with its mode where the mask leaves it whole. */
            if ((in_place(at, tmp) && (mode & mask) == 0)
                || fchmod(fd, mode) == 0)
                rc = 0;
        }
    }
    int err = errno;
    if (close(fd) != 0 && rc == 0) {
        *step = STEP_WRITE;
        err = errno;
        rc = -1;
    }
    if (rc != 0) {
        replace_file_abort(tmp);
        errno = err;
        return -1;
    }
    return 1;
}

/* apply_replace_commit - the prepared temporary file renamed over the
 * file (unless it was written in place), and counted */
static int apply_replace_commit(PathAt *at, PathAt *tmp, int durable, FileStep *step)
{
    *step = STEP_RENAME;
    if (!in_place(at, tmp) && renameat(tmp->dir, tmp->name, at->dir, at->name) != 0) {
        int err = errno;
        replace_file_abort(tmp);
        errno = err;
        return -1;
    }
    if (durable)
        fsync(at->dir);
    replaced++;
    return 0;
}

/* apply_new_leaf - a directory made in one the run keeps to itself and
 * given to uid and gid by name, never opened: nobody else can have put
 * anything in its place */
static int apply_new_leaf(PathAt *at, mode_t mode, uid_t uid, gid_t gid, int *made)
{
    int rc = mkdirat(at->dir, at->name, mode);

    *made = rc == 0;
    at_note_made(at);
    if (rc == 0 && fchownat(at->dir, at->name, uid, gid, AT_SYMLINK_NOFOLLOW) != 0)
        return -1;
    return rc;
}

/* apply_give - a directory the run kept to itself given to uid and gid */
static int apply_give(int fd, uid_t uid, gid_t gid)
{
    return fchown(fd, uid, gid);
}

/* apply_remove - the object at the last name, with everything in it */
static int apply_remove(PathAt *at)
{
    return remove_tree_at(at->dir, at->name);
}

/* apply_move - from renamed to to, never over an existing object */
static int apply_move(PathAt *from, PathAt *to)
{
    if (renameat2(from->dir, from->name, to->dir, to->name, RENAME_NOREPLACE) != 0) {
        if (errno == EEXIST) {
            report_plain(0, "Directory rename error: target directory %s already exists.\n", to->path);
            errno = 0; /* reported here: no cause left for the caller's message */
        } else {
            report(0, "Remaming %s to %s failed: %s\n", from->path, to->path, strerror(errno));
        }
        return -1;
    }
    /* A directory path_at keeps open may now have another name. */
    path_at_forget();
    return 0;
}

/* apply_remove_dir - an empty directory this run made */
static int apply_remove_dir(int dir, const char *name)
{
    return unlinkat(dir, name, AT_REMOVEDIR);
}

/* apply_missing_dir - below a missing directory nothing goes on */
static int apply_missing_dir(const char *)
{
    return -1;
}

unsigned long replace_count(void)
{
    return replaced;
}

/* apply_leave - a restore leaves what the panel does not have where it
 * is (panel_has, dir_done) */
static void apply_leave(const char *)
{
}

const Effects APPLY_EFFECTS = {
    .new_dir = apply_new_dir,
    .new_leaf = apply_new_leaf,
    .give = apply_give,
    .owner_mode = apply_owner_mode,
    .set_aside = apply_set_aside,
    .replace_prepare = apply_replace_prepare,
    .replace_commit = apply_replace_commit,
    .edit = apply_edit,
    .remove = apply_remove,
    .move = apply_move,
    .remove_dir = apply_remove_dir,
    .drop_leftover = replace_file_abort,
    .lock = file_lock,
    .missing_dir = apply_missing_dir,
    .signal = kill_by_name,
    .run_util = admin_util_execv,
    .login_salt = nullptr, /* the run's salt */
    .panel_has = apply_leave,
    .dir_done = apply_leave,
};
