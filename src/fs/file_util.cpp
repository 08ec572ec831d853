/* file_util - small file and directory operations (see file_util.h).
 *
 * Files are written whole in one step (replace_file through the effects),
 * never emptied or rewritten in place; a new file gets mode 0644 and the
 * process's owner.  Directories are made through at_dir, owners and modes
 * set through the effects' owner_mode slot, renames through their move
 * slot.
 */
#include "fs/file_util.h"

#include "fs/file_str.h"
#include "fs/held_file.h"
#include "fs/line_edit.h"
#include "fs/at_name.h"
#include "fs/path_at.h"
#include "fs/path_ops.h"
#include "fs/replace_file.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const mode_t CREATE_MODE = 0644;

/* Result buffer of read_first_line(). */
static char first_line_buf[4097];

/* put_empty - the file at path made empty in one step, its owner and mode
 * kept; with keep, only when it is missing.  0, or -1 with errno */
static int put_empty(const Effects *fx, const char *path, int keep)
{
    PathAt at;
    struct stat st;
    FileStep step;

    if (path_at(fx, path, &at) != 0)
        return -1;
    int found = at_stat(&at, &st) == 0;
    int rc = found && keep ? 0
                           : replace_file_at(&at, "", 0, found ? st.st_uid : geteuid(), found ? st.st_gid : getegid(),
                                             found ? st.st_mode & 07777 : CREATE_MODE, 0, &step);
    path_at_close(&at);
    return rc < 0 ? -1 : 0;
}

int create_file(const Effects *fx, const char *path)
{
    if (put_empty(fx, path, 1) == 0)
        return 0;
    report(0, "Unable to create file %s: %s", path, strerror(errno));
    return -1;
}

int truncate_file(const Effects *fx, const char *path)
{
    if (put_empty(fx, path, 0) == 0)
        return 0;
    report(0, "Unable to truncate or create file %s: %s", path, strerror(errno));
    return -1;
}

int make_dir(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    int made;

    return make_dir_noting(fx, path, uid, gid, mode, &made, 0);
}

int set_owner_mode(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    FileStep step;

    if (file_owner_mode(fx, path, uid, gid, mode, &step) == 0 || errno == ENOENT)
        return 0;
    report(0, "ERROR: unable to %s %s: %s\n", step_word(step), path, strerror(errno));
    return -1;
}

int rename_dir(const Effects *fx, const char *source, const char *target)
{
    PathAt from, to;
    struct stat st;
    int rc = -1;

    if (path_at(fx, source, &from) != 0)
        return errno == ENOENT ? 0 : -1;
    if (at_stat(&from, &st) != 0 && errno == ENOENT) {
        rc = 0;
    } else if (path_at(fx, target, &to) == 0) {
        /* the move reports a target that exists, and its own failure */
        rc = fx->move(&from, &to);
        path_at_close(&to);
    } else {
        report(0, "Remaming %s to %s failed: %s\n", source, target, strerror(errno));
    }
    path_at_close(&from);
    return rc;
}

/* read_source - the whole file source ("-": standard input) into text,
 * NUL-terminated past its length; 0, 1 when it cannot be opened, 2 when it
 * cannot be read (errno kept) */
static int read_source(const char *source, TextBuf *text)
{
    int in = strcmp(source, "-") == 0 ? STDIN_FILENO : open(source, O_RDONLY | O_CLOEXEC);

    if (in < 0)
        return 1;
    int rc = text_buf_read(text, in) == 0 && text_buf_append(text, "", 1) == 0 ? 0 : 2;
    int err = rc ? errno : 0;
    if (in != STDIN_FILENO)
        close(in);
    text->len -= rc == 0;
    errno = err;
    return rc;
}

