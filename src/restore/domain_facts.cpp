/* domain_facts - the panel's answers about a domain, read once (see
 * domain_facts.h). */
#include "restore/domain_facts.h"

#include "db/get.h"
#include "db/pipeline.h"
#include "mailconf/value_check.h"
#include "runtime/report.h"

#include <algorithm>
#include <errno.h>
#include <stdio.h>
#include <string.h>

/* query_domain_limit, query_policy - the questions of the list that are
 * not a list query of panel_rows */
static const char *query_domain_limit(const char *id, char *buf)
{
    return dom_limit_query(id, "mbox_quota", buf, PANEL_QUERY_SIZE);
}

static const char *query_policy(const char *id, char *buf)
{
    return domain_service_parameter_query(id, "mail", "nonexist_mail", buf, PANEL_QUERY_SIZE);
}

/* The questions asked of every domain, in the order domain_facts() asks
 * them; domain_facts_prefetch() queues this same list. */
enum { Q_LIMIT, Q_ALIASES, Q_MAILBOXES, Q_POLICY, Q_COUNT };
static const char *(*const DOMAIN_QUESTIONS[Q_COUNT])(const char *id, char *buf) = {
    query_domain_limit, domain_aliases_query, mailboxes_query, query_policy,
};

/* refused - end the process with a refused question's message */
[[noreturn]] static void refused(MYSQL *conn, const char *format, const char *name)
{
    /* The server's error text says why. */
    if (name != nullptr)
        report_plain(1, format, name, mysql_error(conn));
    report_plain(1, format, mysql_error(conn));
    report_exit(1);
}

/* value - the answer to a one-value question about domain d, what it
 * asks for, into buf ("" for none); a refusal ends the process with format
 * (and name); an answer longer than the buffer is cut, with a warning
 * naming the domain and what was asked; 1 when the answer holds a NUL
 * byte (buf then has what comes before it), else 0 */
static int value(MYSQL *conn, const MailDomainRow *d, const char *what, const char *query, char *buf,
                 const char *format, const char *name)
{
    char shown[VALUE_PRINTABLE_SIZE];

    switch (get_answer(conn, query, 0, buf)) {
    case GET_REFUSED:
        refused(conn, format, name);
    case GET_NUL:
        return 1;
    case GET_CUT:
        report_plain(0, "Warning: the %s of mail domain '%s' is longer than %zu bytes: only its first %zu are used",
                     what, value_printable(d->name, shown, sizeof(shown)),
                     strlen(buf), strlen(buf));
        break;
    default:
        break;
    }
    return 0;
}

/* rows - the rows of a list question */
static MYSQL_RES *rows(MYSQL *conn, const char *query, const char *format)
{
    MYSQL_RES *res;

    if (pipeline_ask(conn, query, &res) != 0 || res == nullptr)
        refused(conn, format, nullptr);
    return res;
}

/* catch_address - the address a "catch" domain delivers to: its
 * catch_addr, else its client's e-mail, else the panel administrator's,
 * else root at the domain; 1 when the value it came to holds a NUL byte */
static int catch_address(MYSQL *conn, const MailDomainRow *d, char *buf)
{
    char query[PANEL_QUERY_SIZE];

    domain_service_parameter_query(d->id, "mail", "catch_addr", query, sizeof(query));
    if (value(conn, d, "catch_addr", query, buf, GET_PARAMETER_REFUSED, "catch_addr"))
        return 1;
    if (*buf != '\0')
        return 0;
    client_email_query(d->id, query, sizeof(query));
    if (value(conn, d, "client's e-mail", query, buf, GET_CLIENT_EMAIL_REFUSED, nullptr))
        return 1;
    if (*buf != '\0')
        return 0;
    misc_param_query("admin_email", query, sizeof(query));
    if (value(conn, d, "admin_email", query, buf, GET_QUERY_REFUSED, query))
        return 1;
    if (*buf != '\0')
        return 0;
    report_plain(0, GET_NO_ADMIN_EMAIL);
    snprintf(buf, QMAIL_BUF_SIZE, "root@%s", d->name);
    return 0;
}

