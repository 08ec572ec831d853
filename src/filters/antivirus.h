/* antivirus - the antivirus per-address file users.conf.
 *
 * restore_antivirus_settings() rebuilds users.conf from the panel database
 * (one record per address whose mailbox has checking on, under the domain
 * and under its aliases) and has virusctl reload it.  The other functions
 * are its steps: start the file from its head, replace the record of one
 * address, remove every record form of one address.  A run limited to some
 * mail domains (AvScope) rebuilds their records alone: the file as it is,
 * less their records, gets theirs again from their rows, and each of their
 * records written again keeps its place (fs/line_merge).
 */
#pragma once

#include "fs/effect.h"

#include <mysql.h>

#include <set>
#include <string>

/* AvScope - the mail domains a limited run rebuilds: their identifiers,
 * comma-separated, and the domain parts of their addresses (names and
 * aliases, as stored and in ASCII form) */
struct AvScope {
    const char *ids;
    const std::set<std::string> *domains;
};

/* restore_antivirus_settings - users.conf rebuilt from conn's rows and
 * virusctl run, every change through fx; only: the domains a limited run
 * rebuilds, or null */
void restore_antivirus_settings(const Effects *fx, MYSQL *conn, const AvScope *only);
/* reset_users_conf - users.conf made to hold its head: the template
 * users.conf.in when it can be copied, else "[version=2]" (in memory while
 * the pass holds the file); 0, or -1 after the message */
int reset_users_conf(const Effects *fx);
int add_antivirus_record(const Effects *fx, const char *domain, const char *local_part,
                         const char *virusfilter);
int remove_antivirus_records(const Effects *fx, const char *domain, const char *local_part);
