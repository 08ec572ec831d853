/* replace_file - whole-file replacement only where something differs (see
 * replace_file.h). */
#include "fs/replace_file.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

static const size_t PATH_BUF_SIZE = 4096;

int same_bytes(int fd, const char *text, size_t len)
{
    char chunk[4096];
    size_t done = 0;

    while (done < len) {
        ssize_t got = read(fd, chunk, sizeof(chunk));
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0 || done + static_cast<size_t>(got) > len
            || memcmp(chunk, text + done, static_cast<size_t>(got)) != 0)
            return 0;
        done += static_cast<size_t>(got);
    }
    return 1;
}

int file_matches_at(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid, mode_t mode)
{
    struct stat st;

    if (at->absent || at_unmade(at))
        return 0;
    int fd = openat(at->dir, at->name, O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY
                                           | (at->guarded ? O_NOFOLLOW : 0));
    if (fd < 0)
        return 0;
    int same = fstat(fd, &st) == 0 && S_ISREG(st.st_mode) && (st.st_nlink == 1 || !at->guarded)
               && st.st_uid == uid && st.st_gid == gid && (st.st_mode & 07777) == mode
               && st.st_size == static_cast<off_t>(len) && same_bytes(fd, text, len);
    close(fd);
    return same;
}

int file_matches(const Effects *fx, const char *path, const char *text, size_t len, uid_t uid, gid_t gid,
                 mode_t mode)
{
    PathAt at;

    if (path_at(fx, path, &at) != 0)
        return 0;
    int same = file_matches_at(&at, text, len, uid, gid, mode);
    path_at_close(&at);
    return same;
}

int replace_file_prepare(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid, mode_t mode,
                         int durable, FileStep *step, PathAt *tmp, char *tmp_path)
{
    return at->fx->replace_prepare(at, text, len, uid, gid, mode, durable, step, tmp, tmp_path);
}

int replace_file_commit(PathAt *at, PathAt *tmp, int durable, FileStep *step)
{
    return at->fx->replace_commit(at, tmp, durable, step);
}

void replace_file_abort(PathAt *tmp)
{
    unlinkat(tmp->dir, tmp->name, 0);
}

int replace_file_at(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid, mode_t mode,
                    int durable, FileStep *step)
{
    char tmp_path[PATH_BUF_SIZE];
    PathAt tmp;

    int rc = replace_file_prepare(at, text, len, uid, gid, mode, durable, step, &tmp, tmp_path);
    if (rc <= 0)
        return rc;
    return replace_file_commit(at, &tmp, durable, step) == 0 ? 1 : -1;
}
