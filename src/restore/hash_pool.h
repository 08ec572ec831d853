/* hash_pool - the run's plain passwords hashed on every processor the
 * process may use, ahead of the pass.
 *
 * An MD5-crypt hash takes a thousand rounds of MD5: on a server whose
 * mailboxes keep plain passwords, hashing is most of a rerun on an
 * unchanged panel.  hash_pool_start() reads every plain password of the
 * mail domains in one query, over a connection of its own, and hashes
 * each once, on one thread per processor (below the pass's priority, so
 * that a pass with files to make is not slowed), in the order the pass
 * takes the mailboxes.  The salt is the run's ("$1$" and eight characters
 * drawn at random, so that all plain passwords of a run hash alike), or the
 * one a LoginSalt lookup gives for the mailbox's home (a check compares
 * with the hash on disk).  hash_pool_get() gives the hash of a mailbox's
 * plain password: the pool's when it made it for that very text and home,
 * else made on the spot by the caller, who never waits for a hash nobody
 * has started.  hash_pool_stop() ends the threads and closes the
 * connection.
 */
#pragma once

#include "mailconf/qmail_common.h"

#include <mysql.h>
#include <stddef.h>

/* LoginSalt - the salt the plain password of the mailbox at home is
 * hashed with: null for the run's, "" for none (nothing is hashed), else
 * a hash whose salt crypt() takes.  Called from the pool's threads. */
typedef const char *(*LoginSalt)(const char *home);

/* hash_pool_start - the run's salt made (salt: that one instead) and the
 * threads started on conn, which the pool closes (null: no pool, every
 * hash is made by the caller); login_salt (null: the run's salt for all)
 * is asked with the homes of the n domains of rows; domain_ids: only the
 * passwords of these domains (identifiers, comma-separated), null for all */
void hash_pool_start(MYSQL *conn, const char *salt, LoginSalt login_salt, const MailDomainRow *rows, size_t n,
                     const char *domain_ids);

/* HASH_NONE - what hash_pool_get gives where LoginSalt says "": a text
 * that is no hash of anything, never crypt()'s failure token */
extern const char HASH_NONE[];

/* hash_pool_get - the hash of the plain password of mailbox mailbox_id at
 * home: crypt()'s answer (its failure token when crypt refuses it, null
 * when crypt fails otherwise), HASH_NONE for a home without a salt (or
 * the failure token for a password crypt() would refuse); a salt crypt()
 * refuses is replaced by the run's.  Valid until the next
 * call. */
const char *hash_pool_get(const char *mailbox_id, const char *home, const char *plain);

void hash_pool_stop(void);
