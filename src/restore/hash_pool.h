/* hash_pool - the run's plain passwords hashed on every processor the
 * process may use, ahead of the pass.
 *
 * An MD5-crypt hash takes a thousand rounds of MD5: on a server whose
 * mailboxes keep plain passwords, hashing is most of a rerun on an
 * unchanged panel.  hash_pool_start() reads every plain password of the
 * mail domains in one query, over a connection of its own, and hashes
 * them with the run's salt ("$1$" and eight characters drawn at random, so
 * that all plain passwords of a run hash alike) on one thread per processor
 * but the pass's own (which hashes what they have not reached), in the order the
 * pass takes the mailboxes.  hash_pool_get() gives crypt()'s answer for a
 * mailbox's plain password: the pool's when it made it for that very text,
 * else made on the spot by the caller, who never waits for a hash nobody
 * has started.  hash_pool_stop() ends the threads and closes the
 * connection.
 */
#pragma once

#include <mysql.h>

/* hash_pool_start - the run's salt made (salt: that one instead) and the
 * threads started on conn, which the pool closes (null: no pool, every
 * hash is made by the caller); domain_ids: only the passwords of these
 * domains (identifiers, comma-separated), null for all */
void hash_pool_start(MYSQL *conn, const char *salt, const char *domain_ids);

/* hash_pool_get - crypt()'s answer for mailbox mailbox_id's plain password
 * (its failure token when crypt refuses it, null when crypt fails
 * otherwise); valid until the next call */
const char *hash_pool_get(const char *mailbox_id, const char *plain);

void hash_pool_stop(void);
