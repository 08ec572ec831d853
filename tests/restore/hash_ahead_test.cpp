/* Tests of the hashes made ahead: whatever the thread read, and however
 * far ahead or behind it is, each asked password gets crypt()'s hash of
 * its own text. */
#include "db/connect.h"
#include "restore/hash_ahead.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <crypt.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>
#include <vector>

static const char SALT[] = "$1$saltsalt";

/* list - a mailbox list query: rows pw<list>-1 .. pw<list>-rows, every
 * third without a password to hash */
static std::string list(int k, int rows)
{
    return "SELECT IF(seq % 3 = 0, NULL, CONCAT('pw" + std::to_string(k) + "-', seq)) FROM seq_1_to_"
           + std::to_string(rows);
}

static const char *first_column(MYSQL_ROW row)
{
    return row[0];
}

static void as_fetched(MYSQL_RES *res, std::vector<MYSQL_ROW> *rows)
{
    while (MYSQL_ROW row = mysql_fetch_row(res))
        rows->push_back(row);
}

TEST(HashAhead, EachPasswordGetsTheHashOfItsOwnText)
{
    REQUIRE_SANDBOX();
    testdb_reset();
    /* Lists 0-4 are small; list 5 holds more rows than the thread may read
     * ahead, so the lists after it wait for the pass. */
    std::vector<std::string> queries;
    for (int k = 0; k < 8; k++)
        queries.push_back(list(k, k == 5 ? 13000 : 40));
    std::vector<const char *> texts;
    for (const std::string &q : queries)
        texts.push_back(q.c_str());
    texts[6] = nullptr; /* a row the pass skips */
    const struct {
        const char *what;
        int with_thread;
        size_t k;
        std::vector<std::pair<size_t, std::string>> asks;
    } steps[] = {
        {"in order", 1, 0, {{0, "pw0-1"}, {1, "pw0-2"}, {3, "pw0-4"}, {39, "pw0-40"}}},
        {"another text at a row", 1, 1, {{0, "pw1-2"}, {1, "changed"}, {4, "pw1-5"}}},
        {"rows past the list", 1, 1, {{40, "pw1-41"}, {500, "x"}}},
        {"a list left out", 1, 4, {{1, "pw4-2"}, {0, "pw4-1"}}},
        {"a list past the lead", 1, 5, {{12999, "pw5-13000"}, {0, "pw5-1"}}},
        {"a list given none", 1, 6, {{0, "pw6-1"}}},
        {"after the lead", 1, 7, {{0, "pw7-1"}, {7, "pw7-8"}}},
        {"no thread", 0, 0, {{0, "pw0-1"}, {1, "other"}}},
    };
    char err[256];
    int started = -1;
    for (const auto &s : steps) {
        if (started != s.with_thread) {
            if (started >= 0)
                hash_ahead_stop();
            MYSQL *conn = s.with_thread ? db_open_session(err, sizeof(err)) : nullptr;
            ASSERT_TRUE(conn || !s.with_thread) << err;
            hash_ahead_start(conn, texts.data(), texts.size(), as_fetched, first_column, SALT);
            started = s.with_thread;
            /* Time for the thread to read and hash the lists up to its
             * lead, so that the steps meet hashes it made (a late thread
             * would leave them to the caller and hide its faults). */
            std::this_thread::sleep_for(std::chrono::milliseconds(300));
        }
        hash_ahead_domain(s.k);
        for (const auto &[i, plain] : s.asks) {
            const char *got = hash_ahead_get(i, plain.c_str());
            ASSERT_NE(got, nullptr) << s.what;
            EXPECT_STREQ(got, crypt(plain.c_str(), SALT)) << s.what << ": row " << i;
        }
    }
    hash_ahead_stop();
}
