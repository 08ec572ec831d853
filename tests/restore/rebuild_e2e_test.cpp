/* End-to-end tests of the rebuild: the real binary, as root in the sandbox,
 * against the test database. */
#include "support/rebox_run.h"
#include "support/snapshot.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <crypt.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <regex>
#include <string>
#include <vector>

namespace {

const std::regex MD5_CRYPT("\\$1\\$[./0-9A-Za-z]{8}\\$[./0-9A-Za-z]{22}");

class RebuildE2E : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        rebox_standins();
    }
    std::string qmail(const char *rel) { return read_file(sandbox_path(std::string("qmail/") + rel)); }
    const std::string M = sandbox_path("qmail/mailnames");
};

} // namespace

TEST_F(RebuildE2E, FullPanelWritesEveryRecord)
{
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    /* Leftovers of an earlier state that the rebuild must throw away. */
    write_file(sandbox_path("qmail/control/rcpthosts"), "stale.example\n");
    write_file(sandbox_path("qmail/users/assign"), "+9:popuser:1:1:/x:::\n.\n");
    write_file(sandbox_path("qmail/users/poppasswd"), "old:x:popuser:/x/old\n");

    /* qmail-send (a process named qmail-se) is told to reread its files. */
    ASSERT_EQ(run_command("cp /bin/sleep \"$REBOX_SANDBOX/qmail-se\"").status, 0);
    pid_t sender = fork();
    if (sender == 0)
        _exit(execl(sandbox_path("qmail-se").c_str(), "qmail-se", "60", (char *)nullptr));
    usleep(200000);
    CommandResult r = run_rebox("--without-spam");
    ASSERT_EQ(r.status, 0) << r.err;
    EXPECT_EQ(r.err, "");
    int st = 0;
    for (int i = 0; i < 50 && waitpid(sender, &st, WNOHANG) == 0; i++)
        usleep(100000);
    EXPECT_TRUE(WIFSIGNALED(st) && WTERMSIG(st) == SIGHUP) << st;
    kill(sender, SIGKILL);

    const std::string rec = ":popuser:7781:7781:" + M + "/";
    EXPECT_EQ(qmail("users/assign"), "=3-user" + rec + "disabled.example/user:::\n"
                                     "+3" + rec + "disabled.example:::\n"
                                     "=2-postmaster" + rec + "xn--bcher-kva.example/postmaster:::\n"
                                     "+2" + rec + "xn--bcher-kva.example:::\n"
                                     "=1-echo" + rec + "example.com/echo:::\n"
                                     "=1-delta" + rec + "example.com/delta:::\n"
                                     "=1-charlie" + rec + "example.com/charlie:::\n"
                                     "=1-bravo" + rec + "example.com/bravo:::\n"
                                     "=1-sales" + rec + "example.com/alpha:::\n"
                                     "=1-contact" + rec + "example.com/alpha:::\n"
                                     "=1-alpha" + rec + "example.com/alpha:::\n"
                                     "+1" + rec + "example.com:::\n.\n");
    EXPECT_EQ(qmail("control/rcpthosts"),
              "example.com\nexample.net\nxn--mller-kva.example\nxn--bcher-kva.example\nalias3.example\n");
    EXPECT_EQ(qmail("control/virtualdomains"),
              "example.com:1\nexample.net:1\nxn--mller-kva.example:1\nxn--bcher-kva.example:2\nalias3.example:3\n");
    EXPECT_EQ(qmail("control/rejectnonexist"), "disabled.example\nalias3.example\n");
    EXPECT_EQ(file_meta(sandbox_path("qmail/users/assign")), "0600 0 0");
    EXPECT_EQ(file_meta(sandbox_path("qmail/control/rejectnonexist")), "0644 0 0");

    /* POP3: plain passwords share one salt per run, a stored hash is kept,
     * a disabled domain gets "!", a mailbox without postbox has no line. */
    std::string pw = qmail("users/poppasswd");
    std::vector<std::string> h;
    for (std::sregex_iterator i(pw.begin(), pw.end(), MD5_CRYPT), end; i != end; ++i)
        h.push_back(i->str());
    ASSERT_EQ(h.size(), 5u) << pw;
    const std::string tail = ":popuser:" + M + "/example.com/";
    EXPECT_EQ(std::regex_replace(pw, MD5_CRYPT, "<h>"),
              "alpha:<h>" + tail + "alpha\nbravo:<h>" + tail + "bravo\ncharlie:<h>" + tail + "charlie\ndelta:<h>" +
                  tail + "delta\nuser:!<h>:popuser:" + M + "/disabled.example/user\n");
    EXPECT_EQ(crypt("secret", h[0].c_str()), h[0]);
    EXPECT_EQ(h[3], h[0]);
    EXPECT_EQ(h[1], "$1$abcdefgh$0123456789abcdefghijkl");
    EXPECT_EQ(crypt("", h[2].c_str()), h[2]);
    EXPECT_EQ(crypt("pw", h[4].c_str()), h[4]);
    EXPECT_EQ(h[0].substr(0, 12), h[2].substr(0, 12));

    /* Owner, mode and content ("-": a directory) of what the writers make. */
    const char *tree[][3] = {
        {"", "0755 0 7780", "-"},
        {"example.com", "0700 7781 7781", "-"},
        {"example.com/.qmail-default", "0600 7781 7781",
         "|bouncesaying Gone.\\ It\\'s\\ \\$5\\;\\ \\\"bye\\\"\n"},
        {"example.com/@mbox.quota", "0640 7781 7781", "10240\n"},
        {"example.com/alpha", "0700 7781 7781", "-"},
        {"example.com/alpha/Maildir", "0700 7781 7781", "-"},
        {"example.com/alpha/Maildir/tmp", "0700 7781 7781", "-"},
        {"example.com/alpha/Maildir/new", "0700 7781 7781", "-"},
        {"example.com/alpha/Maildir/cur", "0700 7781 7781", "-"},
        {"example.com/alpha/@attachments", "0700 7781 7781", "-"},
        {"example.com/alpha/.qmail", "0600 7781 7781",
         "| true\n./Maildir/\n&a@example.org\n&boss@xn--bcher-kva.example\n|autoresponder\n"},
        {"example.com/alpha/@mbox.quota", "0640 7781 7781", "1024\n"},
        {"example.com/bravo/.qmail", "0600 7781 7781", "| true\n./Maildir/\n"},
        {"example.com/bravo/@mbox.quota", "missing", ""},
        {"example.com/charlie/@mbox.quota", "0640 7781 7781", "0\n"},
        {"example.com/delta/@mbox.quota", "0640 7781 7781", "0\n"},
        {"example.com/echo/.qmail", "0600 7781 7781", "| true\n"},
        {"xn--bcher-kva.example/.qmail-default", "0600 7781 7781", "&postmaster@xn--bcher-kva.example\n"},
        {"disabled.example/.qmail-default", "missing", ""},
        {"nomail.example", "missing", ""},
    };
    for (auto &t : tree) {
        std::string path = M + "/" + t[0];
        EXPECT_EQ(file_meta(path), t[1]) << t[0];
        if (std::string(t[2]) != "-") {
            EXPECT_EQ(read_file(path), t[2]) << t[0];
        }
    }

    /* Finishing steps, once each; the antivirus pass did not run. */
    EXPECT_EQ(standin_calls(STANDIN_QMAIL_NEWU), 1u);
    EXPECT_EQ(read_calls(sandbox_path(STANDIN_QMAIL_INIT)), (Calls{{"restart"}}));
    EXPECT_EQ(standin_calls(STANDIN_VIRUSCTL), 0u);

    /* Short POP3 logins off: logins carry their domain.  An existing mailbox
     * keeps its mail and modes and gets its owners back. */
    testdb_exec("INSERT INTO misc (param, val) VALUES ('allow_short_pop3_names', 'disabled')");
    write_file(M + "/example.com/alpha/Maildir/new/1", "mail");
    ASSERT_EQ(chmod((M + "/example.com/alpha/Maildir").c_str(), 0750) + chown((M + "/example.com/alpha/Maildir/cur").c_str(), 0, 0), 0);
    ASSERT_EQ(run_rebox("--without-spam").status, 0);
    EXPECT_EQ(read_file(M + "/example.com/alpha/Maildir/new/1"), "mail");
    EXPECT_EQ(file_meta(M + "/example.com/alpha/Maildir") + file_meta(M + "/example.com/alpha/Maildir/cur"), "0750 7781 77810700 7781 7781");
    EXPECT_EQ(std::regex_replace(qmail("users/poppasswd"), MD5_CRYPT, "<h>"),
              "alpha@example.com:<h>" + tail + "alpha\nbravo@example.com:<h>" + tail + "bravo\ncharlie@example.com:<h>" +
                  tail + "charlie\ndelta@example.com:<h>" + tail + "delta\nuser@disabled.example:!<h>:popuser:" + M +
                  "/disabled.example/user\n");
}

TEST_F(RebuildE2E, EmptyServerAndFinishingStatuses)
{
    testdb_exec("INSERT INTO Components (name, version) VALUES ('drweb', 'not_installed')");
    rebox_standins(3, 0);
    CommandResult r = run_rebox("--without-spam");
    EXPECT_EQ(r.status, 3) << r.err;
    EXPECT_EQ(qmail("control/rcpthosts") + qmail("control/virtualdomains") + qmail("users/poppasswd"), "");
    EXPECT_EQ(qmail("users/assign"), ".\n");
    rebox_standins(0, 1);
    EXPECT_EQ(run_rebox("--without-spam").status, 255);
}
