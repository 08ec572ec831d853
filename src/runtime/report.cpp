/* report - every warning and fatal message of the program (see report.h).
 *
 * errno is left as it was, so a second message about the same failure
 * names the same cause.  The syslog identity is always "rebox": argv[0] is
 * the caller's choice, and root's log lines must not appear under a name
 * the caller picked.
 */
#include "runtime/report.h"

#include <errno.h>
#include <libgen.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <syslog.h>

const char *report_progname = nullptr;

static const size_t REPORT_BUF_SIZE = 4096;

/* Whether messages are copied to standard output: off after report_stdout(0). */
static int stdout_copy = 1;

/* Syslog copy of the messages: on after report_syslog_start(). */
static int syslog_on = 0;
static const char SYSLOG_IDENT[] = "rebox";
static const char *syslog_mode = "";
/* A progress line stands on standard error (report_progress): a message
 * clears it first, and the next progress line comes below the message. */
static int progress_shown;

/* syslog_copy - one message to syslog, without its trailing newlines */
static void syslog_copy(int priority, const char *text)
{
    size_t len = strlen(text);

    while (len > 0 && text[len - 1] == '\n')
        len--;
    syslog(priority, "%.*s", static_cast<int>(len), text);
}

void report_stdout(int on)
{
    stdout_copy = on;
}

void report_syslog_start(const char *run_mode)
{
    syslog_mode = run_mode;
    openlog(SYSLOG_IDENT, LOG_PID | LOG_NDELAY, LOG_MAIL);
    syslog_on = 1;
    syslog(LOG_INFO, "started: mode %s", syslog_mode);
}

void report_syslog_info(const char *format, ...)
{
    char text[1024];
    va_list ap;

    va_start(ap, format);
    vsnprintf(text, sizeof(text), format, ap);
    va_end(ap);
    if (syslog_on) {
        syslog(LOG_INFO, "%s", text);
        return;
    }
    openlog(SYSLOG_IDENT, LOG_PID, LOG_MAIL);
    syslog(LOG_INFO, "%s", text);
    closelog();
}

void report_syslog_finish(int exit_status)
{
    if (!syslog_on)
        return;
    syslog(LOG_INFO, "finished: mode %s, exit status %d", syslog_mode, exit_status);
    closelog();
    syslog_on = 0;
}

void report_stderr(const char *format, ...)
{
    char text[REPORT_BUF_SIZE];
    va_list ap;

    va_start(ap, format);
    vsnprintf(text, sizeof(text), format, ap);
    va_end(ap);
    fputs(text, stderr);
    fflush(stderr);
    if (syslog_on)
        syslog_copy(LOG_ERR, text);
}

void report_progress(const char *text)
{
    if (text != nullptr)
        fprintf(stderr, "\r%s: %s\033[K", SYSLOG_IDENT, text);
    else
        fputs("\r\033[K", stderr);
    fflush(stderr);
    progress_shown = text != nullptr;
}

/* write_decorated - one stream: prefix, text, newline rule, flush */
static void write_decorated(FILE *stream, const char *prefix, const char *text)
{
    size_t len = strlen(text);

    if (prefix)
        fprintf(stream, "%s: ", prefix);
    fputs(text, stream);
    if (len == 0 || text[len - 1] != '\n')
        fputc('\n', stream);
    fflush(stream);
}

int report_text(const char *text, int exit_status)
{
    int saved_errno = errno;

    if (progress_shown)
        report_progress(nullptr);
    const char *prefix = nullptr;
    char *copy = nullptr;

    if (report_progname) {
        /* basename() may modify its argument: work on a copy. */
        copy = strdup(report_progname);
        if (copy) {
            const char *base = basename(copy);
            if (base && *base)
                prefix = base;
        }
    }
    write_decorated(stderr, prefix, text);
    if (stdout_copy)
        write_decorated(stdout, prefix, text);
    free(copy);
    if (syslog_on)
        syslog_copy(exit_status != 0 ? LOG_ERR : LOG_WARNING, text);
    if (exit_status != 0)
        report_exit(exit_status);
    errno = saved_errno;
    return 0;
}

/* report_with - the body of the report family: format, append the text of
 * error number err when it is non-zero, print; errno is left as it was */
static int report_with(int err, int exit_status, const char *format, va_list args)
{
    int saved_errno = errno;
    char *text = nullptr, *full = nullptr;
    va_list ap;

    va_copy(ap, args);
    if (vasprintf(&text, format, ap) < 0)
        text = nullptr;
    va_end(ap);
    if (text != nullptr && err != 0 && asprintf(&full, "%s\nSystem error %d: %s", text, err, strerror(err)) >= 0) {
        free(text);
        text = full;
    }
    errno = saved_errno;
    report_text(text != nullptr ? text : "Can't allocate memory for error message", exit_status);
    free(text);
    errno = saved_errno;
    return 0;
}

int report(int exit_status, const char *format, ...)
{
    int err = errno;
    va_list ap;

    va_start(ap, format);
    report_with(err, exit_status, format, ap);
    va_end(ap);
    return 0;
}

int report_plain(int exit_status, const char *format, ...)
{
    va_list ap;

    va_start(ap, format);
    report_with(0, exit_status, format, ap);
    va_end(ap);
    return 0;
}

int report_errno(int err, int exit_status, const char *format, ...)
{
    va_list ap;

    va_start(ap, format);
    report_with(err, exit_status, format, ap);
    va_end(ap);
    return 0;
}

char *xasprintf(const char *format, ...)
{
    char *out = nullptr;
    va_list ap;

    va_start(ap, format);
    int n = vasprintf(&out, format, ap);
    va_end(ap);
    if (n < 0)
        report(1, "Cannot allocate memory: %s", strerror(errno));
    return out;
}

void report_exit(int status)
{
    report_syslog_finish(status);
    exit(status);
}
