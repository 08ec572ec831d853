/* antivirus - the antivirus per-address file users.conf.
 *
 * restore_antivirus_settings() rebuilds users.conf from the panel database
 * (one record per address whose mailbox has checking on, under the domain
 * and under its aliases) and has virusctl reload it.  The other functions
 * are its steps: replace the record of one address, remove every record
 * form of one address.
 */
#ifndef REBOX_FILTERS_ANTIVIRUS_H
#define REBOX_FILTERS_ANTIVIRUS_H

#include <mysql.h>

void restore_antivirus_settings(MYSQL *conn);
int add_antivirus_record(const char *domain, const char *local_part, const char *virusfilter);
int remove_antivirus_records(const char *domain, const char *local_part);

#endif
