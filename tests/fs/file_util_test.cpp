/* Tests of the file and directory utilities on real files, directories
 * and owners in the sandbox. */
#include "fs/file_util.h"

#include "fs/file_lock.h"
#include "runtime/config.h"

#include "fs_test_helpers.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <stdio.h>
#include <string.h>

#include <string>

static ino_t inode_of(const std::string &path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st.st_ino;
}

TEST(FileUtil, CreateTruncateMakeDirsOwnerModeRename)
{
    REQUIRE_SANDBOX();
    umask(022);
    std::string file = sandbox_path("qmail/control/rejectnonexist"), bad = sandbox_path("no/such");
    EXPECT_EQ(create_file(file.c_str()), 0);
    expect_owner_mode(file, 0, 0, 0644);
    write_file(file, "kept\n");
    EXPECT_EQ(create_file(file.c_str()), 0);
    EXPECT_EQ(read_file(file), "kept\n");
    EXPECT_EQ(truncate_file(file.c_str()), 0);
    EXPECT_EQ(read_file(file), "");
    EXPECT_WARNS(truncate_file(bad.c_str()), -1, "Unable to truncate or create file " + bad);

    std::string dir = sandbox_path("qmail/mailnames");
    EXPECT_EQ(make_dir(dir.c_str(), POPUSER, POPUSER, 0700), 0);
    expect_owner_mode(dir, POPUSER, POPUSER, 0700);
    EXPECT_EQ(make_dir(dir.c_str(), POPUSER, QMAIL_GID, 0750), 0);
    expect_owner_mode(dir, POPUSER, QMAIL_GID, 0750);
    EXPECT_WARNS(make_dir(bad.c_str(), 0, 0, 0700), -1, "ERROR: Unable to mkdir " + bad);
    EXPECT_EQ(captured([&] { EXPECT_EQ(set_owner_mode(bad.c_str(), 1, 1, 0600), 0); }), ""); /* no failure */
    EXPECT_EQ(set_owner_mode(dir.c_str(), 0, 0, 0711), 0);

    std::string target = sandbox_path("qmail/renamed");
    EXPECT_EQ(rename_dir(bad.c_str(), target.c_str()), 0);
    ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
    EXPECT_WARNS(rename_dir(dir.c_str(), target.c_str()), -1,
                 "Directory rename error: target directory " + target + " already exists.");
    ASSERT_EQ(rmdir(target.c_str()), 0);
    EXPECT_EQ(rename_dir(dir.c_str(), target.c_str()), 0);
    expect_owner_mode(target, 0, 0, 0711);

    std::string base = sandbox_path("vhosts"), path = base + "/a/b/c";
    char buf[4096];
    snprintf(buf, sizeof(buf), "%s", path.c_str());
    EXPECT_EQ(make_dir_parents(buf, POPUSER, POPUSER, 01750), 0);
    EXPECT_STREQ(buf, path.c_str());
    expect_owner_mode(base + "/a", POPUSER, POPUSER, 0750);
    expect_owner_mode(path, POPUSER, POPUSER, 01750);
    EXPECT_EQ(make_dir_parents_copy(path.c_str(), 0, 0, 0700), 0);
    expect_owner_mode(path, POPUSER, POPUSER, 01750);
    write_file(base + "/file", "");
    EXPECT_EXIT(make_dir_parents_copy((base + "/file/sub").c_str(), 0, 0, 0700), testing::ExitedWithCode(1),
                "Cannot create directory .*/vhosts/file: File exists");
}

