/* Tests of signalling by command name with real processes: copies of
 * /bin/sleep named after the qmail processes. */
#include "proc/send_sig.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

/* start_named - run a copy of /bin/sleep whose command name is name */
static pid_t start_named(const std::string &name)
{
    std::string path = sandbox_path(name);
    pid_t pid = run_command("test -x " + path + " || cp /bin/sleep " + path).status == 0 ? fork() : -1;
    if (pid == 0)
        _exit(execl(path.c_str(), name.c_str(), "300", (char *)nullptr));
    return pid;
}

/* end_signal - the signal that ended pid within five seconds, or 0 when it
 * still runs (it is then killed and reaped) */
static int end_signal(pid_t pid)
{
    int status = 0;
    for (int i = 0; i < 50; i++, usleep(100000))
        if (waitpid(pid, &status, WNOHANG) == pid)
            return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return 0;
}

TEST(SendSig, SignalsExactCommandNamesOnly)
{
    REQUIRE_SANDBOX();
    /* names are matched system-wide: never touch a running mail system */
    if (run_command("ps axc -opid,command | grep -qE '[0-9] x?qmail-se$'").status == 0)
        GTEST_SKIP() << "processes named qmail-se already run on this host";
    EXPECT_EQ(kill_by_name("qmail-se", 1), 0); /* nobody to signal */

    pid_t first = start_named("qmail-se"), second = start_named("qmail-se"), other = start_named("xqmail-se");
    ASSERT_TRUE(first > 0 && second > 0 && other > 0);
    usleep(200000); /* let the children take their names */
    kill_by_name("qmail-se", 1);
    EXPECT_EQ(end_signal(first), SIGHUP);
    EXPECT_EQ(end_signal(second), SIGHUP);
    int status;
    EXPECT_EQ(waitpid(other, &status, WNOHANG), 0) << "xqmail-se was signalled";
    kill_by_name("xqmail-se", SIGUSR1);
    EXPECT_EQ(end_signal(other), SIGUSR1);
}
