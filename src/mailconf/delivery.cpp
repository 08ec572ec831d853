/* delivery - postbox, forwards, autoresponder and alias records of a
 * mailbox (see delivery.h). */
#include "mailconf/delivery.h"

#include "fs/file_str.h"
#include "mailconf/idn.h"
#include "mailconf/pop3.h"
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

/* Each operation keeps its own popuser ids, looked up once per process. */
static PopuserIds postbox_popuser;
static PopuserIds forward_popuser;
static PopuserIds alias_popuser;

/* The invalid-name message of every writer here but add_mail_alias. */
static const char BAD_NAMES[] = "empty mailname or maildomain";

/* names_valid - the name test of the delivery writers (the domain's ASCII
 * form is tested where it is made, in delivery_file_path) */
static int names_valid(const char *mail_name, const char *domain)
{
    return mail_name_valid(mail_name) && domain != nullptr && *domain != '\0';
}

/* delivery_file_path - QMAIL_MAILNAMES_D/ascii/mail_name/.qmail */
static void delivery_file_path(char *buf, const char *domain, const char *mail_name)
{
    char *ascii = domain_ascii_valid(domain, BAD_NAMES);

    snprintf(buf, QMAIL_BUF_SIZE, "%s/%s/%s/.qmail", panel_config.QMAIL_MAILNAMES_D,
             ascii, mail_name);
    free(ascii);
}

/* put_qmail_line - make line the last line of the delivery file, once;
 * the result of the append (0 or 1) */
static int put_qmail_line(const char *path, const char *line)
{
    file_str(path, line, FILE_STR_REMOVE, 1);
    return file_str(path, line, FILE_STR_ADD, FILE_STR_AT_END);
}

/* give_to_popuser - owner popuser and mode 0600 for the delivery file */
static void give_to_popuser(const char *path, PopuserIds *ids)
{
    if (!popuser_known(ids))
        report(1, "Unable to define UID or GID for user popuser");
    const char *step;
    if (file_owner_mode(path, ids->uid, ids->gid, 0600, &step) != 0)
        report(1, "Unable to %s %s file: %s", step, path, strerror(errno));
}

int add_postbox(const char *mail_name, const char *domain, const char *password,
                int disabled, int full_names_required)
{
    char path[QMAIL_BUF_SIZE];

    if (!names_valid(mail_name, domain))
        value_refused(BAD_NAMES);
    add_pop3_password(mail_name, domain, password, disabled, full_names_required);
    delivery_file_path(path, domain, mail_name);
    if (put_qmail_line(path, "./Maildir/") != 0) {
        int failure = errno; /* the undo below may change errno */
        remove_postbox(mail_name, domain);
        errno = failure;
        report(1, "Unable to add string to %s file.", path);
    }
    give_to_popuser(path, &postbox_popuser);
    return 0;
}

int remove_postbox(const char *mail_name, const char *domain)
{
    char path[QMAIL_BUF_SIZE], ending[QMAIL_BUF_SIZE];

    if (!names_valid(mail_name, domain))
        value_refused(BAD_NAMES);
    char *ascii = domain_ascii_valid(domain, BAD_NAMES);
    snprintf(ending, sizeof(ending), "/%s/%s", ascii, mail_name);
    free(ascii);

    qmail_file_path(path, sizeof(path), QMAIL_POPPASSWD_FILE);
    if (file_str(path, ending, FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX) != 0)
        report(0, "Unable to remove a record from poppassword file\n");
    delivery_file_path(path, domain, mail_name);
    if (file_str(path, "./Maildir/", FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove string from %s file", path);
    return 0;
}

int add_forward_address(const char *mail_name, const char *domain, const char *address)
{
    char path[QMAIL_BUF_SIZE], line[QMAIL_BUF_SIZE];

    /* A null address (no value in the database) is refused like a bad
     * name: there is nothing to forward to. */
    if (!names_valid(mail_name, domain) || address == nullptr)
        value_refused(BAD_NAMES);
    delivery_file_path(path, domain, mail_name);
    if (!popuser_known(&forward_popuser))
        report(1, "Unable to define UID or GID for user popuser");

    char *converted = idn_email_toascii(address);
    if (converted == nullptr) {
        errno = 0;
        report(1, "idn_email_toascii() failed: %s", idn_error_text(idn_last_error));
    }
    /* An address that would make the line a program, a file, a special
     * instruction or no address at all is refused with the message of an
     * address that does not convert, naming the rule it breaks. */
    if (const char *why = check_forward_address(converted)) {
        free(converted);
        errno = 0;
        report(1, "idn_email_toascii() failed: %s", why);
    }
    snprintf(line, sizeof(line), "&%s", converted);
    free(converted);
    if (put_qmail_line(path, line) != 0)
        report(1, "Unable to add string to %s file.", path);
    give_to_popuser(path, &forward_popuser);
    return 0;
}

int add_autoresponder(const char *mail_name, const char *domain)
{
    char path[QMAIL_BUF_SIZE];

    if (!names_valid(mail_name, domain))
        value_refused(BAD_NAMES);
    delivery_file_path(path, domain, mail_name);
    if (put_qmail_line(path, "|autoresponder") != 0)
        report(1, "Unable to add string to %s file", path);
    return 0;
}

int add_mail_alias(const char *mail_name, const char *domain, const char *alias)
{
    char record[QMAIL_BUF_SIZE], path[QMAIL_BUF_SIZE], id[QMAIL_ID_SIZE];

    if (!names_valid(mail_name, domain) || !mail_name_valid(alias)) {
        errno = 0;
        report(1, "empty mailname, maildomainor or mailalias");
    }
    char *ascii = domain_ascii_valid(domain, "empty mailname, maildomainor or mailalias");
    if (!popuser_known(&alias_popuser))
        report(1, "Unable to define UID or GID for user popuser");

    domain_id_required(domain, id, sizeof(id));
    snprintf(record, sizeof(record), "=%s-%s:popuser:%d:%d:%s/%s/%s:::", id, alias,
             static_cast<int>(alias_popuser.uid), static_cast<int>(alias_popuser.gid),
             panel_config.QMAIL_MAILNAMES_D, ascii, mail_name);
    free(ascii);
    qmail_file_path(path, sizeof(path), QMAIL_ASSIGN_FILE);
    if (file_str(path, record, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove record from assign file");
    /* At the beginning: above the closing "." line. */
    if (file_str(path, record, FILE_STR_ADD, FILE_STR_AT_BEGIN) != 0)
        report(1, "Unable to add record to assign file");
    set_shared_mode(path, 0600);
    return 0;
}
