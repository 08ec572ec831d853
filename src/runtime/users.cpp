/* users - system user and group lookups; failed lookups are warnings and
 * give 0 (see users.h). */
#include "runtime/users.h"

#include "runtime/report.h"

#include <ctype.h>
#include <errno.h>
#include <grp.h>
#include <pwd.h>
#include <stdio.h>

/* Result buffers of group_name() and user_name(). */
static char group_name_buf[4096];
static char user_name_buf[4096];

/* passwd_entry - getpwnam(name), with errno 0 when there is no such user
 * (getpwnam leaves it alone then) and the lookup's error otherwise */
static struct passwd *passwd_entry(const char *name)
{
    errno = 0;
    return getpwnam(name);
}

unsigned int lookup_user_ids(const char *user, int selector)
{
    struct passwd *pw = passwd_entry(user);

    if (!pw) {
        report(0, "Unable to getpwnam for user %s", user);
        return 0;
    }
    return selector == 0 ? pw->pw_uid : pw->pw_gid;
}

const char *group_name(gid_t gid)
{
    struct group *gr = getgrgid(gid);

    if (gr)
        snprintf(group_name_buf, sizeof(group_name_buf), "%s", gr->gr_name);
    else
        snprintf(group_name_buf, sizeof(group_name_buf), "%u", static_cast<unsigned>(gid));
    return group_name_buf;
}

const char *user_name(uid_t uid)
{
    struct passwd *pw = getpwuid(uid);

    if (pw)
        snprintf(user_name_buf, sizeof(user_name_buf), "%s", pw->pw_name);
    else
        snprintf(user_name_buf, sizeof(user_name_buf), "%u", static_cast<unsigned>(uid));
    return user_name_buf;
}

uid_t user_uid(const char *name)
{
    struct passwd *pw = passwd_entry(name);

    if (!pw) {
        report(0, "Unable to find uid for user %s", name);
        return 0;
    }
    return pw->pw_uid;
}

/* group_entry - the group called name, or (name null) with id gid, with
 * errno 0 when there is no such group and the lookup's error otherwise */
static struct group *group_entry(const char *name, gid_t gid)
{
    errno = 0;
    return name != nullptr ? getgrnam(name) : getgrgid(gid);
}

gid_t group_gid_if_exists(gid_t gid)
{
    if (!group_entry(nullptr, gid)) {
        report(0, "Unable to find group %d", static_cast<int>(gid));
        return 0;
    }
    return gid;
}

int user_info(const char *name, uid_t *uid, gid_t *gid, char **home)
{
    struct passwd *pw = passwd_entry(name);

    if (!pw) {
        report(0, "Unable to getpwnam for user %s", name);
        return -1;
    }
    if (uid)
        *uid = pw->pw_uid;
    if (gid)
        *gid = pw->pw_gid;
    if (home)
        *home = xasprintf("%s", pw->pw_dir);
    return 0;
}

gid_t group_gid(const char *name)
{
    struct group *gr = group_entry(name, 0);

    if (!gr) {
        report(0, "Unable to find group %s", name);
        return 0;
    }
    return gr->gr_gid;
}

int is_all_digits(const char *text)
{
    for (; *text; text++)
        if (!isdigit(static_cast<unsigned char>(*text)))
            return 0;
    return 1;
}

/* group_gid_from_text - the empty text holds no number, so it is looked up
 * as a (nonexistent) group name and reported as not found: reading it as
 * a number would yield no value, never gid 0 or any other group. */
gid_t group_gid_from_text(const char *text)
{
    int gid = 0;

    if (*text == '\0' || !is_all_digits(text))
        return group_gid(text);
    sscanf(text, "%d", &gid);
    return group_gid_if_exists(static_cast<gid_t>(gid));
}
