/* Tests of service control with real init scripts in the sandbox's
 * PRODUCT_RC_D: scripts that record their arguments and exit as told. */
#include "proc/service.h"

#include "runtime/config.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <string>

static std::string rc(const std::string &name)
{
    return sandbox_path("rc.d/" + name);
}

/* write_script - an executable init script with the given body */
static void write_script(const std::string &path, const std::string &body)
{
    write_file(path, "#!/bin/sh\n" + body);
    ASSERT_EQ(chmod(path.c_str(), 0755), 0);
}

TEST(Service, OutcomesNamesVerbsAndBadScripts)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    write_recording_stub(rc("qmail"), 0);
    EXPECT_EQ(service_control("qmail", "restart"), 0);
    write_recording_stub(rc("qmail"), 1);
    write_script(rc("named"), "kill -9 $$\n");
    std::string printed = stderr_of([] {
        EXPECT_EQ(service_control("sendmail", "restart"), -1);
        EXPECT_EQ(service_control("QMAIL", "restart"), -1);
        EXPECT_EQ(service_control("qmail", "restart"), -1);
        EXPECT_EQ(service_control("qmail", "status"), -1);
        EXPECT_EQ(service_control("named", "reload"), -1);
    });
    for (const std::string &line :
         {std::string("Unknown service: sendmail\n"), std::string("Unknown service: QMAIL\n"),
          "Service " + rc("qmail") + " failed to restart\n",
          "Unable to reload service " + rc("named") + ": daemon killed by signal 9\n"})
        EXPECT_TRUE(has(printed, line)) << line;
    EXPECT_FALSE(has(printed, "failed to status")) << printed;
    EXPECT_EQ(read_calls(rc("qmail")), (Calls{{"restart"}, {"restart"}, {"status"}}));

    ASSERT_EQ(mkdir(rc("smb").c_str(), 0755), 0);
    write_file(rc("network"), "#!/bin/sh\nexit 0\n");
    EXPECT_EXIT(service_control("drwebd", "start"), testing::ExitedWithCode(1),
                "No such file '.*/rc.d/drwebd': No such file or directory");
    EXPECT_EXIT(service_control("smb", "start"), testing::ExitedWithCode(1), "Not a regular file: '.*/rc.d/smb'");
    EXPECT_EXIT(service_control("network", "start"), testing::ExitedWithCode(1),
                "Not an executable file: '.*/rc.d/network'");

}

TEST(ServiceSwitch, NoRestartDaemonTurnsServiceControlOff)
{
    REQUIRE_SANDBOX();
    write_file(PANEL_CONFIG_FILE, read_file(PANEL_CONFIG_FILE) + "NO_RESTART_DAEMON yes\n");
    load_panel_config();
    write_recording_stub(rc("qmail"), 1);
    EXPECT_EQ(service_control("qmail", "restart"), 0);
    EXPECT_EQ(access((rc("qmail") + ".calls").c_str(), F_OK), -1);
}

TEST(Service, ScriptRunsDetachedInItsDirectoryOnDevNull)
{
    REQUIRE_SANDBOX();
    load_panel_config();
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
