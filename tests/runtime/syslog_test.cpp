/* Tests of the syslog copy of the messages, with a private /dev/log. */
#include "runtime/report.h"

#include "support/devlog.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

TEST(Syslog, DetachedRunLogsStartWarningFatalAndEnd)
{
    REQUIRE_SANDBOX();
    int fd = devlog_listen();
    ASSERT_GE(fd, 0);
    pid_t pid = fork();
    if (pid == 0) {
        report_progname = "/usr/sbin/rebox";
        errno = 0;
        report(0, "before detaching");
        report_syslog_start("with-spam");
        report(0, "Warning: unable to write mailbox quota\n");
        report_stderr("low level %s\n", "failure");
        report(1, "Unable to query domains: %s", "gone");
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 1);

    /* mail facility (2 << 3) plus the level */
    const char *want[][2] = {
        {"<22>", "started: mode with-spam"},
        {"<20>", "Warning: unable to write mailbox quota"},
        {"<19>", "low level failure"},
        {"<19>", "Unable to query domains: gone"},
        {"<22>", "finished: mode with-spam, exit status 1"},
    };
    std::vector<std::string> got = devlog_read(fd, "finished");
    ASSERT_EQ(got.size(), 5u);
    for (size_t i = 0; i < got.size(); i++) {
        EXPECT_EQ(got[i].rfind(want[i][0], 0), 0u) << got[i];
        EXPECT_NE(got[i].find(" rebox[" + std::to_string(pid) + "]: "), std::string::npos) << got[i];
        EXPECT_TRUE(got[i].ends_with(want[i][1])) << got[i];
    }
}
