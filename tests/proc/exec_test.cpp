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
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <string>

using testing::internal::CaptureStderr;
using testing::internal::GetCapturedStderr;

namespace {

std::string link_of(const std::string &path)
{
    char buf[4096];
    ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
    return n < 0 ? "" : std::string(buf, static_cast<size_t>(n));
}

std::string str(const char *text) { return text ? text : "(null)"; }

bool has(const std::string &text, const std::string &part)
{
    return text.find(part) != std::string::npos;
}

/* Fork fails for an unprivileged user allowed no processes at all. */
void forbid_fork(void)
{
    struct rlimit none = {0, 0};
    if (setuid(atoi(getenv("REBOX_POPUSER_UID"))) != 0 || setrlimit(RLIMIT_NPROC, &none) != 0)
        _exit(99);
}

}  // namespace

TEST(ExecCapture, StreamsExitCodesAndSignals)
{
    char *out, *err;

    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c",
                                   "printf 'to out'; printf 'to err' >&2; exit 3", nullptr), 3);
    EXPECT_EQ(str(out), "to out");
    EXPECT_EQ(str(err), "to err");
    free(out);
    free(err);

    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c", "exit 0", nullptr), 0);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(err, nullptr);

    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c", "kill -9 $$", nullptr), -1);

    /* Several buffer growths, on the standard-output-only engine. */
    CaptureStderr();
    EXPECT_EQ(fork_execl_getout(&out, "/bin/sh", "sh", "-c",
                                "head -c 10000 /dev/zero | tr '\\0' x; echo inherited >&2",
                                nullptr), 0);
    EXPECT_TRUE(has(GetCapturedStderr(), "inherited"));
    EXPECT_EQ(str(out), std::string(10000, 'x'));
    free(out);
}

TEST(ExecCapture, DescendantHoldingThePipesDoesNotHangTheCaller)
{
    char *out, *err;
    auto start = std::chrono::steady_clock::now();

    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c",
                                   "sleep 6 & echo started", nullptr), 0);
    double took = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    EXPECT_GT(took, 0.9);
    EXPECT_LT(took, 3.0);
    EXPECT_EQ(str(out), "started\n");
    EXPECT_EQ(err, nullptr);
    free(out);
}

TEST(ExecPipes, DescriptorChoicesAndNothingElseInherited)
{
    REQUIRE_SANDBOX();
    std::string file = sandbox_path("pipes.out");
    int fd = open(file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    int extra = open("/dev/null", O_RDONLY);
    ASSERT_GT(fd, 2);
    ASSERT_GT(extra, 2);

    /* Output and error on the same descriptor; input from /dev/null. */
    pid_t pid = fork_execl_pipes(-1, fd, fd, "/bin/sh", "sh", "-c",
                                 "readlink /proc/$$/fd/0; ls /proc/$$/fd; echo err >&2", nullptr);
    int status = 0;
    ASSERT_EQ(waitpid(pid, &status, 0), pid);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(read_file(file), "/dev/null\n0\n1\n2\nerr\n");
    close(fd);
    close(extra);
}

TEST(ExecRunners, FailuresAreReportedWithWhatTheProgramPrinted)
{
    CaptureStderr();
    EXPECT_EQ(util_execl("/nonexistent/prog", "prog", nullptr), 255);
    EXPECT_TRUE(has(GetCapturedStderr(), "/nonexistent/prog execution failed:\n"
                                         "fork_execv: execv(\"/nonexistent/prog\") failed: "
                                         "No such file or directory"));

    CaptureStderr();
    EXPECT_EQ(util_exec("/bin/sh", "-c", "printf '100%% %%s %%n done'; exit 2", nullptr), 2);
    std::string printed = GetCapturedStderr();
    EXPECT_TRUE(has(printed, "100% %s %n done")) << printed;
    EXPECT_TRUE(has(printed, "/bin/sh execution failed (no output)"));

    char *const argv[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                          const_cast<char *>("echo hidden >&2; exit 1"), nullptr};
    CaptureStderr();
    EXPECT_EQ(util_execv("/bin/sh", argv, 1), 1);
    EXPECT_EQ(util_execl("/bin/sh", "sh", "-c", "echo fine >&2", nullptr), 0);
    EXPECT_EQ(GetCapturedStderr(), "");
}

#define TEN(p) p "0", p "1", p "2", p "3", p "4", p "5", p "6", p "7", p "8", p "9"

TEST(ExecRunners, UtilExecTakesAtMost99Arguments)
{
    /* 100 listed arguments: "-c", the script, $0 and x00..x96.  Taken are
     * the first 99, so the script sees 96 positional ones ending in x95. */
    EXPECT_EQ(util_exec("/bin/sh", "-c", "[ $# = 96 ] && [ \"${96}\" = x95 ]", "zero",
                        TEN("x0"), TEN("x1"), TEN("x2"), TEN("x3"), TEN("x4"), TEN("x5"),
                        TEN("x6"), TEN("x7"), TEN("x8"), "x90", "x91", "x92", "x93", "x94",
                        "x95", "x96", nullptr),
              0);
}

TEST(ExecRunners, AdminUtilitiesByBareName)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    std::string stub = sandbox_path("vdo/admin/bin/virusctl");
    write_recording_stub(stub, 0);

    CaptureStderr();
    EXPECT_EQ(admin_util_exec("bin/virusctl", "-r", nullptr), -1);
    EXPECT_EQ(admin_util_exec("", nullptr), -1);
    std::string printed = GetCapturedStderr();
    EXPECT_TRUE(has(printed, "Utility name 'bin/virusctl' is invalid. Use only utility name "
                             "without path."));
    EXPECT_TRUE(has(printed, "Utility name '' is invalid."));

    EXPECT_EQ(admin_util_exec("virusctl", "-r", nullptr), 0);
    char *const argv[] = {const_cast<char *>("virusctl"), const_cast<char *>("--x"), nullptr};
    EXPECT_EQ(admin_util_execv("virusctl", argv), 0);
    EXPECT_EQ(admin_util_execv("../virusctl", argv), -1);
    EXPECT_EQ(read_calls(stub), (std::vector<std::vector<std::string>>{{"-r"}, {"--x"}}));
}

