/* Tests of the diagnostics: prefix, newline rule, system-error suffix,
 * long messages, both streams, exit status. */
#include "runtime/report.h"

#include <gtest/gtest.h>

#include <errno.h>
#include <string.h>

#include <string>

using testing::ExitedWithCode;

TEST(Report, PrefixNewlineSuffixAndLongMessagesOnBothStreams)
{
    testing::internal::CaptureStderr();
    testing::internal::CaptureStdout();
    report_progname = "/usr/local/sbin/rebox";
    errno = 0;
    report(0, "Warning: unable to write mailbox quota\n");
    report(0, "no newline %d", 7);
    report(0, "%s", "");
    for (int len : {4095, 4096, 5000}) { /* the 4096-byte buffer full, and beyond */
        errno = EACCES;
        report(0, "%0*d", len, 7);
    }
    report_progname = nullptr; /* no program name yet: no prefix */
    errno = 0;
    char *text = xasprintf("%s-%d-%%\n", "last", 2);
    report_text(text, 0);
    free(text);
    std::string want = "rebox: Warning: unable to write mailbox quota\nrebox: no newline 7\nrebox: \n";
    for (size_t len : {4095u, 4096u, 5000u})
        want += "rebox: " + std::string(len - 1, '0') + "7\nSystem error 13: " + strerror(EACCES) + "\n";
    want += "last-2-%\n";
    EXPECT_EQ(testing::internal::GetCapturedStdout(), want);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), want);
}

TEST(ReportDeathTest, NonZeroStatusEndsTheProcess)
{
    report_progname = "rebox";
    EXPECT_EXIT((errno = ENOENT, report(1, "Error: QMAIL_ROOT_D not defined\n")), ExitedWithCode(1),
                "^rebox: Error: QMAIL_ROOT_D not defined\n\nSystem error 2: " + std::string(strerror(ENOENT)) + "\n$");
    EXPECT_EXIT(report_exit(3), ExitedWithCode(3), "");
}
