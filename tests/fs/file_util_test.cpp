/* Tests of the file and directory utilities on real files, directories
 * and owners in the sandbox. */
#include "fs/file_util.h"

#include "fs/file_lock.h"
#include "runtime/config.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

static const uid_t POPUSER = 7781;

/* captured - run f, return what it printed on standard error */
template <typename F> static std::string captured(F f)
{
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    f();
    testing::internal::GetCapturedStdout();
    return testing::internal::GetCapturedStderr();
}

static struct stat stat_of(const std::string &path)
{
    struct stat st = {};
    EXPECT_EQ(stat(path.c_str(), &st), 0) << path;
    return st;
}

TEST(FileUtil, CreateAndTruncate)
{
    REQUIRE_SANDBOX();
    umask(022);
    std::string path = sandbox_path("qmail/control/rejectnonexist");
    EXPECT_EQ(create_file(path.c_str()), 0);
    EXPECT_EQ(stat_of(path).st_mode & 07777, 0644u);
    write_file(path, "kept\n");
    EXPECT_EQ(create_file(path.c_str()), 0);
    EXPECT_EQ(read_file(path), "kept\n");
    EXPECT_EQ(truncate_file(path.c_str()), 0);
    EXPECT_EQ(read_file(path), "");

    std::string bad = sandbox_path("nodir/file");
    int rc = 0;
    EXPECT_NE(captured([&] { rc = create_file(bad.c_str()); }).find("Unable to create file " + bad), std::string::npos);
    EXPECT_EQ(rc, -1);
    EXPECT_NE(captured([&] { rc = truncate_file(bad.c_str()); }).find("Unable to truncate or create file " + bad),
              std::string::npos);
    EXPECT_EQ(rc, -1);
}

TEST(FileUtil, MakeDirSetOwnerModeRenameDir)
{
    REQUIRE_SANDBOX();
    std::string dir = sandbox_path("qmail/mailnames");
    EXPECT_EQ(make_dir(dir.c_str(), POPUSER, POPUSER, 0700), 0);
    EXPECT_EQ(stat_of(dir).st_uid, POPUSER);
    EXPECT_EQ(stat_of(dir).st_mode & 07777, 0700u);
    ASSERT_EQ(chown(dir.c_str(), 0, 0), 0);
    ASSERT_EQ(chmod(dir.c_str(), 0755), 0);
    EXPECT_EQ(make_dir(dir.c_str(), POPUSER, 7780, 0750), 0);
    EXPECT_EQ(stat_of(dir).st_gid, 7780u);
    EXPECT_EQ(stat_of(dir).st_mode & 07777, 0750u);
    int rc = 0;
    EXPECT_NE(captured([&] { rc = make_dir(sandbox_path("no/such").c_str(), 0, 0, 0700); })
                  .find("ERROR: Unable to mkdir " + sandbox_path("no/such")),
              std::string::npos);
    EXPECT_EQ(rc, -1);

    EXPECT_EQ(captured([&] { rc = set_owner_mode(sandbox_path("missing").c_str(), 1, 1, 0600); }), "");
    EXPECT_EQ(rc, 0);
    EXPECT_EQ(set_owner_mode(dir.c_str(), 0, 0, 0711), 0);
    EXPECT_EQ(stat_of(dir).st_uid, 0u);
    EXPECT_EQ(stat_of(dir).st_mode & 07777, 0711u);

    std::string target = sandbox_path("qmail/renamed");
    EXPECT_EQ(rename_dir(sandbox_path("missing").c_str(), target.c_str()), 0);
    ASSERT_EQ(mkdir(target.c_str(), 0755), 0);
    EXPECT_NE(captured([&] { rc = rename_dir(dir.c_str(), target.c_str()); })
                  .find("Directory rename error: target directory " + target + " already exists."),
              std::string::npos);
    EXPECT_EQ(rc, -1);
    EXPECT_EQ(access(dir.c_str(), F_OK), 0);
    ASSERT_EQ(rmdir(target.c_str()), 0);
    EXPECT_EQ(rename_dir(dir.c_str(), target.c_str()), 0);
    EXPECT_NE(access(dir.c_str(), F_OK), 0);
    EXPECT_EQ(access(target.c_str(), F_OK), 0);
}

