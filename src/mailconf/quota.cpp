/* quota - write and remove "@mbox.quota" files under their named locks
 * (see quota.h). */
#include "mailconf/quota.h"

#include "fs/file_lock.h"
#include "fs/users.h"
#include "mailconf/qmail_common.h"
#include "mailconf/value_check.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#define QUOTA_FILE_NAME "@mbox.quota"

/* quota_file_path - the mailbox's quota file, or the domain's when
 * mail_name is null; -1 with a warning (the invalid-name message of the
 * mailbox writer) when a name cannot stand in the path, and the caller
 * fails as on any other quota file failure */
static int quota_file_path(char *buf, const char *domain, const char *mail_name)
{
    char *ascii = domain_ascii(domain);

    if (check_domain_ascii(ascii) != nullptr
        || (mail_name != nullptr && !mail_name_valid(mail_name))) {
        free(ascii);
        errno = 0;
        report(0, "invalid mailname or domain name.");
        return -1;
    }
    if (mail_name != nullptr)
        snprintf(buf, QMAIL_BUF_SIZE, "%s/%s/%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii,
                 mail_name, QUOTA_FILE_NAME);
    else
        snprintf(buf, QMAIL_BUF_SIZE, "%s/%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii,
                 QUOTA_FILE_NAME);
    free(ascii);
    return 0;
}

/* unlock_quota - release the lock, warning when that fails */
static void unlock_quota(FileLock *lock, const char *path)
{
    if (file_unlock(lock) != 0)
        report(0, "Error while unlocking file %s\n", path);
}

int write_mbox_quota(const char *domain, const char *mail_name, long kilobytes)
{
    char path[QMAIL_BUF_SIZE];
    PopuserIds ids;

    if (quota_file_path(path, domain, mail_name) != 0)
        return 0;
    FileLock *lock = file_lock(path, 1);
    if (!file_lock_held(lock)) {
        report(0, "Error while locking file %s.\n", path);
        file_unlock(lock);
        return 0;
    }

    FILE *f = fopen(path, "w");
    if (f == nullptr) {
        report(0, "Unable to open file %s: %s\n", path, strerror(errno));
        unlock_quota(lock, path);
        return 0;
    }
    fprintf(f, "%ld\n", kilobytes);
    if (fclose(f) != 0) {
        report(0, "%s", strerror(errno));
        /* Deliberately removed rather than left as it is: the number may
         * not have reached the disk, and no empty or cut quota file may
         * stay behind. */
        unlink(path);
        unlock_quota(lock, path);
        return 0;
    }

    /* An unknown popuser (ids 0) would leave the file to root: that counts
     * as a failed chown, and the file goes. */
    popuser_lookup(&ids);
    if (ids.uid == 0 || ids.gid == 0 || chown(path, ids.uid, ids.gid) != 0) {
        report(0, "Unable to chown quota file %s\n", path);
        unlink(path);
        unlock_quota(lock, path);
        return 0;
    }
    if (chmod(path, 0640) != 0) {
        report(0, "Unable to chmod for quota file %s\n", path);
        unlink(path);
        unlock_quota(lock, path);
        return 0;
    }
    unlock_quota(lock, path);
    return 1;
}

int remove_mbox_quota(const char *domain, const char *mail_name)
{
    char path[QMAIL_BUF_SIZE];
    struct stat st;

    if (quota_file_path(path, domain, mail_name) != 0)
        return 0;
    if (stat(path, &st) != 0)
        return 1;
    FileLock *lock = file_lock(path, 1);
    if (!file_lock_held(lock)) {
        report(0, "Error while locking file %s.\n", path);
        file_unlock(lock);
        return 0;
    }
    if (unlink(path) != 0) {
        report(0, "System Error: can not remove quota file %s\n", path);
        unlock_quota(lock, path);
        return 0;
    }
    unlock_quota(lock, path);
    return 1;
}
