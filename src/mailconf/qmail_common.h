/* qmail_common - what the qmail writers share.
 *
 * The facts of the domain a writer works on and of the run it works for
 * (MailDomain), the paths of qmail's shared control and user files
 * (always built from QMAIL_ROOT_D, always edited through file_str), the
 * domain name in ASCII form, the mailbox-name test and the ids of the
 * system user popuser.  The name checks apply the rules of value_check: a
 * writer refuses a name that breaks one with its own invalid-name message,
 * before it touches anything.
 */
#ifndef REBOX_MAILCONF_QMAIL_COMMON_H
#define REBOX_MAILCONF_QMAIL_COMMON_H

#include "fs/effect.h"

#include <mysql.h>
#include <stddef.h>

/* Shared qmail files, relative to QMAIL_ROOT_D. */
#define QMAIL_ASSIGN_FILE "users/assign"
#define QMAIL_POPPASSWD_FILE "users/poppasswd"
#define QMAIL_RCPTHOSTS_FILE "control/rcpthosts"
#define QMAIL_VIRTUALDOMAINS_FILE "control/virtualdomains"
#define QMAIL_REJECTNONEXIST_FILE "control/rejectnonexist"

/* Size of every path, record and line buffer of the writers. */
#define QMAIL_BUF_SIZE 4096
/* Size of a buffer holding a domain's database identifier (a number). */
#define QMAIL_ID_SIZE 64

/* The ids of popuser as one writer keeps them; 0 means not known. */
struct PopuserIds {
    unsigned uid;
    unsigned gid;
};

/* MailDomain - what every writer needs of the domain it works on and of
 * the run, worked out once per domain (mail_domain): the effects every
 * change goes through, the run's database connection (null: each question
 * opens its own), the name as stored, its ASCII form, its database
 * identifier (the virtual-domain prefix) and the ids of popuser, who owns
 * everything below its directory */
struct MailDomain {
    const Effects *fx;
    MYSQL *db;
    const char *name;
    char ascii[256];
    char id[QMAIL_ID_SIZE];
    unsigned uid;
    unsigned gid;
};

/* mail_domain - d worked out for the domain name, its changes to go
 * through fx and its questions to db: a name that is empty, does not
 * convert or cannot stand in a path or record ends the process with
 * message, as do an unknown identifier and an unknown popuser */
void mail_domain(const Effects *fx, MYSQL *db, const char *name, MailDomain *d, const char *message);

void qmail_file_path(char *buf, size_t size, const char *name);
/* set_shared_mode - the mode of a shared qmail file after an edit (when the
 * rebuild holds it, at its write); failures are not reported */
void set_shared_mode(const Effects *fx, const char *path, unsigned mode);
char *domain_ascii(const char *domain);
char *domain_ascii_valid(const char *domain, const char *message);
[[noreturn]] void value_refused(const char *message);
int mail_name_valid(const char *mail_name);
int popuser_lookup(PopuserIds *ids);

#endif