TEST(FileUtil, CopyFileLocked)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string src = sandbox_path("drweb/users.conf.template");
    std::string dst = sandbox_path("drweb/users.conf");
    std::string big(10000, 'z');
    write_file(src, big + "\nend\n");
    write_file(dst, "old content that is longer than nothing\n");
    ASSERT_EQ(chown(dst.c_str(), POPUSER, POPUSER), 0);
    ASSERT_EQ(chmod(dst.c_str(), 0600), 0);
    ino_t inode = stat_of(dst).st_ino;

    EXPECT_EQ(copy_file_locked(src.c_str(), dst.c_str()), 0);
    EXPECT_EQ(read_file(dst), big + "\nend\n");
    EXPECT_EQ(stat_of(dst).st_ino, inode);
    EXPECT_EQ(stat_of(dst).st_uid, POPUSER);
    EXPECT_EQ(stat_of(dst).st_mode & 07777, 0600u);
    EXPECT_EQ(access((sandbox_path("vdo/var/lock/files/") + md5_hex("", dst.c_str())).c_str(), F_OK), 0);

    int rc = 0;
    EXPECT_NE(captured([&] { rc = copy_file_locked(sandbox_path("none").c_str(), dst.c_str()); })
                  .find("Unable to open file " + sandbox_path("none")),
              std::string::npos);
    EXPECT_EQ(rc, 1);

    /* From standard input, which stays open. */
    write_file(src, "from stdin\n");
    int saved = dup(0);
    int in = open(src.c_str(), O_RDONLY);
    ASSERT_EQ(dup2(in, 0), 0);
    close(in);
    EXPECT_EQ(copy_file_locked("-", dst.c_str()), 0);
    EXPECT_NE(fcntl(0, F_GETFD), -1);
    dup2(saved, 0);
    close(saved);
    EXPECT_EQ(read_file(dst), "from stdin\n");

    /* Equal names: nothing happens, not even the lock (the lock directory
     * is gone, so a lock attempt would fail). */
    ASSERT_EQ(rename(sandbox_path("vdo/var/lock/files").c_str(), sandbox_path("vdo/var/lock/gone").c_str()), 0);
    EXPECT_EQ(copy_file_locked(dst.c_str(), dst.c_str()), 0);
    EXPECT_NE(captured([&] { rc = copy_file_locked(src.c_str(), dst.c_str()); })
                  .find("Error occurred while locking the file " + dst),
              std::string::npos);
    EXPECT_EQ(rc, 1);
}

TEST(FileUtil, CopyFileAtomic)
{
    REQUIRE_SANDBOX();
    std::string src = sandbox_path("src"), dst = sandbox_path("dst");
    write_file(src, std::string(9000, 'q'));
    write_file(dst, "old\n");
    ino_t inode = stat_of(dst).st_ino;
    copy_file_atomic(src.c_str(), dst.c_str(), POPUSER, 7780, 0640);
    EXPECT_EQ(read_file(dst), std::string(9000, 'q'));
    EXPECT_NE(stat_of(dst).st_ino, inode);
    EXPECT_EQ(stat_of(dst).st_uid, POPUSER);
    EXPECT_EQ(stat_of(dst).st_gid, 7780u);
    EXPECT_EQ(stat_of(dst).st_mode & 07777, 0640u);

    EXPECT_EXIT(copy_file_atomic(sandbox_path("none").c_str(), dst.c_str(), 0, 0, 0600),
                testing::ExitedWithCode(1), "copy_file_atomic\\(.*/none -> .*/dst\\): open failed");
    /* Reading a directory fails: the process ends before the rename. */
    EXPECT_EXIT(copy_file_atomic(sandbox_path("qmail").c_str(), dst.c_str(), 0, 0, 0600),
                testing::ExitedWithCode(1), "read failed");
    EXPECT_EQ(read_file(dst), std::string(9000, 'q'));
}

TEST(FileUtil, Hdv1MarkerIsAnEmptyFileAndCached)
{
    REQUIRE_SANDBOX();
    EXPECT_EQ(hdv1_marker_present(), 1);
    ASSERT_EQ(unlink("/dev/hdv1"), 0);
    EXPECT_EQ(hdv1_marker_present(), 1);
}

