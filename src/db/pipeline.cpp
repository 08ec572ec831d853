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

static MYSQL *pipe_conn;
static char **pipe_text;
static size_t pipe_size, pipe_read, pipe_sent, pipe_queued;
static int pipe_broken;
static char pipe_error[512];

/* pipeline_fill - send waiting queries while the window has room */
static void pipeline_fill(void)
{
    while (!pipe_broken && pipe_sent < pipe_queued && pipe_sent - pipe_read < PIPELINE_WINDOW) {
        const char *q = pipe_text[pipe_sent];
        if (mysql_send_query(pipe_conn, q, strlen(q)) != 0) {
            pipe_broken = 1;
            snprintf(pipe_error, sizeof(pipe_error), "%s", mysql_error(pipe_conn));
            return;
        }
        pipe_sent++;
    }
}

void pipeline_open(MYSQL *conn)
{
    pipe_conn = conn;
    pipe_read = pipe_sent = pipe_queued = 0;
    pipe_broken = 0;
}

void pipeline_queue(const char *query)
{
    if (pipe_queued == pipe_size) {
        pipe_size = pipe_size ? 2 * pipe_size : PIPELINE_WINDOW;
        pipe_text = static_cast<char **>(xrealloc(pipe_text, pipe_size * sizeof(*pipe_text)));
    }
    size_t len = strlen(query) + 1;
    pipe_text[pipe_queued] = static_cast<char *>(memcpy(xrealloc(nullptr, len), query, len));
    pipe_queued++;
    pipeline_fill();
}

MYSQL_RES *pipeline_result(const char *failure)
{
    MYSQL_RES *res = nullptr;

    if (pipe_read == pipe_queued)
        report(1, failure, "no query is waiting for its result");
    if (pipe_read == pipe_sent)
        report(1, failure, pipe_error);
    if (mysql_read_query_result(pipe_conn) != 0 || (res = mysql_store_result(pipe_conn)) == nullptr)
        report(1, failure, mysql_error(pipe_conn));
    free(pipe_text[pipe_read]);
    pipe_read++;
    if (pipe_read == pipe_queued)
        pipe_read = pipe_sent = pipe_queued = 0;
    pipeline_fill();
    return res;
}

/* pipeline_close - read and drop the results still on the wire, forget
 * the waiting queries; the connection can be used (or closed) again */
void pipeline_close(void)
{
    while (pipe_read < pipe_sent) {
        if (mysql_read_query_result(pipe_conn) == 0)
            mysql_free_result(mysql_store_result(pipe_conn));
        free(pipe_text[pipe_read++]);
    }
    while (pipe_read < pipe_queued)
        free(pipe_text[pipe_read++]);
    free(pipe_text);
    pipe_text = nullptr;
    pipe_size = pipe_read = pipe_sent = pipe_queued = 0;
    pipe_conn = nullptr;
}