void domain_facts(MYSQL *conn, const MailDomainRow *d, DomainFacts *facts)
{
    char q[Q_COUNT][PANEL_QUERY_SIZE];
    NonexistPolicy *p = &facts->policy;

    *facts = {};
    if (d->rule != nullptr)
        return;
    for (int i = 0; i < Q_COUNT; i++)
        DOMAIN_QUESTIONS[i](d->id, q[i]);
    value(conn, d, "mbox_quota", q[Q_LIMIT], facts->limit, GET_DOM_LIMIT_REFUSED, "mbox_quota");
    facts->aliases = rows(conn, q[Q_ALIASES], "Unable to query domain aliases: %s");
    facts->mailboxes = rows(conn, q[Q_MAILBOXES], "Unable to query mailnames: %s");
    mailbox_rows(facts->mailboxes, &facts->boxes);
    /* A NUL byte in a value the policy is made of would cut it there: such
     * a policy is not written (the value's length tells, no question of
     * its own). */
    p->has_nul = value(conn, d, "nonexist_mail", q[Q_POLICY], p->choice, GET_PARAMETER_REFUSED, "nonexist_mail");
    if (!p->has_nul && strcmp(p->choice, "catch") == 0)
        p->has_nul = catch_address(conn, d, p->value);
    else if (!p->has_nul && strcmp(p->choice, "bounce") == 0)
        p->has_nul = value(conn, d, "bounce_mess",
                           domain_service_parameter_query(d->id, "mail", "bounce_mess", q[0], PANEL_QUERY_SIZE),
                           p->value, GET_PARAMETER_REFUSED, "bounce_mess");
    if (p->has_nul)
        p->choice[0] = p->value[0] = '\0';
}

void domain_facts_free(DomainFacts *facts)
{
    for (const MailboxLists &l : facts->lists) {
        mysql_free_result(l.group);
        mysql_free_result(l.aliases);
    }
    mysql_free_result(facts->aliases);
    mysql_free_result(facts->mailboxes);
    *facts = {};
}

void domain_facts_prefetch(const MailDomainRow *d)
{
    char query[PANEL_QUERY_SIZE];

    if (d->rule != nullptr)
        return;
    for (const auto question : DOMAIN_QUESTIONS)
        pipeline_prefetch(question(d->id, query));
}

void domain_lists(MYSQL *conn, DomainFacts *facts)
{
    char query[PANEL_QUERY_SIZE];

    facts->lists.assign(facts->boxes.size(), MailboxLists{nullptr, nullptr});
    for (size_t i = 0; i < facts->boxes.size(); i++) {
        const MailboxRow *m = &facts->boxes[i];
        if (m->rule != nullptr)
            continue;
        if (m->mail_group)
            facts->lists[i].group = rows(conn, mailgroup_query(m->id, query), "Unable to query mailgroup members: %s");
        facts->lists[i].aliases = rows(conn, mail_aliases_query(m->id, query), "Unable to query alias for mail: %s");
    }
}

void domain_lists_prefetch(const DomainFacts *facts)
{
    char query[PANEL_QUERY_SIZE];

    for (const MailboxRow &m : facts->boxes) {
        if (m.rule != nullptr)
            continue;
        if (m.mail_group)
            pipeline_prefetch(mailgroup_query(m.id, query));
        pipeline_prefetch(mail_aliases_query(m.id, query));
    }
}

void read_mail_domains(MYSQL *conn, MailDomains *list)
{
    list->res = rows(conn, DOMAINS_QUERY, "Unable to query domains: %s");
    list->rows.clear();
    while (MYSQL_ROW row = mysql_fetch_row(list->res)) {
        list->rows.emplace_back();
        domain_row(list->res, row, &list->rows.back());
    }
    /* The server may hand the rows of the join over in any order (the
     * plan it picks follows its statistics and indexes): every pass takes
     * the domains in the order of their identifiers, so that a rerun on an
     * unchanged panel writes the same lines in the same order and runs
     * the sibling utilities in the same order.  Sorted here rather than by
     * the query, which stays the panel's own text. */
    std::stable_sort(list->rows.begin(), list->rows.end(),
                     [](const MailDomainRow &a, const MailDomainRow &b) { return id_before(a.id, b.id); });
}

void free_mail_domains(MailDomains *list)
{
    if (list->res != nullptr)
        mysql_free_result(list->res);
    list->res = nullptr;
    list->rows.clear();
}
