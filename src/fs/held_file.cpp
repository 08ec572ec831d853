/* held_file - in-memory copies of shared files for the length of a batch.
 *
 * Each held file keeps its lock handle, its text and two flags: whether the
 * copy has been read from disk yet and whether the file exists as far as
 * the edits know.  The edit replays the decisions of file_str_list on the
 * copy (what a missing file means for each operation, the same messages),
 * so the file written at the end is the one the edits would have left.
 */
#include "fs/held_file.h"

#include "fs/file_lock.h"
#include "fs/line_edit.h"
#include "fs/line_store.h"
#include "fs/path_at.h"
#include "runtime/report.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

/* At most this many files are held at once. */
#define HELD_MAX 8

struct HeldFile {
    char *path;
    FileLock *lock;
    LineStore *store;
    int loaded;   /* the copy has been read from disk */
    int exists;   /* the file exists, as far as the edits know */
    int dirty;    /* the copy differs from the file on disk */
    int in_place; /* rewritten where it is, not through a temporary file */
};

static HeldFile held[HELD_MAX];
static int held_count;
static pid_t held_owner;        /* only the process that took the locks writes */

static const size_t PATH_BUF_SIZE = 4096;

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

int held_file_take(const char *path, int in_place)
{
    FileLock *lock;

    if (find_held(path))
        return 0;
    if (held_count == HELD_MAX) {
        report(0, "Unable to hold %s: too many files held\n", path);
        return 1;
    }
    lock = file_lock(path, 1);
    if (!file_lock_held(lock)) {
        report(0, "Error occurred while locking the file %s: %s\n", path, strerror(errno));
        file_lock_dispose(lock);
        return 1;
    }
    if (held_count == 0)
        held_owner = getpid();
    held[held_count++] = HeldFile{strdup(path), lock, nullptr, 0, 0, 0, in_place};
    return 0;
}

/* load - read the copy from disk at its first edit; 0 or 1.  The file is
 * opened first and stat()ed only when that fails, to tell the message
 * file_str would give: a missing file, or one that cannot be looked at. */
static int load(HeldFile *h)
{
    struct stat st;
    char chunk[4096];
    ssize_t got;
    TextBuf text = {};

    if (h->loaded)
        return 0;
    int fd = path_open(h->path, O_RDONLY, 0);
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
        while (!empty && (got = read(fd, chunk, sizeof(chunk))) != 0) {
            if (got < 0 && errno == EINTR)
                continue;
            if (got < 0) {
                report(0, "Unable to read file %s: %s\n", h->path, strerror(errno));
                close(fd);
                text_buf_free(&text);
                return 1;
            }
            if (text_buf_append(&text, chunk, static_cast<size_t>(got)) != 0)
                report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
        }
        close(fd);
        h->exists = 1;
    }
    h->store = line_store_new(text.data, text.len);
    text_buf_free(&text);
    if (!h->store)
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    h->loaded = 1;
    return 0;
}

int held_file_edit(const char *path, const char *const *lines, int operation, int mode)
{
    HeldFile *h = find_held(path);

    if (h == nullptr)
        return -1;
    if (load(h) != 0)
        return 1;
    if (!h->exists) {
        /* What each operation makes of a missing file, as on disk. */
        if (operation == FILE_STR_REMOVE)
            return 1;
        if (operation == FILE_STR_REMOVE_MATCHING
            || (operation == FILE_STR_ADD && mode == FILE_STR_AT_BEGIN)) {
            errno = ENOENT;
            report(0, "Unable to open file %s: %s\n", path, strerror(ENOENT));
            return 1;
        }
        if (operation != FILE_STR_ADD || mode != FILE_STR_AT_END)
            return 0;
        h->exists = 1;
        h->dirty = 1;
    }
    int removed = line_store_apply(h->store, lines, operation, mode);
    if (removed < 0)
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    if (removed > 0 || operation == FILE_STR_ADD)
        h->dirty = 1;
    return 0;
}

/* write_in_place - the copy over the file's content; 0 or 1.  The file is
 * overwritten and then cut to length (only when it was longer) rather than
 * emptied first: emptying a file with content makes the file system force
 * its new blocks to disk at the close. */
