/* Tests of files held in memory: a held file ends as the same edits on
 * disk leave its twin, nothing reaches the disk before the release, and a
 * stop waits for the whole set of renames. */
#include "fs/file_str.h"
#include "restore/apply_effects.h"
#include "fs/held_file.h"
#include "runtime/config.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

TEST(HeldFile, EndsAsTheSameEditsOnDiskLeaveIt)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    struct Case {
        const char *before; /* null: no such file */
        const char *remove;
        const char *add;
    };
    const Case cases[] = {
        {"a\nb\nc\nlong line at the end\n", "long line at the end", nullptr},
        {"a\nb\n", "a", "a longer line than the one removed"},
        {"", nullptr, "| true"},
        {nullptr, nullptr, "./Maildir/"},
    };
    for (int in_place = 0; in_place < 2; in_place++)
        for (const Case &c : cases) {
            SCOPED_TRACE(std::string(c.before ? c.before : "(missing)") + (in_place ? " in place" : ""));
            std::string held = sandbox_path("qmail/held"), twin = sandbox_path("qmail/twin");
            unlink(held.c_str());
            unlink(twin.c_str());
            if (c.before != nullptr) {
                write_file(held, c.before);
                write_file(twin, c.before);
            }
            ASSERT_EQ(held_file_take(&APPLY_EFFECTS, held.c_str(), in_place), 0);
            for (const std::string &p : {held, twin}) {
                if (c.remove != nullptr) {
                    EXPECT_EQ(file_str(&APPLY_EFFECTS, p.c_str(), c.remove, FILE_STR_REMOVE, 1), 0);
                }
                if (c.add != nullptr) {
                    EXPECT_EQ(file_str(&APPLY_EFFECTS, p.c_str(), c.add, FILE_STR_ADD, FILE_STR_AT_END), 0);
                }
            }
            EXPECT_EQ(access(held.c_str(), F_OK) == 0 ? read_file(held) : "(missing)",
                      c.before != nullptr ? c.before : "(missing)")
                << "the disk is left alone until the release";
            EXPECT_EQ(held_file_release(held.c_str()), 0);
            EXPECT_EQ(read_file(held), read_file(twin));
        }

    std::string dir = sandbox_path("qmail/held-dir");
    ASSERT_EQ(mkdir(dir.c_str(), 0700), 0);
    ASSERT_EQ(held_file_take(&APPLY_EFFECTS, dir.c_str(), 1), 0);
    int rc = 0;
    EXPECT_TRUE(has(stderr_of([&] { rc = file_str(&APPLY_EFFECTS, dir.c_str(), "x", FILE_STR_ADD, FILE_STR_AT_END); }),
                    "Unable to read file"));
    EXPECT_EQ(rc, 1);
    EXPECT_EQ(held_file_release(dir.c_str()), 0);
}

/* A stop that arrives when the first of the shared files has been renamed
 * waits for the rest: the set is replaced whole. */
TEST(HeldFile, StopDuringTheRenamesWaitsForTheWholeSet)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    const std::string paths[] = {sandbox_path("qmail/first"), sandbox_path("qmail/second")};
    static Effects stop_after_rename = APPLY_EFFECTS;
    stop_after_rename.replace_commit = [](PathAt *at, PathAt *tmp, int durable, FileStep *step) {
        int rc = APPLY_EFFECTS.replace_commit(at, tmp, durable, step);
        kill(getpid(), SIGTERM);
        return rc;
    };
    for (const std::string &p : paths)
        write_file(p, "old\n");
    pid_t child = fork();
    if (child == 0) {
        for (const std::string &p : paths)
            if (held_file_take(&stop_after_rename, p.c_str(), 0) != 0
                || file_str(&APPLY_EFFECTS, p.c_str(), "new", FILE_STR_ADD, FILE_STR_AT_END) != 0)
                _exit(1);
        held_files_write();
        _exit(0);
    }
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM) << status;
    for (const std::string &p : paths)
        EXPECT_EQ(read_file(p), "old\nnew\n") << p;
}
