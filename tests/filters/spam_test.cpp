/* Tests of the spam-filter pass: spamctl command lines built from the test
 * database, compared whole (the stand-in records argv[1] on). */
#include "db/connect.h"
#include "filters/spam.h"
#include "restore/apply_effects.h"

#include "runtime/config.h"
#include "support/rebox_run.h"
#include "support/testdb.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

struct SpamTest : ::testing::Test {
    std::string spamctl = sandbox_path(STANDIN_SPAMCTL);

    void SetUp() override
    {
        REQUIRE_SANDBOX();
        load_panel_config();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        testdb_exec("INSERT INTO Components (name, version) VALUES ('vdo-spamassassin', '9.1');"
                    "INSERT INTO domains (id, name) VALUES (1, 'example.com');"
                    "INSERT INTO DomainServices (dom_id, type) VALUES (1, 'mail')");
        rebox_standins(); /* spamctl in admin/sbin tells the package is there */
    }
    Calls calls() { return read_calls(spamctl); }
};

} // namespace

TEST_F(SpamTest, ServerWideRecord)
{
    EXPECT_EQ(apply_server_spam_settings(&APPLY_EFFECTS, nullptr), 0);
    EXPECT_EQ(calls(), Calls{});
    testdb_exec("INSERT INTO spamfilter (id, username) VALUES (1, '*@*');"
                "INSERT INTO spamfilter_preferences (spamfilter_id, preference, value) VALUES"
                " (1, 'required_score', '7'), (1, 'required_score', '3');"
                "INSERT INTO misc (param, val) VALUES ('spamfilter_enabled', 'true'),"
                " ('spamfilter_use_mailuser_prefs', 'false')");
    EXPECT_EQ(apply_server_spam_settings(&APPLY_EFFECTS, nullptr), 0);
    testdb_exec("UPDATE misc SET val='true' WHERE param='spamfilter_use_mailuser_prefs';"
                "INSERT INTO misc (param, val) VALUES ('spamfilter_max_children', '12')");
    EXPECT_EQ(apply_server_spam_settings(&APPLY_EFFECTS, nullptr), 0);
    /* An empty score would leave --sensitivity without a value: both go. */
    testdb_exec("UPDATE misc SET val='false' WHERE param='spamfilter_enabled';"
                "UPDATE misc SET val='abc' WHERE param='spamfilter_max_children';"
                "UPDATE spamfilter_preferences SET value='' WHERE value='7'");
    EXPECT_EQ(apply_server_spam_settings(&APPLY_EFFECTS, nullptr), 0);
    EXPECT_EQ(calls(), (Calls{{"start", "--enable-server-configs", "--max-children", "5", "--sensitivity", "7"},
                              {"start", "--enable-server-configs", "--enable-user-configs", "--max-children", "12",
                               "--sensitivity", "7"},
                              {"start", "--max-children", "5"}}));
}

TEST_F(SpamTest, MailboxSwitchHeaderAndLists)
{
    testdb_exec("INSERT INTO mail (id, mail_name, dom_id, spamfilter) VALUES"
                " (1, 'on', 1, 'true'), (2, 'off', 1, 'false'), (3, 'unset', 1, NULL), (4, 'norow', 1, 'true');"
                "INSERT INTO spamfilter (id, username, reject_spam) VALUES"
                " (1, 'on@example.com', 'true'), (2, 'off@example.com', 'false'),"
                " (3, 'unset@example.com', 'false'), (4, 'ghost@example.com', 'false');"
                "INSERT INTO spamfilter_preferences (spamfilter_id, preference, value) VALUES"
                " (1, 'rewrite_header', 'subject'), (1, 'blacklist_from', 'b@x.org'),"
                " (1, 'whitelist_from', ''), (1, 'unblacklist_from', NULL),"
                " (1, 'unwhitelist_from', 'u@x.org'), (1, 'whitelist_from', 'w@x.org'),"
                " (2, 'rewrite_header', 'subject [SPAM] '), (2, 'rewrite_header', 'subject'),"
                " (3, 'rewrite_header', 'From: spam'), (4, 'required_score', '4.5')");
    const char *mailboxes[] = {"on", "off", "unset", "norow", ""};
    for (const char *m : mailboxes)
        EXPECT_EQ(apply_mailbox_spam_settings(&APPLY_EFFECTS, m, "example.com", nullptr), *m ? 0 : -1) << m;
    EXPECT_EQ(apply_spam_settings(&APPLY_EFFECTS, "ghost@example.com", nullptr), 0);
    EXPECT_EQ(apply_mailbox_spam_settings(&APPLY_EFFECTS, "on", nullptr, nullptr), -1);
    EXPECT_EQ(calls(), (Calls{{"--mailname", "on@example.com", "--enable-mailname", "--action", "delete",
                               "--not-modify-header", "--add-to-blacklist", "b@x.org", "--add-to-unwhitelist",
                               "u@x.org", "--add-to-whitelist", "w@x.org"},
                              {"--mailname", "off@example.com", "--disable-mailname", "--modify-header", "[SPAM]"},
                              {"--mailname", "unset@example.com", "--disable-mailname"},
                              {"--mailname", "ghost@example.com", "--sensitivity", "4.5"}}));
}

