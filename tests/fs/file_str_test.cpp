/* Tests of file_str on real files in the sandbox: the operations through
 * the file, owner and mode put back, missing files, over-long paths,
 * failures, and several processes editing one file at once.  The editing
 * rules themselves, long lines included, are covered in line_edit_test. */
#include "fs/file_str.h"

#include "fs/file_lock.h"
#include "fs/file_util.h"
#include "runtime/config.h"

#include "fs_test_helpers.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <stdio.h>

#include <algorithm>
#include <sstream>
#include <string>
#include <vector>

TEST(FileStr, OperationsKeepOwnerAndMode)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string path = sandbox_path("qmail/users/assign");
    const char *p = path.c_str();
    write_file(path, "=abc\nabcd\nab\nb.c\nb.a.c\nabc");
    ASSERT_EQ(chown(p, POPUSER, POPUSER), 0);
    ASSERT_EQ(chmod(p, 02640), 0);

    const char *both[] = {"ab\n", "abc", nullptr};
    EXPECT_EQ(file_str_list(p, both, FILE_STR_REMOVE, 1), 0);
    EXPECT_EQ(file_str(p, "b.c", FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX), 0);
    EXPECT_EQ(file_str(p, "=", FILE_STR_REMOVE_MATCHING, FILE_STR_PREFIX), 0);
    EXPECT_EQ(file_str(p, ".a.", FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING), 0);
    EXPECT_EQ(file_str(p, ".\n", FILE_STR_ADD, FILE_STR_AT_END), 0);
    const char *first[] = {"one", "", nullptr};
    EXPECT_EQ(file_str_list(p, first, FILE_STR_ADD, FILE_STR_AT_BEGIN), 0);
    EXPECT_EQ(read_file(path), "one\n\nabcd\n.\n");
    expect_owner_mode(path, POPUSER, POPUSER, 02640);

    /* Nothing to remove, unknown operation or mode: content unchanged,
     * success, owner and mode re-applied; the lock file stays. */
    ASSERT_EQ(chmod(p, 0600), 0);
    EXPECT_EQ(file_str(p, "absent", FILE_STR_REMOVE, 1) + file_str(p, "one", 5, 0) +
                  file_str(p, "one", FILE_STR_ADD, 3), 0);
    EXPECT_EQ(read_file(path), "one\n\nabcd\n.\n");
    expect_owner_mode(path, POPUSER, POPUSER, 0600);
    EXPECT_EQ(access((sandbox_path("vdo/var/lock/files/") + md5_hex("", p)).c_str(), F_OK), 0);
}

TEST(FileStr, MissingFile)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string path = sandbox_path("qmail/control/rcpthosts");
    const char *p = path.c_str();
    int rc = -1;

    EXPECT_EQ(captured([&] { rc = file_str(p, "x", FILE_STR_REMOVE, 1); }), "");
    EXPECT_EQ(rc, 1);
    EXPECT_WARNS(file_str(p, "x", FILE_STR_REMOVE_MATCHING, 0), 1,
                 "Unable to open file " + path + ": No such file or directory");
    EXPECT_EQ(file_str(p, "x", 9, 0), 0);
    EXPECT_NE(access(p, F_OK), 0);
    EXPECT_WARNS(file_str(p, "new", FILE_STR_ADD, FILE_STR_AT_BEGIN), 1, "Unable to open file " + path + ":");
    EXPECT_EQ(read_file(path + ".tmp"), "new\n");
    EXPECT_NE(access(p, F_OK), 0);

    /* An append creates it, owned by the process with the umask's mode. */
    umask(027);
    EXPECT_EQ(file_str(p, "example.com", FILE_STR_ADD, FILE_STR_AT_END), 0);
    EXPECT_EQ(read_file(path), "example.com\n");
    expect_owner_mode(path, getuid(), getgid(), 0640);
}

