/* Hostile panel values through the real binary, with both filter passes on:
 * each refused row is skipped with a warning, nothing lands outside the
 * mail tree, every qmail file keeps its format, and the rest of the panel
 * is restored exactly as without the hostile rows. */
#include "support/rebox_run.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <regex>
#include <string>
#include <vector>

namespace {

/* Loaded after the rows of each run: the antivirus and spam-filter passes
 * on, with checking for the fixture's mailboxes, the server-wide spam-filter
 * record 90 and one for every mailbox (but the one refused for its hash,
 * account 61: the spam-filter pass reads no passwords). */
const char FILTERS_ON[] =
    "UPDATE Components SET version='1.0';"
    "INSERT INTO spamfilter (id, username) VALUES (90, '*@*');"
    "INSERT INTO Components (name, version) VALUES ('drweb-qmail', '1.0');"
    "UPDATE mail SET virusfilter='any' WHERE id < 50;"
    "INSERT IGNORE INTO spamfilter (username) SELECT CONCAT(m.mail_name, '@', d.name) "
    "FROM mail m JOIN domains d ON d.id = m.dom_id WHERE m.account_id IS NULL OR m.account_id <> 61";

/* A hostile row (every hostile value holds "evil"), the warning its
 * skipping gives and how often, and the file of the fixture it leaves out
 * (relative to the mail names directory) if any. */
struct Hostile {
    const char *what;
    std::string sql;
    const char *warning;
    int count;
    const char *drop;
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
           ", 'true', 'true', 'evil@example.org', "
           "'true', 'true', 2048);"
           "INSERT INTO mail_redir (mn_id, address) VALUES (60, 'evil2@example.org');"
           "INSERT INTO mail_aliases (mn_id, alias) VALUES (60, 'evilalias')";
}

std::string policy_rows(const std::string &params)
{
    return "UPDATE DomainServices SET parameters_id=11 WHERE dom_id=1; INSERT INTO Parameters VALUES " + params;
}

std::string lines(const std::string &values_sql, const char *table_columns)
{
    return std::string("INSERT INTO ") + table_columns + " VALUES " + values_sql;
}

struct Outcome {
    CommandResult run;
    std::string tree;
    std::string outside;
};

/* masked - poppasswd hashes of plain passwords change with each run */
std::string masked(std::string text)
{
    return std::regex_replace(text, std::regex("\\$1\\$[^:\n]*"), "<hash>");
}

/* sorted_lines - the lines of a file in order: the server returns the
 * antivirus rows of domain aliases in an order that depends on the other
 * rows of the table, and users.conf means the same in any order */
std::string sorted_lines(const std::string &path)
{
    std::vector<std::string> lines;
    std::string text = read_file(path), out = file_meta(path) + "\n";
    for (size_t pos = 0, nl; (nl = text.find('\n', pos)) != std::string::npos; pos = nl + 1)
        lines.push_back(text.substr(pos, nl - pos + 1));
    std::sort(lines.begin(), lines.end());
    for (const std::string &l : lines)
        out += l;
    return out;
}

/* run_fresh - rebox --with-spam on an emptied mail tree */
Outcome run_fresh()
{
    run_command("cd \"$REBOX_SANDBOX\" && rm -rf qmail/mailnames drweb/* qmail/control/* qmail/users/* && "
                "find . -name '*.calls' -delete");
    rebox_standins();
    Outcome o;
    o.run = run_rebox("--with-spam");
    o.tree = tree_snapshot(sandbox_path("qmail/mailnames")) + tree_snapshot(sandbox_path("qmail/control")) +
             masked(tree_snapshot(sandbox_path("qmail/users"))) + sorted_lines(sandbox_path("drweb/users.conf")) +
             read_file(sandbox_path(STANDIN_SPAMCTL ".calls")) + read_file(sandbox_path(STANDIN_VIRUSCTL ".calls"));
    o.outside = run_command("cd \"$REBOX_SANDBOX\" && find . \\( -path ./qmail/mailnames -o -path ./qmail/control "
                            "-o -path ./qmail/users -o -path ./drweb -o -path ./vdo/var/lock/files -o -name '*.calls' "
                            "\\) -prune -o -type f -printf '%p %s %m\\n' -o -printf '%p %y %m\\n' | sort").out;
    return o;
}

/* expect_file_lines - every line of a file matches its format (the mail
 * names directory written as <M>) */
void expect_file_lines(const std::string &path, const std::string &format)
{
    std::string text = read_file(path), M = sandbox_path("qmail/mailnames");
    std::regex re(format);
    for (size_t pos = 0, nl; pos < text.size(); pos = nl + 1) {
        nl = text.find('\n', pos);
        ASSERT_NE(nl, std::string::npos) << path << " does not end with a newline";
        std::string line = text.substr(pos, nl - pos);
        for (size_t m; (m = line.find(M)) != std::string::npos;)
            line.replace(m, M.size(), "<M>");
        EXPECT_TRUE(std::regex_match(line, re)) << path << ": " << line;
    }
}

/* expect_formats - each qmail file, delivery file, users.conf and spamctl
 * call line by line in its own format */
void expect_formats()
{
    const std::string C = "[^/.:\\x01-\\x1f\\x7f][^/:\\x01-\\x1f\\x7f]*";
    const std::string A = "[^|/&#@\\x01-\\x1f\\x7f][^@\\x01-\\x1f\\x7f]*@[^@\\x01-\\x1f\\x7f]+";
    const std::string Q = sandbox_path("qmail/");
    expect_file_lines(Q + "users/assign", "=\\d+-" + C + ":popuser:\\d+:\\d+:<M>/" + C + "/" + C +
                                              ":::|\\+\\d+:popuser:\\d+:\\d+:<M>/" + C + ":::|\\.");
    EXPECT_EQ(read_file(Q + "users/assign").find(".\n"), read_file(Q + "users/assign").size() - 2);
    expect_file_lines(Q + "users/poppasswd", C + "(@" + C + ")?:!?[^:\\s]+:popuser:<M>/" + C + "/" + C);
    expect_file_lines(Q + "control/virtualdomains", C + ":\\d+");
    expect_file_lines(Q + "control/rcpthosts", C);
    expect_file_lines(Q + "control/rejectnonexist", C);
    CommandResult found = run_command("find '" + Q + "mailnames' -name '.qmail*'");
    for (size_t pos = 0, nl; (nl = found.out.find('\n', pos)) != std::string::npos; pos = nl + 1) {
        std::string path = found.out.substr(pos, nl - pos);
        if (path.ends_with("/.qmail-default")) {
            EXPECT_EQ(read_file(path).find('\n'), read_file(path).size() - 1) << path;
            expect_file_lines(path, "\\|bouncesaying .*|&" + A);
        } else {
            expect_file_lines(path, "\\| true|\\./Maildir/|\\|autoresponder|&" + A);
        }
    }
    expect_file_lines(sandbox_path("drweb/users.conf"), "\\[version=2\\]|allow\t(to|from|any)\tregex\t\\^" + C +
                                                             "@" + C + "\\$");
    expect_file_lines(sandbox_path(STANDIN_SPAMCTL ".calls"), "arg:[^\\x01-\\x1f\\x7f]+|end");
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
            ASSERT_NO_FATAL_FAILURE(testdb_exec(h.sql.c_str()));
            ASSERT_NO_FATAL_FAILURE(testdb_exec(FILTERS_ON));
            Outcome o = run_fresh();
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
            EXPECT_EQ(o.outside, base.outside);
            expect_formats();
            EXPECT_EQ(run_command("cd \"$REBOX_SANDBOX\" && grep -rl evil .; find . -name '*evil*'").out, "");
        }
    }
    Outcome base;
};

} // namespace

