/* quota - write and remove "@mbox.quota" files under their named locks
 * (see quota.h). */
#include "mailconf/quota.h"

#include "fs/file_lock.h"
#include "fs/at_name.h"
#include "fs/replace_file.h"
#include "mailconf/qmail_common.h"
#include "mailconf/value_check.h"
#include "runtime/config.h"
#include "runtime/report.h"
#include "runtime/users.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

/* quota_file_path - the mailbox's quota file of domain d, or the
 * domain's when mail_name is null; -1 with a warning (the invalid-name
 * message of the mailbox writer) when the name cannot stand in the path,
 * and the caller fails as on any other quota file failure */
static int quota_file_path(char *buf, const MailDomain *d, const char *mail_name)
{
    if (mail_name != nullptr && !mail_name_valid(mail_name)) {
        report_plain(0, "invalid mailname or domain name.");
        errno = 0; /* a failed write leaves its cause in errno: here none */
        return -1;
    }
    mail_path(buf, d->ascii, mail_name, QUOTA_FILE_NAME);
    return 0;
}

/* unlock_quota - release the lock, warning when that fails */
static void unlock_quota(FileLock *lock, const char *path)
{
    if (file_unlock(lock) != 0)
        report(0, "Error while unlocking file %s\n", path);
}

/* write_quota_at - text into the quota file reached through at, owned by
 * popuser (ids) with mode 0640: replaced whole and only when it differs,
 * so no empty, cut or misowned file is ever seen; 1, or 0 after a
 * warning, the previous file then left whole */
static int write_quota_at(PathAt *at, const char *text, const PopuserIds &ids)
{
    FileStep step;

    /* An unknown popuser (ids 0) would leave the file to root: that counts
     * as a failed chown, and no file is written. */
    if (ids.uid == 0 || ids.gid == 0) {
        report_plain(0, "Unable to chown quota file %s\n", at->path);
        errno = 0; /* a failed write leaves its cause in errno: here none */
        return 0;
    }
    if (replace_file_at(at, text, strlen(text), ids.uid, ids.gid, 0640, 0, &step) >= 0)
        return 1;
    switch (step) {
    case STEP_OPEN:
        report(0, "Unable to open file %s: %s\n", at->path, strerror(errno));
        break;
    case STEP_CHOWN:
        report(0, "Unable to chown quota file %s\n", at->path);
        break;
    case STEP_CHMOD:
        report(0, "Unable to chmod for quota file %s\n", at->path);
        break;
    default:
        report(0, "%s", strerror(errno));
    }
    /* Deliberately left as it is: the replacement goes through a temporary
     * file, so the previous file is still whole, and its number is closer
     * to the panel's than no quota at all (a full disk must not lift a
     * mailbox's limit).  Only the panel's "no limit" removes the file
     * (remove_mbox_quota). */
    return 0;
}

int write_mbox_quota(const MailDomain *d, const char *mail_name, long kilobytes)
{
    char path[QMAIL_BUF_SIZE];
    PathAt at;
    PopuserIds ids = {d->uid, d->gid};
    char text[32];

    if (quota_file_path(path, d, mail_name) != 0)
        return 0;
    snprintf(text, sizeof(text), "%ld\n", kilobytes);
    /* A file already as it should be is left alone, without its lock. */
    if (ids.uid != 0 && ids.gid != 0 && file_matches(d->fx, path, text, strlen(text), ids.uid, ids.gid, 0640))
        return 1;
    FileLock *lock = d->fx->lock(path, 1);
    if (!file_lock_held(lock)) {
        report(0, "Error while locking file %s.\n", path);
        int failure = errno; /* the caller's message names the same cause */
        file_unlock(lock);
        errno = failure;
        return 0;
    }
    int rc = 0, opened = path_at(d->fx, path, &at) == 0;
    if (!opened)
        report(0, "Unable to open file %s: %s\n", path, strerror(errno));
    else
        rc = write_quota_at(&at, text, ids);
    int failure = errno; /* a failed step's, kept across the cleanup */
    if (opened)
        path_at_close(&at);
    unlock_quota(lock, path);
    errno = failure;
    return rc;
}

int remove_mbox_quota(const MailDomain *d, const char *mail_name)
{
    char path[QMAIL_BUF_SIZE];
    struct stat st;
    PathAt at;

    if (quota_file_path(path, d, mail_name) != 0)
        return 0;
    if (path_at(d->fx, path, &at) != 0)
        return 1;
    if (at_stat(&at, &st) != 0) {
        path_at_close(&at);
        return 1;
    }
    FileLock *lock = d->fx->lock(path, 1);
    if (!file_lock_held(lock)) {
        report(0, "Error while locking file %s.\n", path);
        file_unlock(lock);
        path_at_close(&at);
        return 0;
    }
    int rc = 1;
    /* Removing never follows a link: a link planted there goes itself. */
    if (d->fx->remove(&at) != 0) {
        report(0, "System Error: can not remove quota file %s\n", path);
        rc = 0;
    }
    path_at_close(&at);
    unlock_quota(lock, path);
    return rc;
}
