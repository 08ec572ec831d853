/* held_file - in-memory copies of shared files for the length of a batch.
 *
 * Each held file keeps its lock handle, its text, two flags (whether the
 * copy has been read from disk yet, whether the file exists as far as the
 * edits know) and the owner, group and mode it is to have.  What a missing
 * file means for each operation is the edit rules' decision (line_edit_missing),
 * so the file written at the end is the one the edits would have left.
 */
#include "fs/held_file.h"

#include "fs/file_lock.h"
#include "fs/line_edit.h"
#include "fs/path_at.h"
#include "fs/path_ops.h"
#include "fs/replace_file.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* At most this many files are held at once. */
#define HELD_MAX 8

static const size_t PATH_BUF_SIZE = 4096;

/* The mode of a file the edits created: what 0666 less the umask gives. */
static const mode_t NEW_FILE_MODE = 0644;

struct HeldFile {
    const Effects *fx; /* where its lock, leftover and replacement go */
    char *path;
    FileLock *lock; /* null: rebuilt, locked only to be replaced */
    LineStore *store;
    int loaded;   /* the copy has been read from disk (or reset) */
    int exists;   /* the file exists, as far as the edits know */
    int durable;  /* its replacement is flushed to the disk */
    uid_t uid;    /* owner, group and mode it is to have; -1: as on disk */
    gid_t gid;
    mode_t mode;
    int rebuilt;  /* a per-mailbox file, made from scratch */
};

static HeldFile held[HELD_MAX];
static int held_count;
static pid_t held_owner;        /* only the process that took the locks writes */

/* find_held - the held file of a path as spelled, or null */
static HeldFile *find_held(const char *path)
{
    /* Only the process that took the locks edits: a child of it never
     * calls file_str, so the edits need not ask for the process id. */
    for (int i = 0; i < held_count; i++)
        if (strcmp(held[i].path, path) == 0)
            return &held[i];
    return nullptr;
}

/* drop_leftover - remove the "<name>.tmp" a run cut short left beside
 * path, unread: the file is held now, and only a whole replacement renamed
 * over it counts (through the effects). */
static void drop_leftover(const Effects *fx, const char *path)
{
    char tmp_path[PATH_BUF_SIZE];
    PathAt at, tmp;

    if (path_at(fx, path, &at) != 0)
        return;
    if (at_temporary(&at, &tmp, tmp_path) == 0)
        fx->drop_leftover(&tmp);
    path_at_close(&at);
}

/* hold - add path to the held files, with its lock (null for a rebuilt
 * file); 0, or 1 after the message */
static int hold(const Effects *fx, const char *path, int durable, int rebuilt)
{
    if (find_held(path))
        return 0;
    if (held_count == HELD_MAX) {
        report_plain(0, "Unable to hold %s: too many files held\n", path);
        errno = 0; /* a failed hold leaves its cause in errno: here none */
        return 1;
    }
    FileLock *lock = rebuilt ? nullptr : file_lock_reported(fx, path);
    if (!rebuilt && lock == nullptr)
        return 1;
    if (!rebuilt)
        drop_leftover(fx, path);
    if (held_count == 0)
        held_owner = getpid();
    held[held_count++] = HeldFile{fx, strdup(path), lock, nullptr, 0, 0, durable,
                                  static_cast<uid_t>(-1), static_cast<gid_t>(-1), static_cast<mode_t>(-1), rebuilt};
    if (rebuilt)
        held_file_reset(path, "", 0);
    return 0;
}

int held_file_take(const Effects *fx, const char *path, int durable)
{
    return hold(fx, path, durable, 0);
}

int held_file_take_rebuilt(const Effects *fx, const char *path)
{
    return hold(fx, path, 0, 1);
}

/* set_text - the copy made to hold len bytes of text, read or reset */
static void set_text(HeldFile *h, const char *text, size_t len, int exists)
{
    line_store_free(h->store);
    if (!(h->store = line_store_new(text, len)))
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    h->loaded = 1;
    h->exists = exists;
}

int held_file_reset(const char *path, const char *text, size_t len)
{
    HeldFile *h = find_held(path);

    if (h != nullptr)
        set_text(h, text, len, 1);
    return h != nullptr ? 0 : -1;
}

int held_file_owner(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    HeldFile *h = find_held(path);

    if (h == nullptr)
        return -1;
    if (uid != static_cast<uid_t>(-1))
        h->uid = uid;
    if (gid != static_cast<gid_t>(-1))
        h->gid = gid;
    if (mode != static_cast<mode_t>(-1))
        h->mode = mode;
    return 0;
}

/* load - read the copy from disk at its first edit; 0 or 1.  The file is
 * opened first and stat()ed only when that fails, to tell the message
 * file_str would give: a missing file, or one that cannot be looked at. */
