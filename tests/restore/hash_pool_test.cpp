/* Tests of the hashing pool: whatever the threads read and however far
 * they are, each asked password gets crypt()'s hash of its own text. */
#include "db/connect.h"
#include "restore/hash_pool.h"
#include "runtime/config.h"

#include "support/sandbox.h"
#include "support/testdb.h"

#include <crypt.h>
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <string>
#include <thread>

static const char SALT[] = "$1$saltsalt";

/* fill_panel - two mail domains, 2000 mailboxes with plain passwords
 * "pw<id>" (odd ones in a.example, even ones in b.example); mailbox 3
 * keeps a crypt hash, mailbox 4 has no postbox, mailbox 5 a password crypt
 * refuses, mailbox 6 lies in a domain without mail */
static void fill_panel(void)
{
    ASSERT_NO_FATAL_FAILURE(testdb_reset());
    testdb_exec("INSERT INTO domains (id, name) VALUES (1, 'a.example'), (2, 'b.example'), (3, 'c.example');"
                "INSERT INTO DomainServices (dom_id, type) VALUES (1, 'mail'), (2, 'mail'), (3, 'web');"
                "INSERT INTO accounts (id, type, password) SELECT seq, 'plain', CONCAT('pw', seq) FROM seq_1_to_2000;"
                "INSERT INTO mail (id, mail_name, dom_id, account_id, postbox) SELECT seq, CONCAT('m', seq),"
                " IF(seq = 6, 3, 2 - seq % 2), seq, 'true' FROM seq_1_to_2000;"
                "UPDATE accounts SET type = 'crypt' WHERE id = 3; UPDATE mail SET postbox = 'false' WHERE id = 4;"
                "UPDATE accounts SET password = REPEAT('x', 600) WHERE id = 5");
}

TEST(HashPool, EachPasswordGetsTheHashOfItsOwnText)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(fill_panel());
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
        hash_pool_start(conn, SALT, nullptr, nullptr, 0, nullptr);
        /* Time for the threads to read and hash most of the list, so that
         * the asks meet hashes they made (a late pool would leave them to
         * the caller and hide its faults). */
        std::this_thread::sleep_for(std::chrono::seconds(2));
        for (const auto &a : asks) {
            const char *got = hash_pool_get(a.id, "", a.plain);
            ASSERT_NE(got, nullptr) << a.id;
            EXPECT_STREQ(got, crypt(a.plain, SALT)) << "mailbox " << a.id << (with_pool ? "" : ", no pool");
        }
        /* Asked from the last mailbox back. */
        for (int id = 2000; id > 1900; id--) {
            std::string plain = "pw" + std::to_string(id);
            EXPECT_STREQ(hash_pool_get(std::to_string(id).c_str(), "", plain.c_str()), crypt(plain.c_str(), SALT))
                << id;
        }
        const char *token = hash_pool_get("5", "", refused.c_str());
        EXPECT_TRUE(token == nullptr || *token == '*') << token;
        hash_pool_stop();
    }
}

/* The hashes on disk a check would find, by home. */
static std::map<std::string, std::string> disk;

/* disk_salt - a LoginSalt over disk: null for a home not in it */
static const char *disk_salt(const char *home)
{
    auto found = disk.find(home);
    return found == disk.end() ? nullptr : found->second.c_str();
}

TEST(HashPool, EachPasswordIsHashedWithTheSaltItsHomeGets)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(fill_panel());
    load_panel_config();
    char a[QMAIL_BUF_SIZE], b[QMAIL_BUF_SIZE];
    std::string on_disk = crypt("pw1", "$1$disksalt"), changed = crypt("old", "$1$oldsalt"), refused(600, 'x');
    const struct {
        const char *id, *domain, *mail_name, *plain, *salt, *want;
    } asks[] = {
        /* The disk's hash verifies: the same hash again. */
        {"1", a, "m1", "pw1", on_disk.c_str(), on_disk.c_str()},
        /* It does not: the hash with its salt, not the disk's text. */
        {"2", b, "m2", "pw2", changed.c_str(), nullptr},
        /* No login on disk: nothing hashed, but a refused password told. */
        {"7", a, "m7", "pw7", "", HASH_NONE},
        {"5", a, "m5", refused.c_str(), "", "*0"},
        /* A salt crypt cannot read, or none asked for: the run's. */
        {"8", b, "m8", "pw8", "$9$nosuchmethod", nullptr},
        {"9", a, "m9", "pw9", nullptr, nullptr},
        /* Asked for another home than the pool's: its own salt. */
        {"11", b, "m11", "pw11", on_disk.c_str(), nullptr},
    };
    mail_path(a, "a.example", nullptr, nullptr);
    mail_path(b, "b.example", nullptr, nullptr);
    MailDomainRow rows[] = {{"1", "a.example", "a.example", 0, nullptr}, {"2", "b.example", "b.example", 0, nullptr}};
    disk.clear();
    for (const auto &k : asks)
        if (k.salt != nullptr)
            disk[std::string(k.domain) + "/" + k.mail_name] = k.salt;
    char err[256];
    MYSQL *conn = db_open_session(err, sizeof(err));
    ASSERT_NE(conn, nullptr) << err;
    hash_pool_start(conn, SALT, disk_salt, rows, 2, nullptr);
    std::this_thread::sleep_for(std::chrono::seconds(2));
    for (const auto &k : asks) {
        std::string home = std::string(k.domain) + "/" + k.mail_name;
        const char *got = hash_pool_get(k.id, home.c_str(), k.plain);
        ASSERT_NE(got, nullptr) << k.id;
        std::string want = k.want                                ? k.want
                           : k.salt != nullptr && strncmp(k.salt, "$1$", 3) == 0 ? crypt(k.plain, k.salt)
                                                                 : crypt(k.plain, SALT);
        EXPECT_EQ(got, want) << "mailbox " << k.id;
    }
    hash_pool_stop();
}