TEST(ExecQuiet, StreamsOnDevNullAndOnlySignalsCountAsFailure)
{
    REQUIRE_SANDBOX();
    std::string file = sandbox_path("quiet.out");
    std::string script = "fds=$(readlink /proc/$$/fd/0 /proc/$$/fd/1 /proc/$$/fd/2); "
                         "echo \"$fds\" > " + file;

    EXPECT_EQ(exec_quiet("/bin/sh", "-c", script.c_str(), nullptr), 0);
    EXPECT_EQ(read_file(file), "/dev/null\n/dev/null\n/dev/null\n");
    EXPECT_EQ(exec_quiet("/bin/sh", "-c", "exit 7", nullptr), 0);
    EXPECT_EQ(exec_quiet("/nonexistent/prog", nullptr), 0);
    EXPECT_EQ(exec_quiet("/bin/sh", "-c", "kill -TERM $$", nullptr), 1);

    /* No child at all is a failure, never a success. */
    EXPECT_EXIT({ forbid_fork(); exit(exec_quiet("/bin/true", nullptr)); },
                testing::ExitedWithCode(1), "exec_quiet: fork\\(\\) failed");
    EXPECT_EXIT({ forbid_fork(); fork_execl_pipes(0, 1, 2, "/bin/true", "true", nullptr); },
                testing::ExitedWithCode(1), "fork_execv_pipes: fork\\(\\) failed");
}

