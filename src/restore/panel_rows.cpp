/* panel_rows - the pass's queries and their rows decoded (see
 * panel_rows.h). */
#include "restore/panel_rows.h"

#include "mailconf/idn.h"
#include "mailconf/value_check.h"
#include "restore/finish.h"
#include "runtime/report.h"

#include <algorithm>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* The columns of a mailbox list row, in the order of mailboxes_query. */
enum {
    MB_ID, MB_NAME, MB_POSTBOX, MB_TYPE, MB_PASSWORD, MB_REDIRECT, MB_REDIR_ADDR, MB_GROUP,
    MB_AUTORESPONDER, MB_QUOTA
};

/* flag_on - a flag column is on unless it says "false"; a NULL (which the
 * panel never stores there) is taken as off rather than compared */
static int flag_on(const char *value)
{
    return value != nullptr && strcmp(value, "false") != 0;
}

/* column_rule - the rule that column col of a fetched row breaks, or null:
 * a NUL byte inside it, or a rule of check */
static const char *column_rule(MYSQL_RES *res, MYSQL_ROW row, unsigned col,
                               const char *(*check)(const char *))
{
    const unsigned long *lengths = mysql_fetch_lengths(res);

    if (const char *why = check_no_nul(row[col], lengths[col]))
        return why;
    return check(row[col]);
}

const char *value_rule(MYSQL_RES *res, MYSQL_ROW row, const char *(*check)(const char *))
{
    return column_rule(res, row, 0, check);
}

const char *domain_row(MYSQL_RES *res, MYSQL_ROW row, MailDomainRow *fields)
{
    const char *id = row[0];

    fields->id = id != nullptr ? id : "";
    fields->name = row[1];
    fields->ascii[0] = '\0';
    fields->disabled = (row[2] && atoi(row[2]) != 0) || (row[3] && atoi(row[3]) != 0);
    /* The identifier goes into the later queries unquoted: a number or
     * nothing. */
    if (*fields->id == '\0' || fields->id[strspn(fields->id, "0123456789")] != '\0')
        return fields->rule = "no domain id";
    if ((fields->rule = check_no_nul(row[1], mysql_fetch_lengths(res)[1])) != nullptr)
        return fields->rule;
    /* The name is converted here, once: its ASCII form is what every file
     * and path of the domain holds. */
    char *ascii = row[1] != nullptr && *row[1] != '\0' ? idn_toascii(row[1]) : nullptr;
    if (row[1] == nullptr || *row[1] == '\0')
        fields->rule = "a name must not be empty";
    else if (ascii == nullptr)
        fields->rule = "the name does not convert to ASCII";
    else if ((fields->rule = check_domain_ascii(ascii)) == nullptr && strlen(ascii) >= sizeof(fields->ascii))
        fields->rule = "the name is too long";
    if (fields->rule == nullptr)
        memcpy(fields->ascii, ascii, strlen(ascii) + 1);
    free(ascii);
    return fields->rule;
}

/* row_plain - the plain password of a mailbox list row, as in
 * MailboxRow.plain */
static const char *row_plain(MYSQL_ROW row)
{
    if (!flag_on(row[MB_POSTBOX]) || (row[MB_TYPE] != nullptr && strcmp(row[MB_TYPE], "crypt") == 0))
        return nullptr;
    return row[MB_PASSWORD] ? row[MB_PASSWORD] : "";
}

const char *mailbox_row(MYSQL_RES *res, MYSQL_ROW row, MailboxRow *fields)
{
    const unsigned long *lengths = mysql_fetch_lengths(res);

    fields->id = row[MB_ID];
    fields->mail_name = row[MB_NAME];
    fields->postbox = flag_on(row[MB_POSTBOX]);
    fields->password = row[MB_PASSWORD];
    fields->plain = row_plain(row);
    fields->redir_addr = row[MB_REDIR_ADDR];
    fields->redirect = flag_on(row[MB_REDIRECT]) && fields->redir_addr != nullptr && fields->redir_addr[0] != 0;
    fields->redir_addr_rule = fields->redirect ? column_rule(res, row, MB_REDIR_ADDR, check_address) : nullptr;
    fields->mail_group = flag_on(row[MB_GROUP]);
    fields->autoresponder = flag_on(row[MB_AUTORESPONDER]);
    fields->mbox_quota = row[MB_QUOTA];
    /* The name and password columns, the name, and (postbox on, stored
     * crypt hash) the hash. */
    fields->rule = nullptr;
    for (int col = MB_TYPE; col <= MB_PASSWORD && fields->rule == nullptr; col++)
        fields->rule = check_no_nul(row[col], lengths[col]);
    if (fields->rule == nullptr)
        fields->rule = column_rule(res, row, MB_NAME, check_mail_name);
    if (fields->rule == nullptr && fields->postbox && fields->plain == nullptr && fields->password != nullptr)
        fields->rule = check_crypt_hash(fields->password);
    return fields->rule;
}

