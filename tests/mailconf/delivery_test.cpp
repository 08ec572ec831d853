/* Tests of the .qmail delivery lines and the mailbox alias records. */
#include "mailconf/delivery.h"
#include "mailconf/mailbox.h"
#include "mailconf/writer_env.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

using testing::ExitedWithCode;

TEST(Delivery, RecordsOncePostboxRemovalAliasesAndFailures)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com"}));
    mkdir(mailnames_path("example.com").c_str(), 0700);
    add_mailbox("info", "example.com");
    std::string home = mailnames_path("example.com/info");
    for (int i = 0; i < 2; i++)
        add_postbox("info", "example.com", "$1$h", 0, 0);
    add_forward_address("info", "example.com", "boss@example.org"); /* the redirect */
    for (const char *member : {"a@x.org", "boss@example.org"})
        add_forward_address("info", "example.com", member);
    add_autoresponder("info", "example.com");
    add_autoresponder("info", "example.com");
    EXPECT_EQ(read_file(home + "/.qmail"), "| true\n./Maildir/\n&a@x.org\n&boss@example.org\n|autoresponder\n");
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "info:$1$h:popuser:" + home + "\n");
    remove_postbox("info", "example.com");
    EXPECT_EQ(read_file(home + "/.qmail"), "| true\n&a@x.org\n&boss@example.org\n|autoresponder\n");
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "");

    for (const char *alias : {"sales", "-team", "sales"})
        add_mail_alias("info", "example.com", alias);
    std::string tail = ":popuser:7781:7781:" + home + ":::\n";
    EXPECT_EQ(read_file(qmail_path("users/assign")),
              "=42-sales" + tail + "=42--team" + tail + "=42-info" + tail + ".\n");

    EXPECT_EXIT(add_forward_address("info", "example.com", nullptr), ExitedWithCode(1), "empty mailname or maildomain");
    /* The postbox line cannot be written: its password line goes again. */
    EXPECT_EXIT(add_postbox("gone", "example.com", "h", 0, 0), ExitedWithCode(1),
                "Unable to add string to .*/example.com/gone/.qmail file\\.");
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")), "");
}
