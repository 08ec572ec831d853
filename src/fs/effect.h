/* effect - the one door through which a run changes the system.
 *
 * Every change a run may make goes through a table of effects, one slot
 * for each kind of change.  The command chooses the table and hands it
 * down: the pass and the writers carry it in the state they are given (a
 * domain's MailDomain), the file layer in every PathAt it opens, so no
 * layer below the command can reach a change except through the table it
 * was handed, and none learns which table that is.  The command's apply table makes
 * the changes; its check table compares and reports them and writes
 * nothing, undo paths included.
 *
 * missing_dir() is what a walk of the mail tree goes on with below a
 * directory that is not there: nothing (-1, errno kept) when changes are
 * applied; when they are only reported, a descriptor made by
 * absent_dir_fd() (fs/path_at), which marks every PathAt below it absent,
 * so that nothing is looked up there.
 *
 * A change that fails tells the step it failed at as a FileStep, for the
 * caller to choose its message.
 */
#pragma once

#include <stddef.h>
#include <sys/types.h>

struct PathAt;
struct FileLock;

/* FileStep - the step at which a change of a file failed */
enum FileStep { STEP_LOCK, STEP_OPEN, STEP_WRITE, STEP_CHOWN, STEP_CHMOD, STEP_RENAME };

struct Effects {
    /* at_dir: the last name as a directory, opened or made */
    int (*new_dir)(PathAt *at, mode_t mode, int *made);
    /* a directory made by name in one the run keeps to itself (fs/path_at)
     * and given to uid and gid by name, not opened; 0, or -1 with errno
     * (EEXIST: something stands there); *made tells whether it was made */
    int (*new_leaf)(PathAt *at, mode_t mode, uid_t uid, gid_t gid, int *made);
    /* a directory the run kept to itself given to uid and gid */
    int (*give)(int fd, uid_t uid, gid_t gid);
    /* fd_owner_mode: owner, group and mode of an open object */
    int (*owner_mode)(int fd, const char *path, uid_t uid, gid_t gid, mode_t mode, FileStep *step);
    /* a foreign object at the last name moved aside and removed */
    int (*set_aside)(PathAt *at, const char *kind);
    /* replace_file_prepare and replace_file_commit */
    int (*replace_prepare)(PathAt *at, const char *text, size_t len, uid_t uid, gid_t gid, mode_t mode,
                           int durable, FileStep *step, PathAt *tmp, char *tmp_path);
    int (*replace_commit)(PathAt *at, PathAt *tmp, int durable, FileStep *step);
    /* file_str's edit of a file that is not held in memory */
    int (*edit)(PathAt *at, const char *const *lines, int operation, int mode);
    /* an object the panel no longer has: a file, or a directory with
     * everything in it; 0, or -1 with errno */
    int (*remove)(PathAt *at);
    /* an object moved, in one step, to a name no other object has */
    int (*move)(PathAt *from, PathAt *to);
    /* an empty directory this run made, taken back */
    int (*remove_dir)(int dir, const char *name);
    /* a temporary file a cut run left */
    void (*drop_leftover)(PathAt *tmp);
    /* the named lock of a file, waited for */
    FileLock *(*lock)(const char *path, short hashed);
    /* what a walk goes on with below a directory that is not there (see
     * above) */
    int (*missing_dir)(const char *path);
    /* every process of that command name signalled */
    int (*signal)(const char *name, int sig);
    /* a sibling utility of the panel run with its argument vector (argv[0]
     * first); its run result */
    int (*run_util)(const char *name, char *const argv[]);
    /* the salt the plain password of the mailbox at home is hashed with
     * when only reporting: the hash on disk (so that an unchanged password
     * gives the very same hash), or "" when the disk has no login for it
     * (nothing to hash: the login is missing); a null slot: the run's own
     * salt for every login */
    const char *(*login_salt)(const char *home);
    /* the panel has the directory at path (a domain's or a mailbox's) */
    void (*panel_has)(const char *path);
    /* every directory or link in dir the panel does not have is surplus */
    void (*dir_done)(const char *dir);
};