TEST(ExecFd, GivenDescriptorsAndRelayedErrors)
{
    REQUIRE_SANDBOX();
    report_progname = "/usr/local/proctest";
    std::string in_file = sandbox_path("fd.in"), out_file = sandbox_path("fd.out");
    write_file(in_file, "abc\n");
    int in = open(in_file.c_str(), O_RDONLY);
    int out = open(out_file.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    char *const upper[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                           const_cast<char *>("tr a-z A-Z; echo oops >&2; exit 4"), nullptr};

    CaptureStderr();
    EXPECT_EQ(util_exec_fd(2, out, "/bin/sh", upper), -1);
    EXPECT_EQ(util_exec_fd(in, 0, "/bin/sh", upper), -1);
    EXPECT_EQ(util_exec_fd(in, out, "/bin/sh", upper), 4);
    EXPECT_EQ(util_exec_fd(in, out, "/nonexistent/prog", upper), 255);
    std::string printed = GetCapturedStderr();
    EXPECT_TRUE(has(printed, "proctest: values 0,1,2 not allowed for variables fd_in & fd_out\n"));
    EXPECT_TRUE(has(printed, "proctest: oops\n")) << printed;
    EXPECT_TRUE(has(printed, "Error occured during execv():\nNo such file or directory.\n"));
    EXPECT_EQ(read_file(out_file), "ABC\n");
    close(in);
    close(out);
    report_progname = nullptr;
}

static int pipe_fd_to_break = -1, write_only_fd = -1;
static void break_pipe(int) { dup2(write_only_fd, pipe_fd_to_break); }

TEST(PopenExec, OutputCodesAndReports)
{
    char *out;

    EXPECT_EQ(popen_exec(&out, "echo '50% done'; exit 5"), 5);
    EXPECT_EQ(str(out), "50% done\n");
    free(out);
    EXPECT_EQ(popen_exec(&out, "head -c 9000 /dev/zero | tr '\\0' y; kill -9 $$"), 0);
    EXPECT_EQ(str(out), std::string(9000, 'y'));
    free(out);

    CaptureStderr();
    EXPECT_EQ(popen_exec_report("exit 3"), 3);
    EXPECT_EQ(popen_exec_report("echo why; exit 2"), 2);
    std::string printed = GetCapturedStderr();
    EXPECT_TRUE(has(printed, "popen_exec: command failed code: 3 , error: none\n"));
    EXPECT_TRUE(has(printed, "popen_exec: command failed code: 2 , why\n"));
}

TEST(PopenExec, ReadErrorMakesTheRunFailAndKeepsWhatWasRead)
{
    /* A signal interrupts the read (retried), and its handler swaps the
     * pipe, the lowest free descriptor, for a write-only one. */
    char *out;
    CaptureStderr();
    write_only_fd = open("/dev/null", O_WRONLY);
    pipe_fd_to_break = dup(0);
    close(pipe_fd_to_break);
    struct sigaction action = {}, old = {};
    action.sa_handler = break_pipe;
    sigaction(SIGALRM, &action, &old);
    alarm(1);

    EXPECT_EQ(popen_exec(&out, "echo partial; sleep 2; echo rest"), -1);
    EXPECT_TRUE(has(GetCapturedStderr(),
                    "popen_exec: failed to read command output: Bad file descriptor"));
    EXPECT_EQ(str(out), "partial\n");
    free(out);
    sigaction(SIGALRM, &old, nullptr);
    close(write_only_fd);
}

TEST(ExecHelpers, FindInPathRedirectAndCommandChecks)
{
    REQUIRE_SANDBOX();
    std::string a = sandbox_path("a"), b = sandbox_path("b");
    ASSERT_EQ(mkdir(a.c_str(), 0755), 0);
    ASSERT_EQ(mkdir(b.c_str(), 0755), 0);
    write_file(a + "/tool", "x");
    write_file(b + "/tool", "x");
    chmod((b + "/tool").c_str(), 0755);
    std::string list = a + ":" + b;

    char *found = find_in_path("tool", list.c_str(), 1);
    EXPECT_EQ(str(found), b + "/tool");
    free(found);
    found = find_in_path("tool", list.c_str(), 0);
    EXPECT_EQ(str(found), a + "/tool");
    free(found);
    EXPECT_EQ(find_in_path("tool", (a + ":").c_str(), 1), nullptr);

    int target = open("/dev/zero", O_RDONLY);
    int file = open((a + "/tool").c_str(), O_RDONLY);
    EXPECT_EQ(redirect_fd(file, target), target);
    EXPECT_EQ(link_of("/proc/self/fd/" + std::to_string(target)), a + "/tool");
    EXPECT_EQ(fcntl(file, F_GETFD), -1);
    EXPECT_EQ(redirect_fd(-1, target), target);
    EXPECT_EQ(link_of("/proc/self/fd/" + std::to_string(target)), "/dev/null");
    close(target);

    check_params_consumed(2, 2);
    check_param_present(1, "x", "domain");
    EXPECT_EXIT(check_params_consumed(3, 2), testing::ExitedWithCode(1),
                "Some parameters in command string leave unprocessed. Check parameters please.");
    EXPECT_EXIT(check_param_present(1, nullptr, "user"), testing::ExitedWithCode(1),
                "Miss parameter 'user' or previos parameter empty.");
}
