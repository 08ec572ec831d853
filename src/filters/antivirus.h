/* antivirus - the antivirus per-address file users.conf.
 *
 * restore_antivirus_settings() rebuilds users.conf from the panel database
 * (one record per address whose mailbox has checking on, under the domain
 * and under its aliases) and has virusctl reload it.  The other functions
 * are its steps: start the file from its head, replace the record of one
 * address, remove every record form of one address.
 */
#pragma once

#include "fs/effect.h"

#include <mysql.h>

/* restore_antivirus_settings - users.conf rebuilt from conn's rows and
 * virusctl run, every change through fx */
void restore_antivirus_settings(const Effects *fx, MYSQL *conn);
/* reset_users_conf - users.conf made to hold its head: the template
 * users.conf.in when it can be copied, else "[version=2]" (in memory while
 * the pass holds the file); 0, or -1 after the message */
int reset_users_conf(const Effects *fx);
int add_antivirus_record(const Effects *fx, const char *domain, const char *local_part,
                         const char *virusfilter);
int remove_antivirus_records(const Effects *fx, const char *domain, const char *local_part);
