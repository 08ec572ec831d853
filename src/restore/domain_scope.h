/* domain_scope - the mail domains a run is limited to, and their lines.
 *
 * An administrator repairs or inspects one customer's mail without a
 * whole-server rebuild: "--domain NAME" limits a run to some mail domains.
 * scope_resolve() finds each NAME (UTF-8 or ASCII form) among the panel's
 * mail domains, then among its domain aliases (an alias stands for its
 * domain), and otherwise in qmail's shared files: a domain the panel has
 * no mail for any more whose records are still there is "dropped" (its
 * records are taken out, its directory and mail stay).  A name nobody knows
 * ends the run before anything is written.
 *
 * scope_learn() then reads, from the shared files as the run holds them
 * under their locks, which names and virtual-domain prefixes belong to the
 * chosen domains (their aliases, an old name of theirs), and scope_owns()
 * tells whether a line of a shared file is theirs: the run rebuilds those
 * lines and keeps every other line as it is (fs/line_merge).
 */
#pragma once

#include "fs/effect.h"
#include "fs/line_edit.h"
#include "restore/domain_facts.h"

#include <mysql.h>

#include <set>
#include <string>
#include <vector>

/* NameSet - names looked up by view, without a copy */
typedef std::set<std::string, std::less<>> NameSet;

/* DomainScope - what a limited run is limited to */
struct DomainScope {
    std::vector<std::string> given;  /* the names as the command line gave them */
    std::vector<size_t> rows;        /* the chosen panel domains: their rows, in identifier order */
    std::vector<std::string> dropped; /* ASCII names only qmail's files know */
    NameSet aliases;                 /* ASCII names of their aliases in the panel */
    NameSet names;                   /* ASCII names whose lines are theirs */
    NameSet ids;                     /* virtual-domain prefixes that are theirs */
    std::set<std::string> conf_names; /* domain parts of their users.conf records */
    std::string ids_sql;             /* the chosen domains' identifiers, comma-separated ("0" for none) */
    std::string shown;               /* the names for the log, comma-separated */
};

/* scope_domain_rows - the rows a run walks: the scope's domains, or
 * (scope null) every domain read, in identifier order */
std::vector<const MailDomainRow *> scope_domain_rows(const DomainScope *scope, const MailDomains *domains);
/* scope_resolve - resolve scope->given over conn and the domains read;
 * panel_only: a name the panel does not have is unknown (a run that
 * writes no qmail file).  An unknown name ends the process. */
void scope_resolve(const Effects *fx, MYSQL *conn, const MailDomains *domains, DomainScope *scope, int panel_only);
/* scope_learn - the names and prefixes of the scope's domains found in the
 * shared files' texts, indexed as SHARED_FILES */
void scope_learn(DomainScope *scope, const MailDomains *domains, const TextBuf *texts);
/* scope_owns - the line of len bytes of shared file name (a QMAIL_*_FILE)
 * is one of the scope's domains' */
int scope_owns(const DomainScope *scope, const char *name, const char *line, size_t len);

/* qmail's shared files, in the order of their locks, and their places
 * in SHARED_FILES */
enum { SHARED_RCPTHOSTS, SHARED_VIRTUALDOMAINS, SHARED_ASSIGN, SHARED_POPPASSWD, SHARED_REJECTNONEXIST, SHARED_FILE_COUNT };
extern const char *const SHARED_FILES[SHARED_FILE_COUNT];