static int write_in_place(HeldFile *h, const TextBuf *text)
{
    int fd = path_open(h->path, O_WRONLY | O_CREAT, 0666);
    int err = 0;
    struct stat st;

    if (fd < 0) {
        report(0, "Unable to open file %s: %s\n", h->path, strerror(errno));
        return 1;
    }
    if (text->len && pwrite(fd, text->data, text->len, 0) != static_cast<ssize_t>(text->len))
        err = errno ? errno : EIO;
    if (!err && (fstat(fd, &st) != 0 || st.st_size > static_cast<off_t>(text->len))
        && ftruncate(fd, static_cast<off_t>(text->len)) != 0)
        err = errno;
    if (close(fd) != 0 && !err)
        err = errno;
    if (err) {
        report(0, "Unable to write file %s: %s\n", h->path, strerror(err));
        return 1;
    }
    return 0;
}

/* write_through_tmp - the copy through "<path>.tmp" and a rename, both
 * made through the file's opened directory; 0 or 1.  The file keeps the
 * owner, group and mode it has on disk; a file the edits created gets
 * those of a newly created file. */
static int write_through_tmp(HeldFile *h, const TextBuf *text)
{
    char tmp_path[PATH_BUF_SIZE];
    PathAt at, tmp;
    struct stat st;

    if (path_at(h->path, &at) != 0) {
        report(0, "Unable to open file %s.tmp: %s\n", h->path, strerror(errno));
        return 1;
    }
    int have_st = at_stat(&at, &st) == 0 && S_ISREG(st.st_mode);
    if (at_temporary(&at, &tmp, tmp_path) != 0) {
        report(0, "Unable to open file %s.tmp: %s\n", h->path, strerror(ENAMETOOLONG));
        path_at_close(&at);
        return 1;
    }
    int fd = at_open(&tmp, O_WRONLY | O_CREAT | O_TRUNC, 0666);
    FILE *out = fd < 0 ? nullptr : fdopen(fd, "w");
    if (!out) {
        report(0, "Unable to open file %s: %s\n", tmp_path, strerror(errno));
        if (fd >= 0)
            close(fd);
        path_at_close(&at);
        return 1;
    }
    /* Written, flushed to the disk and given its owner and mode before the
     * rename, so the file is always either the old or the whole new text. */
    int err = 0;
    if (text->len && fwrite(text->data, 1, text->len, out) != text->len)
        err = errno;
    if (!err && (fflush(out) != 0 || fsync(fileno(out)) != 0))
        err = errno;
    if (!err && have_st
        && (fchown(fileno(out), st.st_uid, st.st_gid) != 0 || fchmod(fileno(out), st.st_mode & 07777) != 0))
        err = errno;
    if (fclose(out) != 0 && !err)
        err = errno;
    if (err) {
        report(0, "Unable to write file %s: %s\n", tmp_path, strerror(err));
        unlinkat(tmp.dir, tmp.name, 0);
        path_at_close(&at);
        return 1;
    }
    if (renameat(tmp.dir, tmp.name, at.dir, at.name) != 0) {
        report(0, "Unable to rename file %s: %s\n", tmp_path, strerror(errno));
        unlinkat(tmp.dir, tmp.name, 0);
        path_at_close(&at);
        return 1;
    }
    path_at_close(&at);
    return 0;
}

/* write_one - the copy to disk, in place or through a temporary file */
static int write_one(HeldFile *h)
{
    TextBuf text = {};

    if (line_store_text(h->store, &text) != 0)
        report(1, "Cannot allocate memory: %s", strerror(ENOMEM));
    int result = h->in_place ? write_in_place(h, &text) : write_through_tmp(h, &text);
    text_buf_free(&text);
    if (result == 0)
        h->dirty = 0;
    return result;
}

int held_files_write(void)
{
    int result = 0;

    if (held_count == 0 || getpid() != held_owner)
        return 0;
    for (int i = 0; i < held_count; i++)
        if (held[i].loaded && held[i].dirty)
            result |= write_one(&held[i]);
    return result;
}

/* drop - unlock and forget the held file at index i; 0 or 1 */
static int drop(int i)
{
    HeldFile *h = &held[i];
    int result = 0;

    if (file_unlock(h->lock) != 0) {
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
    int result = h->loaded && h->dirty ? write_one(h) : 0;
    return drop(static_cast<int>(h - held)) | result;
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
