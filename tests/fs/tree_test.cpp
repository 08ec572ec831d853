/* Tests of the tree walks, deferred removal and the path helpers on real
 * trees in the sandbox, with symbolic links that must never be followed. */
#include "fs/tree.h"

#include "fs/file_util.h"
#include "runtime/config.h"

#include "fs_test_helpers.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <limits.h>
#include <string.h>

#include <string>
#include <vector>

static bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

static std::string cwd()
{
    char buf[PATH_MAX];
    return getcwd(buf, sizeof(buf)) ? buf : "";
}

/* owner_mode - "uid mode" of a path, links not followed */
static std::string owner_mode(const std::string &path)
{
    struct stat st = {};
    lstat(path.c_str(), &st);
    char buf[64];
    snprintf(buf, sizeof(buf), "%u %o", static_cast<unsigned>(st.st_uid), st.st_mode & 07777);
    return buf;
}

/* entries - names in a directory, without "." and ".." */
static std::vector<std::string> entries(const std::string &dir)
{
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d))
            if (strcmp(e->d_name, ".") != 0 && strcmp(e->d_name, "..") != 0)
                names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

/* make_tree - d/{f, sub/{g, deep/h}, link-out -> o, sub/link-file -> o/keep}
 * beside o/{keep, inner/x}: the links point out of the walked tree */
static void make_tree(const std::string &d, const std::string &o)
{
    ASSERT_EQ(run_command("mkdir -p " + d + "/sub/deep " + o + "/inner && cd " + d +
                          " && touch f sub/g sub/deep/h " + o + "/keep " + o + "/inner/x && "
                          "ln -s " + o + " link-out && ln -s " + o + "/keep sub/link-file && "
                          "chmod 640 " + o + "/keep && chmod 750 " + o + "/inner && chmod 700 " + d)
                  .status, 0);
}

TEST(Tree, WalksRenamesAndRemovalsNeverFollowLinks)
{
    REQUIRE_SANDBOX();
    std::string d = sandbox_path("t/dom"), o = sandbox_path("t/out"), here = cwd();
    make_tree(d, o);
    uid_t uid = std::stoi(getenv("REBOX_POPUSER_UID"));

    /* top 0: everything below changes, the top directory does not */
    EXPECT_EQ(chown_chmod_tree(d.c_str(), uid, uid, 0600, 0751, 0), 0);
    EXPECT_EQ(owner_mode(d), "0 700");
    for (const char *p : {"/f", "/sub/g", "/sub/deep/h"})
        EXPECT_EQ(owner_mode(d + p), std::to_string(uid) + " 600") << p;
    for (const char *p : {"/sub", "/sub/deep"})
        EXPECT_EQ(owner_mode(d + p), std::to_string(uid) + " 751") << p;
    EXPECT_EQ(owner_mode(d + "/link-out").substr(0, 2), "0 ");
    EXPECT_EQ(owner_mode(o + "/keep") + "," + owner_mode(o + "/inner"), "0 640,0 750");
    EXPECT_EQ(owner_mode(o + "/inner/x").substr(0, 2), "0 ");

    /* top 1: the top directory too; a link given as the top is left alone */
    chmod_tree(d.c_str(), 0644, 0755, 1);
    chown_tree(d.c_str(), uid + 1, uid, 1);
    EXPECT_EQ(owner_mode(d), std::to_string(uid + 1) + " 755");
    EXPECT_EQ(owner_mode(d + "/sub/deep/h"), std::to_string(uid + 1) + " 644");
    chmod_tree((d + "/sub/link-file").c_str(), 0600, 0700, 1);
    chown_tree((d + "/link-out").c_str(), uid, uid, 1);
    EXPECT_EQ(owner_mode(o + "/keep"), "0 640");
    EXPECT_EQ(owner_mode(o).substr(0, 2), "0 ");

    /* renaming spares links, and the top level when top is 0 */
    write_file(d + "/old", "1");
    write_file(d + "/sub/old", "2");
    ASSERT_EQ(symlink("f", (d + "/sub/oldlink").c_str()), 0);

    rename_in_tree(d.c_str(), "old", "new", 1);
    EXPECT_EQ(read_file(d + "/new") + read_file(d + "/sub/new"), "12");
    rename_in_tree(d.c_str(), "oldlink", "x", 1);
    EXPECT_TRUE(exists(d + "/sub/oldlink"));
    rename_in_tree(d.c_str(), "new", "newer", 0);
    EXPECT_TRUE(exists(d + "/new") && exists(d + "/sub/newer"));
    EXPECT_TRUE(has(captured([&] { rename_in_tree((d + "/f").c_str(), "f", "g", 1); }),
                    "It's a regulat entry(not directory): " + d + "/f"));

    EXPECT_EXIT(chmod_tree((d + "/none").c_str(), 0644, 0755, 1), testing::ExitedWithCode(1),
                "Unable to get entry .*/none: No such file or directory");
    /* any other lstat failure on the top path stops every walk, removal too */
    EXPECT_EXIT(remove_tree((d + "/f/below").c_str(), 1), testing::ExitedWithCode(1),
                "Unable to get entry .*/f/below: Not a directory");

    /* removal: a link as the top goes alone, links inside go as links */
    remove_tree(sandbox_path("t/missing").c_str(), 1);
    remove_tree((d + "/link-out").c_str(), 1);
    EXPECT_FALSE(exists(d + "/link-out"));
    ASSERT_EQ(symlink(o.c_str(), (d + "/link-out").c_str()), 0);
    remove_tree(d.c_str(), 0);
    EXPECT_TRUE(exists(d) && entries(d).empty());
    EXPECT_TRUE(exists(o + "/keep") && exists(o + "/inner/x"));
    remove_tree(d.c_str(), 1);
    remove_tree((o + "/keep").c_str(), 1);
    EXPECT_FALSE(exists(d) || exists(o + "/keep"));
    EXPECT_EQ(cwd(), here);
}

