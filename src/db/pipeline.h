/* pipeline - queries sent ahead of the code that reads their results.
 *
 * Asked one at a time, every query waits a full round trip to the server
 * while the caller sits idle.  A pipeline keeps up to PIPELINE_WINDOW
 * queries on the wire over one connection of its own: the server answers
 * them while the caller works on the results before them.  Results come
 * back in the order the queries were queued.
 *
 * pipeline_open() takes the connection (no other code may query over it
 * until pipeline_close()), pipeline_queue() adds a query, pipeline_result()
 * waits for the oldest query's result and ends the process with the
 * caller's message (a report() format with one %s for the server's error)
 * when that query failed or could not be sent; pipeline_close() drops
 * whatever was not read and gives the connection back.
 *
 * pipeline_prefetch() queues a query that some code will probably ask
 * later, in its own words, over another connection: pipeline_claim(),
 * called by that code with the text it is about to send, hands over the
 * prefetched result when the text is exactly one of the prefetched queries
 * at the head of the pipeline (those before it were not asked and are
 * dropped).  A prefetched query nobody claims is dropped unread when a
 * result behind it is asked for.  A prefetched query that failed is not
 * claimed: the caller then asks it itself and meets the failure (or the
 * answer) in its own way.
 */
#ifndef REBOX_DB_PIPELINE_H
#define REBOX_DB_PIPELINE_H

#include <mysql.h>

/* At most this many queries are sent and not yet read: a few kilobytes of
 * query text, so sending never blocks while the server waits for the
 * caller to read. */
#define PIPELINE_WINDOW 64

void pipeline_open(MYSQL *conn);
void pipeline_queue(const char *query);
MYSQL_RES *pipeline_result(const char *failure);
void pipeline_prefetch(const char *query);
MYSQL_RES *pipeline_claim(const char *query);
/* pipeline_ask - the result of query: claimed when prefetched, else asked
 * over conn and stored (null when it gives no rows, as an UPDATE does);
 * -1 when conn's server refused it, its message then in mysql_error(conn) */
int pipeline_ask(MYSQL *conn, const char *query, MYSQL_RES **res);
void pipeline_close(void);

#endif
