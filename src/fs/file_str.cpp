/* file_str - locked editing of shared line-oriented files (see file_str.h).
 *
 * The named lock is held from before the file is examined until its owner
 * and mode are back.
 */
#include "fs/file_str.h"

#include "fs/file_lock.h"
#include "fs/held_file.h"
#include "fs/path_ops.h"
#include "fs/replace_file.h"
#include "runtime/report.h"

#include <errno.h>
#include <string.h>

/* release - file_unlock with its message; 0, or 1 when it failed */
static int release(FileLock *lock, const char *path)
{
    if (file_unlock(lock) != 0) {
        report(0, "Error occurred while unlocking the file %s: %s\n", path, strerror(errno));
        return 1;
    }
    return 0;
}

int file_str_list(const Effects *fx, const char *path, const char *const *lines, int operation, int mode)
{
    FileLock *lock;
    PathAt at;

    /* A file held in memory for a batch takes the edit there. */
    int result = held_file_edit(path, lines, operation, mode);
    if (result >= 0)
        return result;
    if (!(lock = file_lock_reported(fx, path)))
        return 1;
    /* The file's directory is opened once, and every step of the edit
     * works through it: in the mail tree no link is followed, and the
     * directory cannot be swapped between two steps. */
    if (path_at(fx, path, &at) != 0) {
        result = errno == ENOENT ? line_edit_missing(path, operation, mode) : -1;
        if (result < 0)
            report(0, "Unable to open file %s: %s\n", path, strerror(errno));
        return release(lock, path) || result != 0;
    }
    result = fx->edit(&at, lines, operation, mode);
    path_at_close(&at);
    return release(lock, path) || result != 0;
}

int file_str(const Effects *fx, const char *path, const char *line, int operation, int mode)
{
    const char *lines[2] = {line, nullptr};

    return file_str_list(fx, path, lines, operation, mode);
}

int file_owner_mode(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode, FileStep *step)
{
    *step = STEP_CHOWN;
    if (held_file_owner(path, uid, gid, mode) == 0)
        return 0;
    return path_owner_mode(fx, path, uid, gid, mode, step);
}

int file_put(const Effects *fx, const char *path, const char *text, uid_t uid, gid_t gid, mode_t mode,
             FileStep *step)
{
    PathAt at;
    int rc = -1;

    if (file_matches(fx, path, text, strlen(text), uid, gid, mode))
        return 0;
    *step = STEP_LOCK;
    FileLock *lock = fx->lock(path, 1);
    if (!file_lock_held(lock)) {
        file_unlock(lock);
        return -1;
    }
    *step = STEP_OPEN;
    if (path_at(fx, path, &at) == 0) {
        rc = replace_file_at(&at, text, strlen(text), uid, gid, mode, 0, step);
        path_at_close(&at);
    }
    int err = errno;
    release(lock, path);
    errno = err;
    return rc;
}
