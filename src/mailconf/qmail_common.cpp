/* qmail_common - paths, names, identifiers and popuser ids for the qmail
 * writers (see qmail_common.h). */
#include "mailconf/qmail_common.h"

#include "fs/file_str.h"
#include "mailconf/idn.h"
#include "mailconf/value_check.h"
#include "runtime/config.h"
#include "runtime/report.h"
#include "runtime/users.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

void mail_domain(const Effects *fx, const MailDomainRow *r, const PopuserIds *popuser, MailDomain *d,
                 const char *message)
{
    if (strlen(r->id) >= sizeof(d->id))
        value_refused(message);
    d->fx = fx;
    d->name = r->name;
    memcpy(d->ascii, r->ascii, sizeof(d->ascii));
    memcpy(d->id, r->id, strlen(r->id) + 1);
    d->uid = popuser->uid;
    d->gid = popuser->gid;
    d->reread_due = nullptr;
}

const char *mail_path(char *buf, const char *ascii, const char *mail_name, const char *file)
{
    int n = snprintf(buf, QMAIL_BUF_SIZE, "%s/%s", panel_config.QMAIL_MAILNAMES_D, ascii);

    if (mail_name != nullptr && n >= 0 && n < QMAIL_BUF_SIZE)
        n += snprintf(buf + n, QMAIL_BUF_SIZE - n, "/%s", mail_name);
    if (file != nullptr && n >= 0 && n < QMAIL_BUF_SIZE)
        snprintf(buf + n, QMAIL_BUF_SIZE - n, "/%s", file);
    return buf;
}

void control_files_changed(const MailDomain *d)
{
    if (d->reread_due != nullptr)
        *d->reread_due = 1;
    else
        d->fx->signal("qmail-se", 1);
}

/* qmail_file_path - QMAIL_ROOT_D/name into buf */
void qmail_file_path(char *buf, size_t size, const char *name)
{
    snprintf(buf, size, "%s/%s", panel_config.QMAIL_ROOT_D, name);
}

void set_shared_mode(const Effects *fx, const char *path, unsigned mode)
{
    FileStep step;

    file_owner_mode(fx, path, static_cast<uid_t>(-1), static_cast<gid_t>(-1), mode, &step);
}

/* domain_ascii_valid - the ASCII form of a domain or alias name (caller
 * frees) that may stand in a directory name, a record and a lookup by name
 * (check_domain_ascii); one that does not convert ends the process with
 * the conversion's message, an empty one or one that breaks a rule with
 * the writer's message */
char *domain_ascii_valid(const char *domain, const char *message)
{
    if (domain == nullptr || *domain == '\0')
        report_plain(1, "%s", message);
    char *ascii = idn_toascii(domain);
    if (ascii == nullptr)
        report_plain(1, "idn_toascii() failed: %s", idn_error_text(idn_last_error));
    if (check_domain_ascii(ascii) != nullptr) {
        free(ascii);
        value_refused(message);
    }
    return ascii;
}

/* value_refused - end the process with a writer's invalid-name message,
 * which names no system error: the refusal is about a value */
void value_refused(const char *message)
{
    report_plain(1, "%s", message);
    report_exit(1);
}

/* mail_name_valid - 1 when a mailbox or mail alias name may stand in a
 * directory name and a record: it begins with an ASCII letter or digit,
 * '_' or '-', and passes the rules of check_mail_name; else 0 */
int mail_name_valid(const char *mail_name)
{
    return check_mail_name(mail_name) == nullptr;
}

/* popuser_lookup - look the ids of popuser up afresh; 1 when both are
 * known (non-zero) */
int popuser_lookup(PopuserIds *ids)
{
    ids->uid = lookup_user_ids("popuser", 0);
    ids->gid = lookup_user_ids("popuser", 1);
    return ids->uid != 0 && ids->gid != 0;
}
