/* Tests of the .qmail delivery lines and the mailbox alias records. */
#include "mailconf/delivery.h"
#include "mailconf/mailbox.h"
#include "mailconf/writer_env.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using testing::ExitedWithCode;

static void mailbox_ready(void)
{
    writers_setup({"42 example.com"});
    mkdir(mailnames_path("example.com").c_str(), 0700);
    add_mailbox("info", "example.com");
}

TEST(Delivery, FullQmailOrderPostboxRemovalAndAliases)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(mailbox_ready());
    std::string home = mailnames_path("example.com/info");
    add_postbox("info", "example.com", "$1$h", 0, 0);
    add_forward_address("info", "example.com", "boss@example.org"); /* the redirect */
    for (const char *member : {"a@x.org", "boss@example.org", "Jürgen@bücher.de"})
        add_forward_address("info", "example.com", member);
    add_autoresponder("info", "example.com");
    add_autoresponder("info", "example.com");
    const std::string forwards = "&a@x.org\n&boss@example.org\n&Jürgen@xn--bcher-kva.de\n";
    EXPECT_EQ(read_file(home + "/.qmail"), "| true\n./Maildir/\n" + forwards + "|autoresponder\n");
    EXPECT_EQ(ownership(home + "/.qmail"), popuser_owned(0600));
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "info:$1$h:popuser:" + home + "\n");
    remove_postbox("info", "example.com");
    EXPECT_EQ(read_file(home + "/.qmail"), "| true\n" + forwards + "|autoresponder\n");
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "");

    for (const char *alias : {"sales", "-team", "sales"})
        add_mail_alias("info", "example.com", alias);
    std::string tail = ":popuser:7781:7781:" + home + ":::\n";
    EXPECT_EQ(read_file(qmail_path("users/assign")),
              "=42-sales" + tail + "=42--team" + tail + "=42-info" + tail + ".\n");
    EXPECT_EQ(ownership(qmail_path("users/assign")), "0:0:600");
}

TEST(DeliveryDeathTest, FatalPaths)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(mailbox_ready());
    const char *bad_names = "empty mailname or maildomain";
    EXPECT_EXIT(add_postbox(".x", "example.com", "h", 0, 0), ExitedWithCode(1), bad_names);
    EXPECT_EXIT(add_forward_address("info", "example.com", nullptr), ExitedWithCode(1), bad_names);
    EXPECT_EXIT(add_autoresponder("", "example.com"), ExitedWithCode(1), bad_names);
    EXPECT_EXIT(add_forward_address("info", "example.com", "nobody"), ExitedWithCode(1),
                "idn_email_toascii\\(\\) failed: ");
    EXPECT_EXIT(add_mail_alias("info", "example.com", "@x"), ExitedWithCode(1),
                "empty mailname, maildomainor or mailalias");
    EXPECT_EQ(read_file(mailnames_path("example.com/info/.qmail")), "| true\n");

    /* The postbox line cannot be written: its password line goes again. */
    EXPECT_EXIT(add_postbox("gone", "example.com", "h", 0, 0), ExitedWithCode(1),
                "Unable to add string to .*/example.com/gone/.qmail file\\.");
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "");

    std::string assign = read_file(qmail_path("users/assign"));
    break_db_login();
    EXPECT_EXIT(add_mail_alias("info", "example.com", "sales"), ExitedWithCode(1),
                "Unable to get the database ID of domain example.com");
    EXPECT_EQ(read_file(qmail_path("users/assign")), assign);
}
