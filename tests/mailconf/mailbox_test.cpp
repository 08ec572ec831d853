/* Tests of mailbox provisioning: home, Maildir, assign record, .qmail. */
#include "mailconf/mailbox.h"
#include "mailconf/pop3.h"
#include "mailconf/writer_env.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

using testing::ExitedWithCode;

static std::string record(const char *prefix, const char *home)
{
    return std::string("=") + prefix + ":popuser:7781:7781:" + mailnames_path(home) + ":::\n";
}

TEST(Mailbox, LayoutAndRepeatOnExistingMailbox)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 xn--bcher-kva.de"}));
    mkdir(mailnames_path("xn--bcher-kva.de").c_str(), 0700);
    char before[PATH_MAX], after[PATH_MAX];
    ASSERT_NE(getcwd(before, sizeof(before)), nullptr);
    add_mailbox("info", "bücher.de");
    std::string home = mailnames_path("xn--bcher-kva.de/info");
    std::string assign = record("42-info", "xn--bcher-kva.de/info") + ".\n";
    EXPECT_EQ(read_file(qmail_path("users/assign")), assign);
    for (const char *sub : {"", "/Maildir", "/Maildir/tmp", "/Maildir/new", "/Maildir/cur",
                            "/@attachments"})
        EXPECT_EQ(ownership(home + sub), popuser_owned(0700)) << sub;
    EXPECT_EQ(read_file(home + "/.qmail"), "| true\n");
    EXPECT_EQ(ownership(home + "/.qmail"), popuser_owned(0600));
    ASSERT_NE(getcwd(after, sizeof(after)), nullptr);
    EXPECT_STREQ(after, before);

    /* Again: mail kept, owners reset, modes left alone, .qmail reset. */
    write_file(home + "/Maildir/new/1.msg", "hello");
    write_file(home + "/.qmail", "| true\n./Maildir/\n");
    chmod((home + "/Maildir").c_str(), 0750);
    chown((home + "/Maildir/cur").c_str(), 0, 0);
    add_mailbox("info", "bücher.de");
    EXPECT_EQ(read_file(home + "/Maildir/new/1.msg"), "hello");
    EXPECT_EQ(ownership(home + "/Maildir"), popuser_owned(0750));
    EXPECT_EQ(ownership(home + "/Maildir/cur"), popuser_owned(0700));
    EXPECT_EQ(read_file(home + "/.qmail"), "| true\n");
    EXPECT_EQ(read_file(qmail_path("users/assign")), assign);
}

TEST(Mailbox, RemovalKeepsOtherMailboxes)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com", "43 example.com.au"}));
    mkdir(mailnames_path("example.com").c_str(), 0700);
    mkdir(mailnames_path("example.com.au").c_str(), 0700);
    const char *boxes[][2] = {{"info", "example.com"}, {"xinfo", "example.com"},
                              {"info", "example.com.au"}};
    for (auto &b : boxes) {
        add_mailbox(b[0], b[1]);
        add_pop3_password(b[0], b[1], "h", 0, 1);
    }
    remove_mailbox("info", "example.com");
    EXPECT_EQ(read_file(qmail_path("users/assign")),
              record("43-info", "example.com.au/info") +
                  record("42-xinfo", "example.com/xinfo") + ".\n");
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")),
              "xinfo@example.com:h:popuser:" + mailnames_path("example.com/xinfo") +
                  "\ninfo@example.com.au:h:popuser:" + mailnames_path("example.com.au/info") + "\n");
    EXPECT_EQ(ownership(mailnames_path("example.com/info")), "");
}

TEST(MailboxDeathTest, FatalPathsAndTheirCleanUp)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com"}));
    for (const char *bad : {".x", "@x", "", "\xc3\xa4x"})
        EXPECT_EXIT(add_mailbox(bad, "example.com"), ExitedWithCode(1),
                    "invalid mailname or domain name\\.") << bad;
    EXPECT_EXIT(remove_mailbox("info", ""), ExitedWithCode(1), "empty mailname or maildomain");
    /* No domain directory: the home cannot be made, the record goes. */
    EXPECT_EXIT(add_mailbox("info", "example.com"), ExitedWithCode(1),
                "Unable to make .*/example.com/info dir: ");
    EXPECT_EQ(read_file(qmail_path("users/assign")), ".\n");
    break_db_login();
    EXPECT_EXIT(add_mailbox("info", "example.com"), ExitedWithCode(1),
                "Unable to get the database ID of domain example.com");
    EXPECT_EQ(read_file(qmail_path("users/assign")), ".\n");
}
