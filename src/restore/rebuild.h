/* rebuild - the mail configuration rebuild pass.
 *
 * rebuild_mail_configuration() empties qmail's domain data and writes it
 * again from the panel database, domain by domain and mailbox by mailbox;
 * make_salt() and short_pop3_names_allowed() serve the password records.
 * The finishing steps of a run are restore/finish's.
 */
#ifndef REBOX_RESTORE_REBUILD_H
#define REBOX_RESTORE_REBUILD_H

#include <mysql.h>

#define SALT_ALPHABET "./0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz"

void rebuild_mail_configuration(void);
void make_salt(char *buf, int n);
int short_pop3_names_allowed(MYSQL *conn);

#endif
