/* Tests of mailbox provisioning: home, Maildir, assign record, .qmail. */
#include "mailconf/mailbox.h"
#include "mailconf/pop3.h"
#include "mailconf/writer_env.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

static std::string record(const char *prefix, const std::string &home)
{
    return std::string("=") + prefix + ":popuser:7781:7781:" + mailnames_path(home) + ":::\n";
}

TEST(Mailbox, RepeatOnExistingMailboxKeepsMailAndModes)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 xn--bcher-kva.de"}));
    mkdir(mailnames_path("xn--bcher-kva.de").c_str(), 0700);
    char before[PATH_MAX], after[PATH_MAX];
    ASSERT_NE(getcwd(before, sizeof(before)), nullptr);
    std::string home = mailnames_path("xn--bcher-kva.de/info");
    add_mailbox("info", "bücher.de");
    write_file(home + "/Maildir/new/1.msg", "hello");
    write_file(home + "/.qmail", "| true\n./Maildir/\n");
    chmod((home + "/Maildir").c_str(), 0750);
    chown((home + "/Maildir/cur").c_str(), 0, 0);
    /* Again: mail kept, owners reset, modes left alone, .qmail reset. */
    add_mailbox("info", "bücher.de");
    EXPECT_EQ(read_file(home + "/Maildir/new/1.msg"), "hello");
    EXPECT_EQ(file_meta(home + "/Maildir"), "0750 7781 7781");
    EXPECT_EQ(file_meta(home + "/Maildir/cur"), "0700 7781 7781");
    EXPECT_EQ(read_file(home + "/.qmail"), "| true\n");
    EXPECT_EQ(read_file(qmail_path("users/assign")), record("42-info", "xn--bcher-kva.de/info") + ".\n");
    ASSERT_NE(getcwd(after, sizeof(after)), nullptr);
    EXPECT_STREQ(after, before);
}

TEST(Mailbox, RemovalKeepsOtherMailboxesAndFailedAddLeavesNoRecord)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(writers_setup({"42 example.com", "43 example.com.au", "44 nodir.org"}));
    mkdir(mailnames_path("example.com").c_str(), 0700);
    mkdir(mailnames_path("example.com.au").c_str(), 0700);
    const char *boxes[][2] = {{"info", "example.com"}, {"xinfo", "example.com"}, {"info", "example.com.au"}};
    for (auto &b : boxes) {
        add_mailbox(b[0], b[1]);
        add_pop3_password(b[0], b[1], "h", 0, 1);
    }
    remove_mailbox("info", "example.com");
    std::string assign = record("43-info", "example.com.au/info") + record("42-xinfo", "example.com/xinfo") + ".\n";
    EXPECT_EQ(read_file(qmail_path("users/assign")), assign);
    EXPECT_EQ(read_file(qmail_path("users/poppasswd")),
              "xinfo@example.com:h:popuser:" + mailnames_path("example.com/xinfo") +
                  "\ninfo@example.com.au:h:popuser:" + mailnames_path("example.com.au/info") + "\n");
    EXPECT_EQ(file_meta(mailnames_path("example.com/info")), "missing");

    /* No domain directory: the home cannot be made, the record goes. */
    EXPECT_EXIT(add_mailbox("info", "nodir.org"), testing::ExitedWithCode(1), "Unable to make .*/nodir.org/info dir: ");
    EXPECT_EQ(read_file(qmail_path("users/assign")), assign);
}
