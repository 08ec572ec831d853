/* Tests of the unknown-recipient policy: control/rejectnonexist and
 * .qmail-default. */
#include "mailconf/nonexist_policy.h"
#include "mailconf/writer_env.h"
#include "db/connect.h"
#include "support/sandbox.h"
#include "support/testdb.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using testing::ExitedWithCode;

static const std::string default_line =
    "|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n";

/* policy_domain - domain 42 of client 5, mail parameters under id 9 */
static void policy_domain(const char *name)
{
    writers_setup({(std::string("42 ") + name).c_str()});
    testdb_exec("INSERT INTO DomainServices (dom_id, type, parameters_id) VALUES (42, 'mail', 9);"
                "INSERT INTO clients (id, email) VALUES (5, '')");
    mkdir(mailnames_path(name).c_str(), 0700);
}

static void set_param(const char *name, const char *value)
{
    testdb_exec((std::string("REPLACE INTO Parameters VALUES (9, '") + name + "', '" + value +
                 "')").c_str());
}

TEST(NonexistPolicy, BounceTextsAndTheirEscaping)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(policy_domain("example.com"));
    std::string qdefault = mailnames_path("example.com/.qmail-default");
    MYSQL *conn = panel_db_open();
    restore_nonexist_policy("example.com", "42", conn);
    EXPECT_EQ(read_file(qdefault), default_line);
    EXPECT_EQ(ownership(qdefault), popuser_owned(0600));
    EXPECT_EQ(read_file(qmail_path("control/rejectnonexist")), "");

    set_param("nonexist_mail", "bounce");
    set_param("bounce_mess", "Gone.\\nIt''s $5; \\\"bye\\\"");
    restore_nonexist_policy("example.com", "42", conn);
    restore_nonexist_policy("example.com", "42", conn);
    EXPECT_EQ(read_file(qdefault), "|bouncesaying Gone.\\ It\\'s\\ \\$5\\;\\ \\\"bye\\\"\n");
    set_param("bounce_mess", "");
    restore_nonexist_policy("example.com", "42", conn);
    EXPECT_EQ(read_file(qdefault), default_line);
    mysql_close(conn);
}

TEST(NonexistPolicy, CatchAllFallsBackToClientThenRoot)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(policy_domain("xn--bcher-kva.de"));
    std::string qdefault = mailnames_path("xn--bcher-kva.de/.qmail-default");
    set_param("nonexist_mail", "catch");
    set_param("catch_addr", "Boss@bücher.de");
    restore_nonexist_policy("bücher.de", "42", nullptr);
    EXPECT_EQ(read_file(qdefault), "&Boss@xn--bcher-kva.de\n");
    set_param("catch_addr", "");
    testdb_exec("UPDATE clients SET email='owner@example.org'");
    restore_nonexist_policy("bücher.de", "42", nullptr);
    EXPECT_EQ(read_file(qdefault), "&owner@example.org\n");
    testdb_exec("UPDATE clients SET email=''");
    restore_nonexist_policy("bücher.de", "42", nullptr);
    EXPECT_EQ(read_file(qdefault), "&root@xn--bcher-kva.de\n");
}

TEST(NonexistPolicy, SwitchingBetweenRejectAndBounce)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(policy_domain("example.com"));
    std::string reject = qmail_path("control/rejectnonexist");
    write_file(reject, "other.org\n");
    restore_nonexist_policy("example.com", "42", nullptr);
    set_param("nonexist_mail", "reject");
    for (int i = 0; i < 2; i++) {
        restore_nonexist_policy("example.com", "42", nullptr);
        add_reject("alias.net");
    }
    EXPECT_EQ(read_file(reject), "other.org\nexample.com\nalias.net\n");
    EXPECT_EQ(ownership(reject), "0:0:644");
    EXPECT_EQ(read_file(mailnames_path("example.com/.qmail-default")), default_line);

    set_param("nonexist_mail", "bounce");
    restore_nonexist_policy("example.com", "42", nullptr);
    remove_reject("alias.net");
    EXPECT_EQ(read_file(reject), "other.org\n");
}

TEST(NonexistPolicyDeathTest, FatalPaths)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(policy_domain("example.com"));
    EXPECT_EXIT(set_reject("", 1), ExitedWithCode(1), "set_reject: empty domain");
    EXPECT_EXIT(add_bounce(nullptr, "x"), ExitedWithCode(1), "add_bounce: empty domain");
    EXPECT_EXIT(add_bounce("nodir.org", "x"), ExitedWithCode(1),
                "add_bounce: Unable to add record to .*/nodir.org/.qmail-default file\\.");
    EXPECT_EXIT(set_catch_all("example.com", "nonsense"), ExitedWithCode(1),
                "idn_email_toascii_safe\\(nonsense\\) failed: ");
}
