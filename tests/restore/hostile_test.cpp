/* Hostile panel values and planted links through the real binary, both
 * filter passes on: each is skipped or replaced with a warning, and all the
 * run writes comes out as without it. */
#include "support/rebox_run.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <grp.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

namespace {

/* Both filter passes on, with a spam-filter record server-wide (90) and for
 * every mailbox but account 61's (refused for its hash, which the spam pass
 * never reads). */
const char FILTERS_ON[] =
    "UPDATE Components SET version='1.0'; INSERT INTO spamfilter (id, username) VALUES (90, '*@*');"
    "INSERT INTO Components (name, version) VALUES ('drweb-qmail', '1.0');"
    "UPDATE mail SET virusfilter='any' WHERE id < 50;"
    "INSERT IGNORE INTO spamfilter (username) SELECT CONCAT(m.mail_name, '@', d.name) "
    "FROM mail m JOIN domains d ON d.id = m.dom_id WHERE m.account_id IS NULL OR m.account_id <> 61";

/* A hostile row (its values hold "evil"), its warning, how often, and the
 * mail tree file it leaves out. */
struct Hostile {
    const char *what;
    std::string sql;
    const char *warning;
    int count = 1;
    const char *drop = nullptr;
};

/* domain_rows - domain 10 under a name, with an alias, a mailbox, its
 * forward and alias: none of it may be written */
std::string domain_rows(const std::string &name)
{
    return "INSERT INTO domains (id, name, cl_id) VALUES (10, " + name + ", 1);"
           "INSERT INTO DomainServices (dom_id, type, parameters_id) VALUES (10, 'mail', 10);"
           "INSERT INTO Parameters VALUES (10, 'nonexist_mail', 'reject');"
           "INSERT INTO domainaliases (name, dom_id, status, mail) VALUES ('evilalias.example', 10, 0, 'true');"
           "INSERT INTO mail (id, mail_name, dom_id, postbox, redirect, redir_addr) VALUES "
           "(60, 'evilbox', 10, 'true', 'true', 'evil@example.org');"
           "INSERT INTO mail_aliases (mn_id, alias) VALUES (60, 'evilalias')";
}

/* mailbox_rows - a mailbox of example.com with every feature */
std::string mailbox_rows(const std::string &name, const std::string &account = "60, 'plain', 'secret'")
{
    return "INSERT INTO accounts (id, type, password) VALUES (" + account + ");"
           "INSERT INTO mail (id, mail_name, dom_id, account_id, postbox, redirect, redir_addr, mail_group, "
           "autoresponder, mbox_quota) VALUES (60, " + name + ", 1, " + account.substr(0, 2) +
           ", 'true', 'true', 'evil@example.org', 'true', 'true', 2048);"
           "INSERT INTO mail_redir (mn_id, address) VALUES (60, 'evil2@example.org');"
           "INSERT INTO mail_aliases (mn_id, alias) VALUES (60, 'evilalias')";
}

std::string policy_rows(const std::string &params)
{
    return "UPDATE DomainServices SET parameters_id=11 WHERE dom_id=1; INSERT INTO Parameters VALUES " + params;
}

/* run_fresh - fresh_run of rebox --with-spam, with users.conf sorted (its
 * domain alias rows come in no fixed order) and what lies beyond the tree */
FreshRun run_fresh(bool empty = true)
{
    FreshRun o = fresh_run(REBOX_EXE " --with-spam", empty);
    std::string conf = sandbox_path("drweb/users.conf");
    o.tree += file_meta(conf) + "\n" + run_command("LC_ALL=C sort '" + conf + "'").out +
              run_command("cd \"$REBOX_SANDBOX\" && find . \\( -path ./qmail/mailnames -o -path ./qmail/control "
                          "-o -path ./qmail/users -o -path ./drweb -o -path ./vdo/var/lock/files -o -name '*.calls' "
                          "\\) -prune -o -type f -printf '%p %s %m\\n' -o -printf '%p %y %m\\n' | sort").out;
    return o;
}

class HostilePanel : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
        testdb_exec(FILTERS_ON);
        base = run_fresh();
        ASSERT_EQ(base.run.status, 0) << base.run.err;
        ASSERT_NE(base.tree.find("alpha"), std::string::npos);
    }
    void check(const std::vector<Hostile> &table)
    {
        for (const Hostile &h : table) {
            SCOPED_TRACE(h.what);
            ASSERT_NO_FATAL_FAILURE(testdb_reset());
            ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
            ASSERT_NO_FATAL_FAILURE(testdb_exec((h.sql + ";" + FILTERS_ON).c_str()));
            FreshRun o = run_fresh();
            EXPECT_EQ(o.run.status, 0) << o.run.err;
            int warnings = 0;
            for (size_t p = 0; (p = o.run.err.find(h.warning, p)) != std::string::npos; p++)
                warnings++;
            EXPECT_EQ(warnings, h.count) << o.run.err;
            std::string expected = base.tree;
            if (h.drop != nullptr) {
                size_t at = expected.find(std::string("\n") + h.drop + " ");
                ASSERT_NE(at, std::string::npos) << h.drop;
                expected.erase(at + 1, expected.find("<<end\n", at) + 5 - at);
            }
            EXPECT_EQ(o.tree, expected);
            EXPECT_EQ(run_command("cd \"$REBOX_SANDBOX\" && grep -rl evil .; find . -name '*evil*'").out, "");
        }
    }
    FreshRun base;
};

} // namespace