TEST_F(HostilePanel, DomainNames)
{
    const char *w = "Skipping mail domain '";
    check({
        {"path escape", domain_rows("'../../evil'"), w, 1, nullptr},
        {"slash", domain_rows("'evil/x.example'"), w, 1, nullptr},
        {"absolute path", domain_rows("'" + sandbox_root() + "/evil.example'"), w, 1, nullptr},
        {"newline", domain_rows("CONCAT('evil', CHAR(10), 'x.example')"), w, 1, nullptr},
        {"carriage return", domain_rows("CONCAT('evil.example', CHAR(13))"), w, 1, nullptr},
        {"colon", domain_rows("'evil:1.example'"), w, 1, nullptr},
        {"dots only", domain_rows("'.'"), w, 1, nullptr},
        {"quote", domain_rows("'evil''.example'"), w, 1, nullptr},
        {"control bytes", domain_rows("CONCAT('evil', CHAR(1), CHAR(127), '.example')"), w, 1, nullptr},
        {"over-long", "ALTER TABLE domains MODIFY name VARCHAR(300) NOT NULL;" +
                          domain_rows("CONCAT(REPEAT(CONCAT(REPEAT('e', 60), '.'), 4), 'evil.example')"), w, 1, nullptr},
        {"NUL byte", domain_rows("CONCAT('evil', CHAR(0), '.example')"), w, 1, nullptr},
    });
}

