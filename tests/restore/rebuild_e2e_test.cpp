/* End-to-end tests of the rebuild: the real binary, as root in the sandbox,
 * against the test database. */
#include "support/rebox_run.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <crypt.h>
#include <regex>
#include <string>
#include <vector>

namespace {

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> out;
    size_t pos = 0;
    while (pos < text.size()) {
        size_t nl = text.find('\n', pos);
        if (nl == std::string::npos)
            nl = text.size();
        out.push_back(text.substr(pos, nl - pos));
        pos = nl + 1;
    }
    return out;
}

/* field - the n-th colon-separated field of a line */
std::string field(const std::string &line, int n)
{
    size_t start = 0;
    for (int i = 0; i < n; i++)
        start = line.find(':', start) + 1;
    return line.substr(start, line.find(':', start) - start);
}

class RebuildE2E : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        rebox_standins();
        M = sandbox_path("qmail/mailnames");
        pop = std::to_string(7781);
    }
    std::string qmail(const char *rel) { return read_file(sandbox_path(std::string("qmail/") + rel)); }
    std::string M, pop;
};

} // namespace

TEST_F(RebuildE2E, FullPanelWritesEveryRecordAndIsStableAcrossRuns)
{
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    /* Leftovers of an earlier state that the rebuild must throw away. */
    write_file(sandbox_path("qmail/control/rcpthosts"), "stale.example\n");
    write_file(sandbox_path("qmail/users/assign"), "+9:popuser:1:1:/x:::\n.\n");
    write_file(sandbox_path("qmail/users/poppasswd"), "old:x:popuser:/x/old\n");

    CommandResult r = run_rebox("--without-spam");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");

    std::string rec = ":popuser:" + pop + ":" + pop + ":" + M + "/";
    std::vector<std::string> assign = {
        "=3-user" + rec + "disabled.example/user:::",
        "+3" + rec + "disabled.example:::",
        "=2-postmaster" + rec + "xn--bcher-kva.example/postmaster:::",
        "+2" + rec + "xn--bcher-kva.example:::",
        "=1-echo" + rec + "example.com/echo:::",
        "=1-delta" + rec + "example.com/delta:::",
        "=1-charlie" + rec + "example.com/charlie:::",
        "=1-bravo" + rec + "example.com/bravo:::",
        "=1-sales" + rec + "example.com/alpha:::",
        "=1-contact" + rec + "example.com/alpha:::",
        "=1-alpha" + rec + "example.com/alpha:::",
        "+1" + rec + "example.com:::",
        ".",
    };
    EXPECT_EQ(lines_of(qmail("users/assign")), assign);
    EXPECT_EQ(qmail("control/rcpthosts"), "example.com\nexample.net\nxn--mller-kva.example\nxn--bcher-kva.example\nalias3.example\n");
    EXPECT_EQ(qmail("control/virtualdomains"),
              "example.com:1\nexample.net:1\nxn--mller-kva.example:1\nxn--bcher-kva.example:2\nalias3.example:3\n");
    EXPECT_EQ(qmail("control/rejectnonexist"), "disabled.example\nalias3.example\n");
    EXPECT_EQ(file_meta(sandbox_path("qmail/users/assign")).substr(0, 4), "0600");
    EXPECT_EQ(file_meta(sandbox_path("qmail/control/rejectnonexist")).substr(0, 4), "0644");

    /* POP3: plain passwords share one MD5-crypt hash, the stored hash is
     * kept, no account means the empty password, a disabled domain gets
     * "!", a mailbox without postbox has no line. */
    std::vector<std::string> pw = lines_of(qmail("users/poppasswd"));
    ASSERT_EQ(pw.size(), 5u) << qmail("users/poppasswd");
    std::vector<std::string> logins, homes;
    for (const std::string &l : pw) {
        logins.push_back(field(l, 0));
        EXPECT_EQ(field(l, 2), "popuser");
        homes.push_back(field(l, 3));
    }
    EXPECT_EQ(logins, (std::vector<std::string>{"alpha", "bravo", "charlie", "delta", "user"}));
    EXPECT_EQ(homes[0], M + "/example.com/alpha");
    EXPECT_EQ(homes[4], M + "/disabled.example/user");
    std::string h_alpha = field(pw[0], 1), h_charlie = field(pw[2], 1), h_user = field(pw[4], 1);
    EXPECT_TRUE(std::regex_match(h_alpha, std::regex("\\$1\\$[./0-9A-Za-z]{8}\\$[./0-9A-Za-z]{22}"))) << h_alpha;
    EXPECT_EQ(h_alpha, field(pw[3], 1));
    EXPECT_EQ(crypt("secret", h_alpha.c_str()), h_alpha);
    EXPECT_EQ(field(pw[1], 1), "$1$abcdefgh$0123456789abcdefghijkl");
    EXPECT_EQ(crypt("", h_charlie.c_str()), h_charlie);
    ASSERT_EQ(h_user[0], '!');
    EXPECT_EQ(crypt("pw", h_user.c_str() + 1), h_user.substr(1));
    EXPECT_EQ(h_alpha.substr(0, 12), h_charlie.substr(0, 12)) << "one salt per run";

    /* Delivery files, policy files and quotas, with owners and modes. */
    std::string d1 = M + "/example.com";
    EXPECT_EQ(read_file(d1 + "/alpha/.qmail"),
              "| true\n./Maildir/\n&a@example.org\n&boss@xn--bcher-kva.example\n|autoresponder\n");
    EXPECT_EQ(read_file(d1 + "/echo/.qmail"), "| true\n");
    EXPECT_EQ(read_file(d1 + "/bravo/.qmail"), "| true\n./Maildir/\n");
    EXPECT_EQ(read_file(d1 + "/.qmail-default"),
              "|bouncesaying This\\ address\\ no\\ longer\\ accepts\\ mail.\n");
    EXPECT_EQ(read_file(M + "/xn--bcher-kva.example/.qmail-default"),
              "&postmaster@xn--bcher-kva.example\n");
    EXPECT_EQ(file_meta(M + "/disabled.example/.qmail-default"), "missing");
    EXPECT_EQ(read_file(d1 + "/@mbox.quota"), "10240\n");
    EXPECT_EQ(read_file(d1 + "/alpha/@mbox.quota"), "1024\n");
    EXPECT_EQ(read_file(d1 + "/charlie/@mbox.quota"), "0\n");
    EXPECT_EQ(read_file(d1 + "/delta/@mbox.quota"), "0\n");
    EXPECT_EQ(file_meta(d1 + "/bravo/@mbox.quota"), "missing");
    std::string owned = " " + pop + " " + pop;
    EXPECT_EQ(file_meta(M), "0755 0 7780");
    for (const char *dir : {"", "/alpha", "/alpha/Maildir", "/alpha/Maildir/tmp", "/alpha/Maildir/new",
                            "/alpha/Maildir/cur", "/alpha/@attachments"})
        EXPECT_EQ(file_meta(d1 + dir), "0700" + owned) << dir;
    EXPECT_EQ(file_meta(d1 + "/alpha/.qmail"), "0600" + owned);
    EXPECT_EQ(file_meta(d1 + "/.qmail-default"), "0600" + owned);
    EXPECT_EQ(file_meta(d1 + "/alpha/@mbox.quota"), "0640" + owned);
    EXPECT_EQ(file_meta(M + "/nomail.example"), "missing");

    /* Finishing steps, once each; the antivirus pass did not run. */
    EXPECT_EQ(read_calls(sandbox_path(STANDIN_QMAIL_NEWU)).size(), 1u);
    EXPECT_EQ(read_calls(sandbox_path(STANDIN_QMAIL_INIT)),
              (std::vector<std::vector<std::string>>{{"restart"}}));
    EXPECT_TRUE(read_calls(sandbox_path(STANDIN_VIRUSCTL)).empty());

    /* A second run rebuilds the very same tree (plain hashes aside, which
     * change with the second the run starts in). */
    auto masked = [&] {
        std::string s = tree_snapshot(sandbox_path("qmail/mailnames")) + qmail("users/assign") +
                        qmail("control/rcpthosts") + qmail("control/virtualdomains") +
                        qmail("control/rejectnonexist");
        for (const std::string &l : lines_of(qmail("users/poppasswd")))
            s += field(l, 0) + ":" + field(l, 3) + "\n";
        return s;
    };
    std::string first = masked();
    r = run_rebox("without-spam");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(masked(), first);
}

