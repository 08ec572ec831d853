/* rebuild - the mail configuration rebuild pass.
 *
 * rebuild_mail_configuration() empties qmail's domain data and writes it
 * again from the panel database, domain by domain and mailbox by mailbox;
 * short_pop3_names_allowed() tells how the password records name a box.
 * The finishing steps of a run are restore/finish's.
 */
#pragma once

#include "fs/effect.h"
#include "restore/domain_facts.h"
#include "restore/domain_scope.h"

#include <mysql.h>

/* rebuild_mail_configuration - the pass, every change through fx; the
 * domains it read are left in domains for the spam-filter pass (the
 * caller frees them, and reads them first for a limited run); progress: a
 * progress line may be shown; scope: the domains the run is limited to, or
 * null for all */
void rebuild_mail_configuration(const Effects *fx, MailDomains *domains, int progress, DomainScope *scope);
int short_pop3_names_allowed(MYSQL *conn);
