/* pipeline - queries sent ahead of the code that reads their results.
 *
 * The queued query texts sit in a growing array: [0, sent) went to the
 * server, [read, sent) still have a result on the wire, [sent, queued) wait
 * for the window.  A send that fails marks the pipeline broken and keeps
 * the server's message: the results already on the wire can still be read,
 * and the first query that never went out fails where its result is read,
 * at the same point of the caller's work as when it is asked on its own.
 */
#include "db/pipeline.h"

#include "db/connect.h"
#include "runtime/report.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

/* A queued query; a prefetched one may be claimed, or dropped unread. */
struct PipeEntry {
    char *text;
    int prefetched;
};

static MYSQL *pipe_conn;
static PipeEntry *pipe_q;
static size_t pipe_size, pipe_read, pipe_sent, pipe_queued;
static int pipe_broken;
static char pipe_error[512];
static char head_error[512];

/* pipeline_fill - send waiting queries while the window has room */
static void pipeline_fill(void)
{
    while (!pipe_broken && pipe_sent < pipe_queued && pipe_sent - pipe_read < PIPELINE_WINDOW) {
        const char *q = pipe_q[pipe_sent].text;
        if (mysql_send_query(pipe_conn, q, strlen(q)) != 0) {
            pipe_broken = 1;
            snprintf(pipe_error, sizeof(pipe_error), "%s", mysql_error(pipe_conn));
            return;
        }
        pipe_sent++;
    }
}

/* queue_entry - add a query to the pipeline and send what fits */
static void queue_entry(const char *query, int prefetched)
{
    if (pipe_queued == pipe_size) {
        pipe_size = pipe_size ? 2 * pipe_size : PIPELINE_WINDOW;
        pipe_q = static_cast<PipeEntry *>(xrealloc(pipe_q, pipe_size * sizeof(*pipe_q)));
    }
    size_t len = strlen(query) + 1;
    pipe_q[pipe_queued].text = static_cast<char *>(memcpy(xrealloc(nullptr, len), query, len));
    pipe_q[pipe_queued].prefetched = prefetched;
    pipe_queued++;
    pipeline_fill();
}

/* take_head - the oldest query's result, which is then off the pipeline;
 * null when it failed or never went out, with the reason in head_error */
static MYSQL_RES *take_head(void)
{
    MYSQL_RES *res = nullptr;

    if (pipe_read == pipe_sent)
        snprintf(head_error, sizeof(head_error), "%s", pipe_error);
    else if (mysql_read_query_result(pipe_conn) != 0 || (res = mysql_store_result(pipe_conn)) == nullptr)
        snprintf(head_error, sizeof(head_error), "%s", mysql_error(pipe_conn));
    free(pipe_q[pipe_read].text);
    pipe_read++;
    if (pipe_read == pipe_queued)
        pipe_read = pipe_sent = pipe_queued = 0;
    pipeline_fill();
    return res;
}

/* drop_prefetched - drop the unclaimed prefetched queries at the head */
static void drop_prefetched(void)
{
    while (pipe_read < pipe_queued && pipe_q[pipe_read].prefetched)
        mysql_free_result(take_head());
}

void pipeline_open(MYSQL *conn)
{
    pipe_conn = conn;
    pipe_read = pipe_sent = pipe_queued = 0;
    pipe_broken = 0;
}

void pipeline_queue(const char *query)
{
    queue_entry(query, 0);
}

void pipeline_prefetch(const char *query)
{
    queue_entry(query, 1);
}

MYSQL_RES *pipeline_result(const char *failure)
{
    drop_prefetched();
    if (pipe_read == pipe_queued)
        report(1, failure, "no query is waiting for its result");
    MYSQL_RES *res = take_head();
    if (res == nullptr)
        report(1, failure, head_error);
    return res;
}

MYSQL_RES *pipeline_claim(const char *query)
{
    size_t at = pipe_read;

    while (at < pipe_queued && pipe_q[at].prefetched && strcmp(pipe_q[at].text, query) != 0)
        at++;
    if (at == pipe_queued || !pipe_q[at].prefetched)
        return nullptr;
    while (pipe_read < at)
        mysql_free_result(take_head());
    return take_head();
}

int pipeline_ask(MYSQL *conn, const char *query, MYSQL_RES **res)
{
    *res = pipeline_claim(query);
    if (*res != nullptr)
        return 0;
    if (mysql_real_query(conn, query, strlen(query)) != 0)
        return -1;
    *res = mysql_store_result(conn);
    return 0;
}

/* pipeline_close - read and drop the results still on the wire, forget
 * the waiting queries; the connection can be used (or closed) again */
void pipeline_close(void)
{
    /* The queries that never went out are forgotten, the others read. */
    while (pipe_queued > pipe_sent)
        free(pipe_q[--pipe_queued].text);
    while (pipe_read < pipe_queued)
        mysql_free_result(take_head());
    free(pipe_q);
    pipe_q = nullptr;
    pipe_size = pipe_read = pipe_sent = pipe_queued = 0;
    pipe_conn = nullptr;
}
