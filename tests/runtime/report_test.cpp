/* Tests of the diagnostics: prefix, newline rule, system-error suffix,
 * long messages, both streams, exit status. */
#include "runtime/report.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

namespace {

/* capture - run fn in a child with both streams in one pipe-less file */
struct Captured {
    std::string err, out;
    int status;
};

template <class Fn> Captured capture(Fn fn)
{
    char errname[] = "/tmp/report-err.XXXXXX", outname[] = "/tmp/report-out.XXXXXX";
    int efd = mkstemp(errname), ofd = mkstemp(outname);
    fflush(stdout);
    fflush(stderr);
    pid_t pid = fork();
    if (pid == 0) {
        dup2(efd, 2);
        dup2(ofd, 1);
        fn();
        _exit(0);
    }
    int st = 0;
    waitpid(pid, &st, 0);
    Captured c;
    c.status = WIFEXITED(st) ? WEXITSTATUS(st) : -1;
    for (auto [fd, s] : {std::pair{efd, &c.err}, std::pair{ofd, &c.out}}) {
        char buf[16384];
        ssize_t n;
        lseek(fd, 0, SEEK_SET);
        while ((n = read(fd, buf, sizeof buf)) > 0)
            s->append(buf, n);
        close(fd);
    }
    unlink(errname);
    unlink(outname);
    return c;
}

} // namespace

TEST(Report, PrefixNewlineAndSuffixOnBothStreams)
{
    Captured c = capture([] {
        report_progname = "/usr/local/sbin/rebox";
        errno = 0;
        report(0, "Warning: unable to write mailbox quota\n");
        report(0, "no newline %d", 7);
        report(0, "%s", "");
        errno = ENOENT;
        report(1, "Error: QMAIL_ROOT_D not defined\n");
    });
    std::string want = "rebox: Warning: unable to write mailbox quota\n"
                       "rebox: no newline 7\n"
                       "rebox: \n"
                       "rebox: Error: QMAIL_ROOT_D not defined\n\nSystem error 2: " +
                       std::string(strerror(ENOENT)) + "\n";
    EXPECT_EQ(c.status, 1);
    EXPECT_EQ(c.err, want);
    EXPECT_EQ(c.out, want);
}

TEST(Report, WarningReturnsAndUnsetProgramHasNoPrefix)
{
    Captured c = capture([] {
        report_progname = nullptr;
        errno = 0;
        report(0, "first");
        report_text("second\n", 0);
        report_exit(3);
    });
    EXPECT_EQ(c.status, 3);
    EXPECT_EQ(c.err, "first\nsecond\n");
    EXPECT_EQ(c.out, "first\nsecond\n");
}

TEST(Report, LongMessagesArePrintedWhole)
{
    for (size_t len : {4095u, 4096u, 5000u}) {
        std::string msg(len, 'x');
        msg[len / 2] = 'y';
        Captured c = capture([&] {
            report_progname = "rebox";
            errno = EACCES;
            report(0, "%s", msg.c_str());
        });
        std::string want = "rebox: " + msg + "\nSystem error 13: " + strerror(EACCES) + "\n";
        EXPECT_EQ(c.err, want) << len;
        EXPECT_EQ(c.out, want) << len;
    }
}

TEST(Report, XasprintfFormats)
{
    char *s = xasprintf("%s-%d-%%", "abc", 42);
    EXPECT_STREQ(s, "abc-42-%");
    free(s);
}
