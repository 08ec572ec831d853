/* End-to-end tests of the command line, the run modes and daemon mode. */
#include "support/rebox_run.h"
#include "support/devlog.h"
#include "support/testdb.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>

#include <string>
#include <vector>

namespace {

class Command : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        ASSERT_NO_FATAL_FAILURE(testdb_reset());
        rebox_standins();
    }
};

} // namespace

TEST_F(Command, BadCommandLinesPrintUsageAndExitZero)
{
    for (const char *args : {"", "--with-spam daemon-mode extra", "-vv", "--WITH-SPAM", "--with-spam=1",
                             "--spam-only now", "--without-spam --daemon", "--check=1", "--without-spam --domain",
                             "--without-spam --domain=", "--domain a.example", "--check --domain a.example x"}) {
        CommandResult r = run_rebox(args);
        EXPECT_EQ(r.status, 0) << args;
        EXPECT_EQ(r.out, "Usage: rebox [OPTION]\n  Restore settings for all mailboxes.\n\n"
                         "  --without-spam [--daemon-mode]\n"
                         "         restore all settings except for SpamAssassin configuration\n"
                         "  --with-spam [--daemon-mode]\n"
                         "         restore all settings\n"
                         "  --spam-only [--daemon-mode]\n"
                         "         restore only SpamAssassin settings\n"
                         "  --check\n"
                         "         report what a restore would change, without changing anything\n"
                         "  --domain NAME\n"
                         "         with any of the above: only mail domain NAME (or the domain of alias NAME),\n"
                         "         may be repeated; qmail-send rereads its files instead of a restart\n")
            << args;
    }
    EXPECT_EQ(standin_calls(STANDIN_QMAIL_NEWU), 0u);
}

TEST_F(Command, ModesChooseThePasses)
{
    testdb_exec("INSERT INTO misc (param, val) VALUES ('spamfilter_enabled', 'true');"
                "INSERT INTO spamfilter (id, username) VALUES (1, '*@*')");
    write_file(sandbox_path("qmail/control/rcpthosts"), "untouched.example\n");
    /* Components, the mode, and the runs counted after it. */
    const struct {
        const char *drweb, *drweb_qmail, *spam, *mode;
        size_t spamctl, virusctl, newu;
    } runs[] = {
        {"not_installed", "not_installed", "5.0", "--spam-only", 1, 0, 0},
        {"not_installed", "not_installed", "not_installed", "spam-only", 1, 0, 0},
        {"not_installed", "not_installed", "5.0", "-v", 2, 0, 1},
        {"not_installed", "not_installed", "5.0", "with-spam", 3, 0, 2},
        {"6.0", "not_installed", "5.0", "--with-spam", 4, 0, 3},
        {"6.0", "6.0", "5.0", "without-spam", 4, 1, 4},
    };
    for (const auto &run : runs) {
        testdb_exec(("DELETE FROM Components; INSERT INTO Components (name, version) VALUES ('drweb', '" +
                     std::string(run.drweb) + "'), ('drweb-qmail', '" + run.drweb_qmail +
                     "'), ('vdo-spamassassin', '" + run.spam + "')").c_str());
        CommandResult r = run_command("cd \"$REBOX_SANDBOX/qmail\" && " REBOX_EXE " " + std::string(run.mode));
        EXPECT_EQ(r.status, 0) << run.mode << r.err;
        EXPECT_EQ(standin_calls(STANDIN_SPAMCTL), run.spamctl) << run.mode;
        EXPECT_EQ(standin_calls(STANDIN_VIRUSCTL), run.virusctl) << run.mode;
        EXPECT_EQ(standin_calls(STANDIN_QMAIL_NEWU), run.newu) << run.mode;
        EXPECT_EQ(standin_calls(STANDIN_QMAIL_INIT), run.newu) << run.mode;
        if (run.newu == 0) { /* spam-only leaves the mail files alone */
            EXPECT_EQ(read_file(sandbox_path("qmail/control/rcpthosts")), "untouched.example\n") << run.mode;
        }
    }
    /* The spam pass applies the server-wide record; spam-only, it starts
     * spamctl in /, not in the caller's directory. */
    EXPECT_EQ(run_command("grep -m1 state: " + sandbox_path(STANDIN_SPAMCTL ".calls")).out, "state:/ 0 unlimited\n");
    EXPECT_EQ(read_calls(sandbox_path(STANDIN_SPAMCTL))[0],
              (std::vector<std::string>{"start", "--enable-server-configs", "--max-children", "5"}));
    EXPECT_EQ(read_calls(sandbox_path(STANDIN_VIRUSCTL)), (Calls{{"-r"}}));
}

