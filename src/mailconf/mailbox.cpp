/* mailbox - add and remove a mailbox home, its Maildir and its assign
 * record (see mailbox.h). */
#include "mailconf/mailbox.h"

#include "fs/file_str.h"
#include "fs/file_util.h"
#include "fs/tree.h"
#include "mailconf/idn.h"
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

/* The popuser ids of add_mailbox, looked up once per process. */
static PopuserIds add_popuser;

/* Directories made in every home, in this order, relative to it. */
static const char *const mailbox_subdirs[] = {
    "Maildir", "Maildir/tmp", "Maildir/new", "Maildir/cur", "@attachments", nullptr,
};

/* format_mailbox_record - the assign record "=id-name:popuser:uid:gid:home:::" */
static void format_mailbox_record(char *buf, const char *id, const char *mail_name,
                                  const PopuserIds *ids, const char *ascii)
{
    snprintf(buf, QMAIL_BUF_SIZE, "=%s-%s:popuser:%d:%d:%s/%s/%s:::", id, mail_name,
             static_cast<int>(ids->uid), static_cast<int>(ids->gid),
             panel_config.QMAIL_MAILNAMES_D, ascii, mail_name);
}

/* undo_and_die - remove the half-made mailbox, then end the process with
 * the message; errno is kept for the message's system error text */
[[noreturn]] static void undo_and_die(const char *mail_name, const char *domain,
                                      const char *message)
{
    int saved = errno;

    remove_mailbox(mail_name, domain);
    errno = saved;
    report(1, "%s", message);
    report_exit(1);
}

/* make_owned_dir - mkdir with mode 0700 (an existing one keeps its mode)
 * and give it to popuser; 0, or -1 with *what telling the failing step */
static int make_owned_dir(const char *path, const char **what)
{
    if (mkdir(path, 0700) != 0 && errno != EEXIST) {
        *what = "make";
        return -1;
    }
    errno = 0;
    if (chown(path, add_popuser.uid, add_popuser.gid) != 0) {
        *what = "chown";
        return -1;
    }
    return 0;
}

int add_mailbox(const char *mail_name, const char *domain)
{
    char record[QMAIL_BUF_SIZE], path[QMAIL_BUF_SIZE], id[QMAIL_ID_SIZE];
    char home[QMAIL_BUF_SIZE], cwd[QMAIL_BUF_SIZE], message[QMAIL_BUF_SIZE * 3];
    const char *what = nullptr;

    if (!mail_name_valid(mail_name) || domain == nullptr || *domain == '\0')
        report(1, "invalid mailname or domain name.");
    char *ascii = idn_toascii_safe(domain);
    if (check_domain_ascii(ascii) != nullptr) {
        free(ascii);
        value_refused("invalid mailname or domain name.");
    }
    if (!popuser_known(&add_popuser))
        report(1, "Unable to define UID or GID for user popuser");

    domain_id_required(domain, id, sizeof(id));
    format_mailbox_record(record, id, mail_name, &add_popuser, ascii);
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(path, record, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove record for %s from assign file", mail_name);
    if (file_str(path, record, FILE_STR_ADD, FILE_STR_AT_BEGIN) != 0) {
        snprintf(message, sizeof(message), "Unable to add record for %s to assign file",
                 mail_name);
        undo_and_die(mail_name, domain, message);
    }
    chmod(path, 0600);

    snprintf(home, sizeof(home), "%s/%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii,
             mail_name);
    free(ascii);
    if (make_owned_dir(home, &what) != 0) {
        snprintf(message, sizeof(message), "Unable to %s %s dir: %s", what, home,
                 strerror(errno));
        undo_and_die(mail_name, domain, message);
    }

    if (getcwd(cwd, sizeof(cwd)) == nullptr) {
        snprintf(message, sizeof(message), "Unable to getcwd: %s", strerror(errno));
        undo_and_die(mail_name, domain, message);
    }
    if (chdir(home) != 0) {
        snprintf(message, sizeof(message), "Unable to chdir %s: %s", home, strerror(errno));
        undo_and_die(mail_name, domain, message);
    }

    if (truncate_file(".qmail") != 0)
        report(1, "Unable to create %s file\n", ".qmail");
    if (chown(".qmail", add_popuser.uid, add_popuser.gid) != 0)
        report(1, "Unable to chown .qmail file: %s", strerror(errno));
    if (chmod(".qmail", 0600) != 0)
        report(1, "Unable to chmod .qmail file: %s", strerror(errno));
    /* Edited by its full path, as the delivery writers spell it: its named
     * lock is then the one they and the panel's other tools take. */
    if (snprintf(path, sizeof(path), "%s/.qmail", home) >= static_cast<int>(sizeof(path))
        || file_str(path, "| true", FILE_STR_ADD, FILE_STR_AT_END) != 0)
        report(1, "Unable to add string to .qmail file\n");

    for (int i = 0; mailbox_subdirs[i] != nullptr; i++) {
        if (make_owned_dir(mailbox_subdirs[i], &what) != 0) {
            snprintf(message, sizeof(message), "Unable to %s %s/%s dir: %s", what, home,
                     mailbox_subdirs[i], strerror(errno));
            undo_and_die(mail_name, domain, message);
        }
    }

    if (chdir(cwd) != 0) {
        snprintf(message, sizeof(message), "Unable to chdir %s: %s", cwd, strerror(errno));
        undo_and_die(mail_name, domain, message);
    }
    return 0;
}

int remove_mailbox(const char *mail_name, const char *domain)
{
    char record[QMAIL_BUF_SIZE], path[QMAIL_BUF_SIZE], id[QMAIL_ID_SIZE];
    char home[QMAIL_BUF_SIZE];
    PopuserIds ids;

    if (!mail_name_valid(mail_name) || domain == nullptr || *domain == '\0')
        report(1, "empty mailname or maildomain");
    char *ascii = domain_ascii_valid(domain, "empty mailname or maildomain");
    if (!popuser_lookup(&ids))
        report(1, "Unable to get popuser uid or gid\n");

    domain_id_required(domain, id, sizeof(id));
    format_mailbox_record(record, id, mail_name, &ids, ascii);
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(path, record, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove %s mailbox record from assign file", mail_name);
    chmod(path, 0600);

    /* The home path's ending, from the slash before the domain: keeps
     * xinfo@example.com and info@example.com.au. */
    snprintf(record, sizeof(record), "/%s/%s", ascii, mail_name);
    qmail_file_path(path, sizeof(path), QMAIL_POPPASSWD_FILE);
    if (file_str(path, record, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX) != 0)
        report(0, "Unable to remove %s mailbox record from password file\n", mail_name);
    chmod(path, 0600);

    snprintf(home, sizeof(home), "%s/%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii,
             mail_name);
    free(ascii);
    remove_tree(home, 1);
    return 0;
}
