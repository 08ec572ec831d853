/* rebuild - the mail configuration rebuild pass and its finishing steps.
 *
 * rebuild_mail_configuration() empties qmail's domain data and writes it
 * again from the panel database, domain by domain and mailbox by mailbox.
 * run_qmail_newu() and restart_qmail() finish a run; rebuild_log_summary()
 * tells syslog what it did; make_salt() and short_pop3_names_allowed()
 * serve the password records.
 */
#ifndef REBOX_RESTORE_REBUILD_H
#define REBOX_RESTORE_REBUILD_H

#include <mysql.h>

#define SALT_ALPHABET "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"

void rebuild_mail_configuration(void);
void make_salt(char *buf, int n);
int short_pop3_names_allowed(MYSQL *conn);
/* rebuild_log_summary - the run's one summary line to syslog: domains,
 * mailboxes and aliases restored, rows skipped, files replaced, seconds */
void rebuild_log_summary(double seconds);
int run_qmail_newu(void);
int restart_qmail(int really);

#endif
