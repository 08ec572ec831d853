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
#pragma once

#include "fs/effect.h"

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

/* The files of a domain's directory and of a mailbox's home. */
#define DELIVERY_FILE ".qmail"
#define DEFAULT_DELIVERY_FILE ".qmail-default"
#define QUOTA_FILE_NAME "@mbox.quota"

/* The ids of popuser as one writer keeps them; 0 means not known. */
struct PopuserIds {
    unsigned uid;
    unsigned gid;
};

/* MailDomainRow - a domain with mail service as the panel lists it */
struct MailDomainRow {
    const char *id;   /* decimal ("" when the row has none) */
    const char *name; /* as stored, UTF-8 */
    char ascii[256];  /* its ASCII form, converted once ("" when it breaks a rule) */
    int disabled;     /* the domain or its mail service is switched off */
    const char *rule; /* the rule the row breaks (it is then skipped), or null */
};

/* MailDomain - what every writer needs of the domain it works on and of
 * the run, worked out once per domain (mail_domain): the effects every
 * change goes through, the name as stored, its ASCII form, its database
 * identifier (the virtual-domain prefix), the ids of popuser, who owns
 * everything below its directory, and where a change of the control files
 * qmail-send reads is noted (null: qmail-send is told at once; a pass that
 * holds those files tells it once, after they are written) */
struct MailDomain {
    const Effects *fx;
    const char *name;
    char ascii[256];
    char id[QMAIL_ID_SIZE];
    unsigned uid;
    unsigned gid;
    int *reread_due;
};

/* mail_domain - d worked out for the domain row r (a row that breaks no
 * rule), owned by popuser's ids, its changes to go through fx; an
 * identifier that does not fit ends the process with message */
void mail_domain(const Effects *fx, const MailDomainRow *r, const PopuserIds *popuser, MailDomain *d,
                 const char *message);

/* mail_path - QMAIL_MAILNAMES_D/ascii, then /mail_name and /file where
 * given (null: left out), into buf (QMAIL_BUF_SIZE bytes): the one
 * spelling of a domain's and a mailbox's paths */
const char *mail_path(char *buf, const char *ascii, const char *mail_name, const char *file);

/* control_files_changed - qmail-send rereads its control files: told at
 * once, or noted for the pass that holds them */
void control_files_changed(const MailDomain *d);

void qmail_file_path(char *buf, size_t size, const char *name);
/* set_shared_mode - the mode of a shared qmail file after an edit (when the
 * rebuild holds it, at its write); failures are not reported */
void set_shared_mode(const Effects *fx, const char *path, unsigned mode);
char *domain_ascii_valid(const char *domain, const char *message);
[[noreturn]] void value_refused(const char *message);
int mail_name_valid(const char *mail_name);
int popuser_lookup(PopuserIds *ids);
