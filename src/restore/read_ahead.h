/* read_ahead - the work the rebuild pass waits on, started ahead of it.
 *
 * When a domain's mailbox list arrives, read_ahead_domain() queues the
 * mailboxes' own queries (group members, aliases) over the pipeline's
 * second connection, so that the server answers them while the mailboxes
 * before them are written, followed by the questions the writers ask of
 * the next domain (domain_facts' list).  read_ahead_start() makes the run's
 * salt and starts the hashing pool (hash_pool) on a connection of its own,
 * so that the plain passwords are hashed ahead of the pass on every
 * processor; read_ahead_hash() gives the hash of a mailbox's password.  Every question is still asked in its own
 * words: the pipeline hands it the queued answer of the very same query
 * text, or asks the server when there is none, and a hash made ahead is
 * taken only for the very same password text, so what is done ahead can
 * make the pass faster but never changes its answers.
 */
#pragma once

#include "restore/domain_facts.h"

#include <mysql.h>
#include <stddef.h>

#define SALT_ALPHABET "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"

/* make_salt - n characters of SALT_ALPHABET drawn with rand() (no
 * terminator) */
void make_salt(char *buf, int n);

/* read_ahead_start - the run's salt made ("$1$" and eight characters, so
 * that all plain passwords of a run hash alike), the hashing pool
 * started, and the first domain's questions queued */
void read_ahead_start(const MailDomains *domains);

/* read_ahead_domain - domain row k's mailbox list has arrived: its
 * mailboxes' queries and the next domain's questions queued */
void read_ahead_domain(const MailDomains *domains, const std::vector<MailboxRow> &boxes, size_t k);

/* read_ahead_hash - the hash of mailbox mailbox_id's plain password with
 * the run's salt (made ahead when it could be) */
const char *read_ahead_hash(const char *mailbox_id, const char *plain);

void read_ahead_stop(void);
