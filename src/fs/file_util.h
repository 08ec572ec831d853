/* file_util - small file and directory operations shared by the writers.
 *
 * Creating or emptying a file, creating directories with an owner and mode,
 * setting owner and mode, renaming a directory without overwriting, copying
 * a file under the destination's named lock or atomically through a
 * temporary file, the /dev/hdv1 marker test, reading a file's first line,
 * picking the first existing path, a reporting fclose and the password
 * policy check.  Results are 0 for success and -1 for failure unless told
 * otherwise.
 */
#ifndef REBOX_FS_FILE_UTIL_H
#define REBOX_FS_FILE_UTIL_H

#include <stdio.h>
#include <sys/types.h>

int create_file(const char *path);
int truncate_file(const char *path);
int make_dir(const char *path, uid_t uid, gid_t gid, mode_t mode);
/* make_dir_noting - make_dir, and *made set to 1 when this call created
 * the directory (also when a later step failed), else 0; a trusted link
 * that cannot be opened fails with ENOLINK and no message */
int make_dir_noting(const char *path, uid_t uid, gid_t gid, mode_t mode, int *made);
int set_owner_mode(const char *path, uid_t uid, gid_t gid, mode_t mode);
int rename_dir(const char *source, const char *target);
/* copy_file_locked - copy source ("-": standard input) over destination
 * ("-": standard output) under the destination's lock; 0 or 1 */
int copy_file_locked(const char *source, const char *destination);
/* copy_file_atomic - copy through a temporary file and a rename, giving it
 * owner and mode; every failure ends the process */
void copy_file_atomic(const char *source, const char *destination,
                      uid_t uid, gid_t gid, mode_t mode);
/* hdv1_marker_present - 1 when /dev/hdv1 is an empty regular file (asked
 * once per process), else 0 */
int hdv1_marker_present(void);
/* make_dir_parents - mkdir -p with owner for every directory created; the
 * path is cut and restored in place.  0, or -1 when a chown failed */
int make_dir_parents(char *path, uid_t uid, gid_t gid, mode_t mode);
/* make_dir_parents_copy - make_dir_parents on a private copy of path */
int make_dir_parents_copy(const char *path, uid_t uid, gid_t gid, mode_t mode);
/* read_first_line - the first line (at most 4096 bytes, newline dropped)
 * in a static buffer */
const char *read_first_line(const char *path);
/* first_existing_path - store the first path of the null-terminated list
 * that exists and return 1; else store null and return 0 */
int first_existing_path(const char **found, const char *const *paths);
int fclose_report(FILE *stream);
/* password_policy_check - 0 when text is 5..16 ASCII bytes and does not
 * contain word, else -1 */
int password_policy_check(const char *word, const char *text);

#endif
