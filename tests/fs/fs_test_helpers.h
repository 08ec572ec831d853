/* Helpers shared by the fs tests: output capture, child processes and
 * owner/mode checks. */
#ifndef REBOX_TESTS_FS_HELPERS_H
#define REBOX_TESTS_FS_HELPERS_H

#include "support/sandbox.h"

#include <gtest/gtest.h>

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

static const uid_t POPUSER = 7781;
static const gid_t QMAIL_GID = 7780;

/* captured - run f, return what it printed on standard error */
template <typename F> std::string captured(F f)
{
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    f();
    testing::internal::GetCapturedStdout();
    return testing::internal::GetCapturedStderr();
}

/* EXPECT_WARNS - call gives want and prints a message containing part */
#define EXPECT_WARNS(call, want, part)                                        \
    do {                                                                      \
        long got_ = 0;                                                        \
        std::string err_ = captured([&] { got_ = static_cast<long>(call); }); \
        EXPECT_EQ(got_, static_cast<long>(want)) << #call;                    \
        EXPECT_TRUE(has(err_, part)) << #call << " printed: " << err_;        \
    } while (0)

/* spawn - run f in a child process that exits with f's result */
template <typename F> pid_t spawn(F f)
{
    pid_t pid = fork();
    if (pid == 0)
        _exit(f());
    return pid;
}

/* exit_code - wait for pid: its exit code, or -1 when it did not exit */
inline int exit_code(pid_t pid)
{
    int status = 0;
    return waitpid(pid, &status, 0) == pid && WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

/* expect_owner_mode - the path's uid, gid and all mode bits */
inline void expect_owner_mode(const std::string &path, uid_t uid, gid_t gid, mode_t mode)
{
    struct stat st;
    ASSERT_EQ(stat(path.c_str(), &st), 0) << path;
    EXPECT_EQ(st.st_uid, uid) << path;
    EXPECT_EQ(st.st_gid, gid) << path;
    EXPECT_EQ(st.st_mode & 07777, mode) << path;
}

#endif
