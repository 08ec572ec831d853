/* domain - add and remove a mail domain's directory and qmail records
 * (see domain.h). */
#include "mailconf/domain.h"

#include "fs/file_str.h"
#include "fs/path_ops.h"
#include "fs/trusted_link.h"
#include "fs/tree.h"
#include "mailconf/qmail_common.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>

/* format_wildcard_record - the assign record "+id:popuser:uid:gid:dir:::" */
static void format_wildcard_record(char *buf, const char *id, const PopuserIds *ids,
                                   const char *ascii)
{
    char dir[QMAIL_BUF_SIZE];

    snprintf(buf, QMAIL_BUF_SIZE, "+%s:popuser:%d:%d:%s:::", id, static_cast<int>(ids->uid),
             static_cast<int>(ids->gid), mail_path(dir, ascii, nullptr, nullptr));
}

/* undo_domain - take back what add_mail_domain added for the domain before
 * a step failed: its wildcard record (record), its rcpthosts line (ascii,
 * when added) and its directory when this run made it (still empty then).
 * Nothing that was there before the run is removed: a failed step must
 * never cost a domain its mailboxes. */
static void undo_domain(const MailDomain *d, const char *dir, int made, const char *record, const char *ascii)
{
    char path[QMAIL_BUF_SIZE];

    if (record != nullptr) {
        qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
        file_str(d->fx, path, record, FILE_STR_REMOVE, 1);
    }
    if (ascii != nullptr) {
        qmail_file_path(path, sizeof(path), QMAIL_RCPTHOSTS_FILE);
        file_str(d->fx, path, ascii, FILE_STR_REMOVE, 1);
    }
    if (made)
        path_rmdir(d->fx, dir);
}

int add_mail_domain(const MailDomain *d, int disabled)
{
    char dir[QMAIL_BUF_SIZE], record[QMAIL_BUF_SIZE];
    char path[QMAIL_BUF_SIZE], line[QMAIL_BUF_SIZE];
    const char *name = d->name, *ascii = d->ascii, *id = d->id;
    PopuserIds ids = {d->uid, d->gid};
    int made;

    mail_path(dir, ascii, nullptr, nullptr);
    int skipped = 0;
    /* One made now stays the run's until mail_domain_done. */
    if (make_dir_noting(d->fx, dir, ids.uid, ids.gid, 0700, &made, 1) != 0) {
        /* A domain that root moved to another disk and linked, whose link
         * cannot be followed safely now (the disk not mounted, a link on
         * the way): its records are written, its directory and link are
         * left as they are. */
        if (errno == ENOLINK) {
            int why = trusted_link_error();
            report_plain(0, "Skipping the mail directory of %s: the link %s cannot be followed: %s", name, dir,
                         why == EINVAL   ? "its target is not an absolute path without \"..\""
                         : why == EPERM ? "another user may change a directory on its way"
                                        : strerror(why));
            skipped = 1;
        } else {
            /* make_dir has reported the cause. */
            undo_domain(d, dir, made, nullptr, nullptr);
            report_exit(255);
        }
    }

    format_wildcard_record(record, id, &ids, ascii);
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(d->fx, path, record, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove domain record from assign file");
    /* At the beginning: above the closing "." line of the assign file. */
    if (file_str(d->fx, path, record, FILE_STR_ADD, FILE_STR_AT_BEGIN) != 0)
        report(1, "Unable to add default string to assign file for mail domain");
    set_shared_mode(d->fx, path, 0600);

    qmail_file_path(path, sizeof(path), QMAIL_RCPTHOSTS_FILE);
    if (file_str(d->fx, path, ascii, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove domain record from rcpthosts file");
    if (!disabled && file_str(d->fx, path, ascii, FILE_STR_ADD, FILE_STR_AT_END) != 0) {
        int failure = errno;
        undo_domain(d, dir, made, record, nullptr);
        report_errno(failure, 1, "Unable to add domain record to rcpthosts.");
    }

    snprintf(line, sizeof(line), "%s:%s\n", ascii, id);
    qmail_file_path(path, sizeof(path), QMAIL_VIRTUALDOMAINS_FILE);
    if (file_str(d->fx, path, line, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove record from virtualdomains.");
    if (!disabled && file_str(d->fx, path, line, FILE_STR_ADD, FILE_STR_AT_END) != 0) {
        int failure = errno;
        undo_domain(d, dir, made, record, ascii);
        report_errno(failure, 1, "Unable to add record to virtualdomains.");
    }

    /* Let the running mail system reread its control files. */
    control_files_changed(d);
    return skipped;
}

void mail_domain_done(const MailDomain *d)
{
    char dir[QMAIL_BUF_SIZE];

    mail_path(dir, d->ascii, nullptr, nullptr);
    if (path_at_give_fresh(d->fx, dir) != 0) {
        report(0, "ERROR: Unable to %s %s: %s\n", "chown", dir, strerror(errno));
        report_exit(255);
    }
}

int add_enabled_mail_domain(const MailDomain *d)
{
    return add_mail_domain(d, 0);
}

/* remove_domain_dir - remove the domain directory tree, deferred when the
 * /dev/hdv1 marker asks for it.  An absent directory leaves nothing to set
 * aside, so deferral is skipped for it (deferred_remove would refuse it as
 * an unsupported directory and end the process). */
static void remove_domain_dir(const Effects *fx, const char *dir)
{
    struct stat st;

    if (hdv1_marker_present() == 1) {
        if (path_stat(fx, dir, &st) == 0)
            deferred_remove(fx, dir);
    } else {
        remove_tree(fx, dir);
    }
}

int remove_mail_domain(const MailDomain *d)
{
    char dir[QMAIL_BUF_SIZE], record[QMAIL_BUF_SIZE];
    char path[QMAIL_BUF_SIZE];
    PopuserIds ids = {d->uid, d->gid};
    const char *ascii = d->ascii, *id = d->id;

    qmail_file_path(path, sizeof(path), QMAIL_RCPTHOSTS_FILE);
    if (file_str(d->fx, path, ascii, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove domain from rcpthosts file");

    snprintf(record, sizeof(record), "%s:%s", ascii, id);
    qmail_file_path(path, sizeof(path), QMAIL_VIRTUALDOMAINS_FILE);
    if (file_str(d->fx, path, record, FILE_STR_REMOVE, 1) != 0)
        report(1, "Unable to remove domain from virtualdomains file");
    control_files_changed(d);

    /* The closing slash keeps neighbours whose names merely begin with
     * this domain's name (example.com.au for example.com). */
    mail_path(dir, ascii, "", nullptr);
    qmail_file_path(path, sizeof(path), QMAIL_POPPASSWD_FILE);
    if (file_str(d->fx, path, dir, FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING) != 0)
        report(1, "error while deleting from file poppasswd");
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(d->fx, path, dir, FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING) != 0)
        report(1, "error while deleting from file assign");

    remove_domain_dir(d->fx, dir);

    format_wildcard_record(record, id, &ids, ascii);
    if (file_str(d->fx, path, record, FILE_STR_REMOVE, 1) != 0)
        report(1, "Unable to remove domain mailbox record from assign file");
    return 0;
}