bool id_before(const char *a, const char *b)
{
    size_t la = a != nullptr ? strlen(a) : 0, lb = b != nullptr ? strlen(b) : 0;

    return la != lb ? la < lb : la != 0 && strcmp(a, b) < 0;
}

void mailbox_rows(MYSQL_RES *res, std::vector<MailboxRow> *rows)
{
    rows->clear();
    /* Decoded as fetched: a row's column lengths are those of the row
     * fetched last. */
    while (MYSQL_ROW row = mysql_fetch_row(res)) {
        rows->emplace_back();
        mailbox_row(res, row, &rows->back());
    }
    std::stable_sort(rows->begin(), rows->end(),
                     [](const MailboxRow &a, const MailboxRow &b) { return id_before(a.id, b.id); });
}

void skip_row(const char *kind, const char *value, const char *mailbox, const char *domain,
              const char *why)
{
    char v[VALUE_PRINTABLE_SIZE], m[VALUE_PRINTABLE_SIZE], d[VALUE_PRINTABLE_SIZE];

    run_count(RUN_SKIPPED);
    value_printable(domain, d, sizeof(d));
    /* The warning is about what a table holds: no system error line. */
    if (kind == nullptr)
        report_plain(0, "Skipping mail domain '%s': %s", d, why);
    else if (value == nullptr)
        report_plain(0, "Skipping the %s of mail domain '%s': %s", kind, d, why);
    else if (mailbox == nullptr)
        report_plain(0, "Skipping %s '%s' of mail domain '%s': %s", kind,
                     value_printable(value, v, sizeof(v)), d, why);
    else
        report_plain(0, "Skipping %s '%s' of mailbox '%s' of mail domain '%s': %s", kind,
                     value_printable(value, v, sizeof(v)), value_printable(mailbox, m, sizeof(m)), d,
                     why);
}

/* The lists of one column (a domain's aliases, a mail group's members, a
 * mailbox's aliases) end in "ORDER BY id": without their identifiers in
 * the answer the pass could not order them itself, and in the order the
 * server happens to pick, a rerun on an unchanged panel would rewrite
 * assign, virtualdomains and the delivery files. */
const char *domain_aliases_query(const char *domain_id, char *buf)
{
    snprintf(buf, PANEL_QUERY_SIZE,
             "SELECT name FROM domainaliases WHERE dom_id=%s AND status=%u AND mail='true' ORDER BY id",
             domain_id, 0u);
    return buf;
}

const char *mailboxes_query(const char *domain_id, char *buf)
{
    snprintf(buf, PANEL_QUERY_SIZE,
             "SELECT m.id, m.mail_name, m.postbox, a.type, a.password, m.redirect, m.redir_addr, "
             "m.mail_group, m.autoresponder, m.mbox_quota FROM mail m LEFT JOIN accounts a ON "
             "a.id = m.account_id WHERE dom_id=%s",
             domain_id);
    return buf;
}

const char *mailgroup_query(const char *mailbox_id, char *buf)
{
    snprintf(buf, PANEL_QUERY_SIZE, "SELECT address FROM mail_redir WHERE mn_id=%s ORDER BY id", mailbox_id);
    return buf;
}

const char *mail_aliases_query(const char *mailbox_id, char *buf)
{
    snprintf(buf, PANEL_QUERY_SIZE, "SELECT alias FROM mail_aliases WHERE mn_id=%s ORDER BY id", mailbox_id);
    return buf;
}
