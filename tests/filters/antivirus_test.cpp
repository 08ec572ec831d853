/* Tests of the users.conf rebuild against the test database. */
#include "filters/antivirus.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "db/connect.h"
#include "runtime/config.h"
#include "support/sandbox.h"
#include "support/testdb.h"

namespace {

struct AntivirusTest : ::testing::Test {
    std::string conf, virusctl;

    void SetUp() override
    {
        REQUIRE_SANDBOX();
        load_panel_config();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        conf = sandbox_path("drweb/users.conf");
        virusctl = sandbox_path("vdo/admin/bin/virusctl");
        ASSERT_NO_FATAL_FAILURE(write_recording_stub(virusctl, 0));
    }

    void run_pass()
    {
        MYSQL *conn = panel_db_open();
        ASSERT_NE(conn, nullptr);
        restore_antivirus_settings(conn);
        mysql_close(conn);
    }
};

std::string rec(const char *dir, const char *address)
{
    return std::string("allow\t") + dir + "\tregex\t^" + address + "$\n";
}

} // namespace

TEST_F(AntivirusTest, HeadOnlyWithoutTemplateOrMailbox)
{
    /* An old file with another owner and mode is reset and given root's. */
    write_file(conf, "allow\tany\tregex\t^old@example.com$\n");
    ASSERT_EQ(chown(conf.c_str(), 7781, 7781), 0);
    ASSERT_EQ(chmod(conf.c_str(), 0600), 0);
    testdb_exec("INSERT INTO domains (id, name) VALUES (1, 'example.com');"
                "INSERT INTO mail (id, mail_name, dom_id, virusfilter) VALUES (1, 'off', 1, 'none')");

    run_pass();

    EXPECT_EQ(read_file(conf), "[version=2]\n");
    struct stat st;
    ASSERT_EQ(stat(conf.c_str(), &st), 0);
    EXPECT_EQ(st.st_uid, 0u);
    EXPECT_EQ(st.st_gid, 0u);
    EXPECT_EQ(st.st_mode & 07777, 0644u);
    EXPECT_EQ(read_calls(virusctl), (std::vector<std::vector<std::string>>{{"-r"}}));
}

TEST_F(AntivirusTest, DirectionsAndOrphanMailbox)
{
    testdb_exec("INSERT INTO domains (id, name) VALUES (1, 'example.com');"
                "INSERT INTO mail (id, mail_name, dom_id, virusfilter) VALUES"
                " (1, 'in', 1, 'incoming'), (2, 'out', 1, 'outgoing'), (3, 'both', 1, 'any'),"
                " (4, 'orphan', 99, 'any')");

    run_pass();

    EXPECT_EQ(read_file(conf), "[version=2]\n" + rec("to", "in@example.com") +
                                   rec("from", "out@example.com") + rec("any", "both@example.com"));
    EXPECT_EQ(read_calls(virusctl).size(), 1u);
}

TEST_F(AntivirusTest, MailAliasesUnderDomainAliases)
{
    testdb_exec("INSERT INTO domains (id, name) VALUES (1, 'example.com'), (2, 'other.org');"
                "INSERT INTO domainaliases (name, dom_id, mail, status) VALUES"
                " ('example.net', 1, 'true', 0), ('nomail.org', 2, 'false', 0),"
                " ('stopped.org', 2, 'true', 1);"
                "INSERT INTO mail (id, mail_name, dom_id, virusfilter) VALUES"
                " (1, 'box', 1, 'any'), (2, 'user', 2, 'incoming');"
                "INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'a1'), (1, 'a2'), (2, 'al')");

    run_pass();

    /* box: itself and both aliases under the domain and its one active mail
     * alias; user: itself under its domain only, but its alias under every
     * domain alias, mail-serving and active or not. */
    std::string text = read_file(conf);
    for (const char *a : {"box@example.com", "box@example.net", "a1@example.com", "a2@example.com",
                          "a1@example.net", "a2@example.net"})
        EXPECT_NE(text.find(rec("any", a)), std::string::npos) << a;
    for (const char *a : {"user@other.org", "al@other.org", "al@nomail.org", "al@stopped.org"})
        EXPECT_NE(text.find(rec("to", a)), std::string::npos) << a;
    EXPECT_EQ(text.find("user@nomail.org"), std::string::npos);
    EXPECT_EQ(text.find("user@stopped.org"), std::string::npos);
    EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 11);
    EXPECT_EQ(text.rfind("[version=2]\n", 0), 0u);
}

TEST_F(AntivirusTest, TemplateHeadAndRepeatedAddress)
{
    const std::string tmpl = "[version=2]\n# local rules\n"
                             "allow\tany\texact\tdup@example.com\n"
                             "allow\tto\tregex\t^keep@example.org$\n";
    write_file(conf + ".in", tmpl);
    /* dup is a mailbox (incoming) and a mail alias of x (outgoing): the
     * alias row comes later and its direction wins. */
    testdb_exec("INSERT INTO domains (id, name) VALUES (1, 'example.com');"
                "INSERT INTO mail (id, mail_name, dom_id, virusfilter) VALUES"
                " (1, 'dup', 1, 'incoming'), (2, 'x', 1, 'outgoing');"
                "INSERT INTO mail_aliases (mn_id, alias) VALUES (2, 'dup')");

    run_pass();

    EXPECT_EQ(read_file(conf), "[version=2]\n# local rules\n"
                               "allow\tto\tregex\t^keep@example.org$\n" +
                                   rec("from", "x@example.com") + rec("from", "dup@example.com"));
    EXPECT_EQ(read_file(conf + ".in"), tmpl);
}

TEST_F(AntivirusTest, FailingQueryEndsPassWithoutVirusctl)
{
    testdb_exec("INSERT INTO domains (id, name) VALUES (1, 'example.com');"
                "INSERT INTO domainaliases (name, dom_id, mail, status) VALUES ('example.net', 1, 'true', 0);"
                "INSERT INTO mail (id, mail_name, dom_id, virusfilter) VALUES (1, 'box', 1, 'any');"
                "DROP TABLE mail_aliases");

    testing::internal::CaptureStderr();
    run_pass();
    std::string err = testing::internal::GetCapturedStderr();

    EXPECT_NE(err.find("Unable to query drweb mail aliases: "), std::string::npos) << err;
    EXPECT_EQ(read_file(conf), "[version=2]\n" + rec("any", "box@example.com") +
                                   rec("any", "box@example.net"));
    EXPECT_TRUE(read_calls(virusctl).empty());
}
