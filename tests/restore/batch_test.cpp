/* The batched rebuild against the record-by-record one: the same trees, the
 * same messages and exit status, also when the pass stops halfway; and
 * other editors of the shared files wait for the pass and lose nothing. */
#include "fs/file_lock.h"
#include "fs/file_str.h"
#include "restore/fresh_run.h"
#include "runtime/config.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <string>

namespace {

class Batch : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        /* The record-by-record variant runs under the name rebox too, so
         * that the messages compare. */
        run_command("mkdir -p \"$REBOX_SANDBOX/per-record\" && ln -sf " REBOX_PER_RECORD_EXE
                    " \"$REBOX_SANDBOX/per-record/rebox\"");
    }
    /* run_both - the batched run, and the record-by-record one compared to it */
    FreshRun run_both(const char *what)
    {
        FreshRun batched = fresh_run(REBOX_EXE " --without-spam");
        batched.tree += tree_snapshot(sandbox_path("drweb"));
        FreshRun one = fresh_run("\"$REBOX_SANDBOX/per-record/rebox\" --without-spam");
        one.tree += tree_snapshot(sandbox_path("drweb"));
        EXPECT_EQ(batched.run.status, one.run.status) << what;
        EXPECT_EQ(batched.run.out, one.run.out) << what;
        EXPECT_EQ(batched.run.err, one.run.err) << what;
        EXPECT_EQ(batched.tree, one.tree) << what;
        EXPECT_NE(batched.tree.find("\nassign 0600 0 0 file\n"), std::string::npos) << what;
        return batched;
    }
};

} // namespace

TEST_F(Batch, SameTreesAsRecordByRecord)
{
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    /* Duplicates: an alias and a mailbox twice, a member repeating the
     * redirect, a second domain sharing an alias name. */
    testdb_exec("INSERT INTO domainaliases (name, dom_id, status, mail) VALUES ('example.net', 1, 0, 'true'),"
                " ('example.net', 3, 0, 'true');"
                "INSERT INTO mail (mail_name, dom_id, postbox, mbox_quota) VALUES ('charlie', 1, 'true', 5);"
                "INSERT INTO mail_redir (mn_id, address) VALUES (1, 'a@example.org')");
    run_both("full panel");
    for (int seed = 1; seed <= 2; seed++) {
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        testdb_exec(generated_panel(15, 4, seed).c_str());
        run_both(("generated panel, seed " + std::to_string(seed)).c_str());
    }
}

TEST_F(Batch, SameFilesWhenThePassStopsHalfway)
{
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    /* The third domain is stored under a name its lookup cannot find. */
    testdb_exec("UPDATE domains SET name='bücher.example' WHERE id=2");
    FreshRun batched = run_both("stopped at a domain");
    EXPECT_EQ(batched.run.status, 1);
    EXPECT_NE(batched.run.err.find("domains record not found"), std::string::npos) << batched.run.err;
    EXPECT_NE(batched.tree.find("example.com:1"), std::string::npos) << "the first domain was written";

    /* Stopped after the last domain: no Components row for the antivirus. */
    testdb_exec("UPDATE domains SET name='xn--bcher-kva.example' WHERE id=2; DELETE FROM Components");
    EXPECT_EQ(run_both("no components").run.status, 1);
}

TEST_F(Batch, OtherEditorsWaitForThePassAndKeepTheirLines)
{
    testdb_exec(generated_panel(60, 8, 3).c_str());
    rebox_standins();
    load_panel_config();
    std::string assign = std::string(panel_config.QMAIL_ROOT_D) + "/users/assign";

    pid_t pass = start_rebox("--without-spam");
    /* Wait until the pass holds the lock of users/assign. */
    int busy = 0;
    for (int i = 0; i < 2000 && !busy; i++) {
        FileLock *probe = file_trylock(assign.c_str(), 1);
        busy = file_lock_busy(probe);
        if (file_lock_held(probe))
            file_unlock(probe);
        else
            file_lock_dispose(probe);
        if (!busy)
            usleep(2000);
    }
    ASSERT_TRUE(busy) << "the pass never held the lock of " << assign;
    /* Had the edit not waited for the pass, the pass's final write of the
     * file would have dropped its line. */
    int edit = file_str(assign.c_str(), "+9999:popuser:1:1:/elsewhere:::", FILE_STR_ADD, FILE_STR_AT_END);
    EXPECT_EQ(edit, 0);
    EXPECT_EQ(wait_status(pass), 0);
    std::string text = read_file(assign);
    ASSERT_GT(text.size(), 40u);
    EXPECT_TRUE(text.ends_with(".\n+9999:popuser:1:1:/elsewhere:::\n")) << text.substr(text.size() - 40);
}
