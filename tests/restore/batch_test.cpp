/* The rebuild is all or nothing, readers see whole files, a rerun touches
 * only poppasswd, and other editors' locks are honoured. */
#include "fs/file_lock.h"
#include "support/rebox_run.h"
#include "runtime/config.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

namespace {

class Batch : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
    }
    /* shared_files - qmail's control and users directories, exactly */
    std::string shared_files()
    {
        return tree_snapshot(sandbox_path("qmail/control")) + tree_snapshot(sandbox_path("qmail/users"));
    }
};

} // namespace

/* A run that fails or is killed leaves the previous shared files although
 * the panel changed; the next good run writes the new ones. */
TEST_F(Batch, FailedOrKilledRunsLeaveThePreviousFiles)
{
    testdb_exec(generated_panel(60, 8, 5).c_str());
    FreshRun before = fresh_run(REBOX_EXE " --without-spam");
    ASSERT_EQ(before.run.status, 0) << before.run.err;
    std::string shared = shared_files();
    testdb_exec("UPDATE domains SET status=16 WHERE id % 3 = 0;"
                "UPDATE mail SET redirect='true', redir_addr='new@example.org'");
    const struct {
        const char *what;
        const char *sql;      /* makes the run fail; undone by undo */
        const char *undo;
        const char *password; /* or a wrong database password does */
        const char *kill_at;  /* or it is killed at this domain */
    } cases[] = {
        {"fatal after the domains", "DELETE FROM Components WHERE name='drweb'",
         "INSERT INTO Components (name, version) VALUES ('drweb', '4.33.1')", nullptr, nullptr},
        /* a view that fails on the second domain's rows alone */
        {"fatal at a domain",
         "RENAME TABLE domainaliases TO alias_rows;"
         "INSERT INTO alias_rows (name, displayName, dom_id, status, dns, mail, web) VALUES"
         " ('fatal.example', 'fatal.example', 2, 0, 'true', 'true', 'true');"
         "CREATE VIEW domainaliases AS SELECT id, IF(dom_id = 2, (SELECT 1 UNION SELECT 2), name) AS name,"
         " dom_id, status, mail FROM alias_rows",
         "DROP VIEW domainaliases; RENAME TABLE alias_rows TO domainaliases;"
         "DELETE FROM domainaliases WHERE name='fatal.example'", nullptr, nullptr},
        {"connection refused", nullptr, nullptr, "wrong-password", nullptr},
        {"killed early", nullptr, nullptr, nullptr, "dom000002.example"},
        {"killed halfway", nullptr, nullptr, nullptr, "dom000030.example"},
        {"killed late", nullptr, nullptr, nullptr, "dom000045.example"},
    };
    std::string password = read_file("/etc/vdo/.vdo.shadow");
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        if (c.kill_at) {
            std::string qmail = sandbox_path(std::string("qmail/mailnames/") + c.kill_at + "/info/.qmail");
            pid_t pid = start_rebox("--without-spam");
            for (int i = 0; i < 20000 && !has(read_file(qmail), "new@example.org"); i++)
                usleep(1000);
            kill(pid, SIGKILL);
            EXPECT_EQ(wait_status(pid), -1) << "the run ended before it was killed";
        } else {
            if (c.sql)
                testdb_exec(c.sql);
            if (c.password)
                write_file("/etc/vdo/.vdo.shadow", c.password);
            EXPECT_EQ(run_command(REBOX_EXE " --without-spam").status, 1);
            if (c.undo)
                testdb_exec(c.undo);
            write_file("/etc/vdo/.vdo.shadow", password);
        }
        EXPECT_EQ(shared_files(), shared);
    }
    FreshRun after = fresh_run(REBOX_EXE " --without-spam", false);
    EXPECT_EQ(after.run.status, 0) << after.run.err;
    EXPECT_NE(shared_files(), shared);
    EXPECT_EQ(after.tree, fresh_run(REBOX_EXE " --without-spam").tree);
}

