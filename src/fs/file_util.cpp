/* file_util - small file and directory operations shared by the writers.
 *
 * Offers create_file, truncate_file, make_dir, set_owner_mode, rename_dir,
 * copy_file_locked, copy_file_atomic, hdv1_marker_present,
 * make_dir_parents (two entry points), read_first_line,
 * first_existing_path, fclose_report and password_policy_check.
 *
 * Files created here get mode 0644 (less the umask): the mail server's
 * readers of control files run as other users, and callers that need a
 * stricter mode set it afterwards.
 */
#include "fs/file_util.h"

#include "fs/file_lock.h"
#include "fs/path_at.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const mode_t CREATE_MODE = 0644;
static const size_t COPY_BLOCK = 4096;
static const char HDV1_MARKER[] = "/dev/hdv1";

/* Cached answer of hdv1_marker_present(): -1 until first asked. */
static int hdv1_cached = -1;

/* Result buffer of read_first_line(). */
static char first_line_buf[4097];

int create_file(const char *path)
{
    int fd = path_open(path, O_WRONLY | O_CREAT, CREATE_MODE);

    if (fd < 0) {
        report(0, "Unable to create file %s: %s", path, strerror(errno));
        return -1;
    }
    close(fd);
    return 0;
}

int truncate_file(const char *path)
{
    int fd = path_open(path, O_WRONLY | O_CREAT | O_TRUNC, CREATE_MODE);

    if (fd < 0) {
        report(0, "Unable to truncate or create file %s: %s", path, strerror(errno));
        return -1;
    }
    close(fd);
    return 0;
}

int make_dir(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    int made;

    return make_dir_noting(path, uid, gid, mode, &made);
}

int make_dir_noting(const char *path, uid_t uid, gid_t gid, mode_t mode, int *made)
{
    PathAt at;
    int fd = -1;

    *made = 0;
    if (path_at(path, &at) == 0) {
        fd = at_dir(&at, mode, made);
        int err = errno;
        path_at_close(&at);
        errno = err;
    }
    if (fd < 0) {
        /* A trusted link that cannot be opened is the caller's to tell. */
        if (errno != ENOLINK)
            report(0, "ERROR: Unable to mkdir %s: %s\n", path, strerror(errno));
        return -1;
    }
    /* Owner and mode are set only where they differ: an unchanged
     * directory is not touched. */
    const char *step;
    int rc = fd_owner_mode(fd, path, uid, gid, mode, &step);
    if (rc != 0)
        report(0, "ERROR: Unable to %s %s: %s\n", step, path, strerror(errno));
    close(fd);
    return rc;
}

int set_owner_mode(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    const char *step;

    if (path_owner_mode(path, uid, gid, mode, &step) == 0 || errno == ENOENT)
        return 0;
    report(0, "ERROR: unable to %s %s: %s\n", step, path, strerror(errno));
    return -1;
}

int rename_dir(const char *source, const char *target)
{
    struct stat st;

    if (lstat(source, &st) != 0)
        return 0;
    if (lstat(target, &st) == 0) {
        errno = 0;
        report(0, "Directory rename error: target directory %s already exists.\n", target);
        return -1;
    }
    if (rename(source, target) != 0) {
        report(0, "Remaming %s to %s failed: %s\n", source, target, strerror(errno));
        return -1;
    }
    /* A directory path_at keeps open may now have another name. */
    path_at_forget();
    return 0;
}

/* copy_fail - clean-up of a failed copy_file_locked: the descriptors that
 * are open (-1 for none, and for the standard streams) and the lock */
static int copy_fail(FileLock *lock, int in, int out)
{
    if (out >= 0)
        close(out);
    if (in >= 0)
        close(in);
    file_unlock(lock);
    return 1;
}

int copy_file_locked(const char *source, const char *destination)
{
    char block[COPY_BLOCK];
    int from_stdin = strcmp(source, "-") == 0;
    int to_stdout = strcmp(destination, "-") == 0;
    int in, out;
    ssize_t got;
    FileLock *lock;

    if (strcmp(source, destination) == 0)
        return 0;
    lock = file_lock(destination, 1);
    if (!file_lock_held(lock)) {
        report(0, "Error occurred while locking the file %s\n", destination);
        int failure = errno; /* the caller's message names the same cause */
        file_lock_dispose(lock);
        errno = failure;
        return 1;
    }
    in = from_stdin ? STDIN_FILENO : open(source, O_RDONLY);
    if (in < 0) {
        report(0, "Unable to open file %s: %s", source, strerror(errno));
        file_unlock(lock);
        return 1;
    }
    out = to_stdout ? STDOUT_FILENO : open(destination, O_WRONLY | O_CREAT | O_TRUNC, CREATE_MODE);
    if (out < 0) {
        report(0, "Unable to open file %s: %s", destination, strerror(errno));
        return copy_fail(lock, from_stdin ? -1 : in, -1);
    }
    while ((got = read(in, block, sizeof(block))) != 0) {
        ssize_t put;
        if (got < 0) {
            report(0, "Error while copying file %s to %s: %s", source, destination, strerror(errno));
            return copy_fail(lock, from_stdin ? -1 : in, to_stdout ? -1 : out);
        }
        while ((put = write(out, block, got)) == 0)
            ;
        if (put != got) {
            report(0, "Unable to copy file %s to %s: %s\n", source, destination, strerror(errno));
            return copy_fail(lock, from_stdin ? -1 : in, to_stdout ? -1 : out);
        }
    }
    if (!to_stdout && close(out) != 0) {
        report(0, "Unable to close file %s: %s\n", destination, strerror(errno));
        return copy_fail(lock, from_stdin ? -1 : in, -1);
    }
    if (!from_stdin && close(in) != 0) {
        report(0, "Unable to close file %s: %s\n", source, strerror(errno));
        return copy_fail(lock, -1, -1);
    }
    if (file_unlock(lock) != 0)
        report(0, "Error occurred while unlocking the file %s\n", destination);
    return 0;
}