static int load(HeldFile *h)
{
    struct stat st;
    TextBuf text = {};

    if (h->loaded)
        return 0;
    int fd = path_open(h->fx, h->path, O_RDONLY, 0);
    if (fd < 0) {
        int err = errno;
        if (stat(h->path, &st) != 0 && errno != ENOENT) {
            report(0, "file_str: Unable to stat file %s: %s\n", h->path, strerror(errno));
            return 1;
        }
        if (err != ENOENT) {
            report(0, "Unable to open file %s: %s\n", h->path, strerror(err));
            return 1;
        }
        h->exists = 0;
    } else {
        /* An empty file (a delivery file just made) needs no read. */
        int empty = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0;
        if (!empty && text_buf_read(&text, fd) != 0) {
            report(0, "Unable to read file %s: %s\n", h->path, strerror(errno));
            close(fd);
            text_buf_free(&text);
            return 1;
        }
        close(fd);
        h->exists = 1;
    }
    set_text(h, text.data, text.len, h->exists);
    text_buf_free(&text);
    return 0;
}

int held_file_text(const char *path, TextBuf *out)
{
    HeldFile *h = find_held(path);

    if (h == nullptr || load(h) != 0)
        return -1;
    return line_store_text(h->store, out);
}

int held_file_edit(const char *path, const char *const *lines, int operation, int mode)
{
    HeldFile *h = find_held(path);

    if (h == nullptr)
        return -1;
    if (load(h) != 0)
        return 1;
    if (!h->exists) {
        int rc = line_edit_missing(path, operation, mode);
        if (rc >= 0)
            return rc;
        h->exists = 1;
    }
    if (line_store_apply(h->store, lines, operation, mode) < 0)
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    return 0;
}

/* report_step - the message of a failed replacement of h's file.  A
 * rebuilt file that a link or another kind of object keeps standing in the
 * way of gets none: its caller skips it with a warning of its own. */
static void report_step(const HeldFile *h, FileStep step, int err)
{
    if (h->rebuilt && at_in_the_way(err))
        return;
    switch (step) {
    case STEP_RENAME:
        report(0, "Unable to rename file %s.tmp: %s\n", h->path, strerror(err));
        break;
    case STEP_OPEN:
        report(0, "Unable to open file %s.tmp: %s\n", h->path, strerror(err));
        break;
    default:
        report(0, "Unable to write file %s.tmp: %s\n", h->path, strerror(err));
    }
}

/* fixed_in_place - 1, errno set, when no rename can replace the file at: it
 * is a mount point (EBUSY), immutable or append-only (EPERM).  Found while
 * the copies are prepared, it fails the set before the first rename, so the
 * shared files stay one set of the old texts. */
static int fixed_in_place(const PathAt *at)
{
    const unsigned long long fixed = STATX_ATTR_MOUNT_ROOT | STATX_ATTR_IMMUTABLE | STATX_ATTR_APPEND;
    struct statx sx;

    if (statx(at->dir, at->name, at->guarded ? AT_SYMLINK_NOFOLLOW : 0, STATX_BASIC_STATS, &sx) != 0
        || (sx.stx_attributes & sx.stx_attributes_mask & fixed) == 0)
        return 0;
    errno = sx.stx_attributes & STATX_ATTR_MOUNT_ROOT ? EBUSY : EPERM;
    return 1;
}

/* prepare_one - the copy written beside the file when the file's content,
 * owner or mode differ: 1 with at and tmp open and ready to commit, 0 when
 * the file already matches (at closed), -1 after the message.  The file
 * keeps the owner, group and mode it has on disk unless others were asked
 * for; a file the edits created gets those of a newly created file. */
static int prepare_one(HeldFile *h, PathAt *at, PathAt *tmp, char *tmp_path)
{
    TextBuf text = {};
    struct stat st;
    FileStep step = STEP_OPEN;
    int rc = -1;

    if (line_store_text(h->store, &text) != 0)
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    /* Written (or reported) once: the copy is then what the disk holds. */
    h->loaded = 0;
    if (path_at(h->fx, h->path, at) == 0) {
        int asked = h->uid != static_cast<uid_t>(-1) && h->gid != static_cast<gid_t>(-1)
                    && h->mode != static_cast<mode_t>(-1);
        int on_disk = !asked && at_stat(at, &st) == 0 && S_ISREG(st.st_mode);
        uid_t uid = h->uid != static_cast<uid_t>(-1) ? h->uid : on_disk ? st.st_uid : geteuid();
        gid_t gid = h->gid != static_cast<gid_t>(-1) ? h->gid : on_disk ? st.st_gid : getegid();
        mode_t mode = h->mode != static_cast<mode_t>(-1) ? h->mode
                      : on_disk                          ? st.st_mode & 07777
                                                         : NEW_FILE_MODE;
        rc = replace_file_prepare(at, text.data ? text.data : "", text.len, uid, gid, mode, h->durable,
                                  &step, tmp, tmp_path);
        if (rc > 0 && at->fresh == nullptr && fixed_in_place(at)) {
            int err = errno;
            replace_file_abort(tmp);
            step = STEP_RENAME;
            errno = err;
            rc = -1;
        }
        if (rc <= 0)
            path_at_close(at);
    }
    text_buf_free(&text);
    if (rc < 0)
        report_step(h, step, errno);
    return rc;
}

