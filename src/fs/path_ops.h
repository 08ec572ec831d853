/* path_ops - single operations on a path of the mail tree, each reached as
 * fs/path_at reaches it (no link followed below a domain directory) and
 * each change made through the effects it is handed.
 */
#pragma once

#include "fs/at_name.h"
#include "fs/line_edit.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

/* path_open - at_open for a path; the descriptor, or -1 with errno */
int path_open(const Effects *fx, const char *path, int flags, mode_t mode);

/* path_read - append the whole file at path to text; 0 (a file that
 * cannot be opened adds nothing), or -1 with errno when it cannot be read */
int path_read(const Effects *fx, const char *path, TextBuf *text);

/* path_opendir - the directory at path, reached and opened as path_at and
 * at_open_dir reach one, for reading; null with errno */
DIR *path_opendir(const Effects *fx, const char *path);

/* path_stat - at_stat of path's last name; 0, or -1 with errno */
int path_stat(const Effects *fx, const char *path, struct stat *st);

/* path_rmdir - remove the empty directory at path through fx; 0, or -1
 * with errno (ENOTEMPTY for one that holds anything) */
int path_rmdir(const Effects *fx, const char *path);

/* fd_owner_mode - give the open file or directory fd (path names it) uid,
 * gid and mode, each only where it differs (-1: left as it is), through
 * fx.  0, or -1 with errno and *step */
int fd_owner_mode(const Effects *fx, int fd, const char *path, uid_t uid, gid_t gid, mode_t mode,
                  FileStep *step);

/* path_owner_mode - give the file or directory at path uid, gid and mode
 * through a descriptor of it; 0, or -1 with errno and *step STEP_CHOWN or
 * STEP_CHMOD (a missing or foreign object fails the chown) */
int path_owner_mode(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode,
                    FileStep *step);

/* step_word - the name of a failed step ("chown", "chmod", "open", ...)
 * for the messages that name it */
const char *step_word(FileStep step);

/* make_dir_noting - the directory at path opened or made with mode, then
 * given uid, gid and mode where they differ, each failure reported; 0, or
 * -1.  *made tells whether this call created it (also when a later step
 * failed); a trusted link that cannot be opened fails with ENOLINK and no
 * message, for the caller to tell.  With keep, one it made where nobody
 * else could is kept to the run instead, and given uid and gid by
 * path_at_give_fresh. */
int make_dir_noting(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode, int *made, int keep);
