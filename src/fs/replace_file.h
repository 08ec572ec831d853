/* replace_file - make a file hold a given text, owner and mode, in one
 * step and only when it does not already.
 *
 * The mail server reads its files while they are rebuilt: a file is never
 * emptied or written in place.  replace_file_at() compares the file's
 * content, owner, group and mode with what is wanted and leaves a file
 * that matches untouched (no write, no new inode, no new time); any other
 * is written whole into "<name>.tmp" beside it, given its owner and mode,
 * and renamed over it, so a reader sees the old text or the new, never a
 * part.  A durable replacement is also flushed to the disk, and the
 * directory after the rename, so that a crash cannot leave the file empty.
 * The writing and the rename are the effects' (replace_prepare,
 * replace_commit): a run that only reports compares instead.
 */
#pragma once

#include "fs/path_at.h"

#include <stddef.h>
#include <sys/types.h>

/* replace_file_at - 0 when the file already matched, 1 when it was
 * replaced, -1 with errno and *step (STEP_OPEN, STEP_WRITE, STEP_CHOWN,
 * STEP_CHMOD or STEP_RENAME) when it could not be; the temporary file is
 * then gone */
int replace_file_at(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid, mode_t mode,
                    int durable, FileStep *step);

/* replace_file_prepare, replace_file_commit, replace_file_abort - the two
 * halves of replace_file_at, for several files replaced together: every
 * temporary file is written first, and only when all are ready are they
 * renamed.  prepare gives 0 when the file already matches, 1 when tmp
 * (its path in tmp_path, 4096 bytes) is ready, -1 as replace_file_at;
 * commit renames tmp over the file, 0 or -1 (tmp then removed); abort
 * removes tmp. */
int replace_file_prepare(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid, mode_t mode,
                         int durable, FileStep *step, PathAt *tmp, char *tmp_path);
int replace_file_commit(PathAt *at, PathAt *tmp, int durable, FileStep *step);
void replace_file_abort(PathAt *tmp);

/* file_matches_at - 1 when the file at is a regular file of its own with
 * exactly this content, owner, group and mode, else 0 */
int file_matches_at(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid, mode_t mode);

/* file_matches - file_matches_at for a path.  Files are only ever replaced
 * whole by a rename, so the answer needs no lock: a writer that finds its
 * file already as it wants it has nothing to lock for. */
int file_matches(const Effects *fx, const char *path, const char *text, size_t len, uid_t uid, gid_t gid,
                 mode_t mode);

/* same_bytes - 1 when the open file fd, already known to be len bytes
 * long, holds exactly text */
int same_bytes(int fd, const char *text, size_t len);
