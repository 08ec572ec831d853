/* Tests of service control with real init scripts in the sandbox's
 * PRODUCT_RC_D: scripts that record their arguments and exit as told. */
#include "proc/service.h"

#include "proc/exec.h"
#include "runtime/config.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

using Calls = std::vector<std::vector<std::string>>;

static const char TOMCAT_PROCESS[] = "org.apache.catalina.startup.Bootstrap";

class Service : public testing::Test {
protected:
    void SetUp() override
    {
        REQUIRE_SANDBOX();
        load_panel_config();
        ASSERT_EQ(mkdir(sandbox_path("vdo/bin").c_str(), 0755), 0);
        write_recording_stub(sweep, 0);
    }

    static std::string rc(const std::string &name) { return sandbox_path("rc.d/" + name); }

    /* write_script - an executable init script with the given body */
    static void write_script(const std::string &path, const std::string &body)
    {
        write_file(path, "#!/bin/sh\n" + body);
        ASSERT_EQ(chmod(path.c_str(), 0755), 0);
    }

    /* write_httpd - a web server script that records its calls (from none)
     * and answers "status" with success from the given poll on (0: never) */
    static void write_httpd(int up_from_poll)
    {
        std::string count = sandbox_path("httpd.polls"), record = sandbox_path("httpd.record");
        unlink(count.c_str());
        unlink((record + ".calls").c_str());
        write_recording_stub(record, 0);
        write_script(rc("httpd"), record + " \"$@\"\n[ \"$1\" = status ] || exit 0\n"
                                  "n=$(($(cat " + count + " 2>/dev/null || echo 0) + 1)); echo $n > " + count +
                                  "\n[ " + std::to_string(up_from_poll) + " -ne 0 ] && [ $n -ge " +
                                  std::to_string(up_from_poll) + " ]\n");
    }

    static Calls httpd_calls() { return read_calls(sandbox_path("httpd.record")); }

    std::string sweep = sandbox_path("vdo/bin/ipcsweep.sh");
};

TEST(ServiceSwitch, NoRestartDaemonTurnsServiceControlOff)
{
    REQUIRE_SANDBOX();
    write_file(PANEL_CONFIG_FILE, read_file(PANEL_CONFIG_FILE) + "NO_RESTART_DAEMON yes\n");
    load_panel_config();
    write_recording_stub(sandbox_path("rc.d/qmail"), 1);
    EXPECT_EQ(service_control("qmail", "restart") + service_control("sendmail", "restart"), 0);
    EXPECT_EQ(access(sandbox_path("rc.d/qmail.calls").c_str(), F_OK), -1);
}

TEST_F(Service, OutcomesNamesVerbsAndBadScripts)
{
    write_recording_stub(rc("qmail"), 0);
    EXPECT_EQ(service_control("qmail", "restart"), 0);
    write_recording_stub(rc("qmail"), 1);
    write_script(rc("named"), "kill -9 $$\n");
    std::string printed = stderr_of([] {
        EXPECT_EQ(service_control("sendmail", "restart"), -1);
        EXPECT_EQ(service_control("QMAIL", "restart"), -1);
        EXPECT_EQ(service_control("qmail", "restart"), -1);
        EXPECT_EQ(service_control("qmail", "status"), -1);
        EXPECT_EQ(service_control("qmail", nullptr), -1);
        EXPECT_EQ(service_control("named", "reload"), -1);
        for (const char *verb : {"graceful", "grace", "graceful2"})
            EXPECT_EQ(run_init_script(rc("qmail").c_str(), "qmail", verb, 1), -1);
        EXPECT_EQ(run_init_script(rc("qmail").c_str(), "qmail", "stop", 0), -1);
    });
    for (const std::string &line : std::vector<std::string>{
             "Unknown service: sendmail\n", "Unknown service: QMAIL\n", "No action given for service " + rc("qmail"),
             "Service " + rc("qmail") + " failed to restart\n",
             "Unable to reload service " + rc("named") + ": daemon killed by signal 9\n",
             "Service qmail failed to gracefully restart\n", "Service qmail failed to graceful2\n"})
        EXPECT_TRUE(has(printed, line)) << line;
    EXPECT_FALSE(has(printed, "failed to status") || has(printed, "failed to stop")) << printed;
    EXPECT_EQ(read_calls(rc("qmail")),
              (Calls{{"restart"}, {"restart"}, {"status"}, {"graceful"}, {"grace"}, {"graceful2"}, {"stop"}}));

    ASSERT_EQ(mkdir(rc("smb").c_str(), 0755), 0);
    write_file(rc("xinetd"), "");
    ASSERT_EQ(chmod(rc("xinetd").c_str(), 0755), 0);
    write_file(rc("network"), "#!/bin/sh\nexit 0\n");
    EXPECT_EXIT(service_control("drwebd", "start"), testing::ExitedWithCode(1),
                "No such file '.*/rc.d/drwebd': No such file or directory");
    EXPECT_EXIT(service_control("smb", "start"), testing::ExitedWithCode(1), "Not a regular file: '.*/rc.d/smb'");
    EXPECT_EXIT(service_control("xinetd", "start"), testing::ExitedWithCode(1),
                "Not an executable file: '.*/rc.d/xinetd'");
    EXPECT_EXIT(service_control("network", "start"), testing::ExitedWithCode(1),
                "Not an executable file: '.*/rc.d/network'");
}

