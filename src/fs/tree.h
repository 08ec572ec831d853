/* tree - whole directory trees: removal by path, at once or deferred,
 * owner and mode walks, renaming of files by name, and path helpers.
 *
 * Trees are reached through the mail tree's door (fs/path_at) and changed
 * through the effects they were handed, never following a link.  When the
 * /dev/hdv1 marker is present, a domain directory is not removed at once
 * but moved, in one step, to a "__deleted" name in its base directory for
 * the purge of proc/purge to delete later.  The restore command uses the
 * removals; the walks and path helpers serve the panel's other utilities,
 * leave links and special files alone and end the process on any failure.
 */
#pragma once

#include "fs/effect.h"

#include <sys/types.h>

/* remove_tree - delete path, a directory with everything in it, through
 * fx.  A missing path is no failure; any other ends the process */
void remove_tree(const Effects *fx, const char *path);

/* deferred_remove - move dir through fx to a fresh "__deleted" name in its
 * base directory; ends the process on failure */
void deferred_remove(const Effects *fx, const char *dir);

/* DEFERRED_PREFIX - how the name of a set-aside directory begins */
#define DEFERRED_PREFIX "__deleted"

/* deferred_bases - the directories whose subdirectories may be set aside,
 * in their order, followed by a null */
void deferred_bases(const char *bases[3]);

/* chmod_tree - regular files get file_mode, directories dir_mode (the top
 * directory only with top 1) */
void chmod_tree(const Effects *fx, const char *path, mode_t file_mode, mode_t dir_mode, int top);

/* chown_tree - regular files and directories get uid and gid (the top
 * directory only with top 1) */
void chown_tree(const Effects *fx, const char *path, uid_t uid, gid_t gid, int top);

/* chown_chmod_tree - chown_tree and chmod_tree in one walk; returns 0 */
int chown_chmod_tree(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t file_mode,
                     mode_t dir_mode, int top);

/* rename_in_tree - regular files called old_name renamed to new_name in
 * their own directory (in the top directory only with top 1) */
void rename_in_tree(const Effects *fx, const char *path, const char *old_name, const char *new_name, int top);

/* real_path - the resolved absolute path in a static buffer, or null */
const char *real_path(const char *path);

/* is_empty_string - 1 when text is null or empty */
int is_empty_string(const char *text);

/* is_subdir - 1 when path and base are directories (not links) and path
 * lies strictly inside base, else 0 */
int is_subdir(const char *path, const char *base);

/* hdv1_marker_present - 1 when /dev/hdv1 is an empty regular file (asked
 * once per process), else 0 */
int hdv1_marker_present(void);
