/* The batched rebuild against the record-by-record one: the same trees, the
 * same messages and exit status, also when the pass stops halfway; and
 * other editors of the shared files wait for the pass and lose nothing. */
#include "fs/file_lock.h"
#include "fs/file_str.h"
#include "runtime/config.h"
#include "support/rebox_run.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

struct Outcome {
    CommandResult run;
    std::string tree;
};

/* mask_hashes - plain passwords are hashed with a salt of the run's second:
 * keep every poppasswd field but the MD5-crypt hash itself */
std::string mask_hashes(const std::string &text)
{
    std::string out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        std::string line = text.substr(pos, nl == std::string::npos ? std::string::npos : nl - pos);
        size_t a = line.find(':'), b = line.find(':', a + 1);
        if (a != std::string::npos && b != std::string::npos && line.find("$1$", a) < b)
            line = line.substr(0, line.find("$1$", a)) + "<md5-crypt>" + line.substr(b);
        out += line + "\n";
        pos = nl == std::string::npos ? text.size() : nl + 1;
    }
    return out;
}

/* run_fresh - one run of a binary on emptied qmail and antivirus trees;
 * the record-by-record variant runs under the name rebox too, so that the
 * messages compare */
Outcome run_fresh(const char *binary, const char *mode)
{
    if (std::string(binary) == REBOX_PER_RECORD_EXE) {
        run_command("mkdir -p '" + sandbox_path("per-record") + "' && ln -sf " + binary + " '" +
                    sandbox_path("per-record/rebox") + "'");
        binary = "\"$REBOX_SANDBOX/per-record/rebox\"";
    }
    run_command("rm -rf '" + sandbox_path("qmail/mailnames") + "' '" + sandbox_path("drweb") + "'/*; " +
                "for f in control/rcpthosts control/virtualdomains control/rejectnonexist users/assign "
                "users/poppasswd; do rm -f '" + sandbox_path("qmail/") + "'$f; done");
    rebox_standins();
    Outcome o;
    o.run = run_command(std::string(binary) + " " + mode);
    o.tree = tree_snapshot(sandbox_path("qmail/mailnames")) + tree_snapshot(sandbox_path("qmail/control")) +
             tree_snapshot(sandbox_path("drweb"));
    std::string users = tree_snapshot(sandbox_path("qmail/users"));
    o.tree += mask_hashes(users);
    return o;
}

/* generated_panel - SQL of a synthetic panel from the benchmark generator */
std::string generated_panel(int domains, int per_domain, int seed)
{
    std::string generator = std::string(REBOX_TEST_FIXTURES_DIR) + "/../../bench/generate";
    CommandResult r = run_command(generator + " " + std::to_string(domains) + " " + std::to_string(per_domain) +
                                  " " + std::to_string(seed));
    EXPECT_EQ(r.status, 0) << r.err;
    return r.out;
}

class Batch : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
    }
    void expect_same(const char *what)
    {
        Outcome batched = run_fresh(REBOX_EXE, "--without-spam");
        Outcome one = run_fresh(REBOX_PER_RECORD_EXE, "--without-spam");
        EXPECT_EQ(batched.run.status, one.run.status) << what;
        EXPECT_EQ(batched.run.out, one.run.out) << what;
        EXPECT_EQ(batched.run.err, one.run.err) << what;
        EXPECT_EQ(batched.tree, one.tree) << what;
        EXPECT_NE(batched.tree.find("users/"), 0u);
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
    expect_same("full panel");
    for (int seed = 1; seed <= 2; seed++) {
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        std::string sql = generated_panel(15, 4, seed);
        testdb_exec(sql.c_str());
        expect_same(("generated panel, seed " + std::to_string(seed)).c_str());
    }
}

TEST_F(Batch, SameFilesWhenThePassStopsHalfway)
{
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    /* The third domain is stored under a name its lookup cannot find. */
    testdb_exec("UPDATE domains SET name='bücher.example' WHERE id=2");
    Outcome batched = run_fresh(REBOX_EXE, "--without-spam");
    EXPECT_EQ(batched.run.status, 1);
    EXPECT_NE(batched.run.err.find("domains record not found"), std::string::npos) << batched.run.err;
    EXPECT_NE(batched.tree.find("example.com:1"), std::string::npos) << "the first domain was written";
    Outcome one = run_fresh(REBOX_PER_RECORD_EXE, "--without-spam");
    EXPECT_EQ(batched.run.status, one.run.status);
    EXPECT_EQ(batched.run.err, one.run.err);
    EXPECT_EQ(batched.tree, one.tree);

    /* Stopped after the last domain: no Components row for the antivirus. */
    ASSERT_NO_FATAL_FAILURE(testdb_reset());
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    testdb_exec("DELETE FROM Components");
    expect_same("no components");
}

TEST_F(Batch, OtherEditorsWaitForThePassAndKeepTheirLines)
{
    std::string sql = generated_panel(60, 8, 3);
    testdb_exec(sql.c_str());
    rebox_standins();
    load_panel_config();
    std::string assign = std::string(panel_config.QMAIL_ROOT_D) + "/users/assign";

    pid_t pass = fork();
    if (pass == 0) {
        execl("/bin/sh", "sh", "-c", (std::string(REBOX_EXE) + " --without-spam >/dev/null 2>&1").c_str(),
              (char *)nullptr);
        _exit(127);
    }
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
    int status = 0;
    waitpid(pass, &status, 0);
    EXPECT_EQ(edit, 0);
    EXPECT_EQ(WEXITSTATUS(status), 0);
    std::string text = read_file(assign);
    ASSERT_GT(text.size(), 40u);
    EXPECT_EQ(text.substr(text.size() - 34), ".\n+9999:popuser:1:1:/elsewhere:::\n");
}