TEST_F(HostilePanel, RowsAreSkippedAndChangeNothingElse)
{
    const char *w = "Skipping mail domain '", *box = "Skipping mailbox '";
    const char *policy = "Skipping the unknown-recipient policy of mail domain 'example.com'";
    const char *qdefault = "example.com/.qmail-default";
    check({
        {"path escape", domain_rows("'../../evil'"), w},
        {"colon", domain_rows("'evil:1.example'"), w},
        {"dots only", domain_rows("'.'"), w},
        {"quote", domain_rows("'evil''.example'"), w},
        {"control bytes", domain_rows("CONCAT('evil', CHAR(1), CHAR(127), '.example')"), w},
        {"over-long", "ALTER TABLE domains MODIFY name VARCHAR(300) NOT NULL;" +
                          domain_rows("CONCAT(REPEAT(CONCAT(REPEAT('e', 60), '.'), 4), 'evil.example')"), w},
        {"NUL byte", domain_rows("CONCAT('evil', CHAR(0), '.example')"), w},
        {"mailbox path escape", mailbox_rows("'alpha/../../../../evil'"), box},
        {"mailbox colon", mailbox_rows("'evil:0:0:/root:::'"), box},
        {"over-long mailbox", "ALTER TABLE mail MODIFY mail_name VARCHAR(300) NOT NULL;" +
                                  mailbox_rows("CONCAT('evil', REPEAT('e', 252))"), box},
        {"NUL in mailbox", mailbox_rows("CONCAT('evil', CHAR(0), 'x')"), box},
        {"crypt hash", mailbox_rows("'evilhash'", "61, 'crypt', CONCAT('$1$evil:0', CHAR(10), 'x')"), box},
        {"mail aliases",
         "INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'evil/../x'), (1, 'evil:x'), "
         "(1, CONCAT('evil', CHAR(13))), (1, '.evil'), (1, CONCAT('evil', CHAR(0), 'x'))",
         "Skipping mail alias '", 5},
        {"domain aliases",
         "INSERT INTO domainaliases (name, dom_id, status, mail) VALUES ('evil/x.example', 1, 0, 'true'), "
         "(CONCAT('evil', CHAR(10), '.example'), 1, 0, 'true'), ('evil:1.example', 1, 0, 'true'), "
         "('evil''.example', 1, 0, 'true')",
         "Skipping domain alias '", 4},
        {"group members",
         "INSERT INTO mail_redir (mn_id, address) VALUES (1, '|evil@x.example'), (1, '/evil@x.example'), "
         "(1, '&evil@x.example'), (1, CONCAT('evil@x.example', CHAR(10), '|/bin/sh')), (1, 'evil'), "
         "(1, 'a@evil@x'), (1, CONCAT('evil@x.example', CHAR(0), 'y'))",
         "Skipping forward address '", 7},
        {"redirect", "UPDATE mail SET redirect='true', redir_addr='|/bin/evil' WHERE id=3",
         "Skipping forward address '"},
        {"catch-all", policy_rows("(11, 'nonexist_mail', 'catch'), (11, 'catch_addr', '|evil@x.example')"), policy, 1,
         qdefault},
        {"client address",
         policy_rows("(11, 'nonexist_mail', 'catch')") +
             "; UPDATE clients SET email=CONCAT('evil@x.example', CHAR(10), '|/bin/sh')",
         policy, 1, qdefault},
        {"NUL in client address",
         policy_rows("(11, 'nonexist_mail', 'catch')") + "; UPDATE clients SET email=CONCAT('evil@x.example', CHAR(0), 'y')",
         policy, 1, qdefault},
        {"NUL in bounce text",
         policy_rows("(11, 'nonexist_mail', 'bounce'), (11, 'bounce_mess', CONCAT('evil', CHAR(0), 'x'))"), policy, 1,
         qdefault},
        {"spam-filter values",
         "INSERT INTO spamfilter_preferences (spamfilter_id, preference, value) VALUES (90, 'whitelist_from', "
         "CONCAT('evil@x.example', CHAR(10), 'score ALL 0')), (90, 'blacklist_from', CONCAT('evil', CHAR(0), '@x')), "
         "(90, 'rewrite_header', CONCAT('subject evil', CHAR(13)))",
         "of the spam filter settings for '*@*': a value must not contain a ", 3},
    });
}

