/* tree - whole directory trees removed by path, at once or deferred.
 *
 * remove_tree() removes a file, or a directory with everything in it,
 * reached through the mail tree's door (fs/path_at) and removed through
 * the effects it was handed, never following a link.  When the /dev/hdv1
 * marker is present (hdv1_marker_present), a domain directory is not
 * removed at once: deferred_remove() moves it, in one step, to a
 * "__deleted" name in its base directory (HTTPD_VHOSTS_D or
 * QMAIL_MAILNAMES_D), for the purge of proc/purge to delete later.
 * is_subdir() tells which base a directory lies in; it changes the working
 * directory of the process while it runs and restores it afterwards.
 */
#ifndef REBOX_FS_TREE_H
#define REBOX_FS_TREE_H

#include "fs/effect.h"

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

/* is_subdir - 1 when path and base are directories (not links) and path
 * lies strictly inside base, else 0 */
int is_subdir(const char *path, const char *base);

/* hdv1_marker_present - 1 when /dev/hdv1 is an empty regular file (asked
 * once per process), else 0 */
int hdv1_marker_present(void);

#endif
