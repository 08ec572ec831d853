/* read_ahead - queries and hashes started ahead of the pass (see
 * read_ahead.h). */
#include "restore/read_ahead.h"

#include "db/connect.h"
#include "db/get.h"
#include "db/pipeline.h"
#include "mailconf/idn.h"
#include "mailconf/nonexist_policy.h"
#include "restore/hash_ahead.h"
#include "restore/panel_rows.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

#include <string>
#include <vector>

/* The salt of this run: "$1$", eight characters, a terminating zero. */
static char run_salt[12];

/* The mailbox list query of every domain row ("" for a row the pass
 * skips), and the texts handed to the hashing thread, which point into
 * them: both live until read_ahead_stop().  Never destroyed at exit: a
 * fatal error ends the process while the thread may still read them. */
static std::vector<std::string> &list_queries = *new std::vector<std::string>;
static std::vector<const char *> &list_texts = *new std::vector<const char *>;

/* prefetch_domain - queue the questions the pass asks of a domain row it
 * does not skip, in its order */
static void prefetch_domain(MYSQL_RES *domains, MYSQL_ROW row)
{
    char query[PANEL_QUERY_SIZE];
    MailDomainRow d;

    if (!domain_row_restored(domains, row))
        return;
    domain_row(domains, row, &d);
    char *ascii = idn_toascii(d.name);
    if (ascii != nullptr)
        pipeline_prefetch(dom_id_query(ascii, query, sizeof(query)));
    free(ascii);
    pipeline_prefetch(dom_limit_query(d.id, "mbox_quota", query, sizeof(query)));
    pipeline_prefetch(domain_aliases_query(d.id, query));
    pipeline_prefetch(mailboxes_query(d.id, query));
    nonexist_policy_prefetch(d.id);
}

/* prefetch_next_domain - prefetch_domain() for the row after the current
 * one, which stays the current one */
static void prefetch_next_domain(MYSQL_RES *domains)
{
    MYSQL_ROW_OFFSET here = mysql_row_tell(domains);

    if (MYSQL_ROW next = mysql_fetch_row(domains))
        prefetch_domain(domains, next);
    mysql_row_seek(domains, here);
}

void make_salt(char *buf, int n)
{
    for (int i = 0; i < n; i++) {
        int k = static_cast<int>(rand() * 64.0 * 4.656612873077393e-10);
        buf[i] = SALT_ALPHABET[(k + 1) % 64];
    }
}

void read_ahead_start(MYSQL_RES *domains)
{
    char query[PANEL_QUERY_SIZE], err[PANEL_QUERY_SIZE];

    srand(time(nullptr));
    memcpy(run_salt, "$1$", 3);
    make_salt(run_salt + 3, 8);
    run_salt[11] = 0;

    while (MYSQL_ROW d = mysql_fetch_row(domains))
        list_queries.push_back(domain_row_restored(domains, d) ? mailboxes_query(d[0], query) : "");
    mysql_data_seek(domains, 0);
    for (const std::string &q : list_queries)
        list_texts.push_back(q.empty() ? nullptr : q.c_str());
    /* Without a connection (the server may allow no third one) the pass
     * hashes the passwords itself, as fast as ever, without a word. */
    hash_ahead_start(db_open_session(err, sizeof(err)), list_texts.data(), list_texts.size(), row_plain,
                     run_salt);
    prefetch_next_domain(domains);
}

void read_ahead_domain(MYSQL_RES *domains, MYSQL_RES *mailboxes, size_t k)
{
    char query[PANEL_QUERY_SIZE];
    MailboxRow m;

    hash_ahead_domain(k);
    while (MYSQL_ROW row = mysql_fetch_row(mailboxes)) {
        if (mailbox_row(mailboxes, row, &m) != nullptr)
            continue;
        if (m.mail_group)
            pipeline_prefetch(mailgroup_query(m.id, query));
        pipeline_prefetch(mail_aliases_query(m.id, query));
    }
    mysql_data_seek(mailboxes, 0);
    prefetch_next_domain(domains);
}

const char *read_ahead_hash(size_t i, const char *plain)
{
    return hash_ahead_get(i, plain);
}

void read_ahead_stop(void)
{
    hash_ahead_stop();
    list_texts.clear();
    list_queries.clear();
}
