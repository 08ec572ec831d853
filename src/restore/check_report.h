/* check_report - the drift report of a check run.
 *
 * A check run (rebox --check) computes everything a restore would write
 * and, where a restore would change the disk, reports the difference
 * instead, on standard output: a unified diff between the disk and the
 * panel for each shared file (check_diff), one line per object of the mail
 * tree that is missing, surplus to the panel, foreign (a link or an object
 * of another kind), or has another owner, mode or content (check_note,
 * check_owner_mode).  check_found() tells whether anything was reported.
 * The check table of effects (check_effects) and the pass report through
 * it.
 */
#pragma once

#include <stddef.h>
#include <sys/types.h>

/* check_note - the line "<what> <path>" */
void check_note(const char *what, const char *path);

/* check_owner_mode - a line for each of owner, group and mode of an object
 * (as found in st_uid, st_gid, st_mode) that differs from what the panel
 * wants; an owner, group or mode of -1 is not compared.  1 when a line was
 * printed, else 0. */
int check_owner_mode(const char *path, uid_t has_uid, gid_t has_gid, mode_t has_mode, uid_t uid,
                     gid_t gid, mode_t mode);

/* check_diff - the unified diff of a file's text on disk and the text the
 * panel gives it, nothing when they are equal; with mask, the second
 * colon-separated field of every line (a password hash) is shown as "*" */
void check_diff(const char *path, const char *disk, size_t disk_len, const char *panel,
                size_t panel_len, int mask);

int check_found(void);
