/* Tests of the diagnostics: prefix, newline rule, system-error suffix (from
 * errno, none, or a number handed over), long messages, both streams, exit
 * status. */
#include "runtime/report.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>

#include <string>

using testing::ExitedWithCode;

/* One row a call: which of the report family, errno at the call, the error
 * number handed over (report_errno), the system error the line must name
 * (0: none), and the length of the message. */
struct SuffixRow {
    char kind; /* 'r' report, 'p' report_plain, 'e' report_errno */
    int errno_at_call;
    int handed;
    int named;
    int len;
};

static const SuffixRow suffix_rows[] = {
    {'r', EACCES, 0, EACCES, 4095}, /* the 4096-byte buffer full, and beyond */
    {'r', EACCES, 0, EACCES, 4096},
    {'r', EACCES, 0, EACCES, 5000},
    {'p', EACCES, 0, 0, 10},        /* a pending errno is not named */
    {'p', EACCES, 0, 0, 5000},
    {'e', EACCES, ENOENT, ENOENT, 10}, /* the number handed over, not errno */
    {'e', 0, ENOENT, ENOENT, 5000},
    {'e', EACCES, 0, 0, 10},
};

TEST(Report, PrefixNewlineSuffixAndLongMessagesOnBothStreams)
{
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    report_progname = "/usr/local/sbin/rebox";
    errno = 0;
    report(0, "Warning: unable to write mailbox quota\n");
    report(0, "no newline %d", 7);
    report(0, "%s", "");
    std::string want = "rebox: Warning: unable to write mailbox quota\nrebox: no newline 7\nrebox: \n";
    for (const SuffixRow &row : suffix_rows) {
        errno = row.errno_at_call;
        if (row.kind == 'r')
            report(0, "%0*d", row.len, 7);
        else if (row.kind == 'p')
            report_plain(0, "%0*d", row.len, 7);
        else
            report_errno(row.handed, 0, "%0*d", row.len, 7);
        EXPECT_EQ(errno, row.errno_at_call) << row.kind << " " << row.len;
        want += "rebox: " + std::string(row.len - 1, '0') + "7";
        if (row.named != 0)
            want += "\nSystem error " + std::to_string(row.named) + ": " + strerror(row.named);
        want += "\n";
    }
    report_progname = nullptr; /* no program name yet: no prefix */
    errno = 0;
    char *text = xasprintf("%s-%d-%%\n", "last", 2);
    report_text(text, 0);
    free(text);
    want += "last-2-%\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), want);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), want);
}

TEST(ReportDeathTest, NonZeroStatusEndsTheProcess)
{
    report_progname = "rebox";
    EXPECT_EXIT((errno = ENOENT, report(1, "Error: QMAIL_ROOT_D not defined\n")), ExitedWithCode(1),
                "^rebox: Error: QMAIL_ROOT_D not defined\n\nSystem error 2: " + std::string(strerror(ENOENT)) + "\n$");
    EXPECT_EXIT((errno = ENOENT, report_plain(1, "Refused\n")), ExitedWithCode(1), "^rebox: Refused\n$");
    EXPECT_EXIT((errno = 0, report_errno(EACCES, 1, "Failed")), ExitedWithCode(1),
                "^rebox: Failed\nSystem error 13: " + std::string(strerror(EACCES)) + "\n$");
    EXPECT_EXIT(report_exit(3), ExitedWithCode(3), "");
}
