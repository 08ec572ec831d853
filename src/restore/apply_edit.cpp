/* apply_edit - file_str's edit of a file that is not held, made on disk
 * (see apply_edit.h). */
#include "restore/apply_edit.h"

#include "fs/at_name.h"
#include "fs/file_str.h"
#include "fs/line_edit.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const size_t PATH_BUF_SIZE = 4096;

/* close_reported - fclose with the close message; 0 or -1 */
static int close_reported(FILE *stream, const char *name)
{
    if (fclose(stream) != 0) {
        report(0, "Unable to close file %s: %s\n", name, strerror(errno));
        return -1;
    }
    return 0;
}

/* open_stream - the last name of at opened with flags as a stream of
 * fmode; null with errno */
static FILE *open_stream(PathAt *at, int flags, const char *fmode)
{
    int fd = at_open(at, flags, 0666);
    FILE *stream = fd < 0 ? nullptr : fdopen(fd, fmode);

    if (fd >= 0 && stream == nullptr) {
        int err = errno;
        close(fd);
        errno = err;
    }
    return stream;
}

/* open_temporary - "<path>.tmp" beside the file, for writing, or null
 * after the message on standard error.  A path too long to leave room for
 * ".tmp" in the 4096-byte name buffer is refused the same way
 * (ENAMETOOLONG) rather than writing to a cut-off name. */
static FILE *open_temporary(PathAt *at, PathAt *tmp, char *tmp_path)
{
    if (at_temporary(at, tmp, tmp_path) != 0) {
        report_stderr("Unable to open file %s.tmp: %s\n", at->path, strerror(ENAMETOOLONG));
        return nullptr;
    }
    FILE *out = open_stream(tmp, O_WRONLY | O_CREAT | O_TRUNC, "w");
    if (!out)
        report_stderr("Unable to open file %s: %s\n", tmp_path, strerror(errno));
    return out;
}

/* write_all - the edited text to a stream; 0 or -1 */
static int write_all(FILE *out, const TextBuf *text)
{
    if (text->len == 0)
        return 0;
    return fwrite(text->data, 1, text->len, out) == text->len ? 0 : -1;
}

/* edit_rewrite - the removals and the addition at the beginning: read the
 * file, edit, write the temporary file, rename it over the file.  0 or 1;
 * the lock stays with the caller.  The addition opens the temporary file
 * first: when the file itself cannot be opened it is left holding the new
 * lines.  A read error is reported and leaves the file untouched (a short
 * read must not be taken for the whole file).  A removal whose copy cannot
 * be written ends the process: a half-written copy must not replace the
 * file. */
static int edit_rewrite(PathAt *at, const char *const *lines, int operation, int mode, int *kept)
{
    char tmp_path[PATH_BUF_SIZE];
    PathAt tmp;
    TextBuf text = {}, edited = {};
    int prepend = operation == FILE_STR_ADD;
    FILE *out = nullptr;

    if (prepend && !(out = open_temporary(at, &tmp, tmp_path)))
        return 1;
    FILE *in = open_stream(at, O_RDONLY, "r");
    int open_err = errno;
    if ((!in && !prepend) || (in && text_buf_read(&text, fileno(in)) != 0)) {
        report(0, in ? "Unable to read file %s: %s\n" : "Unable to open file %s: %s\n", at->path, strerror(errno));
        if (in)
            fclose(in);
        if (out)
            fclose(out);
        text_buf_free(&text);
        return 1;
    }
    if (!out && !(out = open_temporary(at, &tmp, tmp_path))) {
        fclose(in);
        text_buf_free(&text);
        return 1;
    }
    if (line_edit_apply(text.data, text.len, lines, operation, mode, &edited) < 0)
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    int bad = write_all(out, &edited);
    text_buf_free(&text);
    text_buf_free(&edited);
    if (!in) {
        fclose(out);
        report(0, "Unable to open file %s: %s\n", at->path, strerror(open_err));
        return 1;
    }
    if (bad && !prepend)
        report(1, "cannot write a line to %s.tmp", at->path);
    if (bad)
        report(0, "Unable to fputs to file %s: %s\n", at->path, strerror(errno));
    *kept = dup(fileno(out)); /* the owner and mode go on the very file written */
    bad |= close_reported(in, at->path);
    bad |= close_reported(out, tmp_path);
    if (bad)
        return 1;
    if (renameat(tmp.dir, tmp.name, at->dir, at->name) != 0) {
        if (operation == FILE_STR_REMOVE)
            report(0, "Error while rename file %s: %s\n", at->path, strerror(errno));
        else
            report_stderr(prepend ? "Unable to rename file %s: %s\n" : "Error while rename file %s: %s\n",
                          tmp_path, strerror(errno));
        return 1;
    }
    return 0;
}

