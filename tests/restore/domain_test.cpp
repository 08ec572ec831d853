/* Runs limited to some mail domains (--domain): the real binary against the
 * test database, after a full rebuild of a generated panel of eight
 * domains.  Domain A (dom000002.example, id 2) and domain B
 * (dom000005.example, id 5) both change in the panel and drift on disk;
 * the runs are for A. */
#include "support/rebox_run.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

namespace {

const char *const FILES[] = {"qmail/control/rcpthosts", "qmail/control/virtualdomains", "qmail/users/assign",
                             "qmail/users/poppasswd", "qmail/control/rejectnonexist", "drweb/users.conf"};
const std::string A = "dom000002.example", B = "dom000005.example";

/* lines - the lines of a shared file that hold part (with), or the others,
 * in order; a password line's hash masked when masked */
std::vector<std::string> lines(const char *file, const std::string &part, bool with, bool masked = false)
{
    std::istringstream in(read_file(sandbox_path(file)));
    std::vector<std::string> out;
    for (std::string line; std::getline(in, line);) {
        if (has(line, part) != with)
            continue;
        size_t colon = line.find(':');
        if (masked && has(file, "poppasswd") && colon != std::string::npos)
            line.replace(colon + 1, line.find(':', colon + 1) - colon - 1, "*");
        out.push_back(line);
    }
    return out;
}

/* objects - inode, times, owner, mode and content of every object of a
 * domain's tree */
std::string objects(const std::string &domain)
{
    return run_command("cd \"$REBOX_SANDBOX/qmail/mailnames\" && find " + domain +
                       " -printf '%p %i %T@ %C@ %U %G %m\\n' | sort")
               .out +
           tree_snapshot(sandbox_path("qmail/mailnames/" + domain));
}

/* everything - every shared file and object but those named by except,
 * for "nothing changed" */
std::string everything(const std::string &except = "/none/")
{
    std::string all = objects(".");
    for (const char *file : FILES)
        all += has(file, except) ? "" : read_file(sandbox_path(file));
    return all + run_command("cd \"$REBOX_SANDBOX\" && find qmail/control qmail/users drweb -type f -printf '%p %i %T@\\n' | "
                             "grep -v '" + except + "' | sort").out;
}

/* The panel changes for A and B (a password, a quota, a new mailbox and
 * alias, a mailbox gone) and both drift on disk (a .qmail lost, a line
 * lost). */
const char *CHANGES = "UPDATE accounts SET type='plain', password='changed' WHERE id IN (SELECT account_id FROM mail WHERE dom_id IN (2, 5) AND mail_name='info');"
                      "UPDATE mail SET mbox_quota=2097152, virusfilter='any' WHERE dom_id IN (2, 5) AND mail_name='admin';"
                      "INSERT INTO mail (id, mail_name, dom_id, postbox, redirect, mail_group, autoresponder, virusfilter, mbox_quota)"
                      " VALUES (900, 'newbox', 2, 'false', 'false', 'false', 'false', 'any', -1),"
                      " (901, 'newbox', 5, 'false', 'false', 'false', 'false', 'any', -1);"
                      "DELETE FROM mail WHERE dom_id IN (2, 5) AND mail_name='sales';"
                      "INSERT INTO spamfilter (id, username) VALUES (900, 'admin@dom000002.example');"
                      "INSERT INTO domainaliases (name, dom_id, status, mail) VALUES ('alias2.dom000002.example', 2, 0, 'true'),"
                      " ('alias5.dom000005.example', 5, 0, 'true')";

void drift(void)
{
    for (const std::string &d : {A, B})
        unlink(sandbox_path("qmail/mailnames/" + d + "/info/.qmail").c_str());
    run_command("cd \"$REBOX_SANDBOX/qmail/control\" && grep -v '^" + A + "$' rcpthosts > r && mv r rcpthosts");
}

/* a_matches_full - A's lines and tree after the limited run are those of
 * a full rebuild of the same panel (lines as sets, hashes masked) */
void a_matches_full(void)
{
    std::vector<std::vector<std::string>> limited;
    for (const char *file : FILES)
        limited.push_back(lines(file, A, true, true));
    std::string tree = tree_snapshot(sandbox_path("qmail/mailnames/" + A));
    ASSERT_EQ(run_rebox("--with-spam").status, 0);
    for (size_t i = 0; i < std::size(FILES); i++) {
        std::vector<std::string> full = lines(FILES[i], A, true, true);
        std::sort(full.begin(), full.end());
        std::sort(limited[i].begin(), limited[i].end());
        EXPECT_EQ(limited[i], full) << FILES[i];
    }
    EXPECT_EQ(tree, tree_snapshot(sandbox_path("qmail/mailnames/" + A)));
}

} // namespace

