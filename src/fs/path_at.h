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
 * QMAIL_MAILNAMES_D itself, and a link directly inside it that root owns,
 * followed through fs/trusted_link.  Paths outside the mail tree (the
 * root-owned qmail files, users.conf, the lock files) are opened as they
 * are, links and all: an administrator may link those on purpose.  A link
 * at such a path's last name is followed to its end first, so the file is
 * replaced beside its target and the link stays.
 *
 * Below a directory that is not there, a run that only reports goes on
 * with a PathAt marked absent: nothing is looked up in it, and its
 * descriptor is one that absent_dir_fd() made.
 *
 * A directory the run has just made where nobody else could have (in one
 * it made itself, or in the mail names directory, root's alone) is the
 * run's until it gives it away: path_at_keep_fresh() keeps it open, and
 * nothing in it is looked up before the run has made it there (a lookup of
 * any other name answers ENOENT without a system call, at_unmade); every
 * object made in it is noted (at_note_made), also one found standing there
 * after all (EEXIST), which is then looked at as anywhere else.
 * path_at_give_fresh() hands it to its owner once everything in it is
 * made.  What is done with the last
 * name is in fs/at_name; the wrappers over single paths in fs/path_ops.
 */
#pragma once

#include "fs/effect.h"

struct HeldDir;

/* PathAt - the opened directory of a path and the path's last name,
 * with the table of effects every change made through it goes to */
struct PathAt {
    const Effects *fx;
    int dir;          /* the directory holding the last name */
    char name[256];   /* the last name (a copy: the struct may be copied) */
    int guarded;      /* 1: links are not followed, foreign objects replaced */
    int trusted_link; /* the last name is root's link in the mail names directory */
    int absent;       /* 1: the directory holding the last name is not there */
    int owned;        /* dir is closed by path_at_close */
    const char *path; /* the whole path, for messages */
    HeldDir *fresh;  /* dir is a directory the run keeps to itself, or null */
};

/* path_at - open the directory holding path's last name, for changes
 * through fx; 0, or -1 with errno set and nothing open */
int path_at(const Effects *fx, const char *path, PathAt *at);
/* path_at_close - close what path_at opened; errno is left as it was */
void path_at_close(PathAt *at);
/* path_at_forget - drop the directories path_at keeps open between calls
 * (after a domain directory was renamed) */
void path_at_forget(void);

/* path_at_keep_fresh - fd, the directory at path that this run has just
 * made (through at, the PathAt it was made through), kept as the run's
 * until path_at_give_fresh: 1 when it is (fd then belongs to path_at), 0
 * when nobody can tell that no one else put anything in it (its parent is
 * neither the run's nor the mail names directory).  uid and gid: whom it
 * goes to (-1: it stays as it is). */
int path_at_keep_fresh(const PathAt *at, int fd, uid_t uid, gid_t gid);
/* path_at_hold - fd, the directory at path (looked at already, and
 * opened without following a link), held open until path_at_give_fresh
 * for the paths below it, which are then reached through it; 1, or 0 when
 * it cannot be (fd stays the caller's) */
int path_at_hold(const char *path, int fd);
/* path_at_give_fresh - the kept directory at path given to its owner
 * through fx (a held one only closed), closed and forgotten; 0, or -1
 * with errno (nothing to give when path is not kept) */
int path_at_give_fresh(const Effects *fx, const char *path);

/* at_unmade - 1 when at's last name lies in a directory the run keeps to
 * itself and was never made there: nothing stands there */
int at_unmade(const PathAt *at);
/* at_note_made - at's last name was made (or found standing) in a
 * directory the run keeps to itself; lookups of it are made from now on */
void at_note_made(const PathAt *at);

/* at_child - a guarded PathAt for name inside the open directory dir_fd,
 * which stays the caller's; path names it in messages.  It is absent when
 * dir_fd stands for a directory that is not there. */
void at_child(const Effects *fx, PathAt *at, int dir_fd, const char *name, const char *path);

/* at_temporary - tmp becomes "<name>.tmp" beside at's last name (same
 * directory, same rules), its whole path written to tmp_path (4096 bytes);
 * 0, or -1 with ENAMETOOLONG when the path does not fit */
int at_temporary(const PathAt *at, PathAt *tmp, char *tmp_path);

/* absent_dir_fd - a new descriptor that stands for a directory that is not
 * there: no directory at all, so no lookup through it can succeed, and
 * known by is_absent_dir; -1 with errno when none can be made */
int absent_dir_fd(void);
/* is_absent_dir - 1 when fd was made by absent_dir_fd (or is a copy of
 * one), else 0 */
int is_absent_dir(int fd);