TEST_F(Command, UnprivilegedRunStopsFirst)
{
    std::string copy = sandbox_path("rebox");
    ASSERT_EQ(run_command(std::string("cp ") + REBOX_EXE + " " + copy).status, 0);
    std::string want = "rebox: Unable to set UID or GID: " + std::string(strerror(EPERM)) + "\n\nSystem error 1: " +
                       strerror(EPERM) + "\n";
    for (const char *args : {"--with-spam", "-vv"}) {
        CommandResult r = run_command("setpriv --reuid=65534 --regid=65534 --clear-groups " + copy + " " + args);
        EXPECT_EQ(r.status, 1) << args;
        EXPECT_EQ(r.err, want) << args;
        EXPECT_EQ(r.out, want) << args;
    }
}

/* A set-user-ID copy started by nobody, one thing a caller can hand across
 * exec a row (closed streams for root's start, as the C library reopens
 * them for a set-user-ID one): each run loads nothing, rebuilds what an
 * ordinary run does, starts qmail-newu and the init script at nice 0
 * without a CPU limit, logs under its own name and leaves nothing
 * world-writable and no message in a file. */
TEST_F(Command, SetUidStartTakesNothingFromTheCaller)
{
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    testdb_exec("INSERT INTO mail_aliases (mn_id, alias) VALUES (1, 'evil/x')");
    ASSERT_EQ(run_command("cd \"$REBOX_SANDBOX\" && cp " REBOX_EXE " rebox && chmod 4755 rebox && mkdir plugins && "
                          "printf '#include <sys/stat.h>\\nstatic void __attribute__((constructor)) f(void) "
                          "{ mkdir(\"%s/loaded\", 0); }' \"$PWD\" | cc -shared -fPIC -x c -o plugins/evil.so -")
                  .status, 0);
    FreshRun want = fresh_run(REBOX_EXE " --without-spam");
    ASSERT_EQ(want.run.status, 0) << want.run.err;
    const std::string setpriv = "setpriv --reuid=65534 --regid=65534 --clear-groups ";
    const std::string nobody = setpriv + "./rebox --without-spam";
    int fd = devlog_listen();
    ASSERT_GE(fd, 0);
    int runs = 0;
    for (std::string row : {"export LIBMYSQL_PLUGINS=evil MARIADB_PLUGIN_DIR=$PWD/plugins MYSQL_PLUGIN_DIR=$PWD/plugins && " +
                                nobody,
                            "export MYSQL_UNIX_PORT=$PWD/decoy MARIADB_UNIX_PORT=$PWD/decoy && " + nobody,
                            "umask 000 && " + nobody, "ulimit -S -f 1 && " + nobody,
                            "bash -c 'trap \"\" CHLD; exec \"$0\" \"$@\"' " + nobody,
                            /* a descriptor that holds the named lock of users/assign (a
                             * watchdog ends a run that waits on it) */
                            "exec 9>>vdo/var/lock/files/$(printf %s \"$PWD/qmail/users/assign\" | md5sum | cut -c1-32)"
                            " && flock 9 && read me _ < /proc/self/stat && { (exec 9>&- >/dev/null 2>&1; sleep 20; kill -9 $me) & }"
                            " && exec " + nobody,
                            "mkdir own && cd own && sed -i '2i sleep 0.5' ../" STANDIN_QMAIL_NEWU " && ulimit -S -t 1 && "
                                "nice -n 19 " + setpriv + "perl -MTime::HiRes=setitimer,ITIMER_REAL -e "
                                "'setitimer(ITIMER_REAL, 0.2); "
                                "exec {\"../rebox\"} \"mailer\", \"--without-spam\"'",
                            "mkfifo full && exec 3<>full && head -c 65536 /dev/zero >&3 && (exec >&3 2>&3 && "
                                "exec timeout -s KILL 20 " + nobody + "); s=$?; [ $(( $(awk '/^flags/ {print $2}' "
                                "/proc/self/fdinfo/3) & 04000 )) = 0 ] && exit $s",
                            std::string("exec >&- 2>&- && ./rebox --without-spam")}) {
        SCOPED_TRACE(row);
        runs++;
        FreshRun o = fresh_run("cd \"$REBOX_SANDBOX\" && " + row);
        EXPECT_EQ(o.run.status, 0) << o.run.err;
        EXPECT_EQ(o.tree, want.tree);
        EXPECT_EQ(run_command("cd \"$REBOX_SANDBOX\" && rmdir loaded && echo loaded; "
                              "find qmail vdo/var drweb -perm -o+w ! -type l; grep -rl 'rebox: ' qmail vdo/var drweb")
                      .out, "");
        EXPECT_EQ(run_command("cd \"$REBOX_SANDBOX\" && cat " STANDIN_QMAIL_NEWU ".calls " STANDIN_QMAIL_INIT
                              ".calls | sed -n 's/^state:[^ ]* //p' | uniq")
                      .out, "0 unlimited\n");
    }
    std::vector<std::string> got = devlog_read(fd, "summary: ", runs);
    EXPECT_EQ(got.size(), static_cast<size_t>(runs));
    for (const std::string &line : got)
        EXPECT_NE(line.find(" rebox["), std::string::npos) << line;
}