/* commit_one - rename a prepared copy over the file; 0 or 1 */
static int commit_one(HeldFile *h, PathAt *at, PathAt *tmp)
{
    FileStep step;
    int rc = replace_file_commit(at, tmp, h->durable, &step);

    if (rc != 0)
        report_step(h, step, errno);
    path_at_close(at);
    return rc != 0;
}

/* unchanged - 1 when the disk already holds a rebuilt file's text with
 * the owner, group and mode asked for */
static int unchanged(HeldFile *h)
{
    TextBuf text = {};

    if (h->uid == static_cast<uid_t>(-1) || h->gid == static_cast<gid_t>(-1)
        || h->mode == static_cast<mode_t>(-1))
        return 0;
    if (line_store_text(h->store, &text) != 0)
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    int same = file_matches(h->fx, h->path, text.data ? text.data : "", text.len, h->uid, h->gid, h->mode);
    text_buf_free(&text);
    return same;
}

/* locked_to_write - 1 when the file is to be compared and written under
 * its lock (a rebuilt file that differs is locked now), 0 when a rebuilt
 * file already matches, -1 when its lock cannot be taken */
static int locked_to_write(HeldFile *h)
{
    if (h->lock != nullptr)
        return 1;
    if (unchanged(h))
        return 0;
    h->lock = file_lock_reported(h->fx, h->path);
    return h->lock != nullptr ? 1 : -1;
}

/* write_one - the copy to disk, replacing the file only when it differs */
static int write_one(HeldFile *h)
{
    char tmp_path[PATH_BUF_SIZE];
    PathAt at, tmp;

    int locked = locked_to_write(h);
    if (locked <= 0)
        return locked < 0;
    int rc = prepare_one(h, &at, &tmp, tmp_path);
    if (rc <= 0)
        return rc < 0;
    return commit_one(h, &at, &tmp);
}

int held_files_write(void)
{
    static char tmp_path[HELD_MAX][PATH_BUF_SIZE];
    PathAt at[HELD_MAX], tmp[HELD_MAX];
    int ready[HELD_MAX] = {}, failed = 0;

    if (held_count == 0 || getpid() != held_owner)
        return 0;
    /* Every changed file is written beside itself first; only when all
     * are ready are they renamed, so a failure there leaves them all as
     * they were. */
    for (int i = 0; i < held_count && !failed; i++)
        if (held[i].loaded && held[i].exists) {
            int rc = locked_to_write(&held[i]);
            if (rc > 0)
                rc = prepare_one(&held[i], &at[i], &tmp[i], tmp_path[i]);
            ready[i] = rc > 0;
            failed = rc < 0;
        }
    /* The renames are one set: from the first to the directory flush after
     * the last, every signal that can be blocked waits, so that a stop
     * asked for then comes after the whole set (a kill still cannot). */
    sigset_t all, previous;
    sigfillset(&all);
    sigprocmask(SIG_SETMASK, &all, &previous);
    int result = failed;
    for (int i = 0; i < held_count; i++) {
        if (!ready[i])
            continue;
        if (failed) {
            replace_file_abort(&tmp[i]);
            path_at_close(&at[i]);
        } else {
            result |= commit_one(&held[i], &at[i], &tmp[i]);
        }
    }
    sigprocmask(SIG_SETMASK, &previous, nullptr);
    return result;
}

/* drop - unlock and forget the held file at index i; 0 or 1 */
static int drop(int i)
{
    HeldFile *h = &held[i];
    int result = 0;

    if (h->lock != nullptr && file_unlock(h->lock) != 0) {
        report(0, "Error occurred while unlocking the file %s: %s\n", h->path, strerror(errno));
        result = 1;
    }
    line_store_free(h->store);
    free(h->path);
    held[i] = held[--held_count];
    return result;
}

int held_file_release(const char *path)
{
    HeldFile *h = find_held(path);

    if (h == nullptr)
        return 0;
    int result = h->loaded && h->exists ? write_one(h) : 0;
    int err = errno;
    result |= drop(static_cast<int>(h - held));
    errno = err;
    return result;
}

int held_file_drop(const char *path)
{
    HeldFile *h = find_held(path);

    return h == nullptr ? 0 : drop(static_cast<int>(h - held));
}

int held_files_release(void)
{
    if (held_count == 0 || getpid() != held_owner)
        return 0;
    int result = held_files_write();
    /* Unlock in the reverse order of taking. */
    while (held_count > 0)
        result |= drop(held_count - 1);
    return result;
}
