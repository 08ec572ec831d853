/* Tests of the tree walks, deferred removal and the path helpers on real
 * trees in the sandbox, with symbolic links that must never be followed. */
#include "fs/tree.h"

#include "fs/file_util.h"
#include "runtime/config.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <dirent.h>
#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

bool exists(const std::string &path)
{
    struct stat st;
    return lstat(path.c_str(), &st) == 0;
}

struct stat lstat_of(const std::string &path)
{
    struct stat st = {};
    EXPECT_EQ(lstat(path.c_str(), &st), 0) << path;
    return st;
}

std::string cwd()
{
    char buf[PATH_MAX];
    return getcwd(buf, sizeof(buf)) ? buf : "";
}

/* make_tree - dir/{f, sub/{g, deep/h}, link-out -> outside, link-file ->
 * outside/keep} and outside/{keep, inner/x} beside it */
void make_tree(const std::string &dir, const std::string &outside)
{
    ASSERT_EQ(run_command("mkdir -p '" + dir + "/sub/deep' '" + outside + "/inner'").status, 0);
    write_file(dir + "/f", "f");
    write_file(dir + "/sub/g", "g");
    write_file(dir + "/sub/deep/h", "h");
    write_file(outside + "/keep", "keep");
    write_file(outside + "/inner/x", "x");
    ASSERT_EQ(symlink(outside.c_str(), (dir + "/link-out").c_str()), 0);
    ASSERT_EQ(symlink((outside + "/keep").c_str(), (dir + "/sub/link-file").c_str()), 0);
    ASSERT_EQ(chmod((outside + "/keep").c_str(), 0640), 0);
    ASSERT_EQ(chmod((outside + "/inner").c_str(), 0750), 0);
}

/* entries - names in a directory, without "." and ".." */
std::vector<std::string> entries(const std::string &dir)
{
    std::vector<std::string> names;
    if (DIR *d = opendir(dir.c_str())) {
        while (struct dirent *e = readdir(d))
            if (std::string(e->d_name) != "." && std::string(e->d_name) != "..")
                names.push_back(e->d_name);
        closedir(d);
    }
    return names;
}

} // namespace

TEST(Tree, RemoveNeverFollowsLinks)
{
    REQUIRE_SANDBOX();
    std::string dir = sandbox_path("t/dom"), out = sandbox_path("t/outside");
    make_tree(dir, out);
    std::string here = cwd();

    remove_tree(sandbox_path("t/missing").c_str(), 1);        /* silent */
    remove_tree((dir + "/link-out").c_str(), 1);              /* the link only */
    EXPECT_FALSE(exists(dir + "/link-out"));
    EXPECT_EQ(read_file(out + "/keep"), "keep");
    ASSERT_EQ(symlink(out.c_str(), (dir + "/link-out").c_str()), 0);

    remove_tree(dir.c_str(), 0);                              /* emptied, kept */
    EXPECT_TRUE(S_ISDIR(lstat_of(dir).st_mode));
    EXPECT_TRUE(entries(dir).empty());
    EXPECT_EQ(read_file(out + "/keep"), "keep");
    EXPECT_EQ(read_file(out + "/inner/x"), "x");

    write_file(dir + "/f", "f");
    remove_tree(dir.c_str(), 1);
    EXPECT_FALSE(exists(dir));
    remove_tree((out + "/keep").c_str(), 1);                  /* a plain file */
    EXPECT_FALSE(exists(out + "/keep"));
    EXPECT_EQ(cwd(), here);
}