/* popuser's links in the mail tree to what is outside (or second names of
 * a file outside holding the very text a run writes): none is followed,
 * each is replaced with one warning, and the outside keeps its content and
 * names. */
TEST_F(HostilePanel, PlantedLinks)
{
    struct Row {
        std::string path, ln, target; /* target victim/f: a copy of what is at path */
    };
    std::vector<Row> rows;
    for (const char *p : {"example.com/alpha", "example.com/alpha/Maildir", "example.com/alpha/Maildir/tmp",
                          "example.com/alpha/Maildir/new", "example.com/alpha/Maildir/cur",
                          "example.com/alpha/@attachments", "example.com/alpha/.qmail",
                          "xn--bcher-kva.example/.qmail-default", "example.com/alpha/@mbox.quota",
                          "example.com/@mbox.quota", "example.com"})
        for (const char *target : {"victim/dir", "victim/file"})
            rows.push_back({p, "ln -s", target});
    for (const char *p : {"example.com/alpha/.qmail", "example.com/alpha/@mbox.quota"})
        for (const char *ln : {"ln -s", "ln"})
            rows.push_back({p, ln, "victim/f"});
    const std::string outside = "cd \"$REBOX_SANDBOX\" && find victim -printf '%p %n\\n' | sort";
    for (const Row &row : rows) {
        SCOPED_TRACE(row.ln + " " + row.target + " " + row.path);
        std::string at = "qmail/mailnames/" + row.path;
        run_command("cd \"$REBOX_SANDBOX\" && rm -rf victim && mkdir -p victim/dir && echo v > victim/file && "
                    "echo v > victim/dir/f" + (row.target == "victim/f" ? " && cp -p " + at + " victim/f" : ""));
        std::string victim = tree_snapshot(sandbox_path("victim")) + run_command(outside).out;
        ASSERT_EQ(run_command("cd \"$REBOX_SANDBOX\" && rm -rf " + at + " && " + row.ln + " \"$REBOX_SANDBOX\"/" +
                              row.target + " " + at + " && chown -h \"$REBOX_POPUSER_UID:$REBOX_POPUSER_GID\" " + at)
                      .status, 0);
        FreshRun o = run_fresh(false);
        EXPECT_EQ(o.run.status, 0) << o.run.err;
        EXPECT_EQ(tree_snapshot(sandbox_path("victim")) + run_command(outside).out, victim);
        EXPECT_TRUE(has(o.run.err, "Replacing " + sandbox_path(at) + ": ")) << o.run.err;
        EXPECT_EQ(o.run.err.find("Replacing "), o.run.err.rfind("Replacing ")) << o.run.err;
        EXPECT_EQ(std::regex_replace(o.tree, std::regex("\\./victim.*\n"), ""), base.tree);
    }

    /* root's link to a domain directory moved to another disk is followed. */
    run_command("cd \"$REBOX_SANDBOX\" && mkdir -p disk && mv qmail/mailnames/example.com disk/ && "
                "ln -s \"$REBOX_SANDBOX/disk/example.com\" qmail/mailnames/example.com && "
                "echo mail > disk/example.com/alpha/Maildir/new/1");
    FreshRun moved = run_fresh(false);
    EXPECT_EQ(moved.run.status, 0) << moved.run.err;
    EXPECT_EQ(read_file(sandbox_path("qmail/mailnames/example.com/alpha/Maildir/new/1")), "mail\n");
    run_command("cd \"$REBOX_SANDBOX\" && rm -r qmail/mailnames/example.com victim && mv disk/example.com qmail/mailnames/ && "
                "rmdir disk && rm qmail/mailnames/example.com/alpha/Maildir/new/1");
    EXPECT_TRUE(has(moved.tree, "example.com 0777 0 0 link ")) << moved.tree;
    EXPECT_EQ(run_fresh(false).tree, base.tree);
}

