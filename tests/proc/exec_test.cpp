/* Tests of child process execution with real programs: capture of both
 * streams, exit codes and signals, a descendant holding the pipes, missing
 * programs and the reporting runners. */
#include "proc/exec.h"

#include "runtime/config.h"
#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <stdlib.h>
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
    /* None of the caller's descriptors beyond the standard three. */
    int held = dup(2);
    EXPECT_EQ(fork_execl_getouterr(&out, &err, "/bin/sh", "sh", "-c", "ls /proc/$$/fd", nullptr), 0);
    EXPECT_EQ(taken(out) + "|" + taken(err), "0\n1\n2\n|(null)");
    close(held);

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

/* The runners the filter passes use: a failure is reported with what the
 * program printed; the panel's utilities are named bare. */
TEST(ExecRunners, FailuresReportedAndAdminUtilitiesByBareName)
{
    REQUIRE_SANDBOX();
    load_panel_config();
    char *const missing[] = {const_cast<char *>("prog"), nullptr};
    char *const fails[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                           const_cast<char *>("printf '100%% %%s %%n done'; exit 2"), nullptr};
    char *const silent[] = {const_cast<char *>("sh"), const_cast<char *>("-c"), const_cast<char *>("exit 3"), nullptr};
    char *const hidden[] = {const_cast<char *>("sh"), const_cast<char *>("-c"),
                            const_cast<char *>("echo hidden >&2; exit 1"), nullptr};
    std::string printed = stderr_of([&] {
        EXPECT_EQ(util_execv("/nonexistent/prog", missing), 255);
        EXPECT_EQ(util_execv("/bin/sh", fails), 2);
        EXPECT_EQ(util_execv("/bin/sh", silent), 3);
    });
    EXPECT_TRUE(has(printed, "/nonexistent/prog execution failed:\nfork_execv: execv(\"/nonexistent/prog\") "
                             "failed: No such file or directory"));
    EXPECT_TRUE(has(printed, "100% %s %n done")) << printed;
    EXPECT_TRUE(has(printed, "/bin/sh execution failed (no output)"));
    EXPECT_EQ(stderr_of([&] { EXPECT_EQ(util_execv("/bin/sh", hidden, 1), 1); }), "");

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
    EXPECT_EQ(read_calls(stub), (Calls{{"-r"}, {"--x"}}));
}