TEST(FileUtil, Hdv1NonEmptyFileIsNoMarker)
{
    REQUIRE_SANDBOX();
    write_file("/dev/hdv1", "x");
    EXPECT_EQ(hdv1_marker_present(), 0);
    ASSERT_EQ(truncate("/dev/hdv1", 0), 0);
    EXPECT_EQ(hdv1_marker_present(), 0);
}

TEST(FileUtil, MakeDirParents)
{
    REQUIRE_SANDBOX();
    umask(0);
    std::string base = sandbox_path("vhosts");
    std::string path = base + "/a/b/c";
    char buf[4096];
    snprintf(buf, sizeof(buf), "%s", path.c_str());
    EXPECT_EQ(make_dir_parents(buf, POPUSER, POPUSER, 01750), 0);
    EXPECT_EQ(std::string(buf), path);
    EXPECT_EQ(stat_of(base).st_uid, 0u);
    EXPECT_EQ(stat_of(base + "/a").st_uid, POPUSER);
    EXPECT_EQ(stat_of(base + "/a").st_mode & 07777, 0750u);
    EXPECT_EQ(stat_of(path).st_uid, POPUSER);
    EXPECT_EQ(stat_of(path).st_mode & 07777, 01750u);
    EXPECT_EQ(make_dir_parents_copy(path.c_str(), 0, 0, 0700), 0);
    EXPECT_EQ(stat_of(path).st_uid, POPUSER);

    write_file(base + "/file", "");
    EXPECT_EXIT(make_dir_parents_copy((base + "/file").c_str(), 0, 0, 0700), testing::ExitedWithCode(1),
                "Cannot create directory .*/file: File exists");
    EXPECT_EXIT(make_dir_parents_copy((base + "/file/sub").c_str(), 0, 0, 0700), testing::ExitedWithCode(1),
                "Cannot create directory .*/vhosts/file: File exists");
}

TEST(FileUtil, SmallHelpers)
{
    REQUIRE_SANDBOX();
    std::string path = sandbox_path("first");
    write_file(path, "first line\nsecond\n");
    EXPECT_STREQ(read_first_line(path.c_str()), "first line");
    write_file(path, "");
    EXPECT_STREQ(read_first_line(path.c_str()), "");
    write_file(path, std::string(5000, 'l'));
    EXPECT_EQ(strlen(read_first_line(path.c_str())), 4096u);
    EXPECT_EXIT(read_first_line(sandbox_path("none").c_str()), testing::ExitedWithCode(1),
                "Unable to open file '.*/none'");

    const char *found = "x";
    std::string a = sandbox_path("none"), b = sandbox_path("first");
    const char *list[] = {a.c_str(), b.c_str(), nullptr};
    EXPECT_EQ(first_existing_path(&found, list), 1);
    EXPECT_EQ(found, list[1]);
    EXPECT_EQ(first_existing_path(&found, list + 2), 0);
    EXPECT_EQ(found, nullptr);

    /* Buffered data that cannot be flushed: the device is full. */
    int rc = 0;
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    FILE *stream = fopen("/dev/full", "w");
    if (stream) {
        fputs("data", stream);
        rc = fclose_report(stream);
    }
    testing::internal::GetCapturedStdout();
    std::string err = testing::internal::GetCapturedStderr();
    ASSERT_NE(stream, nullptr);
    EXPECT_NE(err.find("Unable to close the file: No space left on device"), std::string::npos) << err;
    EXPECT_NE(rc, 0);

    EXPECT_EQ(password_policy_check("john", "s3cret"), 0);
    EXPECT_EQ(password_policy_check("john", "abcde"), 0);
    EXPECT_EQ(password_policy_check("john", "abcd"), -1);
    EXPECT_EQ(password_policy_check("john", "abcdefghijklmnop"), 0);
    EXPECT_EQ(password_policy_check("john", "abcdefghijklmnopq"), -1);
    EXPECT_EQ(password_policy_check("john", "xjohnx1"), -1);
    EXPECT_EQ(password_policy_check("john", "caf\xc3\xa9s"), -1);
}
