/* pipeline - queries sent ahead of the code that asks them.
 *
 * Asked one at a time, every query waits a full round trip to the server
 * while the caller sits idle.  A pipeline keeps up to PIPELINE_WINDOW
 * queries on the wire over a connection of its own: the server answers
 * them while the caller works on the answers before them.
 *
 * pipeline_open() takes that connection (no other code may query over it
 * until pipeline_close()) and names the connection whose questions the
 * pipeline answers ahead.  pipeline_prefetch() queues a query that code
 * will probably ask later, in its own words, over that connection.
 * pipeline_ask() is how such code asks: a queued result is handed over
 * only to a question of exactly the same text asked over that connection;
 * any other question is asked over the caller's connection as if nothing
 * had been queued.  The queued queries before the one handed over were not
 * asked in time and are dropped unread; a queued query that failed is not
 * handed over, so the caller asks it itself and meets the failure (or the
 * answer) in its own way.  No result ever goes to a question it does not
 * answer, whatever order the questions come in.  pipeline_close() drops
 * whatever was not asked and gives the connection back.
 */
#pragma once

#include <mysql.h>

/* At most this many queries are sent and not yet read: a few kilobytes of
 * query text, so sending never blocks while the server waits for the
 * caller to read. */
#define PIPELINE_WINDOW 64

void pipeline_open(MYSQL *ahead, MYSQL *served);
void pipeline_prefetch(const char *query);
/* pipeline_ask - the result of query: the queued one when it answers this
 * question, else asked over conn and stored (null when it gives no rows,
 * as an UPDATE does); -1 when conn's server refused it, its message then
 * in mysql_error(conn) */
int pipeline_ask(MYSQL *conn, const char *query, MYSQL_RES **res);
void pipeline_close(void);
