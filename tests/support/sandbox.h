/* sandbox - helpers for tests that run inside tests/support/sandbox.
 *
 * REQUIRE_SANDBOX() skips a test that needs the sandbox (root, a private
 * mount namespace, /etc/vdo and the system users) when it is not there.
 * The other helpers build paths inside the sandbox, read and write files,
 * and make stand-in programs that record how they were called.
 */
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

/* sandbox_skip_reason - why this process is not in a sandbox, or null */
const char *sandbox_skip_reason(void);

#define REQUIRE_SANDBOX()                                                  \
    do {                                                                   \
        if (const char *why_ = sandbox_skip_reason())                     \
            GTEST_SKIP() << "needs the test sandbox: " << why_;            \
    } while (0)

std::string sandbox_root(void);
std::string sandbox_path(const std::string &relative);
std::string read_file(const std::string &path);
void write_file(const std::string &path, const std::string &text);

/* write_recording_stub - an executable script at path that appends each
 * call's arguments (argv[1] on), then its working directory, nice value and
 * CPU time limit on a "state:" line, to path + ".calls" and exits with
 * exit_code */
void write_recording_stub(const std::string &path, int exit_code);

/* read_calls - the argument vectors recorded by a stub, oldest first */
typedef std::vector<std::vector<std::string>> Calls;
Calls read_calls(const std::string &stub_path);

/* run_command - run a shell command line, capture both streams */
struct CommandResult {
    int status;           /* exit code, or -1 when killed by a signal */
    std::string out;
    std::string err;
};
CommandResult run_command(const std::string &command_line);

/* has - whether text contains part */
inline bool has(const std::string &text, const std::string &part) { return text.find(part) != std::string::npos; }

/* stderr_of - run f; what it printed on standard error */
template <typename F> std::string stderr_of(F f)
{
    testing::internal::CaptureStderr();
    f();
    return testing::internal::GetCapturedStderr();
}
