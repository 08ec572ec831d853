/* domain - add and remove a mail domain's directory and qmail records
 * (see domain.h). */
#include "mailconf/domain.h"

#include "fs/file_str.h"
#include "fs/file_util.h"
#include "fs/path_at.h"
#include "fs/tree.h"
#include "mailconf/qmail_common.h"
#include "proc/send_sig.h"
#include "runtime/config.h"
#include "runtime/report.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/stat.h>

/* format_wildcard_record - the assign record "+id:popuser:uid:gid:dir:::" */
static void format_wildcard_record(char *buf, const char *id, const PopuserIds *ids,
                                   const char *ascii)
{
    snprintf(buf, QMAIL_BUF_SIZE, "+%s:popuser:%d:%d:%s/%s:::", id,
             static_cast<int>(ids->uid), static_cast<int>(ids->gid),
             panel_config.QMAIL_MAILNAMES_D, ascii);
}

/* undo_domain - take back what add_mail_domain added for the domain before
 * a step failed: its wildcard record (record), its rcpthosts line (ascii,
 * when added) and its directory when this run made it (still empty then).
 * Nothing that was there before the run is removed: a failed step must
 * never cost a domain its mailboxes.  errno stays the failed step's, for
 * the message that follows. */
static void undo_domain(const char *dir, int made, const char *record, const char *ascii)
{
    char path[QMAIL_BUF_SIZE];
    int failure = errno;

    if (record != nullptr) {
        qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
        file_str(path, record, FILE_STR_REMOVE, 1);
    }
    if (ascii != nullptr) {
        qmail_file_path(path, sizeof(path), QMAIL_RCPTHOSTS_FILE);
        file_str(path, ascii, FILE_STR_REMOVE, 1);
    }
    if (made)
        path_rmdir(dir);
    errno = failure;
}

int add_mail_domain(const MailDomain *d, int disabled)
{
    char dir[QMAIL_BUF_SIZE], record[QMAIL_BUF_SIZE];
    char path[QMAIL_BUF_SIZE], line[QMAIL_BUF_SIZE];
    const char *name = d->name, *ascii = d->ascii, *id = d->id;
    PopuserIds ids = {d->uid, d->gid};
    int made;

    snprintf(dir, sizeof(dir), "%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii);
    int skipped = 0;
    if (make_dir_noting(dir, ids.uid, ids.gid, 0700, &made) != 0) {
        /* A domain that root moved to another disk and linked, whose link
         * cannot be followed safely now (the disk not mounted, a link on
         * the way): its records are written, its directory and link are
         * left as they are. */
        if (errno == ENOLINK) {
            int why = trusted_link_error();
            errno = 0;
            report(0, "Skipping the mail directory of %s: the link %s cannot be followed: %s", name, dir,
                   why == EINVAL   ? "its target is not an absolute path without \"..\""
                   : why == EPERM ? "another user may change a directory on its way"
                                  : strerror(why));
            skipped = 1;
        } else {
            /* make_dir has reported the cause. */
            undo_domain(dir, made, nullptr, nullptr);
            report_exit(255);
        }
    }

    format_wildcard_record(record, id, &ids, ascii);
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(path, record, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove domain record from assign file");
    /* At the beginning: above the closing "." line of the assign file. */
    if (file_str(path, record, FILE_STR_ADD, FILE_STR_AT_BEGIN) != 0)
        report(1, "Unable to add default string to assign file for mail domain");
    set_shared_mode(path, 0600);

    qmail_file_path(path, sizeof(path), QMAIL_RCPTHOSTS_FILE);
    if (file_str(path, ascii, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove domain record from rcpthosts file");
    if (!disabled && file_str(path, ascii, FILE_STR_ADD, FILE_STR_AT_END) != 0) {
        undo_domain(dir, made, record, nullptr);
        report(1, "Unable to add domain record to rcpthosts.");
    }

    snprintf(line, sizeof(line), "%s:%s\n", ascii, id);
    qmail_file_path(path, sizeof(path), QMAIL_VIRTUALDOMAINS_FILE);
    if (file_str(path, line, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove record from virtualdomains.");
    if (!disabled && file_str(path, line, FILE_STR_ADD, FILE_STR_AT_END) != 0) {
        undo_domain(dir, made, record, ascii);
        report(1, "Unable to add record to virtualdomains.");
    }

    /* Let the running mail system reread its control files. */
    kill_by_name("qmail-se", 1);
    return skipped;
}

int add_enabled_mail_domain(const char *name)
{
    MailDomain d;

    mail_domain(name, &d, "empty domain");
    return add_mail_domain(&d, 0);
}

/* remove_domain_dir - remove the domain directory tree, deferred when the
 * /dev/hdv1 marker asks for it.  An absent directory leaves nothing to set
 * aside, so deferral is skipped for it (deferred_remove would refuse it as
 * an unsupported directory and end the process). */
static void remove_domain_dir(const char *dir)
{
    struct stat st;

    if (hdv1_marker_present() == 1) {
        if (path_stat(dir, &st) == 0)
            deferred_remove(dir);
    } else {
        remove_tree(dir, 1);
    }
}

int remove_mail_domain(const char *name)
{
    char dir[QMAIL_BUF_SIZE], record[QMAIL_BUF_SIZE], id[QMAIL_ID_SIZE];
    char path[QMAIL_BUF_SIZE];
    PopuserIds ids;

    if (name == nullptr || *name == '\0') {
        errno = 0;
        report(1, "empty maildomain");
    }
    char *ascii = domain_ascii_valid(name, "empty maildomain");
    /* No test: an unknown popuser gives 0 and 0, and its wildcard record
     * is then simply not found. */
    popuser_lookup(&ids);
    domain_id_required(name, id, sizeof(id));

    qmail_file_path(path, sizeof(path), QMAIL_RCPTHOSTS_FILE);
    if (file_str(path, ascii, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove domain from rcpthosts file");

    snprintf(record, sizeof(record), "%s:%s", ascii, id);
    qmail_file_path(path, sizeof(path), QMAIL_VIRTUALDOMAINS_FILE);
    if (file_str(path, record, FILE_STR_REMOVE, 1) != 0)
        report(1, "Unable to remove domain from virtualdomains file");
    kill_by_name("qmail-se", 1);

    /* The closing slash keeps neighbours whose names merely begin with
     * this domain's name (example.com.au for example.com). */
    snprintf(dir, sizeof(dir), "%s/%s/", panel_config.QMAIL_MAILNAMES_D, ascii);
    qmail_file_path(path, sizeof(path), QMAIL_POPPASSWD_FILE);
    if (file_str(path, dir, FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING) != 0)
        report(1, "error while deleting from file poppasswd");
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(path, dir, FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING) != 0)
        report(1, "error while deleting from file assign");

    remove_domain_dir(dir);

    format_wildcard_record(record, id, &ids, ascii);
    if (file_str(path, record, FILE_STR_REMOVE, 1) != 0)
        report(1, "Unable to remove domain mailbox record from assign file");
    free(ascii);
    return 0;
}