/* edit_append - the entries appended in place; the file is created when
 * missing.  They go out unbuffered, in one write, while the file's size
 * before is known: a write that stops halfway (a full disk) is cut back to
 * that size, so the file never ends in a part of an entry. */
static int edit_append(PathAt *at, const char *const *lines, int *kept)
{
    TextBuf edited = {};
    FILE *out = open_stream(at, O_WRONLY | O_CREAT | O_APPEND, "a");
    struct stat st;
    int bad = 0;

    if (!out) {
        report(0, "Unable to open file %s: %s\n", at->path, strerror(errno));
        return 1;
    }
    setvbuf(out, nullptr, _IONBF, 0);
    off_t before = fstat(fileno(out), &st) == 0 ? st.st_size : -1;
    if (line_edit_apply("", 0, lines, FILE_STR_ADD, FILE_STR_AT_END, &edited) < 0)
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    if (write_all(out, &edited) != 0) {
        int err = errno;
        if (before >= 0 && ftruncate(fileno(out), before) != 0)
            report(0, "Unable to cut file %s back to %lld bytes: %s\n", at->path,
                   static_cast<long long>(before), strerror(errno));
        report(0, "Unable to fputs to file %s: %s\n", at->path, strerror(err));
        bad = 1;
    }
    text_buf_free(&edited);
    *kept = dup(fileno(out)); /* the owner and mode go on the very file written */
    if (close_reported(out, at->path) != 0)
        bad = 1;
    return bad;
}

int apply_edit(PathAt *at, const char *const *lines, int operation, int mode)
{
    struct stat st;
    int missing = 0, result = 0, kept = -1;

    if (at_stat(at, &st) != 0) {
        if (errno != ENOENT) {
            report(0, "file_str: Unable to stat file %s: %s\n", at->path, strerror(errno));
            return 1;
        }
        missing = 1;
    } else if (at->guarded && !(S_ISREG(st.st_mode) && st.st_nlink == 1)) {
        /* A link or another object planted where the file belongs goes,
         * with a warning: the file is then missing. */
        at_clear_foreign(at);
        missing = 1;
    }

    /* Adding at the beginning leaves the temporary file holding the new
     * lines before it fails at the missing file. */
    if (missing && !(operation == FILE_STR_ADD && mode == FILE_STR_AT_BEGIN)) {
        int rc = line_edit_missing(at->path, operation, mode);
        if (rc >= 0)
            return rc;
    }
    if (operation == FILE_STR_REMOVE || operation == FILE_STR_REMOVE_MATCHING
        || (operation == FILE_STR_ADD && mode == FILE_STR_AT_BEGIN)) {
        result = edit_rewrite(at, lines, operation, mode, &kept);
    } else if (operation == FILE_STR_ADD && mode == FILE_STR_AT_END) {
        result = edit_append(at, lines, &kept);
    }
    if (result == 0 && !missing) {
        /* The owner and mode go on the file written (or, for an operation
         * that wrote nothing, the file as it is). */
        /* Each failure here ends the edit at once: the new content stays. */
        int fd = kept >= 0 ? kept : at_open(at, O_RDONLY, 0);
        if (fd < 0 || fchown(fd, st.st_uid, st.st_gid) != 0) {
            report(0, "file_str: ERROR: Unable to chown file %s: %s", at->path, strerror(errno));
            result = 1;
        } else if (fchmod(fd, st.st_mode & 07777) != 0) {
            report(0, "file_str: ERROR: Unable to chmod file %s: %s", at->path, strerror(errno));
            result = 1;
        }
        if (fd >= 0 && fd != kept)
            close(fd);
    }
    if (kept >= 0)
        close(kept);
    return result;
}