TEST(FileStr, OverlongPathAndLockFailure)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    /* A 4093-character path: its ".tmp" name does not fit in 4096 bytes,
     * so the rewriting operations refuse it; an append still works. */
    std::string dir = sandbox_path("deep");
    while (dir.size() < 3900)
        dir += "/" + std::string(100, 'd');
    ASSERT_EQ(make_dir_parents_copy(dir.c_str(), 0, 0, 0755), 0);
    std::string longpath = dir + "/" + std::string(4092 - dir.size(), 'f');
    const char *lp = longpath.c_str();
    write_file(longpath, "line\n");
    EXPECT_WARNS(file_str(lp, "first", FILE_STR_ADD, FILE_STR_AT_BEGIN), 1,
                 "Unable to open file " + longpath.substr(0, 100));
    EXPECT_EQ(file_str(lp, "line", FILE_STR_REMOVE, 1), 1);
    EXPECT_NE(access((longpath + ".t").c_str(), F_OK), 0) << "a cut temporary name was used";
    EXPECT_EQ(file_str(lp, "last", FILE_STR_ADD, FILE_STR_AT_END), 0);
    EXPECT_EQ(read_file(longpath), "line\nlast\n");

    /* The owner cannot be put back on an append-only file: one message,
     * and the mode is not tried after it. */
    std::string file = sandbox_path("plain");
    write_file(file, "x\n");
    ASSERT_EQ(run_command("chattr +a " + file).status, 0);
    std::string err = captured([&] { EXPECT_EQ(file_str(file.c_str(), "x", FILE_STR_ADD, 5), 1); });
    run_command("chattr -a " + file);
    EXPECT_TRUE(has(err, "Unable to chown file " + file) && !has(err, "chmod")) << err;
    /* No lock directory: the lock's own message, then file_str's. */
    ASSERT_EQ(rename(sandbox_path("vdo/var/lock/files").c_str(), sandbox_path("vdo/var/lock/gone").c_str()), 0);
    err = captured([&] { EXPECT_EQ(file_str(file.c_str(), "y", FILE_STR_ADD, FILE_STR_AT_END), 1); });
    EXPECT_TRUE(has(err, "Unable to open file \"" + sandbox_path("vdo/var/lock/files/")));
    EXPECT_TRUE(has(err, "Error occurred while locking the file " + file + ": No such file or directory"));
    EXPECT_EQ(read_file(file), "x\n");
}

TEST(FileStr, ConcurrentEditorsLoseNothing)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string path = sandbox_path("qmail/users/assign");
    const char *p = path.c_str();
    write_file(path, ".\n");
    ASSERT_EQ(chown(p, POPUSER, POPUSER), 0);
    ASSERT_EQ(chmod(p, 0600), 0);
    const int procs = 6, rounds = 40;

    /* Each editor appends a, b at the beginning and x; removes every
     * other a, then all its x lines by prefix. */
    std::vector<pid_t> kids;
    for (int i = 0; i < procs; i++)
        kids.push_back(spawn([&] {
            int bad = 0;
            std::string me = "p" + std::to_string(i);
            for (int k = 0; k < rounds; k++) {
                std::string a = me + "-a" + std::to_string(k), b = me + "-b" + std::to_string(k);
                bad |= file_str(p, a.c_str(), FILE_STR_ADD, FILE_STR_AT_END);
                bad |= file_str(p, b.c_str(), FILE_STR_ADD, FILE_STR_AT_BEGIN);
                bad |= file_str(p, (me + "-x" + std::to_string(k)).c_str(), FILE_STR_ADD, FILE_STR_AT_END);
                if (k % 2 == 0)
                    bad |= file_str(p, a.c_str(), FILE_STR_REMOVE, 1);
            }
            return bad | file_str(p, (me + "-x").c_str(), FILE_STR_REMOVE_MATCHING, FILE_STR_PREFIX);
        }));
    for (pid_t pid : kids)
        EXPECT_EQ(exit_code(pid), 0);

    std::vector<std::string> got, want = {"."};
    std::istringstream in(read_file(path));
    for (std::string line; std::getline(in, line);)
        got.push_back(line);
    for (int i = 0; i < procs; i++)
        for (int k = 0; k < rounds; k++) {
            want.push_back("p" + std::to_string(i) + "-b" + std::to_string(k));
            if (k % 2)
                want.push_back("p" + std::to_string(i) + "-a" + std::to_string(k));
        }
    std::sort(got.begin(), got.end());
    std::sort(want.begin(), want.end());
    EXPECT_EQ(got, want);
    expect_owner_mode(path, POPUSER, POPUSER, 0600);
}