TEST_F(Service, ScriptRunsDetachedInItsDirectoryOnDevNull)
{
    /* The script prints its directory, verb, streams, whether it leads its
     * own session, and how many of the caller's descriptors it holds. */
    std::string out = sandbox_path("env.out");
    ASSERT_GT(open(sandbox_path("held-by-caller").c_str(), O_WRONLY | O_CREAT, 0644), 2);
    write_script(rc("mysqld"),
                 "echo \"$(pwd) $1 $(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2 | tr '\\n' ' ')"
                 "$([ $(cut -d' ' -f6 /proc/$$/stat) = $$ ] && echo leader) "
                 "$(ls -l /proc/$$/fd | grep -c held-by-caller)\" > " + out + "\n");
    EXPECT_EQ(service_control("mysqld", "start"), 0);
    EXPECT_EQ(read_file(out), sandbox_path("rc.d") + " start /dev/null /dev/null /dev/null leader 0\n");
}

TEST_F(Service, WebServerPollsStatusAfterAStartAndSweepsAfterAStop)
{
    write_httpd(3);
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(service_control("httpd", "start"), 0);
    EXPECT_GT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 1.9);
    EXPECT_EQ(service_control("httpd", nullptr), 0);
    EXPECT_EQ(service_control("httpd", "STOP"), 0);
    EXPECT_EQ(httpd_calls(), (Calls{{"start"}, {"status"}, {"status"}, {"status"}, {"STOP"}}));
    EXPECT_EQ(read_calls(sweep).size(), 1u);

    /* Never up: the restart fails after 21 polls, each followed by a
     * second's sleep (21 s). */
    write_httpd(0);
    start = std::chrono::steady_clock::now();
    EXPECT_EQ(service_control("httpd", "restart"), -1);
    EXPECT_GT(std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count(), 20.9);
    Calls calls = httpd_calls();
    ASSERT_EQ(calls.size(), 22u);
    EXPECT_EQ(calls.back(), std::vector<std::string>{"status"});

    /* A failed stop still sweeps. */
    write_script(rc("httpd"), "exit 1\n");
    EXPECT_EQ(service_control("httpd", "stop"), -1);
    EXPECT_EQ(read_calls(sweep).size(), 2u);
}

TEST_F(Service, RestartHttpdIfRunningPurgesDeferredRemovalsHdv1)
{
    write_httpd(0);
    EXPECT_EQ(restart_httpd_if_running(), 0);
    EXPECT_EQ(httpd_calls(), (Calls{{"status"}}));

    ASSERT_EQ(run_command("mkdir -p " + sandbox_path("vhosts/__deletedAbc123") + " " +
                          sandbox_path("qmail/mailnames/__deletedXyz789")).status, 0);
    write_httpd(1);
    EXPECT_EQ(restart_httpd_if_running(), 0);
    EXPECT_EQ(httpd_calls(), (Calls{{"status"}, {"stop"}, {"start"}, {"status"}}));
    EXPECT_EQ(access(sandbox_path("vhosts/__deletedAbc123").c_str(), F_OK), -1);
    EXPECT_EQ(access(sandbox_path("qmail/mailnames/__deletedXyz789").c_str(), F_OK), -1);
}

TEST_F(Service, TomcatAndApplicationServerRules)
{
    write_httpd(0);
    write_recording_stub(rc("tomcat5"), 1);
    EXPECT_TRUE(has(stderr_of([] { EXPECT_EQ(service_control("tomcat5", "start"), -1); }),
                    "Service tomcat5 failed to start\n"));
    write_recording_stub(rc("tomcat5"), 0);
    EXPECT_EQ(service_control("tomcat5", "stop"), 0);
    EXPECT_EQ(read_calls(rc("tomcat5")), (Calls{{"start"}, {"stop"}}));
    EXPECT_EQ(httpd_calls(), (Calls{{"status"}}));

    /* No process matches; a hit in the header line names no process. */
    EXPECT_EQ(kill_by_field("command", "rebox-no-such-process-text", 0), 0);
    EXPECT_EQ(kill_by_field("command", "COMMAND", 0), 0);

    /* No server where the client library looks: a namespace of its own
     * with an empty directory there. */
    std::string sockdir = getenv("REBOX_DB_SOCKET");
    sockdir.erase(sockdir.rfind('/'));
    EXPECT_EXIT(
        {
            if (unshare(CLONE_NEWNS) == 0 && mount("tmpfs", sockdir.c_str(), "tmpfs", 0, nullptr) == 0)
                service_control("jrun", "restart");
        },
        testing::ExitedWithCode(1), "Unable to connect to the mysql database");
}

TEST_F(Service, TomcatStoppedByForceWhenItsScriptFails)
{
    if (kill_by_field("command", TOMCAT_PROCESS, 0) != 0)
        GTEST_SKIP() << "a servlet engine runs on this host; it must not be signalled";
    pid_t fake = fork_execl_pipes(-1, -1, -1, "/bin/sh", "sh", "-c", "while :; do sleep 0.2; done",
                                  TOMCAT_PROCESS, nullptr);
    for (int i = 0; i < 50 && kill_by_field("command", TOMCAT_PROCESS, 0) != 1; i++)
        usleep(100000);
    ASSERT_EQ(kill_by_field("command", TOMCAT_PROCESS, 0), 1);
    write_recording_stub(rc("tomcat5"), 1);
    write_httpd(0);

    EXPECT_FALSE(has(stderr_of([] { EXPECT_EQ(service_control("tomcat5", "stop"), 0); }), "failed to stop"));
    int status = 0;
    ASSERT_EQ(waitpid(fake, &status, WNOHANG), fake);
    EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGTERM);
    EXPECT_EQ(httpd_calls(), (Calls{{"status"}}));
}