/* race - as popuser, swap each of paths for a link to target and back, as
 * fast as it can, until killed */
[[noreturn]] void race(const std::vector<std::string> &paths, const std::string &target)
{
    if (setgroups(0, nullptr) != 0 || setgid(atoi(getenv("REBOX_POPUSER_GID"))) != 0
        || setuid(atoi(getenv("REBOX_POPUSER_UID"))) != 0)
        _exit(1);
    for (;;)
        for (const std::string &p : paths) {
            std::string kept = p + ".kept";
            if (rename(p.c_str(), kept.c_str()) == 0 && symlink(target.c_str(), p.c_str()) == 0) {
                unlink(p.c_str());
                rename(kept.c_str(), p.c_str());
            }
        }
}

/* popuser swapping its files for links outside while rebuilds run: each
 * succeeds, nothing outside changes, no mail is lost. */
TEST_F(HostilePanel, PopuserRacingTheRunsLosesNothing)
{
    std::string names = sandbox_path("qmail/mailnames/example.com/"), outside = sandbox_path("victim");
    run_command("mkdir -p " + outside + " && echo v > " + outside + "/f");
    std::string victim = tree_snapshot(outside);
    std::vector<std::string> paths;
    for (const char *box : {"alpha", "bravo", "charlie"}) {
        std::string home = names + box;
        write_file(home + "/Maildir/new/" + box + ".mail", "stored\n");
        for (const char *p : {"", "/Maildir", "/@attachments", "/.qmail", "/Maildir/cur"})
            paths.push_back(home + p);
    }
    run_command("chown -R \"$REBOX_POPUSER_UID:$REBOX_POPUSER_GID\" " + names);
    std::string shared = run_command("cd \"$REBOX_SANDBOX/qmail\" && cat control/* users/assign").out;

    pid_t racer = fork();
    if (racer == 0)
        race(paths, outside);
    for (int run = 0; run < 8; run++) {
        SCOPED_TRACE(run);
        CommandResult r = run_rebox("--with-spam");
        EXPECT_EQ(r.status, 0) << r.err;
        EXPECT_EQ(run_command("cd \"$REBOX_SANDBOX/qmail\" && cat control/* users/assign").out, shared);
    }
    kill(racer, SIGKILL);
    waitpid(racer, nullptr, 0);
    EXPECT_EQ(tree_snapshot(outside), victim);
    for (const char *box : {"alpha", "bravo", "charlie"})
        EXPECT_EQ(run_command("find " + names + " -name " + box + ".mail -type f | wc -l").out, "1\n")
            << box << run_command("find " + names + " -ls").out;
}

