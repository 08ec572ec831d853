/* held_file - shared files held in memory under their locks for a batch.
 *
 * A long job that edits the same few shared files thousands of times takes
 * their named locks once (held_file_take, in a fixed order), lets file_str
 * apply every edit of those paths to an in-memory copy with the very same
 * line-edit rules (held_file_edit), and writes each changed file once
 * (held_files_write), through "<path>.tmp" and a rename, with the owner,
 * group and mode the file has on disk at that moment, as the edits one by
 * one would have left it.  held_files_release writes and unlocks them all,
 * held_file_release one of them.  A file taken "in place" is rewritten
 * where it is instead, for a private file being built from scratch (a
 * mailbox's delivery file): no temporary file, no inode thrown away.
 *
 * A copy is read from disk at its first edit, so direct operations made
 * before it (emptying the file, creating it) are seen.  Other programs that
 * take the same named locks wait until the release and lose nothing.
 */
#ifndef REBOX_FS_HELD_FILE_H
#define REBOX_FS_HELD_FILE_H

int held_file_take(const char *path, int in_place);
int held_file_edit(const char *path, const char *const *lines, int operation, int mode);
int held_files_write(void);
int held_files_release(void);
int held_file_release(const char *path);

#endif
