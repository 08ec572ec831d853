/* read_ahead - queries and hashes started ahead of the pass (see
 * read_ahead.h). */
#include "restore/read_ahead.h"

#include "db/connect.h"
#include "restore/hash_ahead.h"

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

void make_salt(char *buf, int n)
{
    for (int i = 0; i < n; i++) {
        int k = static_cast<int>(rand() * 64.0 * 4.656612873077393e-10);
        buf[i] = SALT_ALPHABET[(k + 1) % 64];
    }
}

void read_ahead_start(const MailDomains *domains)
{
    char query[PANEL_QUERY_SIZE], err[PANEL_QUERY_SIZE];

    srand(time(nullptr));
    memcpy(run_salt, "$1$", 3);
    make_salt(run_salt + 3, 8);
    run_salt[11] = 0;

    for (const MailDomainRow &d : domains->rows)
        list_queries.push_back(d.rule == nullptr ? mailboxes_query(d.id, query) : "");
    for (const std::string &q : list_queries)
        list_texts.push_back(q.empty() ? nullptr : q.c_str());
    /* Without a connection (the server may allow no third one) the pass
     * hashes the passwords itself, as fast as ever, without a word. */
    hash_ahead_start(db_open_session(err, sizeof(err)), list_texts.data(), list_texts.size(), rows_by_id, row_plain,
                     run_salt);
    if (!domains->rows.empty())
        domain_facts_prefetch(&domains->rows[0]);
}

void read_ahead_domain(const MailDomains *domains, const std::vector<MailboxRow> &boxes, size_t k)
{
    hash_ahead_domain(k);
    for (const MailboxRow &m : boxes)
        if (m.rule == nullptr)
            mailbox_lists_prefetch(&m);
    if (k + 1 < domains->rows.size())
        domain_facts_prefetch(&domains->rows[k + 1]);
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
