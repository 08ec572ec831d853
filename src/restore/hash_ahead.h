/* hash_ahead - password hashes made on a second processor, ahead of use.
 *
 * An MD5-crypt hash takes a thousand rounds of MD5; on a server whose
 * mailboxes have plain passwords, making them one by one between the
 * mailboxes' directories and files is a large part of a rebuild (and
 * nearly all that is left of a rerun on an unchanged panel).
 *
 * hash_ahead_start() hands a connection of its own and the mailbox list
 * queries of the run's domains, in the order the pass will take them, to
 * a thread that asks them one after another and hashes each list's plain
 * passwords with the run's salt, running ahead of the pass for the whole
 * run.  The pass announces each domain with hash_ahead_domain() and then
 * asks hash_ahead_get() for the hash of a row's plain password; it gets
 * crypt()'s answer for that very text, made by the thread or, when the
 * thread has not got there, by the caller on the spot.  A hash made ahead
 * is handed over only for the very same password text, never by position
 * alone: a list that changed between the thread's reading and the pass's
 * only costs the caller the hashes it must make itself.  hash_ahead_stop()
 * ends the thread and closes its connection.
 */
#pragma once

#include <mysql.h>
#include <stddef.h>

#include <vector>

/* HashPlain - the plain password of a mailbox list row, or null when the
 * row needs no hash made */
typedef const char *(*HashPlain)(MYSQL_ROW row);
/* HashOrder - the rows of a list in the order the pass takes them */
typedef void (*HashOrder)(MYSQL_RES *res, std::vector<MYSQL_ROW> *rows);

/* hash_ahead_start - start the thread on conn (which it closes; null: no
 * thread) over queries[0..n) (null entries are passed over); queries and
 * salt must stay untouched until hash_ahead_stop() */
void hash_ahead_start(MYSQL *conn, const char *const *queries, size_t n, HashOrder order, HashPlain plain,
                      const char *salt);

/* hash_ahead_domain - the pass starts on list k; the thread's reading of
 * it (if any) serves the hash_ahead_get() calls up to the next
 * hash_ahead_domain() or hash_ahead_stop() */
void hash_ahead_domain(size_t k);

/* hash_ahead_get - crypt()'s answer for the plain password of row i of
 * the current list: null when crypt failed; valid until the next call */
const char *hash_ahead_get(size_t i, const char *plain);

void hash_ahead_stop(void);
