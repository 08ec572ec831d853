/* Tests of the users.conf rebuild against the test database. */
#include "filters/antivirus.h"

#include "db/connect.h"
#include "restore/apply_effects.h"
#include "runtime/config.h"
#include "support/rebox_run.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <set>
#include <string>

namespace {

struct AntivirusTest : ::testing::Test {
    std::string conf = sandbox_path("drweb/users.conf"), virusctl = sandbox_path(STANDIN_VIRUSCTL);

    void SetUp() override
    {
        REQUIRE_SANDBOX();
        load_panel_config();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        testdb_exec("INSERT INTO domains (id, name) VALUES (1, 'example.com')");
        rebox_standins();
    }

    void run_pass()
    {
        MYSQL *conn = panel_db_open();
        ASSERT_NE(conn, nullptr);
        restore_antivirus_settings(&APPLY_EFFECTS, conn, nullptr);
        mysql_close(conn);
    }
};

std::string rec(const char *dir, const char *address)
{
    return std::string("allow\t") + dir + "\tregex\t^" + address + "$\n";
}

} // namespace

TEST_F(AntivirusTest, HeadDirectionsTemplateAndRepeatedAddress)
{
    /* No template, no mailbox checked: the head alone, given back to root,
     * and virusctl -r still runs. */
    write_file(conf, rec("any", "old@example.com"));
    ASSERT_EQ(chown(conf.c_str(), 7781, 7781), 0);
    ASSERT_EQ(chmod(conf.c_str(), 0600), 0);
    testdb_exec("INSERT INTO mail (id, mail_name, dom_id, virusfilter) VALUES (1, 'off', 1, 'none')");
    run_pass();
    EXPECT_EQ(read_file(conf), "[version=2]\n");
    EXPECT_EQ(file_meta(conf), "0644 0 0");
    EXPECT_EQ(read_calls(virusctl), (Calls{{"-r"}}));

    /* The template gives the head; its line in the exact form of a checked
     * address gives way to a pattern record at the end.  dup, a mailbox
     * (incoming) and later a mail alias of out (outgoing), keeps the later
     * direction; a mailbox of no domain gets nothing. */
    const std::string tmpl = "[version=2]\n# local rules\nallow\tany\texact\tdup@example.com\n"
                             "allow\tto\tregex\t^keep@example.org$\n";
    write_file(conf + ".in", tmpl);
    testdb_exec("INSERT INTO mail (id, mail_name, dom_id, virusfilter) VALUES (2, 'in', 1, 'incoming'), (3, 'out', 1,"
                " 'outgoing'), (4, 'both', 1, 'any'), (5, 'orphan', 99, 'any'), (6, 'dup', 1, 'incoming');"
                "INSERT INTO mail_aliases (mn_id, alias) VALUES (3, 'dup')");
    run_pass();
    EXPECT_EQ(read_file(conf), "[version=2]\n# local rules\nallow\tto\tregex\t^keep@example.org$\n" +
                                   rec("to", "in@example.com") + rec("from", "out@example.com") +
                                   rec("any", "both@example.com") + rec("from", "dup@example.com"));
    EXPECT_EQ(file_meta(conf), "0644 0 0");
    EXPECT_EQ(read_file(conf + ".in"), tmpl);
    EXPECT_EQ(read_calls(virusctl).size(), 2u);

    /* Outside the pass the first step writes the file itself: the
     * template, or without one the head alone. */
    for (const std::string &head : {tmpl, std::string("[version=2]\n")}) {
        EXPECT_EQ(reset_users_conf(&APPLY_EFFECTS), 0);
        EXPECT_EQ(read_file(conf), head);
        unlink((conf + ".in").c_str());
    }
}

TEST_F(AntivirusTest, MailAliasesUnderDomainAliasesAndFailingQuery)
{
    testdb_exec("INSERT INTO domains (id, name) VALUES (2, 'other.org');"
                "INSERT INTO domainaliases (name, dom_id, mail, status) VALUES"
                " ('example.net', 1, 'true', 0), ('nomail.org', 2, 'false', 0), ('stopped.org', 2, 'true', 1);"
                "INSERT INTO mail (id, mail_name, dom_id, virusfilter) VALUES (1, 'box', 1, 'any'),"
                " (2, 'user', 2, 'incoming');"
                "INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'a1'), (1, 'a2'), (2, 'al')");
    run_pass();
    /* box under its domain and active mail-serving alias; user under its
     * domain only, its alias under every domain alias (in no fixed order). */
    std::string text = read_file(conf);
    std::multiset<std::string> got, want = {
        "[version=2]\n", rec("any", "box@example.com"), rec("any", "box@example.net"),
        rec("any", "a1@example.com"), rec("any", "a2@example.com"), rec("any", "a1@example.net"),
        rec("any", "a2@example.net"), rec("to", "user@other.org"), rec("to", "al@other.org"),
        rec("to", "al@nomail.org"), rec("to", "al@stopped.org")};
    for (size_t pos = 0, nl; (nl = text.find('\n', pos)) != std::string::npos; pos = nl + 1)
        got.insert(text.substr(pos, nl + 1 - pos));
    EXPECT_EQ(got, want);
    EXPECT_EQ(text.rfind("[version=2]\n", 0), 0u);

    /* A refused query ends the process, the file as it was, no virusctl. */
    testdb_exec("DROP TABLE mail_aliases");
    EXPECT_EXIT(run_pass(), testing::ExitedWithCode(1), "Unable to query drweb mail aliases: ");
    EXPECT_EQ(read_file(conf), text);
    EXPECT_EQ(read_calls(virusctl).size(), 1u);
}
