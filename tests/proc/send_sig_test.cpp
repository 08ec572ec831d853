/* Tests of signalling by command name with real processes started from
 * copies of /bin/sleep named after the qmail processes. */
#include "proc/send_sig.h"

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

/* start_named - run a copy of /bin/sleep whose command name is name */
pid_t start_named(const std::string &name)
{
    std::string path = sandbox_path(name);
    if (access(path.c_str(), X_OK) != 0 &&
        run_command("cp /bin/sleep '" + path + "'").status != 0)
        return -1;
    pid_t pid = fork();
    if (pid == 0) {
        execl(path.c_str(), name.c_str(), "300", (char *)nullptr);
        _exit(127);
    }
    return pid;
}

/* end_signal - the signal that ended pid within five seconds, 0 when it is
 * still running (it is then killed and reaped) */
int end_signal(pid_t pid)
{
    int status = 0;
    for (int i = 0; i < 50; i++) {
        if (waitpid(pid, &status, WNOHANG) == pid)
            return WIFSIGNALED(status) ? WTERMSIG(status) : -1;
        usleep(100000);
    }
    kill(pid, SIGKILL);
    waitpid(pid, &status, 0);
    return 0;
}

/* others_named - how many processes called name run outside this test */
int others_named(const char *name)
{
    CommandResult r = run_command(std::string("ps axc -opid,command | grep -cE '[0-9] ") + name + "$'");
    return std::stoi(r.out);
}

} // namespace

TEST(SendSig, SignalsExactCommandNamesOnly)
{
    REQUIRE_SANDBOX();
    /* the name is matched system-wide: never touch a running mail system */
    if (others_named("qmail-se") != 0 || others_named("xqmail-se") != 0)
        GTEST_SKIP() << "processes named qmail-se already run on this host";

    /* nothing to signal: the pipeline runs and finds nobody */
    EXPECT_EQ(kill_by_name("qmail-se", 1), 0);

    pid_t first = start_named("qmail-se");
    pid_t second = start_named("qmail-se");
    pid_t other = start_named("xqmail-se");
    ASSERT_GT(first, 0);
    ASSERT_GT(second, 0);
    ASSERT_GT(other, 0);
    usleep(200000); /* let the children reach exec and take their names */

    kill_by_name("qmail-se", 1);
    EXPECT_EQ(end_signal(first), SIGHUP);
    EXPECT_EQ(end_signal(second), SIGHUP);

    int status = 0;
    EXPECT_EQ(waitpid(other, &status, WNOHANG), 0) << "xqmail-se must not be signalled";
    kill_by_name("xqmail-se", SIGUSR1);
    EXPECT_EQ(end_signal(other), SIGUSR1);
}
