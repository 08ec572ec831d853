/* Tests of the syslog copy of the messages, with a private /dev/log. */
#include "runtime/report.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

TEST(Syslog, DetachedRunLogsStartWarningFatalAndEnd)
{
    REQUIRE_SANDBOX();
    std::string root = sandbox_root();
    std::string mount = "mkdir -p " + root + "/dev-up " + root + "/dev-wk && mount -t overlay overlay -o lowerdir=/dev,upperdir=" +
                        root + "/dev-up,workdir=" + root + "/dev-wk /dev && rm -f /dev/log";
    ASSERT_EQ(run_command(mount).status, 0);

    int fd = socket(AF_UNIX, SOCK_DGRAM, 0);
    struct sockaddr_un addr = {};
    addr.sun_family = AF_UNIX;
    strcpy(addr.sun_path, "/dev/log");
    ASSERT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&addr), sizeof(addr)), 0) << strerror(errno);

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
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 1);

    std::vector<std::string> got;
    char buf[8192];
    ssize_t n;
    while ((n = recv(fd, buf, sizeof(buf), MSG_DONTWAIT)) > 0)
        got.emplace_back(buf, n);
    close(fd);

    /* mail facility (2 << 3) plus the level */
    const char *want[][2] = {
        {"<22>", "started: mode with-spam"},
        {"<20>", "Warning: unable to write mailbox quota"},
        {"<19>", "low level failure"},
        {"<19>", "Unable to query domains: gone"},
        {"<22>", "finished: mode with-spam, exit status 1"},
    };
    ASSERT_EQ(got.size(), 5u);
    for (size_t i = 0; i < got.size(); i++) {
        EXPECT_EQ(got[i].rfind(want[i][0], 0), 0u) << got[i];
        EXPECT_NE(got[i].find(" rebox[" + std::to_string(pid) + "]: "), std::string::npos) << got[i];
        size_t tail = got[i].size() - strlen(want[i][1]);
        EXPECT_EQ(got[i].substr(tail), want[i][1]) << got[i];
    }
}