TEST(Tree, OwnerAndModeWalksLeaveLinksAndTargetsAlone)
{
    REQUIRE_SANDBOX();
    std::string dir = sandbox_path("t/dom"), out = sandbox_path("t/outside");
    make_tree(dir, out);
    uid_t uid = std::stoi(getenv("REBOX_POPUSER_UID"));
    gid_t gid = std::stoi(getenv("REBOX_POPUSER_GID"));
    ASSERT_EQ(chmod(dir.c_str(), 0700), 0);
    std::string here = cwd();

    /* top 0: everything below changes, the top directory does not */
    EXPECT_EQ(chown_chmod_tree(dir.c_str(), uid, gid, 0600, 0751, 0), 0);
    EXPECT_EQ(lstat_of(dir).st_uid, 0u);
    EXPECT_EQ(lstat_of(dir).st_mode & 07777, 0700u);
    for (const char *p : {"/f", "/sub/g", "/sub/deep/h"}) {
        EXPECT_EQ(lstat_of(dir + p).st_uid, uid) << p;
        EXPECT_EQ(lstat_of(dir + p).st_gid, gid) << p;
        EXPECT_EQ(lstat_of(dir + p).st_mode & 07777, 0600u) << p;
    }
    for (const char *p : {"/sub", "/sub/deep"}) {
        EXPECT_EQ(lstat_of(dir + p).st_uid, uid) << p;
        EXPECT_EQ(lstat_of(dir + p).st_mode & 07777, 0751u) << p;
    }
    for (const char *p : {"/link-out", "/sub/link-file"})
        EXPECT_EQ(lstat_of(dir + p).st_uid, 0u) << p;
    EXPECT_EQ(lstat_of(out + "/keep").st_uid, 0u);
    EXPECT_EQ(lstat_of(out + "/keep").st_mode & 07777, 0640u);
    EXPECT_EQ(lstat_of(out + "/inner").st_mode & 07777, 0750u);
    EXPECT_EQ(lstat_of(out + "/inner/x").st_uid, 0u);

    /* top 1: the top directory too; a link as the top is left alone */
    chmod_tree(dir.c_str(), 0644, 0755, 1);
    uid_t quid = std::stoi(getenv("REBOX_QMAILS_UID"));
    gid_t qgid = std::stoi(getenv("REBOX_QMAILS_GID"));
    chown_tree(dir.c_str(), quid, qgid, 1);
    EXPECT_EQ(lstat_of(dir).st_mode & 07777, 0755u);
    EXPECT_EQ(lstat_of(dir).st_uid, quid);
    EXPECT_EQ(lstat_of(dir).st_gid, qgid);
    EXPECT_EQ(lstat_of(dir + "/sub/deep/h").st_uid, quid);
    EXPECT_EQ(lstat_of(dir + "/sub/g").st_mode & 07777, 0644u);
    chmod_tree((dir + "/sub/link-file").c_str(), 0600, 0700, 1);
    chown_tree((dir + "/link-out").c_str(), uid, gid, 1);
    EXPECT_EQ(lstat_of(out + "/keep").st_mode & 07777, 0640u);
    EXPECT_EQ(lstat_of(out).st_uid, 0u);
    chmod_tree((dir + "/f").c_str(), 0604, 0700, 1);          /* a plain file */
    EXPECT_EQ(lstat_of(dir + "/f").st_mode & 07777, 0604u);
    EXPECT_EQ(cwd(), here);
}

TEST(Tree, RenameInTreeRenamesRegularFilesOnly)
{
    REQUIRE_SANDBOX();
    std::string dir = sandbox_path("t/dom"), out = sandbox_path("t/outside");
    make_tree(dir, out);
    write_file(dir + "/old", "1");
    write_file(dir + "/sub/old", "2");
    ASSERT_EQ(symlink("f", (dir + "/oldlink").c_str()), 0);
    ASSERT_EQ(run_command("mkdir '" + dir + "/sub/olddir'").status, 0);

    rename_in_tree(dir.c_str(), "old", "new", 1);
    EXPECT_EQ(read_file(dir + "/new"), "1");
    EXPECT_EQ(read_file(dir + "/sub/new"), "2");
    EXPECT_FALSE(exists(dir + "/old"));
    rename_in_tree(dir.c_str(), "oldlink", "x", 1);
    rename_in_tree(dir.c_str(), "olddir", "x", 1);
    EXPECT_TRUE(exists(dir + "/oldlink"));
    EXPECT_TRUE(exists(dir + "/sub/olddir"));
    /* flag 0 spares the entries of the top directory, not those below */
    rename_in_tree(dir.c_str(), "new", "newer", 0);
    EXPECT_TRUE(exists(dir + "/new"));
    EXPECT_EQ(read_file(dir + "/sub/newer"), "2");

    testing::internal::CaptureStderr();
    rename_in_tree((dir + "/f").c_str(), "f", "g", 1);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("It's a regulat entry(not directory): "),
              std::string::npos);
    EXPECT_TRUE(exists(dir + "/f"));
}

TEST(Tree, WalkFailuresEndTheProcess)
{
    REQUIRE_SANDBOX();
    std::string file = sandbox_path("plain");
    write_file(file, "x");
    std::string missing = sandbox_path("missing");

    EXPECT_EXIT(chmod_tree(missing.c_str(), 0644, 0755, 1), testing::ExitedWithCode(1),
                "Unable to get entry .*/missing: No such file or directory");
    EXPECT_EXIT(chown_tree(missing.c_str(), 0, 0, 1), testing::ExitedWithCode(1),
                "Unable to get entry .*/missing: No such file or directory");
    /* a top path whose lstat fails for another reason stops every walk,
     * removal included */
    EXPECT_EXIT(remove_tree((file + "/below").c_str(), 1), testing::ExitedWithCode(1),
                "Unable to get entry .*/plain/below: Not a directory");
    std::string too_long = sandbox_path(std::string(300, 'n'));
    EXPECT_EXIT(remove_tree(too_long.c_str(), 1), testing::ExitedWithCode(1),
                "Unable to get entry .*: File name too long");
}