TEST(Tree, PathHelpers)
{
    REQUIRE_SANDBOX();
    std::string b = sandbox_path("b"), here = cwd();
    ASSERT_EQ(run_command("mkdir -p " + b + "/sub/deep " + b + "x && ln -s " + b + "/sub " + b +
                          "/sublink && touch " + b + "/file").status, 0);

    EXPECT_EQ(is_subdir((b + "/sub").c_str(), b.c_str()), 1);
    EXPECT_EQ(is_subdir((b + "/sub/deep/..").c_str(), b.c_str()), 1);
    for (std::string p : {b, b + "/sub/..", b + "/sublink", b + "/file", b + "x", b + "/none"})
        EXPECT_EQ(is_subdir(p.c_str(), b.c_str()), 0) << p;
    EXPECT_EQ(is_subdir(b.c_str(), (b + "/sub").c_str()), 0);

    char rb[PATH_MAX];
    ASSERT_NE(realpath(b.c_str(), rb), nullptr);
    EXPECT_STREQ(real_path((b + "/sub/deep/../").c_str()), (std::string(rb) + "/sub").c_str());
    EXPECT_STREQ(real_path((b + "/sublink/../file").c_str()), (std::string(rb) + "/file").c_str());
    ASSERT_EQ(chdir(b.c_str()), 0);
    EXPECT_STREQ(real_path("file"), (std::string(rb) + "/file").c_str());
    EXPECT_EQ(cwd(), rb);
    ASSERT_EQ(chdir(here.c_str()), 0);
    EXPECT_WARNS(real_path((b + "/none").c_str()) != nullptr, 0, "Such path '" + b + "/none' does not exist");
}

TEST(Tree, DeferredRemoveAndPurgeHdv1)
{
    REQUIRE_SANDBOX();
    ASSERT_EQ(hdv1_marker_present(), 1);
    load_panel_config();
    std::string mn = panel_config.QMAIL_MAILNAMES_D, vh = panel_config.HTTPD_VHOSTS_D;
    std::string other = sandbox_path("elsewhere/dom"), here = cwd();
    ASSERT_EQ(run_command("mkdir -p " + mn + "/example.com/info " + vh + "/site/httpdocs " + other +
                          " && echo m >" + mn + "/example.com/info/mail && touch " + mn +
                          "/__deleted-file && ln -s /nowhere " + mn + "/dangling").status, 0);

    EXPECT_EXIT(deferred_remove(other.c_str()), testing::ExitedWithCode(1),
                "^deferred_remove\\(\\): not supported directory for deferred remove: " + other + "\n$");
    EXPECT_EXIT(deferred_remove(mn.c_str()), testing::ExitedWithCode(1), "not supported directory");

    EXPECT_TRUE(has(captured([&] {
                        deferred_remove((mn + "/example.com").c_str());
                        deferred_remove((vh + "/site").c_str());
                    }),
                    "deferred_remove(): rename dir " + mn + "/example.com to " + mn + "/__deleted"));
    std::string kept;
    for (const std::string &n : entries(mn))
        if (n.rfind("__deleted", 0) == 0 && n.size() == 15)
            kept = n;
    ASSERT_FALSE(kept.empty());
    EXPECT_EQ(read_file(mn + "/" + kept + "/info/mail"), "m\n");
    ASSERT_EQ(entries(vh).size(), 1u);
    EXPECT_EQ(entries(vh)[0].substr(0, 9), "__deleted");

    EXPECT_TRUE(has(captured(purge_deleted_entries), "Unable to stat file dangling, skipped"));
    EXPECT_TRUE(entries(vh).empty());
    EXPECT_EQ(entries(mn).size(), 2u) << "the plain file and the link stay";
    EXPECT_TRUE(exists(mn + "/__deleted-file") && exists(other));
    EXPECT_EQ(cwd(), here);

    ASSERT_EQ(rmdir(vh.c_str()), 0); /* an unreadable base stops the purge */
    EXPECT_TRUE(has(captured(purge_deleted_entries), "Unable to open dir " + vh));
}
