/* rebuild - the mail configuration rebuild pass.
 *
 * rebuild_mail_configuration() empties qmail's domain data and writes it
 * again from the panel database, domain by domain and mailbox by mailbox;
 * short_pop3_names_allowed() tells how the password records name a box.
 * The finishing steps of a run are restore/finish's.
 */
#ifndef REBOX_RESTORE_REBUILD_H
#define REBOX_RESTORE_REBUILD_H

#include "fs/effect.h"

#include <mysql.h>

/* rebuild_mail_configuration - the pass, every change through fx */
void rebuild_mail_configuration(const Effects *fx);
int short_pop3_names_allowed(MYSQL *conn);

#endif