/* A reader during a rebuild sees each file as before or after the run. */
TEST_F(Batch, ReadersSeeWholeFilesDuringARebuild)
{
    testdb_exec(generated_panel(40, 8, 7).c_str());
    ASSERT_EQ(fresh_run(REBOX_EXE " --without-spam").run.status, 0);
    std::string list = run_command("cd \"$REBOX_SANDBOX\"/qmail && ls control/rcpthosts control/virtualdomains "
                                   "users/assign mailnames/*/*/.qmail").out;
    std::vector<std::string> paths;
    for (size_t at = 0, end; (end = list.find('\n', at)) != std::string::npos; at = end + 1)
        paths.push_back(sandbox_path("qmail/" + list.substr(at, end - at)));
    ASSERT_GT(paths.size(), 300u);
    for (const char *change : {"", "UPDATE mail SET redirect='true', redir_addr='x@example.org'"}) {
        SCOPED_TRACE(change);
        if (*change)
            testdb_exec(change);
        std::map<std::string, std::string> old;
        std::map<std::string, std::set<std::string>> seen;
        for (const std::string &p : paths)
            old[p] = read_file(p);
        std::atomic<bool> done = false;
        std::thread reader([&] {
            while (!done)
                for (const std::string &p : paths)
                    seen[p].insert(read_file(p));
        });
        EXPECT_EQ(wait_status(start_rebox("--without-spam")), 0);
        done = true;
        reader.join();
        for (const std::string &p : paths)
            for (const std::string &text : seen[p])
                EXPECT_TRUE(text == old[p] || text == read_file(p)) << p << ": " << text;
    }
}

/* A rerun on an unchanged panel leaves every inode and time but
 * poppasswd's (plain passwords get a new salt). */
TEST_F(Batch, RerunOfAnUnchangedPanelReplacesOnlyPoppasswd)
{
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    FreshRun first = fresh_run(REBOX_EXE " --without-spam");
    const char *stamps = "cd \"$REBOX_SANDBOX\"/qmail && find mailnames control users -printf '%p %i %T@ %C@\\n' "
                         "| grep -v -e '^users ' -e '^users/poppasswd ' | sort";
    std::string before = run_command(stamps).out;
    sleep(1);
    /* What it leaves alone it does not lock: held locks do not hold it up. */
    std::vector<FileLock *> locks;
    for (const char *rel : {"mailnames/example.com/.qmail-default", "mailnames/example.com/@mbox.quota",
                            "mailnames/example.com/alpha/.qmail", "mailnames/example.com/alpha/@mbox.quota"})
    {
        locks.push_back(file_lock(sandbox_path(std::string("qmail/") + rel).c_str(), 1));
        fcntl(locks.back()->fd, F_SETFD, FD_CLOEXEC); /* held by this process alone */
    }
    std::atomic<bool> ended{false};
    std::thread editor([&] {
        for (int i = 0; i < 100 && !ended; i++)
            usleep(50000);
        for (FileLock *lock : locks)
            file_unlock(lock);
    });
    auto start = std::chrono::steady_clock::now();
    FreshRun again = fresh_run(REBOX_EXE " --without-spam", false);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(5));
    ended = true;
    editor.join();
    EXPECT_EQ(again.run.status, 0) << again.run.err;
    EXPECT_EQ(again.tree, first.tree);
    EXPECT_EQ(run_command(stamps).out, before);
}

/* Each file the pass writes waits for its named lock held elsewhere. */
TEST_F(Batch, EachFileIsWrittenOnlyUnderItsLock)
{
    load_panel_config();
    for (const char *rel : {"control/rcpthosts", "users/assign", "mailnames/example.com/@mbox.quota",
                            "mailnames/example.com/alpha/.qmail", "mailnames/example.com/alpha/@mbox.quota"}) {
        SCOPED_TRACE(rel);
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
        ASSERT_EQ(fresh_run(REBOX_EXE " --without-spam").run.status, 0);
        testdb_exec("UPDATE Limits SET value='20971520'; UPDATE mail SET mbox_quota=2097152, autoresponder='false';"
                    "INSERT INTO domainaliases (name, dom_id, status, mail) VALUES ('new.example', 1, 0, 'true');"
                    "INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'new')");
        std::string path = sandbox_path(std::string("qmail/") + rel), before = read_file(path);
        FileLock *lock = file_lock(path.c_str(), 1);
        fcntl(lock->fd, F_SETFD, FD_CLOEXEC); /* held by this process alone */
        pid_t pass = start_rebox("--without-spam");
        usleep(500000);
        EXPECT_EQ(read_file(path), before);
        file_unlock(lock);
        EXPECT_EQ(wait_status(pass), 0);
        EXPECT_NE(read_file(path), before);
    }
}
