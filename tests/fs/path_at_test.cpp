/* Tests of the mail tree's door: below a domain directory a link is never
 * followed, wherever on the way it stands, whatever the operation, and
 * a set-aside removes only the object it looked at. */
#include "fs/file_str.h"
#include "fs/path_ops.h"
#include "fs/remove.h"
#include "restore/apply_effects.h"
#include "runtime/config.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <string>

TEST(PathAt, NoLinkOnTheWayBelowADomainIsFollowed)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string domain = sandbox_path("qmail/mailnames/example.com"), outside = sandbox_path("outside");
    /* popuser's own: a home, and a Maildir inside a real home, swapped for
     * links to a directory outside the tree */
    ASSERT_EQ(run_command("mkdir -p '" + domain + "/bravo' '" + outside + "/Maildir' && ln -s '" + outside + "' '" +
                          domain + "/alpha' && ln -s '" + outside + "/Maildir' '" + domain + "/bravo/Maildir'")
                  .status,
              0);
    FileStep step;
    int made;
    for (std::string path : {domain + "/alpha/.qmail", domain + "/alpha/Maildir/new", domain + "/bravo/Maildir/new/x"}) {
        SCOPED_TRACE(path);
        stderr_of([&] {
            EXPECT_EQ(file_put(&APPLY_EFFECTS, path.c_str(), "x\n", 0, 0, 0600, &step), -1);
            EXPECT_EQ(file_str(&APPLY_EFFECTS, path.c_str(), "x", FILE_STR_ADD, FILE_STR_AT_END), 1);
            EXPECT_EQ(make_dir_noting(&APPLY_EFFECTS, path.c_str(), 0, 0, 0700, &made, 0), -1);
            EXPECT_EQ(path_owner_mode(&APPLY_EFFECTS, path.c_str(), 0, 0, 0600, &step), -1);
        });
    }
    EXPECT_EQ(run_command("cd '" + outside + "' && find . | sort").out, ".\n./Maildir\n");
}

/* A link set aside, but popuser puts a file of its own back at the name in
 * the instant between the look and the move: that file is what moved, so
 * it goes back to its name, whole. */
TEST(PathAt, SetAsideRemovesOnlyWhatItLookedAt)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string home = sandbox_path("qmail/mailnames/example.com/alpha"), path = home + "/.qmail";
    ASSERT_EQ(run_command("mkdir -p '" + home + "' && ln -s /nowhere '" + path + "' && chown -h " +
                          "\"$REBOX_POPUSER_UID\" '" + path + "'").status, 0);
    aside_hook = [](int dir, const char *name) {
        aside_hook = nullptr;
        /* Kept under another name, so the new file cannot take its inode. */
        renameat(dir, name, dir, ".held");
        int fd = openat(dir, name, O_WRONLY | O_CREAT | O_EXCL, 0600);
        EXPECT_EQ(write(fd, "mail\n", 5), 5);
        close(fd);
    };
    PathAt at;
    ASSERT_EQ(path_at(&APPLY_EFFECTS, path.c_str(), &at), 0);
    EXPECT_EQ(APPLY_EFFECTS.set_aside(&at, "file"), -1);
    path_at_close(&at);
    aside_hook = nullptr;
    EXPECT_EQ(read_file(path), "mail\n");
    EXPECT_EQ(run_command("ls -A '" + home + "'").out, ".held\n.qmail\n");
}
