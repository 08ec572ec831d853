/* users - system user and group lookups.
 *
 * Small wrappers around the user and group databases that report a failed
 * lookup (as a warning) and return 0, the not-found id: callers treat a uid
 * or gid of 0 as failure.
 */
#pragma once

#include <sys/types.h>

/* lookup_user_ids - uid (selector 0) or primary gid (any other selector)
 * of a user; 0 when unknown */
unsigned int lookup_user_ids(const char *user, int selector);
/* group_name - a gid's group name, or the gid in decimal, static buffer */
const char *group_name(gid_t gid);
/* user_name - a uid's user name, or the uid in decimal, static buffer */
const char *user_name(uid_t uid);
uid_t user_uid(const char *name);
/* group_gid_if_exists - gid when such a group exists, else 0 */
gid_t group_gid_if_exists(gid_t gid);
/* user_info - store uid, primary gid and a newly allocated copy of the
 * home directory (caller frees) into the places that are not null; 0 or -1 */
int user_info(const char *name, uid_t *uid, gid_t *gid, char **home);
gid_t group_gid(const char *name);
int is_all_digits(const char *text);
/* group_gid_from_text - gid of a group given by name or by number */
gid_t group_gid_from_text(const char *text);
