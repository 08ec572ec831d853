/* Tests of the hashing pool: whatever the threads read and however far
 * they are, each asked password gets crypt()'s hash of its own text. */
#include "db/connect.h"
#include "restore/hash_pool.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <crypt.h>
#include <gtest/gtest.h>

#include <chrono>
#include <string>
#include <thread>

static const char SALT[] = "$1$saltsalt";

TEST(HashPool, EachPasswordGetsTheHashOfItsOwnText)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(testdb_reset());
    /* Two mail domains, 2000 mailboxes with plain passwords "pw<id>";
     * mailbox 3 keeps a crypt hash, mailbox 4 has no postbox, mailbox 5
     * a password crypt refuses, mailbox 6 lies in a domain without mail. */
    testdb_exec("INSERT INTO domains (id, name) VALUES (1, 'a.example'), (2, 'b.example'), (3, 'c.example');"
                "INSERT INTO DomainServices (dom_id, type) VALUES (1, 'mail'), (2, 'mail'), (3, 'web');"
                "INSERT INTO accounts (id, type, password) SELECT seq, 'plain', CONCAT('pw', seq) FROM seq_1_to_2000;"
                "INSERT INTO mail (id, mail_name, dom_id, account_id, postbox) SELECT seq, CONCAT('m', seq),"
                " IF(seq = 6, 3, 2 - seq % 2), seq, 'true' FROM seq_1_to_2000;"
                "UPDATE accounts SET type = 'crypt' WHERE id = 3; UPDATE mail SET postbox = 'false' WHERE id = 4;"
                "UPDATE accounts SET password = REPEAT('x', 600) WHERE id = 5");
    const struct {
        const char *id, *plain;
    } asks[] = {
        {"1", "pw1"}, {"2", "pw2"}, {"1999", "pw1999"}, {"1000", "changed since"}, {"3", "pw3"},
        {"4", "pw4"}, {"6", "pw6"}, {"99999", "unknown"}, {"7", ""},
    };
    std::string refused(600, 'x');
    char err[256];
    for (int with_pool : {1, 0}) {
        MYSQL *conn = with_pool ? db_open_session(err, sizeof(err)) : nullptr;
        ASSERT_TRUE(conn || !with_pool) << err;
        hash_pool_start(conn, SALT, nullptr);
        /* Time for the threads to read and hash most of the list, so that
         * the asks meet hashes they made (a late pool would leave them to
         * the caller and hide its faults). */
        std::this_thread::sleep_for(std::chrono::seconds(2));
        for (const auto &a : asks) {
            const char *got = hash_pool_get(a.id, a.plain);
            ASSERT_NE(got, nullptr) << a.id;
            EXPECT_STREQ(got, crypt(a.plain, SALT)) << "mailbox " << a.id << (with_pool ? "" : ", no pool");
        }
        /* Asked from the last mailbox back. */
        for (int id = 2000; id > 1900; id--) {
            std::string plain = "pw" + std::to_string(id);
            EXPECT_STREQ(hash_pool_get(std::to_string(id).c_str(), plain.c_str()), crypt(plain.c_str(), SALT)) << id;
        }
        const char *token = hash_pool_get("5", refused.c_str());
        EXPECT_TRUE(token == nullptr || *token == '*') << token;
        hash_pool_stop();
    }
}