TEST(FileUtil, CopyFileLockedAndAtomic)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string src = sandbox_path("drweb/users.conf.template"), dst = sandbox_path("drweb/users.conf");
    std::string big(10000, 'z');
    write_file(src, big);
    write_file(dst, "old content\n");
    ASSERT_EQ(chown(dst.c_str(), POPUSER, POPUSER), 0);
    ASSERT_EQ(chmod(dst.c_str(), 0600), 0);
    ino_t inode = inode_of(dst);

    /* In place under the destination's lock, owner and mode kept. */
    EXPECT_EQ(copy_file_locked(src.c_str(), dst.c_str()), 0);
    EXPECT_EQ(read_file(dst), big);
    EXPECT_EQ(inode_of(dst), inode);
    expect_owner_mode(dst, POPUSER, POPUSER, 0600);
    EXPECT_EQ(access((sandbox_path("vdo/var/lock/files/") + md5_hex("", dst.c_str())).c_str(), F_OK), 0);

    /* Equal names: nothing happens, not even the lock, whose directory is
     * gone so that a lock attempt fails. */
    ASSERT_EQ(rename(sandbox_path("vdo/var/lock/files").c_str(), sandbox_path("vdo/var/lock/gone").c_str()), 0);
    EXPECT_EQ(copy_file_locked(dst.c_str(), dst.c_str()), 0);
    EXPECT_WARNS(copy_file_locked(src.c_str(), dst.c_str()), 1, "Error occurred while locking the file " + dst);

    /* The atomic copy replaces the file with a new one of the given owner. */
    copy_file_atomic(src.c_str(), dst.c_str(), POPUSER, QMAIL_GID, 0640);
    EXPECT_EQ(read_file(dst), big);
    EXPECT_NE(inode_of(dst), inode);
    expect_owner_mode(dst, POPUSER, QMAIL_GID, 0640);
    /* Reading a directory fails: the process ends before the rename. */
    EXPECT_EXIT(copy_file_atomic(sandbox_path("qmail").c_str(), dst.c_str(), 0, 0, 0600),
                testing::ExitedWithCode(1), "copy_file_atomic\\(.*/qmail -> .*/users.conf\\): read failed");
    EXPECT_EQ(read_file(dst), big);
}

TEST(FileUtil, Hdv1MarkerIsAnEmptyFileAndCached)
{
    REQUIRE_SANDBOX();
    /* In a child with its own first answer: a non-empty file is no marker,
     * and that answer is kept once the file is emptied. */
    EXPECT_EQ(exit_code(spawn([] {
                  write_file("/dev/hdv1", "x");
                  int first = hdv1_marker_present();
                  return truncate("/dev/hdv1", 0) == 0 ? first * 10 + hdv1_marker_present() : 99;
              })),
              0);
    EXPECT_EQ(hdv1_marker_present(), 1);
    ASSERT_EQ(unlink("/dev/hdv1"), 0);
    EXPECT_EQ(hdv1_marker_present(), 1);
}

TEST(FileUtil, SmallHelpers)
{
    REQUIRE_SANDBOX();
    std::string path = sandbox_path("first"), none = sandbox_path("none");
    write_file(path, "first line\nsecond\n");
    EXPECT_STREQ(read_first_line(path.c_str()), "first line");
    write_file(path, std::string(5000, 'l'));
    EXPECT_EQ(std::string(read_first_line(path.c_str())), std::string(4096, 'l'));
    EXPECT_EXIT(read_first_line(none.c_str()), testing::ExitedWithCode(1), "Unable to open file '.*/none'");

    const char *found = "x", *list[] = {none.c_str(), path.c_str(), nullptr};
    EXPECT_TRUE(first_existing_path(&found, list) == 1 && found == list[1]);
    EXPECT_TRUE(first_existing_path(&found, list + 2) == 0 && found == nullptr);

    /* Buffered data that cannot be flushed: the device is full. */
    FILE *stream = fopen("/dev/full", "w");
    ASSERT_NE(stream, nullptr);
    EXPECT_WARNS((fputs("data", stream), fclose_report(stream) != 0), 1, "Unable to close the file: No space left");

    for (const char *weak : {"abcd", "abcdefghijklmnopq", "xjohnx1", "caf\xc3\xa9s"})
        EXPECT_EQ(password_policy_check("john", weak), -1) << weak;
    EXPECT_EQ(password_policy_check("john", "abcde"), 0);
}
