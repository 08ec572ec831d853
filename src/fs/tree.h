/* tree - whole directory trees: removal, owner and mode walks, renaming of
 * files by name, and deferred removal of domain directories.
 *
 * The walks never follow symbolic links and end the process on any failure.
 * remove_tree() removes through fs/remove.
 * deferred_remove() sets a directory aside under a "__deleted" name in its
 * base directory (HTTPD_VHOSTS_D or QMAIL_MAILNAMES_D), for the purge of
 * proc/purge to delete.  is_subdir(), real_path() and is_empty_string() are
 * the path helpers they need.
 *
 * is_subdir() and real_path() change the working directory of the process
 * while they run and restore it afterwards.
 */
#ifndef REBOX_FS_TREE_H
#define REBOX_FS_TREE_H

#include <sys/types.h>

/* remove_tree - delete path; with top 0 a directory is emptied but kept */
void remove_tree(const char *path, int top);

/* chmod_tree - regular files get file_mode, directories dir_mode (the top
 * directory only with top 1); links and special files are left alone */
void chmod_tree(const char *path, mode_t file_mode, mode_t dir_mode, int top);

/* chown_tree - regular files and directories get uid and gid (the top
 * directory only with top 1); links and special files are left alone */
void chown_tree(const char *path, uid_t uid, gid_t gid, int top);

/* chown_chmod_tree - chown_tree, then chmod_tree; returns 0 */
int chown_chmod_tree(const char *path, uid_t uid, gid_t gid, mode_t file_mode,
                     mode_t dir_mode, int top);

/* rename_in_tree - rename regular files called old_name to new_name within
 * their own directory */
void rename_in_tree(const char *path, const char *old_name, const char *new_name, int top);

/* deferred_remove - rename dir to a fresh "__deleted" name in its base
 * directory; ends the process on failure */
void deferred_remove(const char *dir);

/* DEFERRED_PREFIX - how the name of a set-aside directory begins */
#define DEFERRED_PREFIX "__deleted"

/* deferred_bases - the directories whose subdirectories may be set aside,
 * in their order, followed by a null */
void deferred_bases(const char *bases[3]);

/* is_subdir - 1 when path and base are directories (not links) and path
 * lies strictly inside base, else 0 */
int is_subdir(const char *path, const char *base);

/* real_path - the resolved absolute path in a static buffer, or null */
const char *real_path(const char *path);

/* is_empty_string - 1 when text is null or empty */
int is_empty_string(const char *text);

#endif
