/* rebox --check: nothing after a rebuild; each drift named with status 2,
 * nothing on disk changed and no program run; warnings on standard error. */
#include "support/rebox_run.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <string>

/* disk - everything a check could touch: the qmail and antivirus trees,
 * inodes and times, the lock files and the stand-ins' call records */
static std::string disk()
{
    return tree_snapshot(sandbox_path("qmail")) + tree_snapshot(sandbox_path("drweb")) +
           run_command("cd \"$REBOX_SANDBOX\" && find qmail drweb vdo rc.d -printf '%p %i %T@ %C@\\n' | sort").out;
}

TEST(Check, ReportsEachDriftAndChangesNothing)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(testdb_reset());
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    ASSERT_EQ(fresh_run(REBOX_EXE " --without-spam").run.status, 0);
    std::string names = sandbox_path("qmail/mailnames/example.com/");
    const struct {
        const char *what, *shell, *sql, *report;
    } cases[] = {
        {"line added to rcpthosts", "echo extra.example >> qmail/control/rcpthosts", nullptr,
         "@@ -3,4 +3,3 @@\n xn--mller-kva.example\n xn--bcher-kva.example\n alias3.example\n-extra.example\n"},
        {".qmail edited", "echo '|evil' >> qmail/mailnames/example.com/alpha/.qmail", nullptr, "wrong-content alpha/.qmail\n"},
        {"home removed", "rm -r qmail/mailnames/example.com/bravo", nullptr, "missing bravo\n"},
        {"mode changed", "chmod 644 qmail/mailnames/example.com/delta/.qmail", nullptr,
         "wrong-mode delta/.qmail: 0644, panel 0600\n"},
        {"domain added in the panel", nullptr,
         "INSERT INTO domains (id, name, cl_id) VALUES (9, 'new.example', 1);"
         "INSERT INTO DomainServices (dom_id, type) VALUES (9, 'mail')",
         "\n+new.example\n"},
        {"password changed in the panel", nullptr, "UPDATE accounts SET password='changed' WHERE id=1",
         "\n-alpha:*:popuser:"},
        {"login gone from the disk", "sed -i /alpha$/d qmail/users/poppasswd", nullptr, "\n+alpha:*:popuser:"},
        {"directory left over (never removed)", "mkdir qmail/mailnames/example.com/zulu", nullptr, "surplus zulu\n"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        CommandResult clean = run_command(REBOX_EXE " --check");
        EXPECT_EQ(clean.status, 0) << clean.out << clean.err;
        EXPECT_EQ(clean.out, "");
        if (c.shell)
            run_command(std::string("cd \"$REBOX_SANDBOX\" && ") + c.shell);
        if (c.sql)
            testdb_exec(c.sql);
        std::string before = disk();
        CommandResult r = run_command(REBOX_EXE " --check");
        EXPECT_EQ(r.status, 2) << r.err;
        std::string report = r.out;
        for (size_t at; (at = report.find(names)) != std::string::npos;)
            report.erase(at, names.size());
        EXPECT_TRUE(c.shell && c.report[0] != '\n' ? report.ends_with(c.report) : has(report, c.report)) << report;
        EXPECT_EQ(disk(), before);
        ASSERT_EQ(fresh_run(REBOX_EXE " --without-spam", false).run.status, 0);
    }
    /* A refused row's warning goes to standard error, not the report. */
    testdb_exec("INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'evil:x')");
    CommandResult warned = run_command(REBOX_EXE " --check");
    EXPECT_EQ(warned.out, "surplus " + names + "zulu\n");
    EXPECT_TRUE(has(warned.err, "Skipping mail alias 'evil:x'")) << warned.err;
    run_command("rmdir \"$REBOX_SANDBOX\"/qmail/mailnames/example.com/zulu");
    EXPECT_EQ(run_command(REBOX_EXE " --check").status, 0);
}

/* Where every writer's repair path would fire, a check reports and changes
 * nothing. */
TEST(Check, TouchesNothingWhereEveryRepairWouldFire)
{
    REQUIRE_SANDBOX();
    ASSERT_NO_FATAL_FAILURE(testdb_reset());
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    ASSERT_EQ(fresh_run(REBOX_EXE " --without-spam").run.status, 0);
    testdb_exec("UPDATE mail SET mbox_quota=-1");
    ASSERT_EQ(run_command("cd \"$REBOX_SANDBOX/qmail\" && echo junk > users/assign.tmp && cd mailnames && "
                          "rm -r example.com/bravo/Maildir xn--bcher-kva.example && "
                          "ln -s \"$REBOX_SANDBOX/nodisk\" xn--bcher-kva.example && "
                          "rm example.com/alpha/.qmail && mkdir -p example.com/alpha/.qmail/deep && "
                          "ln -s /etc example.com/charlie/Maildir/cur.x && rm -r example.com/charlie/Maildir/cur && "
                          "mv example.com/charlie/Maildir/cur.x example.com/charlie/Maildir/cur && "
                          "chown -h $REBOX_POPUSER_UID example.com/charlie/Maildir/cur && "
                          "chown 0:0 example.com/delta/Maildir && chattr +i example.com/delta/Maildir")
                  .status,
              0);
    std::string before = disk();
    CommandResult r = run_command(REBOX_EXE " --check");
    EXPECT_EQ(disk(), before);
    run_command("chattr -i \"$REBOX_SANDBOX\"/qmail/mailnames/example.com/delta/Maildir");
    EXPECT_EQ(r.status, 2) << r.err;
    for (const char *line : {"missing ", "foreign ", "wrong-owner ", "surplus "})
        EXPECT_TRUE(has(r.out, line)) << line << r.out;
}
