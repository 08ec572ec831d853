/* End-to-end tests of the command line, the run modes and daemon mode. */
#include "support/rebox_run.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <string>
#include <vector>

namespace {

const char *USAGE =
    "Usage: rebox [OPTION]\n  Restore settings for all mailboxes.\n\n"
    "  --without-spam [--daemon-mode]\n"
    "         restore all settings except for SpamAssassin configuration\n"
    "  --with-spam [--daemon-mode]\n"
    "         restore all settings\n"
    "  --spam-only [--daemon-mode]\n"
    "         restore only SpamAssassin settings\n";

class Command : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        rebox_standins();
    }
    /* components - the Components rows of a run */
    void components(const char *drweb, const char *drweb_qmail, const char *spam)
    {
        testdb_exec("DELETE FROM Components");
        std::string sql = "INSERT INTO Components (name, version) VALUES ('drweb', '" + std::string(drweb) +
                          "'), ('drweb-qmail', '" + drweb_qmail + "'), ('vdo-spamassassin', '" + spam + "')";
        testdb_exec(sql.c_str());
    }
    size_t calls(const char *standin) { return read_calls(sandbox_path(standin)).size(); }
};

} // namespace

TEST_F(Command, BadCommandLinesPrintUsageAndExitZero)
{
    for (const char *args : {"", "--with-spam daemon-mode extra", "-vv", "--WITH-SPAM", "--with-spam=1",
                             "--spam-only now", "--without-spam --daemon"}) {
        CommandResult r = run_rebox(args);
        EXPECT_EQ(r.status, 0) << args;
        EXPECT_EQ(r.out, USAGE) << args;
        EXPECT_EQ(calls(STANDIN_QMAIL_NEWU), 0u) << args;
    }
}

TEST_F(Command, ModesChooseThePasses)
{
    components("not_installed", "not_installed", "5.0");
    testdb_exec("INSERT INTO misc (param, val) VALUES ('spamfilter_enabled', 'true');"
                "INSERT INTO spamfilter (id, username) VALUES (1, '*@*')");

    /* -v and with-spam run the spam pass, which applies the server-wide
     * record once a run; without-spam does not. */
    for (const char *mode : {"-v", "with-spam", "--with-spam"}) {
        ASSERT_EQ(run_rebox(mode).status, 0) << mode;
    }
    size_t spam_runs = calls(STANDIN_SPAMCTL);
    EXPECT_EQ(spam_runs, 3u);
    EXPECT_EQ(read_calls(sandbox_path(STANDIN_SPAMCTL))[0],
              (std::vector<std::string>{"start", "--enable-server-configs", "--max-children", "5"}));
    EXPECT_EQ(calls(STANDIN_QMAIL_NEWU), 3u);
    ASSERT_EQ(run_rebox("--without-spam").status, 0);
    EXPECT_EQ(calls(STANDIN_SPAMCTL), spam_runs);

    /* spam-only: the spam pass alone, no qmail-newu, no restart. */
    write_file(sandbox_path("qmail/control/rcpthosts"), "untouched.example\n");
    CommandResult r = run_rebox("--spam-only");
    EXPECT_EQ(r.status, 0) << r.err;
    EXPECT_GT(calls(STANDIN_SPAMCTL), spam_runs);
    EXPECT_EQ(calls(STANDIN_QMAIL_NEWU), 4u);
    EXPECT_EQ(calls(STANDIN_QMAIL_INIT), 4u);
    EXPECT_EQ(read_file(sandbox_path("qmail/control/rcpthosts")), "untouched.example\n");

    /* Not installed: spam-only does nothing at all and succeeds. */
    components("not_installed", "not_installed", "not_installed");
    spam_runs = calls(STANDIN_SPAMCTL);
    EXPECT_EQ(run_rebox("spam-only").status, 0);
    EXPECT_EQ(calls(STANDIN_SPAMCTL), spam_runs);
    EXPECT_EQ(calls(STANDIN_QMAIL_NEWU), 4u);
}

TEST_F(Command, AntivirusPassOnlyWithBothComponents)
{
    components("6.0", "not_installed", "not_installed");
    ASSERT_EQ(run_rebox("--without-spam").status, 0);
    EXPECT_EQ(calls(STANDIN_VIRUSCTL), 0u);
    components("6.0", "6.0", "not_installed");
    ASSERT_EQ(run_rebox("--without-spam").status, 0);
    EXPECT_EQ(read_calls(sandbox_path(STANDIN_VIRUSCTL)), (std::vector<std::vector<std::string>>{{"-r"}}));
}

TEST_F(Command, UnprivilegedRunStopsFirst)
{
    std::string copy = sandbox_path("rebox");
    ASSERT_EQ(run_command(std::string("cp ") + REBOX_EXE + " " + copy).status, 0);
    for (const char *args : {"--with-spam", "-vv"}) {
        CommandResult r = run_command("setpriv --reuid=65534 --regid=65534 --clear-groups " + copy + " " + args);
        std::string want = "rebox: Unable to set UID or GID: " + std::string(strerror(EPERM)) +
                           "\n\nSystem error 1: " + strerror(EPERM) + "\n";
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_EQ(r.err, want) << args;
        EXPECT_EQ(r.out, want) << args;
    }
}

TEST_F(Command, DaemonModeDetachesAndLogsToSyslog)
{
    /* A private /dev/log to listen on. */
    std::string root = sandbox_root();
    ASSERT_EQ(run_command("mkdir -p " + root + "/dev-up " + root + "/dev-wk && mount -t overlay overlay -o "
                          "lowerdir=/dev,upperdir=" + root + "/dev-up,workdir=" + root + "/dev-wk /dev && rm -f /dev/log")
                  .status, 0);
    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0) << strerror(errno);

    /* A warning (qmails unknown) and a fatal stop (no drweb row). */
    ASSERT_EQ(run_command("sed -i '/^qmails:/d' /etc/passwd").status, 0);
    CommandResult r = run_rebox("--without-spam daemon-mode");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    std::vector<std::string> got;
    for (int waited = 0; waited < 200 && (got.empty() || got.back().find("finished") == std::string::npos);
         waited++) {
        char buf[8192];
        ssize_t n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT);
        if (n > 0)
            got.emplace_back(buf, n);
        else
            usleep(50000);
    }
    close(fd);
    ASSERT_EQ(got.size(), 4u);
    const char *want[][2] = {
        {"<22>", "rebox["}, {"<20>", "Unable to getpwnam for user qmails"},
        {"<19>", "Package 'drweb' is not found in Components table"}, {"<22>", "finished: mode without-spam, exit status 1"}};
    for (size_t i = 0; i < 4; i++) {
        EXPECT_EQ(got[i].rfind(want[i][0], 0), 0u) << got[i];
        EXPECT_NE(got[i].find(want[i][1]), std::string::npos) << got[i];
    }
    EXPECT_NE(got[0].find("started: mode without-spam"), std::string::npos) << got[0];
    EXPECT_EQ(calls(STANDIN_QMAIL_NEWU), 0u);
}
