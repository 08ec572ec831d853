/* Tests of the query pipeline: whatever order the questions come in, each
 * gets the answer to its own text, from the queue when it was queued for
 * the asking connection and from the server otherwise. */
#include "db/connect.h"
#include "db/get.h"
#include "db/pipeline.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <string>

/* q - a query whose answer names itself and the connection that gave it */
static std::string q(const std::string &v)
{
    return "SELECT '" + v + "', CONNECTION_ID()";
}

/* answer - what query asked over conn gets: "v@connection", or "failed"
 * and the caller's error number */
static std::string answer(MYSQL *conn, const std::string &query)
{
    MYSQL_RES *res;
    if (pipeline_ask(conn, query.c_str(), &res) != 0 || res == nullptr)
        return "failed " + std::to_string(mysql_errno(conn));
    MYSQL_ROW row = mysql_fetch_row(res);
    std::string got = std::string(row[0]) + "@" + row[1];
    mysql_free_result(res);
    return got;
}

TEST(DbPipeline, EveryQuestionGetsTheAnswerToItsOwnText)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    MYSQL *conn = panel_db_open(), *ahead = panel_db_open(), *other = panel_db_open();
    ASSERT_TRUE(conn && ahead && other);
    auto at = [](MYSQL *c) { return "@" + std::to_string(mysql_thread_id(c)); };
    pipeline_open(ahead, conn);
    const std::string bad = "SELECT nosuchcolumn FROM misc";
    for (const std::string &query : {q("a"), q("b"), q("a"), q("c"), q("d"), bad, q("e")})
        pipeline_prefetch(query.c_str());
    const struct {
        MYSQL *asker;
        std::string query, want;
    } steps[] = {
        {conn, q("x"), "x" + at(conn)},   /* never queued */
        {other, q("a"), "a" + at(other)}, /* queued for another connection */
        {conn, q("b"), "b" + at(ahead)},  /* the first "a" is dropped unread */
        {conn, q("a"), "a" + at(ahead)},  /* queued twice: the second */
        {conn, q("a"), "a" + at(conn)},   /* none left */
        {conn, q("d"), "d" + at(ahead)},  /* "c" is never asked */
        {conn, q("c"), "c" + at(conn)},
        {conn, bad, "failed 1054"},       /* failed ahead: the caller meets it */
        {conn, q("e"), "e" + at(ahead)},
    };
    for (const auto &s : steps)
        EXPECT_EQ(answer(s.asker, s.query), s.want) << s.query;

    /* More than the window holds, asked in order: all answered ahead. */
    for (int i = 0; i < 3 * PIPELINE_WINDOW; i++)
        pipeline_prefetch(q(std::to_string(i)).c_str());
    for (int i = 0; i < 3 * PIPELINE_WINDOW; i++)
        ASSERT_EQ(answer(conn, q(std::to_string(i))), std::to_string(i) + at(ahead));
    /* Closing drops what was not asked; the connection works again. */
    pipeline_prefetch(q("unasked").c_str());
    pipeline_close();
    EXPECT_STREQ(get_query_value("SELECT 'again'", ahead, 0), "again");

    /* The pipeline's server hung up: the caller asks for itself. */
    pipeline_open(ahead, conn);
    testdb_exec(("KILL " + std::to_string(mysql_thread_id(ahead))).c_str());
    for (const char *v : {"f", "g"})
        pipeline_prefetch(q(v).c_str());
    EXPECT_EQ(answer(conn, q("g")), "g" + at(conn));
    EXPECT_EQ(answer(conn, q("f")), "f" + at(conn));
    pipeline_close();
    for (MYSQL *c : {conn, ahead, other})
        mysql_close(c);
}
