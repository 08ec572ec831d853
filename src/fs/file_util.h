/* file_util - small file and directory operations of the panel's library.
 *
 * The restore command uses set_owner_mode, copy_file_locked (both on the
 * antivirus file) and rename_dir (deferred removal); the others serve the
 * panel's other utilities.  Those that change anything take the table of
 * effects first and make every change through it, reaching paths through
 * path_at, so no link is followed below a domain directory.  Results are
 * 0 for success and -1 for failure unless told otherwise.
 */
#pragma once

#include "fs/effect.h"

#include <stdio.h>
#include <sys/types.h>

/* create_file - the file made empty when missing, kept as it is else */
int create_file(const Effects *fx, const char *path);
/* truncate_file - the file made empty, created when missing */
int truncate_file(const Effects *fx, const char *path);
/* make_dir - the directory made when missing, then given owner and mode */
int make_dir(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode);
/* set_owner_mode - owner and mode of an existing path (a held file's at
 * its write); a missing path is no failure */
int set_owner_mode(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode);
/* rename_dir - source renamed to target, never over an existing target; a
 * missing source is no failure */
int rename_dir(const Effects *fx, const char *source, const char *target);
/* copy_file_locked - source ("-": standard input) copied over destination
 * ("-": standard output) under the destination's lock, its owner and mode
 * kept (a held destination takes the copy in memory); 0 or 1 */
int copy_file_locked(const Effects *fx, const char *source, const char *destination);
/* copy_file_atomic - source copied over destination in one step with
 * owner and mode; every failure ends the process */
void copy_file_atomic(const Effects *fx, const char *source, const char *destination, uid_t uid,
                      gid_t gid, mode_t mode);
/* make_dir_parents - the directory and its missing parents (each made with
 * mode & 0777, the last with mode, owner given to each one made); the path
 * is cut at each slash and put back.  0, or -1 when an owner could not be
 * given; a directory that cannot be made ends the process */
int make_dir_parents(const Effects *fx, char *path, uid_t uid, gid_t gid, mode_t mode);
/* read_first_line - the first line (at most 4096 bytes, newline dropped)
 * in a static buffer; a file that cannot be read ends the process */
const char *read_first_line(const char *path);
/* first_existing_path - store the first path of the null-terminated list
 * that exists and return 1; else store null and return 0 */
int first_existing_path(const char **found, const char *const *paths);
/* fclose_report - fclose, its failure reported; fclose's result */
int fclose_report(FILE *stream);
/* password_policy_check - 0 when text is 5 to 16 ASCII bytes and does not
 * contain word, else -1 */
int password_policy_check(const char *word, const char *text);