TEST_F(SpamTest, WholePassSplitsLongListsIntoWholePairs)
{
    /* Only box has a record in a mail-serving domain. */
    std::string sql = "INSERT INTO domains (id, name) VALUES (2, 'nomail.org');"
                      "INSERT INTO mail (id, mail_name, dom_id, spamfilter) VALUES"
                      " (1, 'box', 1, 'true'), (2, 'b', 1, 'true'), (3, 'c', 2, 'true');"
                      "INSERT INTO spamfilter (id, username) VALUES (1, 'box@example.com'), (2, '*@*'),"
                      " (3, 'c@nomail.org');"
                      "INSERT INTO spamfilter_preferences (spamfilter_id, preference, value) VALUES"
                      " (1, 'required_score', '5')";
    for (int i = 0; i < 60; i++)
        sql += ", (1, 'whitelist_from', 'w" + std::to_string(i) + "@x.org')";
    testdb_exec(sql.c_str());

    /* 3 prefix + 3 switch + 2 preference entries leave room for 45 pairs
     * within 99 entries; the 46th pair would be split, so it opens run 2. */
    std::vector<std::string> first = {"--mailname", "box@example.com", "--enable-mailname", "--action", "save",
                                      "--sensitivity", "5"};
    std::vector<std::string> second = {"--mailname", "box@example.com"};
    for (int i = 0; i < 60; i++) {
        auto &run = i < 45 ? first : second;
        run.push_back("--add-to-whitelist");
        run.push_back("w" + std::to_string(i) + "@x.org");
    }
    /* The domains with mail service, as the rebuild hands them over. */
    const MailDomainRow row = {"1", "example.com", "example.com", 0, nullptr}, *domains[] = {&row};
    MYSQL *conn = panel_db_open();
    ASSERT_NE(conn, nullptr);
    restore_spam_settings(&APPLY_EFFECTS, conn, domains, 1, 1);
    const Calls pass = {{"start", "--max-children", "5"}, first, second};
    EXPECT_EQ(calls(), pass);

    /* A failed run ends the record: the second batch is not sent. */
    ASSERT_NO_FATAL_FAILURE(write_recording_stub(spamctl, 3));
    EXPECT_EQ(apply_mailbox_spam_settings(&APPLY_EFFECTS, "box", "example.com", nullptr), -1);
    EXPECT_EQ(calls().size(), 4u);
    EXPECT_EQ(calls().back(), first);

    /* Without the utility in admin/sbin, or marked not installed, nothing runs. */
    ASSERT_EQ(unlink(sandbox_path("vdo/admin/sbin/spamctl").c_str()), 0);
    EXPECT_EQ(apply_server_spam_settings(&APPLY_EFFECTS, nullptr), -1);
    testdb_exec("UPDATE Components SET version='not_installed'");
    EXPECT_EQ(apply_server_spam_settings(&APPLY_EFFECTS, nullptr), 0);
    restore_spam_settings(&APPLY_EFFECTS, conn, domains, 1, 1);
    mysql_close(conn);
    EXPECT_EQ(calls().size(), 4u);
}
