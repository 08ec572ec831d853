/* file_lock - named advisory locks shared with the panel's other utilities.
 *
 * A data file is never locked itself: its lock is an exclusive flock on a
 * separate, always empty lock file.  With the hashed-name flag set the lock
 * file is PRODUCT_ROOT_D/var/lock/files/<md5 of the path as spelled>, so
 * every program that derives the name the same way shares the lock.  A run
 * takes its locks through its effects; the non-waiting lock, the busy test
 * and the lock path serve the panel's other utilities.
 */
#pragma once

#include "fs/effect.h"

/* FileLock - a lock handle.  fd > 0: held; 0: busy (held elsewhere, seen
 * by a non-waiting attempt); < 0: the lock file could not be opened or
 * locked.  path is the lock file's path, kept for messages. */
struct FileLock {
    int fd;
    char *path;
};

/* file_lock - the waiting exclusive lock of a writer, the lock file made
 * when missing; file_lock_shared - a reader's waiting lock, none where no
 * lock file exists (none is made).  A run takes its locks through the
 * effects it was handed (fs/effect), which choose one of the two. */
FileLock *file_lock(const char *path, short hashed);
FileLock *file_lock_shared(const char *path, short hashed);
/* file_trylock - the writer's lock, not waited for: busy when held
 * elsewhere */
FileLock *file_trylock(const char *path, short hashed);
int file_lock_held(const FileLock *lock);
/* file_lock_busy - 1 for a null handle or one that found the lock busy */
int file_lock_busy(const FileLock *lock);
/* file_lock_path - the hashed lock file path of a data file, newly
 * allocated; null when PRODUCT_ROOT_D is not configured */
char *file_lock_path(const char *path);
int file_unlock(FileLock *lock);
const char *md5_hex(const char *prefix, const char *text);

/* file_lock_reported - the named lock of path taken through fx (waited
 * for), or null after the locking message (errno of its cause) */
FileLock *file_lock_reported(const Effects *fx, const char *path);
