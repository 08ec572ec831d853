/* Tests of the user and group lookups against the sandbox's users popuser
 * (7781/7781) and qmails (7782, primary group qmail 7780). */
#include "fs/users.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <pwd.h>
#include <stdio.h>
#include <stdlib.h>

#include <string>

/* captured - run f, return what it printed on standard error */
template <typename F> static std::string captured(F f)
{
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    f();
    testing::internal::GetCapturedStdout();
    return testing::internal::GetCapturedStderr();
}

/* unused_id - an id with neither a user nor a group */
static unsigned unused_id(void)
{
    unsigned id = 999;
    while (getgrgid(id) || getpwuid(id))
        id++;
    return id;
}

TEST(Users, LookupUserIdsUsesThePasswdEntry)
{
    REQUIRE_SANDBOX();
    /* A group named like the user, with another gid, is not consulted. */
    FILE *group = fopen("/etc/group", "a");
    ASSERT_NE(group, nullptr);
    fputs("qmails:x:7790:\n", group);
    fclose(group);

    EXPECT_EQ(lookup_user_ids("popuser", 0), 7781u);
    EXPECT_EQ(lookup_user_ids("popuser", 1), 7781u);
    EXPECT_EQ(lookup_user_ids("qmails", 0), 7782u);
    EXPECT_EQ(lookup_user_ids("qmails", 1), 7780u);
    EXPECT_EQ(lookup_user_ids("qmails", 5), 7780u);

    unsigned id = 1;
    std::string err = captured([&] { id = lookup_user_ids("nosuchuser", 0); });
    EXPECT_EQ(id, 0u);
    EXPECT_EQ(err.find("Unable to getpwnam for user nosuchuser"), err.rfind("Unable to getpwnam"));
    EXPECT_NE(err.find("Unable to getpwnam for user nosuchuser"), std::string::npos);
}

TEST(Users, NamesUidsAndInfo)
{
    REQUIRE_SANDBOX();
    unsigned none = unused_id();

    EXPECT_STREQ(group_name(7780), "qmail");
    EXPECT_STREQ(group_name(none), std::to_string(none).c_str());
    EXPECT_STREQ(user_name(7781), "popuser");
    EXPECT_STREQ(user_name(none), std::to_string(none).c_str());
    EXPECT_EQ(user_uid("qmails"), 7782u);

    uid_t uid = 1;
    std::string err = captured([&] { uid = user_uid("nosuchuser"); });
    EXPECT_EQ(uid, 0u);
    EXPECT_NE(err.find("Unable to find uid for user nosuchuser"), std::string::npos);

    gid_t gid = 0;
    char *home = nullptr;
    EXPECT_EQ(user_info("qmails", &uid, &gid, &home), 0);
    EXPECT_EQ(uid, 7782u);
    EXPECT_EQ(gid, 7780u);
    EXPECT_STREQ(home, "/nonexistent");
    free(home);
    EXPECT_EQ(user_info("popuser", nullptr, &gid, nullptr), 0);
    EXPECT_EQ(gid, 7781u);
    int rc = 0;
    err = captured([&] { rc = user_info("nosuchuser", &uid, &gid, &home); });
    EXPECT_EQ(rc, -1);
    EXPECT_NE(err.find("Unable to getpwnam for user nosuchuser"), std::string::npos);
}

TEST(Users, GroupLookupsByNameAndNumber)
{
    REQUIRE_SANDBOX();
    unsigned none = unused_id();
    gid_t gid = 1;

    EXPECT_EQ(group_gid("qmail"), 7780u);
    EXPECT_EQ(group_gid_if_exists(7781), 7781u);
    EXPECT_EQ(group_gid_from_text("7780"), 7780u);
    EXPECT_EQ(group_gid_from_text("popuser"), 7781u);

    std::string err = captured([&] { gid = group_gid("nosuchgroup"); });
    EXPECT_EQ(gid, 0u);
    EXPECT_NE(err.find("getgrnam(nosuchgroup): Success"), std::string::npos);
    err = captured([&] { gid = group_gid_from_text(std::to_string(none).c_str()); });
    EXPECT_EQ(gid, 0u);
    EXPECT_NE(err.find("getgrgid(" + std::to_string(none) + "): Success"), std::string::npos);
    /* The empty text names no group: not found, never gid 0 of a number. */
    err = captured([&] { gid = group_gid_from_text(""); });
    EXPECT_EQ(gid, 0u);
    EXPECT_NE(err.find("getgrnam(): Success"), std::string::npos);

    EXPECT_TRUE(is_all_digits(""));
    EXPECT_TRUE(is_all_digits("0123"));
    EXPECT_FALSE(is_all_digits("12a"));
    EXPECT_FALSE(is_all_digits("-1"));
}
