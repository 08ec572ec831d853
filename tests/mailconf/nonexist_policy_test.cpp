/* Tests of the unknown-recipient policy: control/rejectnonexist and
 * .qmail-default. */
#include "mailconf/nonexist_policy.h"
#include "mailconf/writer_env.h"
#include "support/testdb.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using testing::ExitedWithCode;

static const std::string default_line = "|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n";

static void set_param(const char *name, const char *value)
{
    testdb_exec((std::string("REPLACE INTO Parameters VALUES (9, '") + name + "', '" + value + "')").c_str());
}

TEST(NonexistPolicy, SwitchingBetweenBounceRejectAndCatchAndFailures)
{
    REQUIRE_SANDBOX();
    /* domain 42 of client 5, mail parameters under id 9 */
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com"}));
    testdb_exec("INSERT INTO DomainServices (dom_id, type, parameters_id) VALUES (42, 'mail', 9);"
                "INSERT INTO clients (id, email) VALUES (5, '')");
    mkdir(mailnames_path("example.com").c_str(), 0700);
    std::string reject = qmail_path("control/rejectnonexist"), qdefault = mailnames_path("example.com/.qmail-default");
    write_file(reject, "other.org\n");
    restore_nonexist_policy("example.com", "42", nullptr); /* no parameters: the default bounce */
    EXPECT_EQ(read_file(qdefault), default_line);
    set_param("nonexist_mail", "reject");
    for (int i = 0; i < 2; i++) {
        restore_nonexist_policy("example.com", "42", nullptr);
        add_reject("alias.net");
    }
    EXPECT_EQ(read_file(reject), "other.org\nexample.com\nalias.net\n");
    EXPECT_EQ(file_meta(reject), "0644 0 0");
    EXPECT_EQ(read_file(qdefault), default_line);

    /* Bounce: a two-line text with quote, dollar and semicolon escaped. */
    set_param("nonexist_mail", "bounce");
    set_param("bounce_mess", "Gone.\\nIt''s $5; \\\"bye\\\"");
    restore_nonexist_policy("example.com", "42", nullptr);
    restore_nonexist_policy("example.com", "42", nullptr);
    remove_reject("alias.net");
    EXPECT_EQ(read_file(reject), "other.org\n");
    EXPECT_EQ(read_file(qdefault), "|bouncesaying Gone.\\ It\\'s\\ \\$5\\;\\ \\\"bye\\\"\n");
    set_param("bounce_mess", "");
    restore_nonexist_policy("example.com", "42", nullptr);
    EXPECT_EQ(read_file(qdefault), default_line);

    /* Catch-all: the address, else the client's e-mail, else root@domain. */
    set_param("nonexist_mail", "catch");
    const char *steps[][3] = {{"Boss@bücher.de", "", "&Boss@xn--bcher-kva.de\n"},
                              {"", "owner@example.org", "&owner@example.org\n"},
                              {"", "", "&root@example.com\n"}};
    for (auto &s : steps) {
        set_param("catch_addr", s[0]);
        testdb_exec((std::string("UPDATE clients SET email='") + s[1] + "'").c_str());
        restore_nonexist_policy("example.com", "42", nullptr);
        EXPECT_EQ(read_file(qdefault), s[2]);
    }
    EXPECT_EQ(read_file(reject), "other.org\n");

    EXPECT_EXIT(add_bounce("nodir.org", "x"), ExitedWithCode(1),
                "add_bounce: Unable to add record to .*/nodir.org/.qmail-default file\\.");
    EXPECT_EXIT(set_catch_all("example.com", "nonsense"), ExitedWithCode(1),
                "idn_email_toascii_safe\\(nonsense\\) failed: ");
}
