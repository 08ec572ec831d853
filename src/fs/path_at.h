/* path_at - reaching a file or directory one directory at a time, so that
 * no link planted in the mail tree leads an operation anywhere else.
 *
 * Everything below a domain directory of QMAIL_MAILNAMES_D belongs to
 * popuser, whom the delivery programs run as.  path_at() opens the
 * directory that holds a path's last name: inside the mail tree it walks
 * down from QMAIL_MAILNAMES_D with O_NOFOLLOW, and the caller then works on
 * the last name through that descriptor and the *at calls, so neither a
 * planted link nor a directory swapped between two steps can send it
 * elsewhere.  Two links are trusted because only root can have made them:
 * QMAIL_MAILNAMES_D itself, and a link directly inside it that root owns
 * (a large domain moved to another disk).  Such a domain link is resolved
 * without popuser's help: its text must be an absolute path, walked one
 * component at a time with no link followed and through directories only
 * root may change, so that no component popuser could swap for a link or
 * a directory of its own leads the rebuild outside.  One that cannot be
 * opened so (a relative text, a link or another user's directory on the
 * way, a disk not mounted) fails with ENOLINK, and trusted_link_error()
 * tells why.  Paths outside the mail tree (the
 * root-owned qmail files, users.conf, the lock files) are opened as they
 * are, links and all: an administrator may link those on purpose.  A link
 * at such a path's last name is followed to its end first, so the file is
 * replaced beside its target and the link stays.
 *
 * In the guarded part of the tree, where the rebuild expects a file or a
 * directory of its own and finds a link or another kind of object (a
 * directory for a file, a file for a directory, a device, a file with more
 * than one name), the object is never followed: it is moved aside in one
 * step to a name of its own in the same directory, with one warning naming
 * the path, removed from there, and the caller makes its own in its place.
 * An object that is back once more, and a link that root owns, are given
 * up (at_in_the_way): the caller skips what it wanted there.
 */
#ifndef REBOX_FS_PATH_AT_H
#define REBOX_FS_PATH_AT_H

#include "fs/effect.h"

#include <dirent.h>
#include <sys/stat.h>
#include <sys/types.h>

/* PathAt - the opened directory of a path and the path's last name,
 * with the table of effects every change made through it goes to */
struct PathAt {
    const Effects *fx;
    int dir;          /* the directory holding the last name */
    char name[256];   /* the last name (a copy: the struct may be copied) */
    int guarded;      /* 1: links are not followed, foreign objects replaced */
    int trusted_link; /* the last name is root's link in the mail names directory */
    int owned;        /* dir is closed by path_at_close */
    const char *path; /* the whole path, for messages */
};

/* path_at - open the directory holding path's last name, for changes
 * through fx; 0, or -1 with errno set and nothing open */
int path_at(const Effects *fx, const char *path, PathAt *at);
void path_at_close(PathAt *at);
/* path_at_forget - drop the directories path_at keeps open between calls
 * (after a domain directory was renamed) */
void path_at_forget(void);

/* trusted_link_error - why the last trusted link that failed with ENOLINK
 * could not be opened: an errno value, EINVAL for a relative text */
int trusted_link_error(void);

/* at_child - a guarded PathAt for name inside the open directory dir_fd,
 * which stays the caller's; path names it in messages */
void at_child(const Effects *fx, PathAt *at, int dir_fd, const char *name, const char *path);

/* at_temporary - tmp becomes "<name>.tmp" beside at's last name (same
 * directory, same rules), its whole path written to tmp_path (4096 bytes);
 * 0, or -1 with ENAMETOOLONG when the path does not fit */
int at_temporary(const PathAt *at, PathAt *tmp, char *tmp_path);

/* at_open - openat of the last name.  Guarded: never through a link; a
 * foreign object is removed (with the warning) and, with O_CREAT, a new
 * file made, else -1 with ENOENT as for a missing file */
int at_open(PathAt *at, int flags, mode_t mode);

/* path_open - at_open for a path; the descriptor, or -1 with errno */
int path_open(const Effects *fx, const char *path, int flags, mode_t mode);

/* at_in_the_way - 1 when err is what an operation here gives up with when
 * a link or another kind of object stands, or keeps coming back, where the
 * caller wants its own file or directory, when a directory it made was
 * taken away meanwhile (ELOOP, ENOTDIR, EISDIR, ENOENT), or when its domain
 * directory is a trusted link that cannot be opened (ENOLINK, warned about
 * once by the domain's writer): the caller skips that object instead of
 * failing the run */
int at_in_the_way(int err);

/* at_clear_foreign - guarded: set aside (with the warning) a link or any other
 * object but a regular file of its own that stands at the last name; 0, or
 * -1 with errno when it cannot be removed */
int at_clear_foreign(PathAt *at);

/* at_dir - the last name as a directory, opened; one that is missing or
 * not a directory goes to the effects, which make it with mode (a foreign
 * object set aside first) or report it.  The descriptor, or -1 with
 * errno; *made tells whether it was created (may be null) */
int at_dir(PathAt *at, mode_t mode, int *made);

/* path_opendir - the directory at path, reached and opened as path_at and
 * at_dir reach one (no link followed below a domain directory), for
 * reading; null with errno */
DIR *path_opendir(const Effects *fx, const char *path);

/* path_stat - at_stat of path's last name; 0, or -1 with errno */
int path_stat(const Effects *fx, const char *path, struct stat *st);

/* path_rmdir - remove the empty directory at path, reached as path_at
 * reaches it; 0, or -1 with errno (ENOTEMPTY for one that holds anything) */
int path_rmdir(const Effects *fx, const char *path);

/* at_stat - fstatat of the last name, links not followed when guarded */
int at_stat(PathAt *at, struct stat *st);

/* fd_owner_mode - give the open file or directory fd (path names it) uid,
 * gid and mode, each only where it differs (-1: left as it is), through
 * fx.  0, or -1 with errno and *step */
int fd_owner_mode(const Effects *fx, int fd, const char *path, uid_t uid, gid_t gid, mode_t mode,
                  const char **step);

/* path_owner_mode - give the file or directory at path uid, gid and mode
 * through a descriptor of it; 0, or -1 with errno and *step "chown" or
 * "chmod" (a missing or foreign object fails the chown) */
int path_owner_mode(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode,
                    const char **step);

/* make_dir_noting - the directory at path opened or made with mode, then
 * given uid, gid and mode where they differ, each failure reported; 0, or
 * -1.  *made tells whether this call created it (also when a later step
 * failed); a trusted link that cannot be opened fails with ENOLINK and no
 * message, for the caller to tell */
int make_dir_noting(const Effects *fx, const char *path, uid_t uid, gid_t gid, mode_t mode, int *made);

/* The changes made here when they are applied (the apply table of
 * fs/effect): at_dir's making of a directory that is missing or not one,
 * fd_owner_mode's change, setting a foreign object aside, removing an
 * empty directory or an object with everything in it, and a missing
 * directory that is nothing to go on with. */
int apply_make_dir(PathAt *at, mode_t mode, int *made);
int apply_owner_mode(int fd, const char *path, uid_t uid, gid_t gid, mode_t mode, const char **step);
int apply_set_aside(PathAt *at, const char *kind);
int apply_remove_dir(int dir, const char *name);
int apply_remove(PathAt *at);
int apply_missing_dir(const char *path);

#endif
