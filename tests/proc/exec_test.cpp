/* Tests of child process execution with real programs: capture of both
 * streams, exit codes and signals, a descendant holding the pipes, missing
 * programs, argument limits, descriptor set-up and the reporting runners. */
#include "proc/exec.h"

#include "runtime/config.h"
#include "runtime/report.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

namespace {

/* taken - a captured text, freed; "(null)" for none */
std::string taken(char *text)
{
    std::string s = text ? text : "(null)";
    free(text);
    return s;
}

}  // namespace

TEST(ExecCapture, StreamsCodesSignalsAndADescendantHoldingThePipes)
{
    char *out, *err;
    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c",
                                   "printf 'to out'; printf 'to err' >&2; exit 3", nullptr), 3);
    EXPECT_EQ(taken(out) + "|" + taken(err), "to out|to err");
    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c", "exit 0", nullptr), 0);
    EXPECT_TRUE(out == nullptr && err == nullptr);
    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c", "kill -9 $$", nullptr), -1);

    /* Several buffer growths, on the standard-output-only engine. */
    EXPECT_TRUE(has(stderr_of([&] {
        EXPECT_EQ(fork_execl_getout(&out, "/bin/sh", "sh", "-c",
                                    "head -c 10000 /dev/zero | tr '\\0' x; echo inherited >&2", nullptr), 0);
    }), "inherited"));
    EXPECT_EQ(taken(out), std::string(10000, 'x'));

    /* The background sleep keeps the pipes open: the end of the child is
     * noticed by the once-a-second poll. */
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c", "sleep 6 & echo started", nullptr), 0);
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_TRUE(took > 0.9 && took < 3.0) << took;
    EXPECT_EQ(taken(out) + "|" + taken(err), "started\n|(null)");
}

TEST(ExecFds, DescriptorChoicesDevNullAndNothingElseInherited)
{
    REQUIRE_SANDBOX();
    std::string file = sandbox_path("fds.out");
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    ASSERT_GT(fd, 2);
    /* Output and error on the same descriptor; input from /dev/null. */
    pid_t pid = fork_execl_pipes(-1, fd, fd, "/bin/sh", "sh", "-c",
                                 "readlink /proc/$$/fd/0; ls /proc/$$/fd; echo err >&2", nullptr);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(read_file(file), "/dev/null\n0\n1\n2\nerr\n");

    /* exec_quiet: every stream on /dev/null, only a signal is a failure. */
    std::string script = "fds=$(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2); echo \"$fds\" > " + file;
    EXPECT_EQ(exec_quiet("/bin/sh", "-c", script.c_str(), nullptr), 0);
    EXPECT_EQ(read_file(file), "/dev/null\n/dev/null\n/dev/null\n");
    EXPECT_EQ(exec_quiet("/bin/sh", "-c", "exit 7", nullptr) + exec_quiet("/nonexistent/prog", nullptr), 0);
    EXPECT_EQ(exec_quiet("/bin/sh", "-c", "kill -TERM $$", nullptr), 1);
    /* No child at all is a failure, never a success.  _exit: the leak
     * checker of exit() cannot start its thread here and would end with 1. */
    struct rlimit none = {0, 0}; /* an unprivileged user allowed no processes */
    EXPECT_EXIT({
        if (setuid(atoi(getenv("REBOX_POPUSER_UID"))) == 0 && setrlimit(RLIMIT_NPROC, &none) == 0)
            _exit(exec_quiet("/bin/true", nullptr));
    }, testing::ExitedWithCode(1), "exec_quiet: fork\\(\\) failed");
}

#define TEN(p) p "0", p "1", p "2", p "3", p "4", p "5", p "6", p "7", p "8", p "9"

TEST(ExecRunners, FailuresAreReportedWithWhatTheProgramPrinted)
{
    std::string printed = stderr_of([] {
        EXPECT_EQ(util_execl("/nonexistent/prog", "prog", nullptr), 255);
        EXPECT_EQ(util_exec("/bin/sh", "-c", "printf '100%% %%s %%n done'; exit 2", nullptr), 2);
    });
    EXPECT_TRUE(has(printed, "/nonexistent/prog execution failed:\nfork_execv: execv(\"/nonexistent/prog\") "
                             "failed: No such file or directory"));
    EXPECT_TRUE(has(printed, "100% %s %n done")) << printed;
    EXPECT_TRUE(has(printed, "/bin/sh execution failed (no output)"));

    char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                          const_cast<char *>("echo hidden >&2; exit 1"), nullptr};
    EXPECT_EQ(stderr_of([&] {
                  EXPECT_EQ(util_execv("/bin/sh", argv, 1), 1);
                  EXPECT_EQ(util_execl("/bin/sh", "sh", "-c", "echo fine >&2", nullptr), 0);
              }),
              "");

    /* 100 listed arguments: "-c", the script, $0 and x00..x96.  Taken are
     * the first 99, so the script sees 96 positional ones ending in x95. */
    EXPECT_EQ(util_exec("/bin/sh", "-c", "[ $# = 96 ] && [ \"${96}\" = x95 ]", "zero", TEN("x0"), TEN("x1"),
                        TEN("x2"), TEN("x3"), TEN("x4"), TEN("x5"), TEN("x6"), TEN("x7"), TEN("x8"), "x90",
                        "x91", "x92", "x93", "x94", "x95", "x96", nullptr),
              0);
}

