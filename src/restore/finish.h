/* finish - the end of a run: qmail's user database rebuilt, qmail
 * restarted, and one summary line to syslog of what the run did.
 *
 * run_count() is bumped by the pass for each domain, mailbox and alias it
 * restored and each row it skipped; rebuild_log_summary() tells syslog
 * those counts, the files replaced and the seconds the run took ("checked"
 * instead of "restored" for a check run, which replaced nothing).
 */
#pragma once

enum RunCount { RUN_DOMAINS, RUN_MAILBOXES, RUN_ALIASES, RUN_SKIPPED, RUN_COUNTS };

void run_count(RunCount what);
/* run_lines - the lines a run adds to and removes from a shared file;
 * run_line_removed - one removed line, named in syslog (the first
 * RUN_LINES_NAMED of the run, the rest counted) */
void run_lines(const char *file, unsigned added, unsigned removed);
void run_line_removed(const char *file, const char *line);
/* rebuild_log_summary - done: "restored", or "checked"; domains: the
 * names a limited run was given, or null */
void rebuild_log_summary(const char *done, double seconds, const char *domains);
int run_qmail_newu(void);
int restart_qmail(int really);