void copy_file_atomic(const char *source, const char *destination, uid_t uid, gid_t gid, mode_t mode)
{
    char block[COPY_BLOCK];
    char *tmp;
    int in, out;
    ssize_t got;

    in = open(source, O_RDONLY);
    if (in < 0)
        report(1, "copy_file_atomic(%s -> %s): open failed", source, destination);
    if (asprintf(&tmp, "%s.XXXXXX", destination) < 0)
        report(1, "Allocation failed");
    out = mkstemp(tmp);
    if (out < 0)
        report(1, "copy_file_atomic(%s -> %s): mkstemp failed", source, destination);
    while ((got = read(in, block, sizeof(block))) != 0) {
        /* A failed read ends the process before the rename: the
         * destination is never replaced by a partial copy. */
        if (got < 0)
            report(1, "copy_file_atomic(%s -> %s): read failed", source, destination);
        for (ssize_t done = 0; done < got;) {
            ssize_t put = write(out, block + done, got - done);
            if (put < 0)
                report(1, "copy_file_atomic(%s -> %s): write failed", source, destination);
            done += put;
        }
    }
    if (fchown(out, uid, gid) != 0)
        report(1, "copy_file_atomic(%s -> %s): chown failed", source, destination);
    if (fchmod(out, mode) != 0)
        report(1, "copy_file_atomic(%s -> %s): chmod failed", source, destination);
    if (close(out) != 0)
        report(1, "copy_file_atomic(%s -> %s): flush failed", source, destination);
    close(in);
    if (rename(tmp, destination) != 0)
        report(1, "copy_file_atomic(%s -> %s): rename failed", source, destination);
    free(tmp);
}

int hdv1_marker_present(void)
{
    struct stat st;

    if (hdv1_cached < 0)
        hdv1_cached = stat(HDV1_MARKER, &st) == 0 && S_ISREG(st.st_mode) && st.st_size == 0;
    return hdv1_cached;
}

/* make_one_dir - one step of make_dir_parents: mkdir, chown when it was
 * created.  An existing directory is silently accepted; an existing entry
 * that is not a directory is as fatal as a failed mkdir.  0, or -1 when the
 * chown failed. */
static int make_one_dir(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    struct stat st;

    if (mkdir(path, mode) != 0) {
        int err = errno;
        if (err == EEXIST && stat(path, &st) == 0 && S_ISDIR(st.st_mode)) {
            errno = 0;
            return 0;
        }
        errno = err;
        report(1, "Cannot create directory %s: %s", path, strerror(err));
    }
    if (chown(path, uid, gid) != 0) {
        report(0, "Cannot chown %s: %s", path, strerror(errno));
        return -1;
    }
    return 0;
}

int make_dir_parents(char *path, uid_t uid, gid_t gid, mode_t mode)
{
    int result = 0;

    for (char *slash = strchr(*path ? path + 1 : path, '/'); slash; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        if (make_one_dir(path, uid, gid, mode & 0777) != 0)
            result = -1;
        *slash = '/';
    }
    if (make_one_dir(path, uid, gid, mode) != 0)
        result = -1;
    return result;
}

int make_dir_parents_copy(const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    char *copy = xasprintf("%s", path);
    int result = make_dir_parents(copy, uid, gid, mode);

    free(copy);
    return result;
}

/* read_first_line - an empty file gives the empty text */
const char *read_first_line(const char *path)
{
    FILE *in = fopen(path, "r");
    size_t len;

    if (!in)
        report(1, "Unable to open file '%s'", path);
    if (!fgets(first_line_buf, sizeof(first_line_buf), in)) {
        if (ferror(in))
            report(1, "Unable to read string from file '%s'", path);
        first_line_buf[0] = '\0';
    }
    fclose(in);
    len = strlen(first_line_buf);
    if (len > 0 && first_line_buf[len - 1] == '\n')
        first_line_buf[len - 1] = '\0';
    return first_line_buf;
}

int first_existing_path(const char **found, const char *const *paths)
{
    struct stat st;

    for (; *paths; paths++)
        if (stat(*paths, &st) == 0) {
            *found = *paths;
            return 1;
        }
    *found = nullptr;
    return 0;
}

int fclose_report(FILE *stream)
{
    int result = fclose(stream);

    if (result != 0)
        report(0, "Unable to close the file: %s\n", strerror(errno));
    return result;
}

int password_policy_check(const char *word, const char *text)
{
    size_t len = strlen(text);

    if (len < 5 || len > 16 || strstr(text, word))
        return -1;
    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p; p++)
        if (*p >= 128)
            return -1;
    return 0;
}
