/* report - the one place every message of the program goes through.
 *
 * report() formats a message, adds the text of a pending system error (none
 * when errno is 0), prints it on standard error and then on standard output
 * behind the program's base name, and ends the process when given a
 * non-zero status; after report_stdout(0) standard error alone gets it.
 * report_plain() is for messages with no system cause (never a system
 * error line), report_errno() for a failure whose error number the caller
 * kept (its text appended when non-zero, whatever errno holds now).
 * report_text() prints a finished text the same way; none changes errno.
 * xasprintf() allocates a formatted text or ends the process; report_exit()
 * is the exit wrapper.
 *
 * Once the program has detached from its terminal, report_syslog_start()
 * makes every message go to syslog as well (facility mail, warnings at
 * LOG_WARNING, fatal messages at LOG_ERR) with a LOG_INFO line at the start
 * and at the end of the run; report_stderr() is for the few low-level
 * messages printed without the program prefix.
 */
#pragma once

/* report_progname - the program path (argv[0]) used for the message prefix;
 * null until main() stores it. */
extern const char *report_progname;

/* report_stdout - whether messages are copied to standard output as well as
 * printed on standard error (on until called with 0) */
void report_stdout(int on);

int report(int exit_status, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
int report_plain(int exit_status, const char *format, ...)
    __attribute__((format(printf, 2, 3)));
int report_errno(int err, int exit_status, const char *format, ...)
    __attribute__((format(printf, 3, 4)));
int report_text(const char *text, int exit_status);
char *xasprintf(const char *format, ...) __attribute__((format(printf, 1, 2)));
[[noreturn]] void report_exit(int status);

void report_syslog_start(const char *run_mode);
void report_syslog_finish(int exit_status);
/* report_syslog_info - one LOG_INFO line to syslog (facility mail) only,
 * detached or not: standard output and error get nothing */
void report_syslog_info(const char *format, ...) __attribute__((format(printf, 1, 2)));
void report_stderr(const char *format, ...) __attribute__((format(printf, 1, 2)));
/* report_progress - text as the one line of a terminal rewritten in place
 * on standard error (null: the line cleared); nothing else gets it */
void report_progress(const char *text);
