/* Tests of the user and group lookups against the sandbox's users popuser
 * (7781/7781) and qmails (7782, primary group qmail 7780). */
#include "fs/users.h"

#include "fs_test_helpers.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <stdlib.h>

#include <string>

TEST(Users, UserLookups)
{
    REQUIRE_SANDBOX();
    /* A group named like the user, with another gid, is not consulted. */
    write_file("/etc/group", read_file("/etc/group") + "qmails:x:7790:\n");
    EXPECT_EQ(lookup_user_ids("popuser", 0), 7781u);
    EXPECT_EQ(lookup_user_ids("qmails", 0), 7782u);
    EXPECT_EQ(lookup_user_ids("qmails", 5), QMAIL_GID);
    EXPECT_EQ(user_uid("qmails"), 7782u);
    std::string err = captured([] { EXPECT_EQ(lookup_user_ids("nosuchuser", 0), 0u); });
    EXPECT_TRUE(has(err, "Unable to getpwnam for user nosuchuser"));
    EXPECT_EQ(err.find("getpwnam"), err.rfind("getpwnam")) << "printed once";

    uid_t uid = 1;
    gid_t gid = 0;
    char *home = nullptr;
    EXPECT_EQ(user_info("qmails", &uid, &gid, &home), 0);
    EXPECT_EQ(uid, 7782u);
    EXPECT_EQ(gid, QMAIL_GID);
    EXPECT_STREQ(home, "/nonexistent");
    free(home);
    EXPECT_WARNS(user_info("nosuchuser", &uid, &gid, &home), -1, "Unable to getpwnam for user nosuchuser");

    /* Remembered answers outlive a change of the user database until
     * remembering stops; a user not found is asked again every time. */
    std::string passwd = read_file("/etc/passwd");
    users_remember(1);
    EXPECT_EQ(lookup_user_ids("popuser", 1), 7781u);
    EXPECT_WARNS(lookup_user_ids("lateuser", 0), 0, "Unable to getpwnam for user lateuser");
    std::string changed = passwd + "lateuser:x:7795:7795::/nonexistent:/bin/false\n";
    changed.replace(changed.find("popuser:x:7781:7781"), 19, "popuser:x:7783:7784");
    write_file("/etc/passwd", changed);
    EXPECT_EQ(lookup_user_ids("lateuser", 0), 7795u);
    EXPECT_EQ(lookup_user_ids("popuser", 0), 7781u);
    EXPECT_EQ(lookup_user_ids("popuser", 1), 7781u);
    users_remember(0);
    EXPECT_EQ(lookup_user_ids("popuser", 0), 7783u);
    EXPECT_EQ(lookup_user_ids("popuser", 1), 7784u);
    write_file("/etc/passwd", passwd);
}

TEST(Users, GroupLookups)
{
    REQUIRE_SANDBOX();
    unsigned none = 999;
    while (getgrgid(none) || getpwuid(none))
        none++;
    std::string none_text = std::to_string(none);

    EXPECT_STREQ(group_name(QMAIL_GID), "qmail");
    EXPECT_STREQ(group_name(none), none_text.c_str());
    EXPECT_STREQ(user_name(none), none_text.c_str());
    EXPECT_EQ(group_gid("qmail"), QMAIL_GID);
    EXPECT_EQ(group_gid_from_text("7780"), QMAIL_GID);
    EXPECT_EQ(group_gid_from_text("popuser"), 7781u);
    EXPECT_WARNS(group_gid("nosuchgroup"), 0, "getgrnam(nosuchgroup): Success");
    EXPECT_WARNS(group_gid_from_text(none_text.c_str()), 0, "getgrgid(" + none_text + "): Success");
    /* The empty text names no group: not found, never read as a number. */
    EXPECT_WARNS(group_gid_from_text(""), 0, "getgrnam(): Success");
    EXPECT_TRUE(is_all_digits("") && !is_all_digits("12a") && !is_all_digits("-1"));
}