TEST(OneDomain, EachRow)
{
    REQUIRE_SANDBOX();
    const struct Row {
        const char *what;
        const char *sql; /* run after the full rebuild */
        std::function<void()> check;
    } rows[] = {
        {"a run for A rebuilds A alone and keeps every other line and object", CHANGES, [] {
             drift();
             std::vector<std::vector<std::string>> others;
             for (const char *file : FILES)
                 others.push_back(lines(file, A, false));
             std::string b = objects(B);
             ASSERT_EQ(run_command("cp /bin/sleep \"$REBOX_SANDBOX/qmail-se\"").status, 0);
             pid_t sender = fork();
             if (sender == 0)
                 _exit(execl(sandbox_path("qmail-se").c_str(), "qmail-se", "60", (char *)nullptr));
             usleep(200000);
             CommandResult r = run_rebox("--with-spam --domain " + A);
             EXPECT_EQ(r.status, 0) << r.err;
             int st = 0;
             for (int i = 0; i < 50 && waitpid(sender, &st, WNOHANG) == 0; i++)
                 usleep(100000);
             EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGHUP) << "qmail-send rereads, status " << st;
             kill(sender, SIGKILL);
             EXPECT_EQ(standin_calls(STANDIN_QMAIL_NEWU), 1u);
             EXPECT_EQ(standin_calls(STANDIN_QMAIL_INIT), 0u) << "no restart";
             for (size_t i = 0; i < std::size(FILES); i++)
                 EXPECT_EQ(lines(FILES[i], A, false), others[i]) << FILES[i];
             EXPECT_EQ(objects(B), b);
             std::string spam = read_file(sandbox_path(STANDIN_SPAMCTL) + ".calls");
             EXPECT_TRUE(has(spam, "@" + A)) << spam;
             EXPECT_FALSE(has(spam, "@" + B) || has(spam, "--max-children")) << spam;
             a_matches_full();
         }},
        {"a run for A on an unchanged panel replaces no file but A's passwords", "", [] {
             std::string before = everything("poppasswd");
             std::vector<std::string> others = lines("qmail/users/poppasswd", A, false);
             ASSERT_EQ(run_rebox("--without-spam --domain " + A).status, 0);
             EXPECT_EQ(everything("poppasswd"), before);
             EXPECT_EQ(lines("qmail/users/poppasswd", A, false), others);
             CommandResult check = run_rebox("--check --domain=" + A);
             EXPECT_EQ(check.status, 0) << check.out;
         }},
        {"--check --domain reports its domain's drift alone and writes nothing", CHANGES, [] {
             drift();
             std::string before = everything();
             CommandResult r = run_rebox("--check --domain " + A);
             EXPECT_EQ(r.status, 2) << r.err;
             EXPECT_TRUE(has(r.out, A + "/info/.qmail")) << r.out;
             EXPECT_TRUE(has(r.out, "+" + A)) << r.out;
             EXPECT_FALSE(has(r.out, B)) << r.out;
             EXPECT_EQ(everything(), before);
         }},
        {"an alias's name restores its domain", CHANGES, [] {
             CommandResult r = run_rebox("--without-spam --domain alias2." + A);
             EXPECT_EQ(r.status, 0) << r.err;
             EXPECT_EQ(lines("qmail/control/virtualdomains", "alias2", true), std::vector<std::string>{"alias2." + A + ":2"});
             a_matches_full();
         }},
        {"a name nobody knows ends the run with nothing changed", CHANGES, [] {
             std::string before = everything();
             CommandResult r = run_rebox("--without-spam --domain nowhere.example --domain " + A);
             EXPECT_EQ(r.status, 1);
             EXPECT_TRUE(has(r.err, "Unknown mail domain 'nowhere.example'")) << r.err;
             EXPECT_EQ(everything(), before);
             EXPECT_EQ(standin_calls(STANDIN_QMAIL_NEWU), 0u);
         }},
        {"a dropped domain's records leave, its mail stays", "DELETE FROM DomainServices WHERE dom_id = 2", [] {
             std::string mail = sandbox_path("qmail/mailnames/" + A + "/info/Maildir/new/1.mail");
             write_file(mail, "Subject: kept\n");
             std::vector<std::string> others = lines("qmail/users/assign", A, false);
             CommandResult r = run_rebox("--without-spam --domain " + A);
             EXPECT_EQ(r.status, 0) << r.err;
             EXPECT_TRUE(has(r.err, "mail domain '" + A + "' is not in the panel")) << r.err;
             for (const char *file : FILES)
                 EXPECT_EQ(lines(file, A, true), std::vector<std::string>{}) << file;
             EXPECT_EQ(lines("qmail/users/assign", A, false), others);
             EXPECT_EQ(read_file(mail), "Subject: kept\n");
         }},
        {"a refused query ends the run with nothing changed", CHANGES, [] {
             drift();
             std::string before = everything();
             testdb_exec("RENAME TABLE mail_aliases TO mail_aliases_gone");
             CommandResult r = run_rebox("--without-spam --domain " + A);
             EXPECT_EQ(r.status, 1);
             EXPECT_TRUE(has(r.err, "Unable to query alias for mail: ")) << r.err;
             EXPECT_EQ(everything(), before);
         }},
        {"two runs for different domains at once both land", CHANGES, [] {
             drift();
             pid_t first = start_rebox(("--without-spam --domain " + A).c_str());
             CommandResult second = run_rebox("--without-spam --domain " + B);
             EXPECT_EQ(second.status, 0) << second.err;
             EXPECT_EQ(wait_status(first), 0) << read_file(sandbox_path("rebox.err"));
             /* Nothing left to do but the removed mailboxes' directories,
              * which stay as a full rebuild leaves them. */
             CommandResult check = run_rebox("--check --domain " + A + " --domain " + B);
             EXPECT_EQ(check.out, "surplus " + sandbox_path("qmail/mailnames/" + A + "/sales") + "\nsurplus " +
                                      sandbox_path("qmail/mailnames/" + B + "/sales") + "\n");
         }},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        testdb_exec(generated_panel(8, 4, 3).c_str());
        run_command("cd \"$REBOX_SANDBOX\" && rm -rf qmail/mailnames qmail/control/* qmail/users/* drweb/users.conf");
        rebox_standins();
        ASSERT_EQ(run_rebox("--with-spam").status, 0);
        if (*row.sql)
            testdb_exec(row.sql);
        rebox_standins();
        row.check();
    }
}
