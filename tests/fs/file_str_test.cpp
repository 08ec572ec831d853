/* Tests of file_str on real files (the editing rules are line_edit_test's):
 * owner and mode put back, missing files, over-long paths, a failed chown. */
#include "fs/file_str.h"
#include "restore/apply_effects.h"
#include "restore/check_effects.h"

#include "fs/file_lock.h"

#include "runtime/config.h"

#include "support/sandbox.h"
#include "support/snapshot.h"

#include <gtest/gtest.h>

#include <string>

TEST(FileStr, OperationsKeepOwnerAndMode)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string path = sandbox_path("qmail/users/assign");
    const char *p = path.c_str();
    write_file(path, "=abc\nabcd\nab\nb.c\nb.a.c\nabc");
    ASSERT_EQ(chown(p, 7781, 7781), 0);
    ASSERT_EQ(chmod(p, 02640), 0);
    const char *both[] = {"ab\n", "abc", nullptr}, *first[] = {"one", "", nullptr};
    EXPECT_EQ(file_str_list(&APPLY_EFFECTS, p, both, FILE_STR_REMOVE, 1), 0);
    EXPECT_EQ(file_str(&APPLY_EFFECTS, p, "b.c", FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX), 0);
    EXPECT_EQ(file_str(&APPLY_EFFECTS, p, "=", FILE_STR_REMOVE_MATCHING, FILE_STR_PREFIX), 0);
    EXPECT_EQ(file_str(&APPLY_EFFECTS, p, ".a.", FILE_STR_REMOVE_MATCHING, FILE_STR_SUBSTRING), 0);
    EXPECT_EQ(file_str(&APPLY_EFFECTS, p, ".\n", FILE_STR_ADD, FILE_STR_AT_END), 0);
    EXPECT_EQ(file_str_list(&APPLY_EFFECTS, p, first, FILE_STR_ADD, FILE_STR_AT_BEGIN), 0);
    EXPECT_EQ(read_file(path), "one\n\nabcd\n.\n");
    EXPECT_EQ(file_meta(path), "2640 7781 7781");
    /* Nothing to remove, unknown operation or mode: content unchanged,
     * success, owner and mode re-applied; the lock file stays. */
    ASSERT_EQ(chmod(p, 0600), 0);
    EXPECT_EQ(file_str(&APPLY_EFFECTS, p, "absent", FILE_STR_REMOVE, 1) + file_str(&APPLY_EFFECTS, p, "one", 5, 0) +
                  file_str(&APPLY_EFFECTS, p, "one", FILE_STR_ADD, 3), 0);
    EXPECT_EQ(read_file(path), "one\n\nabcd\n.\n");
    EXPECT_EQ(file_meta(path), "0600 7781 7781");
    EXPECT_EQ(access((sandbox_path("vdo/var/lock/files/") + md5_hex("", p)).c_str(), F_OK), 0);
}

TEST(FileStr, MissingFileOverlongPathAndFailedChown)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string path = sandbox_path("qmail/control/rcpthosts");
    const char *p = path.c_str();
    int rc = -1;
    EXPECT_EQ(stderr_of([&] { rc = file_str(&APPLY_EFFECTS, p, "x", FILE_STR_REMOVE, 1); }), "");
    EXPECT_EQ(rc, 1);
    EXPECT_TRUE(has(stderr_of([&] { rc = file_str(&APPLY_EFFECTS, p, "new", FILE_STR_ADD, FILE_STR_AT_BEGIN); }),
                    "Unable to open file " + path + ": No such file or directory"));
    EXPECT_EQ(rc, 1);
    EXPECT_NE(access(p, F_OK), 0);
    /* An append creates it, owned by the process with the umask's mode. */
    umask(027);
    EXPECT_EQ(file_str(&APPLY_EFFECTS, p, "example.com", FILE_STR_ADD, FILE_STR_AT_END), 0);
    EXPECT_EQ(read_file(path), "example.com\n");
    EXPECT_EQ(file_meta(path), "0640 0 0");

    /* A 4093-character path: its ".tmp" name does not fit in 4096 bytes,
     * so the rewriting operations refuse it; an append still works. */
    std::string dir = sandbox_path("deep");
    while (dir.size() < 3900)
        dir += "/" + std::string(100, 'd');
    ASSERT_EQ(run_command("mkdir -p " + dir).status, 0);
    std::string longpath = dir + "/" + std::string(4092 - dir.size(), 'f');
    write_file(longpath, "line\n");
    EXPECT_TRUE(has(stderr_of([&] { rc = file_str(&APPLY_EFFECTS, longpath.c_str(), "first", FILE_STR_ADD, FILE_STR_AT_BEGIN); }),
                    "Unable to open file " + longpath.substr(0, 100)));
    EXPECT_EQ(rc + file_str(&APPLY_EFFECTS, longpath.c_str(), "line", FILE_STR_REMOVE, 1), 2);
    EXPECT_NE(access((longpath + ".t").c_str(), F_OK), 0) << "a cut temporary name was used";
    EXPECT_EQ(file_str(&APPLY_EFFECTS, longpath.c_str(), "last", FILE_STR_ADD, FILE_STR_AT_END), 0);
    EXPECT_EQ(read_file(longpath), "line\nlast\n");

    /* The owner cannot be put back on an append-only file: one message,
     * and the mode is not tried after it. */
    std::string file = sandbox_path("plain");
    write_file(file, "x\n");
    ASSERT_EQ(run_command("chattr +a " + file).status, 0);
    std::string err = stderr_of([&] { EXPECT_EQ(file_str(&APPLY_EFFECTS, file.c_str(), "x", FILE_STR_ADD, 5), 1); });
    run_command("chattr -a " + file);
    EXPECT_TRUE(has(err, "Unable to chown file " + file) && !has(err, "chmod")) << err;
}

/* A check run reports an edit only where what it would write differs from
 * the disk, and the file stays as it was. */
TEST(FileStr, CheckReportsOnlyEditsThatChangeTheFile)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string path = sandbox_path("qmail/control/virtualdomains"), gone = sandbox_path("qmail/control/none");
    write_file(path, "a.b:1\nc.d:2\n");
    struct { std::string file; const char *line; int op, mode, rc; std::string note; } rows[] = {
        {path, "absent", FILE_STR_REMOVE, 1, 0, ""},
        {path, "c.d:2\n", FILE_STR_REMOVE, 1, 0, "wrong-content " + path},
        {path, ".b:1", FILE_STR_REMOVE_MATCHING, FILE_STR_SUFFIX, 0, "wrong-content " + path},
        {path, "zz", FILE_STR_REMOVE_MATCHING, FILE_STR_PREFIX, 0, ""},
        {path, "e.f:3", FILE_STR_ADD, FILE_STR_AT_END, 0, "wrong-content " + path},
        {path, "e.f:3", FILE_STR_ADD, 7, 0, ""},
        {gone, "x", FILE_STR_REMOVE, 1, 1, ""},
        {gone, "x", FILE_STR_ADD, FILE_STR_AT_END, 0, "missing " + gone},
    };
    for (const auto &r : rows) {
        testing::internal::CaptureStdout();
        int rc = file_str(&CHECK_EFFECTS, r.file.c_str(), r.line, r.op, r.mode);
        fflush(stdout);
        std::string out = testing::internal::GetCapturedStdout();
        EXPECT_EQ(rc, r.rc) << r.line;
        EXPECT_EQ(out, r.note.empty() ? "" : r.note + "\n") << r.line;
    }
    EXPECT_EQ(read_file(path), "a.b:1\nc.d:2\n");
    EXPECT_NE(access(gone.c_str(), F_OK), 0);
}