/* Detached, the run returns at once and logs to syslog: two warnings and a
 * fatal stop after the domains, before the files and qmail-newu. */
TEST_F(Command, DaemonModeDetachesAndLogsToSyslog)
{
    ASSERT_NO_FATAL_FAILURE(load_sql_file("panel_full.sql"));
    testdb_exec("DELETE FROM Components WHERE name='drweb'; DELETE FROM Parameters WHERE parameter='catch_addr';"
                "UPDATE clients SET email=''");
    int fd = devlog_listen();
    ASSERT_GE(fd, 0);
    ASSERT_EQ(run_command("sed -i '/^qmails:/d' /etc/passwd").status, 0);
    CommandResult r = run_rebox("--without-spam daemon-mode");
    EXPECT_EQ(r.status, 0);
    EXPECT_EQ(r.out, "");
    /* Levels and tags of the messages: see the tests of report. */
    std::vector<std::string> got = devlog_read(fd, "finished");
    const char *want[] = {"started: mode without-spam", "Unable to getpwnam for user qmails",
                          "Unable to define admin email", "Package 'drweb' is not found in Components table",
                          "finished: mode without-spam, exit status 1"};
    ASSERT_EQ(got.size(), std::size(want));
    for (size_t i = 0; i < got.size(); i++)
        EXPECT_NE(got[i].find(want[i]), std::string::npos) << got[i];
    /* A fatal stop leaves the shared files as they were before the run. */
    EXPECT_EQ(read_file(sandbox_path("qmail/control/rcpthosts")), "");
    EXPECT_EQ(standin_calls(STANDIN_QMAIL_NEWU), 0u);
    EXPECT_EQ(standin_calls(STANDIN_QMAIL_INIT), 0u);
    /* The catch-all domain without an address catches with root's. */
    EXPECT_EQ(read_file(sandbox_path("qmail/mailnames/xn--bcher-kva.example/.qmail-default")),
              "&root@xn--bcher-kva.example\n");
}
