/* pipeline - queries sent ahead of the code that asks them.
 *
 * The queued query texts sit in a growing array: [0, sent) went to the
 * server, [read, sent) still have a result on the wire, [sent, queued) wait
 * for the window.  Each entry keeps a hash of its text, so that a question
 * looks through the queue with one comparison an entry.  A send that fails
 * marks the pipeline broken and keeps the server's message: the results
 * already on the wire can still be read, and the queries that never went
 * out are not handed over, so their askers ask them themselves.
 */
#include "db/pipeline.h"

#include "db/connect.h"
#include "runtime/report.h"

#include <stdint.h>
#include <stdlib.h>
#include <string.h>

/* A queued query and the hash of its text. */
struct PipeEntry {
    char *text;
    uint64_t hash;
};

static MYSQL *pipe_conn;
static MYSQL *pipe_served;
static PipeEntry *pipe_q;
static size_t pipe_size, pipe_read, pipe_sent, pipe_queued;
static int pipe_broken;

/* text_hash - FNV-1a of a query text */
static uint64_t text_hash(const char *text)
{
    uint64_t h = 14695981039346656037ull;

    for (const unsigned char *p = reinterpret_cast<const unsigned char *>(text); *p; p++)
        h = (h ^ *p) * 1099511628211ull;
    return h;
}

/* pipeline_fill - send waiting queries while the window has room */
static void pipeline_fill(void)
{
    while (!pipe_broken && pipe_sent < pipe_queued && pipe_sent - pipe_read < PIPELINE_WINDOW) {
        const char *q = pipe_q[pipe_sent].text;
        if (mysql_send_query(pipe_conn, q, strlen(q)) != 0) {
            pipe_broken = 1;
            return;
        }
        pipe_sent++;
    }
}

/* take_head - the oldest query's result, which is then off the pipeline;
 * null when it failed or never went out */
static MYSQL_RES *take_head(void)
{
    MYSQL_RES *res = nullptr;

    if (pipe_read < pipe_sent && mysql_read_query_result(pipe_conn) == 0)
        res = mysql_store_result(pipe_conn);
    free(pipe_q[pipe_read].text);
    pipe_read++;
    if (pipe_read == pipe_queued)
        pipe_read = pipe_sent = pipe_queued = 0;
    pipeline_fill();
    return res;
}

/* claim - the queued result of query, the first queued with exactly this
 * text, after dropping the ones queued before it; null when none is queued
 * or it failed */
static MYSQL_RES *claim(const char *query)
{
    uint64_t hash = text_hash(query);
    size_t at = pipe_read;

    while (at < pipe_queued && (pipe_q[at].hash != hash || strcmp(pipe_q[at].text, query) != 0))
        at++;
    if (at == pipe_queued)
        return nullptr;
    while (pipe_read < at)
        mysql_free_result(take_head());
    return take_head();
}

void pipeline_open(MYSQL *ahead, MYSQL *served)
{
    pipe_conn = ahead;
    pipe_served = served;
    pipe_read = pipe_sent = pipe_queued = 0;
    pipe_broken = 0;
}

void pipeline_prefetch(const char *query)
{
    if (pipe_queued == pipe_size) {
        pipe_size = pipe_size ? 2 * pipe_size : PIPELINE_WINDOW;
        pipe_q = static_cast<PipeEntry *>(xrealloc(pipe_q, pipe_size * sizeof(*pipe_q)));
    }
    size_t len = strlen(query) + 1;
    pipe_q[pipe_queued].text = static_cast<char *>(memcpy(xrealloc(nullptr, len), query, len));
    pipe_q[pipe_queued].hash = text_hash(query);
    pipe_queued++;
    pipeline_fill();
}

int pipeline_ask(MYSQL *conn, const char *query, MYSQL_RES **res)
{
    *res = conn != nullptr && conn == pipe_served ? claim(query) : nullptr;
    if (*res != nullptr)
        return 0;
    if (mysql_real_query(conn, query, strlen(query)) != 0)
        return -1;
    *res = mysql_store_result(conn);
    /* A result set the server stops sending halfway (an error met while
     * its rows are made) is a refusal too, never "no rows". */
    if (*res == nullptr && mysql_field_count(conn) != 0)
        return -1;
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
    pipe_conn = pipe_served = nullptr;
}