/* root's link in the mail names directory is followed only through
 * directories root holds, else skipped with one warning; one deeper is
 * never followed nor removed.  Nothing outside changes. */
TEST_F(HostilePanel, RootLinksAreFollowedOnlySafelyAndNeverRemoved)
{
    std::string names = sandbox_path("qmail/mailnames/"), victim = sandbox_path("victim");
    std::string shared = run_command("cd \"$REBOX_SANDBOX/qmail\" && cat control/* users/assign").out;
    std::string unsafe = "Skipping the mail directory of disabled.example: the link " + names +
                         "disabled.example cannot be followed: another user may change a directory on its way";
    struct {
        const char *what;
        std::string setup, link, target, warning;
        bool race;
    } rows[] = {
        {"target below popuser's directory",
         "mkdir example.com/moved && chown $REBOX_POPUSER_UID example.com/moved && rm -r disabled.example",
         "disabled.example", names + "example.com/moved", unsafe, true},
        {"target below root's directory its group may write",
         "mkdir -p ../../disk/d && chgrp $REBOX_POPUSER_GID ../../disk && chmod 0775 ../../disk && rm -r disabled.example",
         "disabled.example", sandbox_path("disk/d"), unsafe, false},
        {"target below root's directory others may write",
         "mkdir -p ../../disk/d && chmod 0757 ../../disk && rm -r disabled.example", "disabled.example",
         sandbox_path("disk/d"), unsafe, false},
        {"a link on the target's way", "mkdir -p ../../disk/real/d && ln -s real ../../disk/via && rm -r disabled.example",
         "disabled.example", sandbox_path("disk/via/d"), "cannot be followed: " + std::string(strerror(ENOTDIR)), false},
        {"dangling", "rm -r disabled.example", "disabled.example", sandbox_path("nodisk/disabled.example"),
         "cannot be followed: No such file or directory", false},
        {"mailbox home", "mkdir -p ../../disk && mv example.com/alpha ../../disk/", "example.com/alpha",
         sandbox_path("disk/alpha"), "Skipping the mail directories of " + names + "example.com/alpha: ", false},
    };
    for (auto &row : rows) {
        SCOPED_TRACE(row.what);
        ASSERT_EQ(run_fresh().run.status, 0);
        run_command("rm -rf " + victim + " && mkdir -p " + victim + " && echo v > " + victim + "/f");
        ASSERT_EQ(run_command("cd " + names + " && " + row.setup + " && ln -s " + row.target + " " + row.link).status, 0);
        std::string outside = tree_snapshot(victim) + tree_snapshot(sandbox_path("disk"));
        pid_t racer = row.race ? fork() : -1;
        if (racer == 0)
            race({row.target}, victim);
        for (int run = 0; run < (row.race ? 4 : 1); run++) {
            CommandResult r = run_rebox("--with-spam");
            EXPECT_EQ(r.status, 0) << r.err;
            EXPECT_TRUE(has(r.err, row.warning)) << r.err;
            EXPECT_EQ(r.err.find("Skipping"), r.err.rfind("Skipping")) << r.err;
            EXPECT_EQ(run_command("cd \"$REBOX_SANDBOX/qmail\" && cat control/* users/assign").out, shared);
        }
        if (racer > 0) {
            kill(racer, SIGKILL);
            waitpid(racer, nullptr, 0);
        }
        EXPECT_EQ(run_command("readlink " + names + row.link).out, row.target + "\n");
        EXPECT_EQ(tree_snapshot(victim) + tree_snapshot(sandbox_path("disk")), outside);
        run_command("rm -rf " + names + row.link + " " + sandbox_path("disk"));
    }
}
