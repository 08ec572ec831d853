/* What a new user and an administrator at a terminal meet: the order of
 * the rows whatever plan the server picks, a password crypt refuses, a
 * text cut at the answer's length, the progress line, the signals the
 * programs rebox starts inherit, the summary, and a check that cannot run
 * detached.  The real binary against the test database. */
#include "support/devlog.h"
#include "support/rebox_run.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <functional>
#include <string>

namespace {

/* inodes - the inode of each shared file but users/poppasswd (which a
 * rerun replaces for its new salt) */
std::string inodes(void)
{
    std::string out;
    for (const char *rel : {"control/rcpthosts", "control/virtualdomains", "users/assign", "control/rejectnonexist"}) {
        struct stat st = {};
        stat(sandbox_path(std::string("qmail/") + rel).c_str(), &st);
        out += std::string(rel) + " " + std::to_string(st.st_ino) + "\n";
    }
    return out;
}

} // namespace

TEST(LooseEnds, EachRow)
{
    REQUIRE_SANDBOX();
    const struct Row {
        const char *what;
        const char *panel; /* "" the full fixture; else a generated panel's size "D M" */
        const char *sql;   /* run after the panel is loaded */
        std::function<void()> check;
    } rows[] = {
        /* The join is driven by the services' rows and a domain's
         * mailboxes come in the order of an index: renumbered rows and
         * another index hand both over in another order. */
        {"a plan that hands the rows over in another order changes nothing", "120 3", "", [] {
             ASSERT_EQ(run_rebox("--without-spam").status, 0);
             std::string before = inodes();
             testdb_exec("UPDATE DomainServices SET id = 100000 - id;"
                         "ALTER TABLE mail DROP KEY dom_id, ADD KEY dom_id (dom_id); ANALYZE TABLE DomainServices, mail");
             CommandResult again = run_rebox("--without-spam");
             EXPECT_EQ(again.status, 0) << again.err;
             EXPECT_EQ(inodes(), before);
             CommandResult check = run_rebox("--check");
             EXPECT_EQ(check.status, 0) << check.out;
         }},
        {"a password crypt refuses skips its mailbox with a warning", "",
         "UPDATE accounts SET password = REPEAT('x', 600) WHERE id = 4", [] {
             CommandResult r = run_rebox("--without-spam");
             EXPECT_EQ(r.status, 0) << r.err;
             EXPECT_TRUE(has(r.err, "Skipping mailbox 'delta' of mail domain 'example.com': its password cannot be "
                                    "hashed")) << r.err;
             EXPECT_FALSE(has(r.err, "xxxxxxxx")) << "the password is never shown";
             std::string pop = read_file(sandbox_path("qmail/users/poppasswd"));
             EXPECT_FALSE(has(pop, "delta@") || has(pop, "delta:")) << pop;
             EXPECT_FALSE(has(pop, ":*")) << pop;
             EXPECT_TRUE(has(run_rebox("--check").err, "its password cannot be hashed"));
         }},
        {"a bounce text cut at the answer's length is said", "",
         "UPDATE Parameters SET value = REPEAT('word ', 1000) WHERE id = 1 AND parameter = 'bounce_mess'", [] {
             CommandResult r = run_rebox("--without-spam");
             EXPECT_EQ(r.status, 0) << r.err;
             EXPECT_TRUE(has(r.err, "Warning: the bounce_mess of mail domain 'example.com' is longer than 4095 "
                                    "bytes: only its first 4095 are used")) << r.err;
         }},
        {"the progress line shows on a terminal and nowhere else", "", "", [] {
             CommandResult tty = run_command("script -qec '" REBOX_EXE " --without-spam' /dev/null");
             EXPECT_EQ(tty.status, 0) << tty.out;
             EXPECT_TRUE(has(tty.out, "\rrebox: 3/3 domains, 7/7 mailboxes")) << tty.out;
             EXPECT_TRUE(has(tty.out, "\r\033[K")) << "the line is cleared at the end";
             CommandResult pipe = run_rebox("--without-spam");
             EXPECT_FALSE(has(pipe.err + pipe.out, "mailboxes,")) << pipe.err;
         }},
        {"the programs rebox starts get every signal at its default, none blocked", "",
         "UPDATE Components SET version = '1.0'; INSERT INTO Components (name, version) VALUES ('drweb-qmail', '1.0')",
         [] {
             ASSERT_EQ(run_rebox("--with-spam").status, 0);
             for (const char *standin : {STANDIN_QMAIL_NEWU, STANDIN_QMAIL_INIT, STANDIN_VIRUSCTL}) {
                 std::string signals = run_command("grep -m1 signals: " + sandbox_path(standin) + ".calls").out;
                 EXPECT_EQ(signals, "signals:SigBlk:0000000000000000 SigIgn:0000000000000000 \n") << standin;
             }
         }},
        {"the summary counts each shared file's lines and names those removed", "", "", [] {
             write_file(sandbox_path("qmail/control/rcpthosts"), "stale.example\nexample.com\n");
             write_file(sandbox_path("qmail/users/poppasswd"), "old:$1$abcdefgh$0123456789abcdefghijkl:popuser:/x\n");
             int fd = devlog_listen();
             ASSERT_GE(fd, 0);
             ASSERT_EQ(run_rebox("--without-spam").status, 0);
             std::vector<std::string> got = devlog_read(fd, "summary: ");
             ASSERT_EQ(got.size(), 3u);
             EXPECT_TRUE(has(got[0], "removed from control/rcpthosts: stale.example")) << got[0];
             EXPECT_TRUE(has(got[1], "removed from users/poppasswd: old:*:popuser:/x")) << got[1];
             EXPECT_TRUE(has(got[2], "; lines added and removed: rcpthosts +4 -1, virtualdomains +5 -0, assign +13 -0, "
                                    "poppasswd +5 -1, rejectnonexist +2 -0")) << got[2];
         }},
        {"a check cannot run detached", "", "", [] {
             CommandResult r = run_rebox("--check --daemon-mode");
             EXPECT_EQ(r.status, 1);
             EXPECT_EQ(r.err, "rebox: --check cannot run in daemon mode: its report goes to standard output\n");
         }},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        if (*row.panel) {
            int d = 0, m = 0;
            sscanf(row.panel, "%d %d", &d, &m);
            testdb_exec(generated_panel(d, m, 3).c_str());
        } else {
            ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
        }
        if (*row.sql)
            testdb_exec(row.sql);
        run_command("cd \"$REBOX_SANDBOX\" && rm -rf qmail/mailnames qmail/control/* qmail/users/*");
        rebox_standins();
        row.check();
    }
}
