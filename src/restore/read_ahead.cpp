/* read_ahead - queries and hashes started ahead of the pass (see
 * read_ahead.h). */
#include "restore/read_ahead.h"

#include "db/connect.h"
#include "restore/hash_pool.h"

#include <stdlib.h>
#include <string.h>
#include <time.h>

/* The salt of this run: "$1$", eight characters, a terminating zero. */
static char run_salt[12];

void make_salt(char *buf, int n)
{
    for (int i = 0; i < n; i++) {
        int k = static_cast<int>(rand() * 64.0 * 4.656612873077393e-10);
        buf[i] = SALT_ALPHABET[(k + 1) % 64];
    }
}

void read_ahead_start(const MailDomains *domains)
{
    char err[PANEL_QUERY_SIZE];

    srand(time(nullptr));
    memcpy(run_salt, "$1$", 3);
    make_salt(run_salt + 3, 8);
    run_salt[11] = 0;

    /* Without a connection (the server may allow no third one) the pass
     * hashes the passwords itself, without a word. */
    hash_pool_start(db_open_session(err, sizeof(err)), run_salt);
    if (!domains->rows.empty())
        domain_facts_prefetch(&domains->rows[0]);
}

void read_ahead_domain(const MailDomains *domains, const std::vector<MailboxRow> &boxes, size_t k)
{
    for (const MailboxRow &m : boxes)
        if (m.rule == nullptr)
            mailbox_lists_prefetch(&m);
    if (k + 1 < domains->rows.size())
        domain_facts_prefetch(&domains->rows[k + 1]);
}

const char *read_ahead_hash(const char *mailbox_id, const char *plain)
{
    return hash_pool_get(mailbox_id, plain);
}

void read_ahead_stop(void)
{
    hash_pool_stop();
}