TEST(Tree, PathHelpers)
{
    REQUIRE_SANDBOX();
    std::string base = sandbox_path("b");
    ASSERT_EQ(run_command("mkdir -p '" + base + "/sub/deep' '" + sandbox_path("bx") + "'").status, 0);
    ASSERT_EQ(symlink((base + "/sub").c_str(), (base + "/sublink").c_str()), 0);
    write_file(base + "/file", "");
    std::string here = cwd();

    EXPECT_EQ(is_subdir((base + "/sub").c_str(), base.c_str()), 1);
    EXPECT_EQ(is_subdir((base + "/sub/deep").c_str(), base.c_str()), 1);
    EXPECT_EQ(is_subdir((base + "/sub/deep/..").c_str(), base.c_str()), 1);
    EXPECT_EQ(is_subdir(base.c_str(), base.c_str()), 0);
    EXPECT_EQ(is_subdir((base + "/sub/..").c_str(), base.c_str()), 0);
    EXPECT_EQ(is_subdir((base + "/sublink").c_str(), base.c_str()), 0);
    EXPECT_EQ(is_subdir((base + "/file").c_str(), base.c_str()), 0);
    EXPECT_EQ(is_subdir(sandbox_path("bx").c_str(), base.c_str()), 0) << "a prefix is not a parent";
    EXPECT_EQ(is_subdir(base.c_str(), (base + "/sub").c_str()), 0);
    EXPECT_EQ(is_subdir((base + "/nothing").c_str(), base.c_str()), 0);
    EXPECT_EQ(cwd(), here);

    char resolved[PATH_MAX];
    ASSERT_NE(realpath(base.c_str(), resolved), nullptr);
    std::string rbase = resolved;
    const char *r = real_path((base + "/sub/deep/../").c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(std::string(r), rbase + "/sub");
    r = real_path((base + "/sublink/../file").c_str());
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(std::string(r), rbase + "/file");
    ASSERT_EQ(chdir(base.c_str()), 0);
    r = real_path("file");
    ASSERT_NE(r, nullptr);
    EXPECT_EQ(std::string(r), rbase + "/file");
    EXPECT_EQ(cwd(), rbase);
    ASSERT_EQ(chdir(here.c_str()), 0);
    testing::internal::CaptureStderr();
    EXPECT_EQ(real_path((base + "/nothing").c_str()), nullptr);
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Such path '" + base + "/nothing' does not exist"),
              std::string::npos);

    EXPECT_EQ(is_empty_string(nullptr), 1);
    EXPECT_EQ(is_empty_string(""), 1);
    EXPECT_EQ(is_empty_string(" "), 0);
}

TEST(Tree, DeferredRemoveAndPurgeHdv1)
{
    REQUIRE_SANDBOX();
    ASSERT_EQ(hdv1_marker_present(), 1);
    load_panel_config();
    std::string mailnames = panel_config.QMAIL_MAILNAMES_D, vhosts = panel_config.HTTPD_VHOSTS_D;
    ASSERT_EQ(run_command("mkdir -p '" + mailnames + "/example.com/info' '" + vhosts +
                          "/site.example/httpdocs'").status, 0);
    write_file(mailnames + "/example.com/info/mail", "m");
    write_file(mailnames + "/__deleted-plain-file", "stays");
    std::string here = cwd();

    testing::internal::CaptureStderr();
    deferred_remove((mailnames + "/example.com").c_str());
    deferred_remove((vhosts + "/site.example").c_str());
    std::string err = testing::internal::GetCapturedStderr();
    EXPECT_NE(err.find("deferred_remove(): rename dir " + mailnames + "/example.com to " +
                       mailnames + "/__deleted"), std::string::npos) << err;
    EXPECT_FALSE(exists(mailnames + "/example.com"));
    EXPECT_FALSE(exists(vhosts + "/site.example"));

    std::string kept;
    for (const std::string &n : entries(mailnames))
        if (n.rfind("__deleted", 0) == 0 && n.size() == 15)
            kept = n;
    ASSERT_FALSE(kept.empty());
    EXPECT_EQ(read_file(mailnames + "/" + kept + "/info/mail"), "m");
    ASSERT_EQ(entries(vhosts).size(), 1u);
    EXPECT_EQ(entries(vhosts)[0].rfind("__deleted", 0), 0u);

    purge_deleted_entries();
    EXPECT_TRUE(entries(vhosts).empty());
    EXPECT_EQ(entries(mailnames), std::vector<std::string>{"__deleted-plain-file"});
    EXPECT_EQ(cwd(), here);

    /* a base directory that cannot be read stops the purge quietly */
    ASSERT_EQ(rmdir(vhosts.c_str()), 0);
    testing::internal::CaptureStderr();
    purge_deleted_entries();
    EXPECT_NE(testing::internal::GetCapturedStderr().find("Unable to open dir " + vhosts),
              std::string::npos);
}

TEST(Tree, DeferredRemoveRefusesOtherDirectories)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string mailnames = panel_config.QMAIL_MAILNAMES_D;
    std::string other = sandbox_path("elsewhere/dom");
    ASSERT_EQ(run_command("mkdir -p '" + other + "' '" + mailnames + "'").status, 0);

    EXPECT_EXIT(deferred_remove(other.c_str()), testing::ExitedWithCode(1),
                "deferred_remove\\(\\): not supported directory for deferred remove: " + other + "\n");
    EXPECT_EXIT(deferred_remove(mailnames.c_str()), testing::ExitedWithCode(1),
                "not supported directory for deferred remove: " + mailnames);
    EXPECT_TRUE(exists(other));
    EXPECT_TRUE(exists(mailnames));
}
