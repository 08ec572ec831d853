/* Tests of the query pipeline: results in queue order across more queries
 * than the window holds, failures reported where their result is read,
 * and a connection that is usable again after closing with results unread. */
#include "db/connect.h"
#include "db/get.h"
#include "db/pipeline.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <string>

/* next_value - the single value of the pipeline's next result */
static std::string next_value(void)
{
    MYSQL_RES *res = pipeline_result("failed: %s");
    MYSQL_ROW row = mysql_fetch_row(res);
    std::string value = row != nullptr && row[0] != nullptr ? row[0] : "(none)";
    mysql_free_result(res);
    return value;
}

TEST(DbPipeline, ResultsComeInQueueOrderAndFailuresWhereRead)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    MYSQL *conn = panel_db_open();
    ASSERT_NE(conn, nullptr);
    pipeline_open(conn);
    /* Queue in bursts larger than the window, read in smaller ones. */
    int queued = 0, read = 0;
    while (read < 5 * PIPELINE_WINDOW) {
        for (int i = 0; i < PIPELINE_WINDOW + 7 && queued < 5 * PIPELINE_WINDOW; i++)
            pipeline_queue(("SELECT " + std::to_string(queued++)).c_str());
        for (int i = 0; i < 40 && read < queued; i++)
            ASSERT_EQ(next_value(), std::to_string(read++));
    }
    /* Closing drops the results still on the wire. */
    for (const char *q : {"SELECT 'one'", "SELECT 'two'", "SELECT 'three'"})
        pipeline_queue(q);
    EXPECT_EQ(next_value(), "one");
    pipeline_close();
    EXPECT_STREQ(get_query_value("SELECT 'again'", conn, 0), "again");

    /* A failed query ends the process where its result is read.  The
     * child reads from the connection it shares with this process, so the
     * connection is not used here afterwards. */
    pipeline_open(conn);
    EXPECT_EXIT(
        {
            pipeline_queue("SELECT 'first'");
            pipeline_queue("SELECT nosuchcolumn FROM misc");
            pipeline_queue("SELECT 'after'");
            if (next_value() == "first")
                next_value();
        },
        testing::ExitedWithCode(1), "failed: Unknown column 'nosuchcolumn'");
    pipeline_close();
    mysql_close(conn);
}

TEST(DbPipeline, QueriesAfterTheServerHungUpFailWhereRead)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    MYSQL *conn = panel_db_open();
    ASSERT_NE(conn, nullptr);
    pipeline_open(conn);
    testdb_exec(("KILL " + std::to_string(mysql_thread_id(conn))).c_str());
    EXPECT_EXIT(
        {
            for (int i = 0; i < 3; i++)
                pipeline_queue("SELECT 1");
            for (int i = 0; i < 3; i++)
                next_value();
        },
        testing::ExitedWithCode(1), "failed: ");
    pipeline_close();
    mysql_close(conn);
}

TEST(DbPipeline, PrefetchedResultsAreClaimedByTheirText)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    MYSQL *conn = panel_db_open(), *ahead = panel_db_open();
    ASSERT_NE(conn, nullptr);
    ASSERT_NE(ahead, nullptr);
    std::string ahead_id = std::to_string(mysql_thread_id(ahead));
    std::string own_id = std::to_string(mysql_thread_id(conn));
    pipeline_open(ahead);

    /* Claimed: answered over the pipeline's connection.  An entry skipped
     * by a later claim is dropped; a text not prefetched, or one behind a
     * plain query, is asked by the caller itself. */
    pipeline_prefetch("SELECT CONNECTION_ID(), 'a'");
    pipeline_prefetch("SELECT CONNECTION_ID(), 'b'");
    pipeline_prefetch("SELECT CONNECTION_ID(), 'c'");
    EXPECT_EQ(pipeline_claim("SELECT 'never prefetched'"), nullptr);
    EXPECT_STREQ(get_query_value("SELECT CONNECTION_ID(), 'b'", conn, 0), ahead_id.c_str());
    EXPECT_STREQ(get_query_value("SELECT CONNECTION_ID(), 'a'", conn, 0), own_id.c_str());
    pipeline_queue("SELECT 'plain'");
    pipeline_prefetch("SELECT CONNECTION_ID(), 'd'");
    EXPECT_STREQ(get_query_value("SELECT CONNECTION_ID(), 'd'", conn, 0), own_id.c_str());
    /* The unclaimed 'c' goes before the plain result is read. */
    EXPECT_EQ(next_value(), "plain");
    EXPECT_STREQ(get_query_value("SELECT CONNECTION_ID(), 'd'", conn, 0), ahead_id.c_str());

    /* A prefetched query that failed is not claimed: the caller asks it and
     * meets the failure itself. */
    pipeline_prefetch("SELECT nosuchcolumn FROM misc");
    EXPECT_EQ(pipeline_claim("SELECT nosuchcolumn FROM misc"), nullptr);
    pipeline_prefetch("SELECT 'after'");
    EXPECT_STREQ(get_query_value("SELECT 'after'", conn, 0), "after");
    pipeline_close();
    mysql_close(ahead);
    mysql_close(conn);
}
