/* at_name - what is done with the last name of a PathAt: opened, made as a
 * directory, looked at, cleared of a foreign object.
 *
 * In the guarded part of the tree, where the rebuild expects a file or a
 * directory of its own and finds a link or another kind of object (a
 * directory for a file, a file for a directory, a device, a file with more
 * than one name), the object is never followed: it goes to the effects'
 * set_aside, which moves it aside and removes it (or reports it), and the
 * caller makes its own in its place.  An object that is back once more,
 * and a link that root owns, are given up (at_in_the_way): the caller
 * skips what it wanted there.
 *
 * A PathAt marked absent holds nothing: every lookup in it answers ENOENT
 * without being made; nor does a name the run has not made in a directory
 * it keeps to itself (fs/path_at).
 */
#pragma once

#include "fs/path_at.h"

#include <sys/stat.h>
#include <sys/types.h>

/* at_open - openat of the last name.  Guarded: never through a link; a
 * foreign object goes to the effects' set_aside and, with O_CREAT, a new
 * file is made, else -1 with ENOENT as for a missing file */
int at_open(PathAt *at, int flags, mode_t mode);

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

/* at_open_dir - the last name opened as a directory, nothing made: a
 * trusted link through fs/trusted_link, anything guarded without
 * following a link; the descriptor, or -1 with errno */
int at_open_dir(PathAt *at);

/* at_dir - the last name as a directory, opened; one that is missing or
 * not a directory goes to the effects, which make it with mode (a foreign
 * object set aside first) or report it.  The descriptor, or -1 with
 * errno; *made tells whether it was created (may be null) */
int at_dir(PathAt *at, mode_t mode, int *made);

/* at_stat - fstatat of the last name, links not followed when guarded */
int at_stat(PathAt *at, struct stat *st);