TEST_F(HostilePanel, MailboxAndAliasNames)
{
    const char *w = "Skipping mailbox '";
    const char *ma = "mail_aliases (mn_id, alias)";
    check({
        {"path escape", mailbox_rows("'alpha/../../../../evil'"), w, 1, nullptr},
        {"newline", mailbox_rows("CONCAT('evil', CHAR(10), 'x')"), w, 1, nullptr},
        {"colon", mailbox_rows("'evil:0:0:/root:::'"), w, 1, nullptr},
        {"dots only", mailbox_rows("'..'"), w, 1, nullptr},
        {"over-long", "ALTER TABLE mail MODIFY mail_name VARCHAR(300) NOT NULL;" +
                          mailbox_rows("CONCAT('evil', REPEAT('e', 252))"), w, 1, nullptr},
        {"NUL byte", mailbox_rows("CONCAT('evil', CHAR(0), 'x')"), w, 1, nullptr},
        {"crypt hash", mailbox_rows("'evilhash'", "61, 'crypt', CONCAT('$1$evil:0', CHAR(10), 'x')"), w, 1, nullptr},
        {"mail aliases",
         lines("(1, 'evil/../x'), (1, 'evil:x'), (1, CONCAT('evil', CHAR(13))), (1, '.evil'), "
               "(1, CONCAT('evil', CHAR(0), 'x')), (1, '" + sandbox_root() + "/evil')", ma),
         "Skipping mail alias '", 6, nullptr},
        {"domain aliases",
         lines("('evil/x.example', 1, 0, 'true'), (CONCAT('evil', CHAR(10), '.example'), 1, 0, 'true'), "
               "('evil:1.example', 1, 0, 'true'), ('../evil', 1, 0, 'true'), ('evil''.example', 1, 0, 'true')",
               "domainaliases (name, dom_id, status, mail)"),
         "Skipping domain alias '", 5, nullptr},
    });
}

TEST_F(HostilePanel, AddressesPoliciesAndSpamSettings)
{
    const char *w = "Skipping the unknown-recipient policy of mail domain 'example.com'";
    check({
        {"group members",
         lines("(1, '|evil@x.example'), (1, '/evil@x.example'), (1, '&evil@x.example'), (1, '#evil@x.example'), "
               "(1, CONCAT('evil@x.example', CHAR(10), '|/bin/sh')), (1, 'evil'), (1, 'evil@'), (1, 'a@evil@x'), "
               "(1, CONCAT('evil@x.example', CHAR(0), 'y')), (1, CONCAT('evil@x.example', CHAR(13)))",
               "mail_redir (mn_id, address)"),
         "Skipping forward address '", 10, nullptr},
        {"redirect", "UPDATE mail SET redirect='true', redir_addr='|/bin/evil' WHERE id=3",
         "Skipping forward address '", 1, nullptr},
        {"catch-all", policy_rows("(11, 'nonexist_mail', 'catch'), (11, 'catch_addr', '|evil@x.example')"), w, 1,
         "example.com/.qmail-default"},
        {"client address",
         policy_rows("(11, 'nonexist_mail', 'catch')") +
             "; UPDATE clients SET email=CONCAT('evil@x.example', CHAR(10), '|/bin/sh')",
         w, 1, "example.com/.qmail-default"},
        {"NUL in bounce text",
         policy_rows("(11, 'nonexist_mail', 'bounce'), (11, 'bounce_mess', CONCAT('evil', CHAR(0), 'x'))"), w, 1,
         "example.com/.qmail-default"},
        {"spam-filter values",
         lines("(90, 'whitelist_from', CONCAT('evil@x.example', CHAR(10), 'score ALL 0')), "
               "(90, 'blacklist_from', CONCAT('evil', CHAR(0), '@x')), (90, 'required_score', CONCAT('5', CHAR(10), "
               "'evil')), (90, 'rewrite_header', CONCAT('subject evil', CHAR(13)))",
               "spamfilter_preferences (spamfilter_id, preference, value)"),
         "of the spam filter settings for '*@*': a value must not contain a ", 4, nullptr},
    });
}
