/* trusted_link - root's link to a domain directory, followed safely.
 *
 * A link directly inside QMAIL_MAILNAMES_D that root owns (a large domain
 * moved to another disk) is the one link below the mail names directory
 * the walk of fs/path_at follows.  It is resolved without popuser's help:
 * its text must be an absolute path, walked one component at a time with
 * no link followed and through directories only root may change, so that
 * no component popuser could swap for a link or a directory of its own
 * leads the rebuild outside.  One that cannot be opened so (a relative
 * text, a link or another user's directory on the way, a disk not mounted)
 * fails with ENOLINK, and trusted_link_error() tells why.
 */
#pragma once

/* trusted_link_at - 1 when name in the open directory dir is a link that
 * root owns, else 0 */
int trusted_link_at(int dir, const char *name);

/* trusted_link_open - the directory that root's link name in dir points
 * to, opened as described above; its descriptor, or -1 with ENOLINK */
int trusted_link_open(int dir, const char *name);

/* trusted_link_error - why the last trusted link that failed with ENOLINK
 * could not be opened: an errno value, EINVAL for a text that is not
 * absolute or holds "..", EPERM for a directory on the way that another
 * user may change */
int trusted_link_error(void);
