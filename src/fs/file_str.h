/* file_str - locked editing of shared line-oriented files.
 *
 * file_str() and file_str_list() add entries to a file or remove the lines
 * that equal or match them, under the file's named lock, through the
 * effects' edit (when applied: a temporary file "<path>.tmp" and a rename,
 * the file's owner, group and mode put back afterwards).  The editing rules
 * themselves live in line_edit.  Results: 0 on success, 1 on failure.
 */
#pragma once

#include "fs/effect.h"
#include "fs/line_edit.h"

#include <sys/types.h>

struct FileLock;

/* file_str, file_str_list - the edit, its lock and its changes through
 * fx (a file held in memory takes it there) */
int file_str(const Effects *fx, const char *path, const char *line, int operation, int mode);
int file_str_list(const Effects *fx, const char *path, const char *const *lines, int operation, int mode);

/* file_put - make the file at path hold exactly text with owner, group and
 * mode, under its named lock, replacing it whole and only when it differs
 * (replace_file).  0 unchanged, 1 replaced, -1 with errno and *step
 * (STEP_LOCK, STEP_OPEN, STEP_WRITE, STEP_CHOWN, STEP_CHMOD or STEP_RENAME) */
int file_put(const Effects *fx, const char *path, const char *text, uid_t uid, gid_t gid, mode_t mode,
             FileStep *step);

/* file_owner_mode - give the file at path an owner, group and mode (-1:
 * left as it is): a file held for a batch gets them when it is written,
 * any other at once, through path_owner_mode.  0, or -1 with errno and
 * *step STEP_CHOWN or STEP_CHMOD */
int file_owner_mode(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode, FileStep *step);