TEST(ExecRunners, GivenDescriptorsAndAdminUtilitiesByBareName)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    report_progname = "/usr/local/proctest";
    std::string in_file = sandbox_path("fd.in"), out_file = sandbox_path("fd.out");
    write_file(in_file, "abc\n");
    int in = open(in_file.c_str(), O_RDONLY), out = open(out_file.c_str(), O_WRONLY | O_CREAT, 0644);
    char *const upper[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                           const_cast<char *>("tr a-z A-Z; echo oops >&2; exit 4"), nullptr};
    std::string printed = stderr_of([&] {
        EXPECT_EQ(util_exec_fd(in, 0, "/bin/sh", upper), -1);
        EXPECT_EQ(util_exec_fd(in, out, "/bin/sh", upper), 4);
    });
    EXPECT_TRUE(has(printed, "proctest: values 0,1,2 not allowed for variables fd_in & fd_out\n"));
    EXPECT_TRUE(has(printed, "proctest: oops\n")) << printed;
    EXPECT_EQ(read_file(out_file), "ABC\n");
    report_progname = nullptr;

    std::string stub = sandbox_path("vdo/admin/bin/virusctl");
    write_recording_stub(stub, 0);
    char *const argv[] = {const_cast<char *>("virusctl"), const_cast<char *>("--x"), nullptr};
    printed = stderr_of([&] {
        EXPECT_EQ(admin_util_exec("bin/virusctl", "-r", nullptr), -1);
        EXPECT_EQ(admin_util_exec("", nullptr), -1);
        EXPECT_EQ(admin_util_execv("../virusctl", argv), -1);
    });
    EXPECT_TRUE(has(printed, "Utility name 'bin/virusctl' is invalid. Use only utility name without path."));
    EXPECT_TRUE(has(printed, "Utility name '' is invalid."));
    EXPECT_EQ(admin_util_exec("virusctl", "-r", nullptr) + admin_util_execv("virusctl", argv), 0);
    EXPECT_EQ(read_calls(stub), (std::vector<std::vector<std::string>>{{"-r"}, {"--x"}}));
}

static int pipe_fd_to_break = -1, write_only_fd = -1;
static void break_pipe(int) { dup2(write_only_fd, pipe_fd_to_break); }

TEST(PopenExec, OutputCodesReportsAndReadErrors)
{
    char *out;
    EXPECT_EQ(popen_exec(&out, "echo '50% done'; exit 5"), 5);
    EXPECT_EQ(taken(out), "50% done\n");
    EXPECT_EQ(popen_exec(&out, "head -c 9000 /dev/zero | tr '\\0' y; kill -9 $$"), 0);
    EXPECT_EQ(taken(out), std::string(9000, 'y'));
    std::string printed = stderr_of([] {
        EXPECT_EQ(popen_exec_report("exit 3"), 3);
        EXPECT_EQ(popen_exec_report("echo why; exit 2"), 2);
    });
    EXPECT_TRUE(has(printed, "popen_exec: command failed code: 3 , error: none\n"));
    EXPECT_TRUE(has(printed, "popen_exec: command failed code: 2 , why\n"));

    /* A read error fails the run and keeps what was read: a signal
     * interrupts the read (retried), and its handler swaps the pipe, the
     * lowest free descriptor, for a write-only one.  The capture comes
     * first: it takes a descriptor too. */
    testing::internal::CaptureStderr();
    write_only_fd = open("/dev/null", O_WRONLY);
    pipe_fd_to_break = dup(0);
    close(pipe_fd_to_break);
    struct sigaction action = {}, old = {};
    action.sa_handler = break_pipe;
    sigaction(SIGALRM, &action, &old);
    alarm(1);
    EXPECT_EQ(popen_exec(&out, "echo partial; sleep 2; echo rest"), -1);
    EXPECT_TRUE(has(testing::internal::GetCapturedStderr(),
                    "popen_exec: failed to read command output: Bad file descriptor"));
    EXPECT_EQ(taken(out), "partial\n");
    sigaction(SIGALRM, &old, nullptr);
    close(write_only_fd);
}

TEST(ExecHelpers, FindInPathAndCommandChecks)
{
    REQUIRE_SANDBOX();
    std::string a = sandbox_path("a"), b = sandbox_path("b"), list = a + ":" + b;
    ASSERT_EQ(run_command("umask 022 && mkdir " + a + " " + b + " && touch " + a + "/tool " + b + "/tool && "
                          "chmod 755 " + b + "/tool").status, 0);
    EXPECT_EQ(taken(find_in_path("tool", list.c_str(), 1)), b + "/tool");
    EXPECT_EQ(taken(find_in_path("tool", list.c_str(), 0)), a + "/tool");
    EXPECT_EQ(find_in_path("tool", (a + ":").c_str(), 1), nullptr);

    EXPECT_EXIT(check_params_consumed(3, 2), testing::ExitedWithCode(1),
                "Some parameters in command string leave unprocessed. Check parameters please.");
    /* Calls with what they need go on; the first that lacks it ends the process. */
    EXPECT_EXIT({
        check_params_consumed(2, 2);
        check_param_present(1, "x", "domain");
        check_param_present(1, nullptr, "user");
    }, testing::ExitedWithCode(1), "Miss parameter 'user' or previos parameter empty.");
}
