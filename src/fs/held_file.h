/* held_file - shared files held in memory under their locks for a batch.
 *
 * A long job that edits the same few shared files thousands of times takes
 * their named locks once (held_file_take, in a fixed order), lets file_str
 * apply every edit of those paths to an in-memory copy with the very same
 * line-edit rules (held_file_edit), and writes each file once
 * (held_files_write) with replace_file: only when its text, owner or mode
 * differ from the disk, whole, through "<path>.tmp" and a rename.  The
 * owner, group and mode are those the file has on disk at that moment, as
 * the edits one by one would have left it, unless held_file_owner asked
 * for others.  held_file_reset starts a copy from the len bytes of text instead of
 * the disk (a file rebuilt from scratch).  held_files_release writes and
 * unlocks them all, held_file_release one of them; a file taken durable is
 * flushed to the disk with its directory when replaced.  Nothing is
 * written before those calls: a process that dies first leaves every file
 * as it was.  held_files_write renames the replacements with every
 * blockable signal held back, so that a stop asked for meanwhile waits for
 * the whole set.  A "<path>.tmp" left by a run cut short is removed, never
 * read, when held_file_take takes the file.
 *
 * A copy is read from disk at its first edit.  Other programs that take the
 * same named locks wait until the release and lose nothing.
 *
 * held_file_take_rebuilt holds a file whose text is made from scratch
 * (started empty, never read from the disk) and whose owner, group and mode
 * are asked for: no edit depends on what the disk holds, so its lock is
 * taken only at the release, and only when the file differs and must be
 * replaced.  A rerun that finds such files as they should be takes no lock
 * and writes nothing for them.
 */
#pragma once

#include "fs/effect.h"
#include "fs/line_edit.h"

#include <sys/types.h>

/* held_file_take, held_file_take_rebuilt - hold path; its lock, its
 * leftover and its replacement go through fx.  0, or 1 after the message */
int held_file_take(const Effects *fx, const char *path, int durable);
int held_file_take_rebuilt(const Effects *fx, const char *path);
int held_file_edit(const char *path, const char *const *lines, int operation, int mode);
/* held_file_reset, held_file_owner - 0, or -1 when path is not held; an
 * owner, group or mode of -1 is left as it is; text may be null when len
 * is 0 (an empty TextBuf) */
int held_file_reset(const char *path, const char *text, size_t len);
int held_file_owner(const char *path, uid_t uid, gid_t gid, mode_t mode);
int held_files_write(void);
/* held_file_text - the held text of path appended to out; 0, or -1 when
 * path is not held or memory runs out */
int held_file_text(const char *path, TextBuf *out);
int held_files_release(void);
/* held_file_release - write and unlock one held file; 0, or 1 with errno
 * of the failure (a rebuilt file in the way of a foreign object, see
 * at_in_the_way, fails without a message) */
int held_file_release(const char *path);
/* held_file_drop - forget one held file without writing it; 0, or 1 when
 * its lock could not be released */
int held_file_drop(const char *path);