int copy_file_locked(const Effects *fx, const char *source, const char *destination)
{
    TextBuf text = {};
    struct stat st;
    FileStep step = STEP_WRITE;
    int rc = -1;

    if (strcmp(source, destination) == 0)
        return 0;
    int got = read_source(source, &text);
    if (got == 1)
        report(0, "Unable to open file %s: %s", source, strerror(errno));
    else if (got == 2)
        report(0, "Error while copying file %s to %s: %s", source, destination, strerror(errno));
    else if (strcmp(destination, "-") == 0)
        rc = fwrite(text.data, 1, text.len, stdout) == text.len && fflush(stdout) == 0 ? 0 : -1;
    else if (held_file_reset(destination, text.data, text.len) == 0)
        rc = 0;
    else {
        int found = path_stat(fx, destination, &st) == 0;
        rc = file_put(fx, destination, text.data, found ? st.st_uid : geteuid(), found ? st.st_gid : getegid(),
                      found ? st.st_mode & 07777 : CREATE_MODE, &step);
    }
    text_buf_free(&text);
    if (got == 0 && rc < 0 && step == STEP_LOCK)
        report(0, "Error occurred while locking the file %s: %s\n", destination, strerror(errno));
    else if (got == 0 && rc < 0)
        report(0, "Unable to copy file %s to %s: %s\n", source, destination, strerror(errno));
    return rc < 0;
}

void copy_file_atomic(const Effects *fx, const char *source, const char *destination, uid_t uid, gid_t gid,
                      mode_t mode)
{
    TextBuf text = {};
    PathAt at;
    FileStep step = STEP_OPEN;

    int got = read_source(source, &text);
    if (got != 0)
        report(1, "copy_file_atomic(%s -> %s): %s failed", source, destination, got == 1 ? "open" : "read");
    if (path_at(fx, destination, &at) != 0 || replace_file_at(&at, text.data, text.len, uid, gid, mode, 0, &step) < 0)
        report(1, "copy_file_atomic(%s -> %s): %s failed", source, destination,
               step == STEP_OPEN ? "mkstemp" : step_word(step));
    path_at_close(&at);
    text_buf_free(&text);
}

/* make_level - one directory of make_dir_parents, made through the
 * effects when missing and then given uid and gid; 0, or -1 when the owner
 * could not be given */
static int make_level(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode)
{
    PathAt at;
    FileStep step;
    int made = 0, fd = -1;

    if (path_at(fx, path, &at) == 0) {
        fd = at_dir(&at, mode, &made);
        path_at_close(&at);
    }
    if (fd < 0)
        report(1, "Cannot create directory %s: %s", path, strerror(errno));
    int rc = made ? fd_owner_mode(fx, fd, path, uid, gid, static_cast<mode_t>(-1), &step) : 0;
    if (rc != 0)
        report(0, "Cannot chown %s: %s", path, strerror(errno));
    close(fd);
    return rc;
}

int make_dir_parents(const Effects *fx, char *path, uid_t uid, gid_t gid, mode_t mode)
{
    int result = 0;

    for (char *slash = strchr(*path ? path + 1 : path, '/'); slash; slash = strchr(slash + 1, '/')) {
        *slash = '\0';
        result |= make_level(fx, path, uid, gid, mode & 0777);
        *slash = '/';
    }
    return result | make_level(fx, path, uid, gid, mode);
}

const char *read_first_line(const char *path)
{
    FILE *in = fopen(path, "re");

    if (!in)
        report(1, "Unable to open file '%s'", path);
    if (!fgets(first_line_buf, sizeof(first_line_buf), in)) {
        if (ferror(in))
            report(1, "Unable to read string from file '%s'", path);
        first_line_buf[0] = '\0';
    }
    fclose(in);
    size_t len = strlen(first_line_buf);
    if (len > 0 && first_line_buf[len - 1] == '\n')
        first_line_buf[len - 1] = '\0';
    return first_line_buf;
}

int first_existing_path(const char **found, const char *const *paths)
{
    struct stat st;

    for (*found = nullptr; *paths && !*found; paths++)
        if (stat(*paths, &st) == 0)
            *found = *paths;
    return *found != nullptr;
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