TEST_F(RebuildE2E, EmptyServerAndFinishingStatuses)
{
    testdb_exec("INSERT INTO Components (name, version) VALUES ('drweb', 'not_installed')");
    rebox_standins(3, 0);
    CommandResult r = run_rebox("--without-spam");
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_EQ(qmail("control/rcpthosts"), "");
    EXPECT_EQ(qmail("control/virtualdomains"), "");
    EXPECT_EQ(qmail("users/poppasswd"), "");
    EXPECT_EQ(qmail("users/assign"), ".\n");

    rebox_standins(0, 1);
    r = run_rebox("--without-spam");
    EXPECT_EQ(r.status, 255) << r.err;
}

TEST_F(RebuildE2E, MissingComponentRowStopsBeforeQmailNewu)
{
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    testdb_exec("DELETE FROM Components WHERE name='drweb'");
    CommandResult r = run_rebox("--without-spam");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("rebox: Package 'drweb' is not found in Components table"), std::string::npos) << r.err;
    EXPECT_NE(qmail("control/rcpthosts").find("example.com\n"), std::string::npos);
    EXPECT_TRUE(read_calls(sandbox_path(STANDIN_QMAIL_NEWU)).empty());
    EXPECT_TRUE(read_calls(sandbox_path(STANDIN_QMAIL_INIT)).empty());
}

TEST_F(RebuildE2E, UnreachableDatabaseLeavesEmptiedFilesAndRunsNothing)
{
    write_file(sandbox_path("qmail/control/rcpthosts"), "kept.example\n");
    write_file("/etc/vdo/.vdo.shadow", "wrong-password\n");
    CommandResult r = run_rebox("--without-spam");
    EXPECT_EQ(r.status, 1);
    EXPECT_NE(r.err.find("Unable to connect to the mysql database"), std::string::npos) << r.err;
    EXPECT_EQ(qmail("control/rcpthosts"), "");
    EXPECT_EQ(qmail("users/assign"), ".\n");
    EXPECT_TRUE(read_calls(sandbox_path(STANDIN_QMAIL_NEWU)).empty());
    EXPECT_TRUE(read_calls(sandbox_path(STANDIN_QMAIL_INIT)).empty());
}
