/* domain_alias - add, remove and rename a domain alias's lines in
 * control/rcpthosts and control/virtualdomains (see domain_alias.h). */
#include "mailconf/domain_alias.h"

#include "fs/file_str.h"
#include "mailconf/qmail_common.h"
#include "runtime/report.h"

#include <errno.h>
#include <stdio.h>
#include <stdlib.h>

int add_domain_alias(const MailDomain *d, const char *alias)
{
    char line[QMAIL_BUF_SIZE], path[QMAIL_BUF_SIZE];
    const char *id = d->id;

    char *alias_ascii = domain_ascii_valid(alias, "empty domain or domain alias");

    qmail_file_path(path, sizeof(path), QMAIL_RCPTHOSTS_FILE);
    if (file_str(d->fx, path, alias_ascii, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove domain record alias from rcpthosts file");
    if (file_str(d->fx, path, alias_ascii, FILE_STR_ADD, FILE_STR_AT_END) != 0) {
        int failure = errno; /* the undo below may change errno */
        free(alias_ascii);
        remove_domain_alias(d, alias);
        report_errno(failure, 1, "Unable to add domain record alias to rcpthosts.");
    }

    snprintf(line, sizeof(line), "%s:%s\n", alias_ascii, id);
    free(alias_ascii);
    qmail_file_path(path, sizeof(path), QMAIL_VIRTUALDOMAINS_FILE);
    if (file_str(d->fx, path, line, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove domain record alias from virtualdomains.");
    if (file_str(d->fx, path, line, FILE_STR_ADD, FILE_STR_AT_END) != 0) {
        int failure = errno; /* the undo below may change errno */
        remove_domain_alias(d, alias);
        report_errno(failure, 1, "Unable to add domain record alias to virtualdomains.");
    }

    control_files_changed(d);
    return 0;
}

int remove_domain_alias(const MailDomain *d, const char *alias)
{
    char line[QMAIL_BUF_SIZE], path[QMAIL_BUF_SIZE];

    char *alias_ascii = domain_ascii_valid(alias, "empty domain or domain alias");

    qmail_file_path(path, sizeof(path), QMAIL_RCPTHOSTS_FILE);
    if (file_str(d->fx, path, alias_ascii, FILE_STR_REMOVE, 1) != 0)
        report(0, "Unable to remove domain alias from rcpthosts file");

    snprintf(line, sizeof(line), "%s:%s", alias_ascii, d->id);
    qmail_file_path(path, sizeof(path), QMAIL_VIRTUALDOMAINS_FILE);
    if (file_str(d->fx, path, line, FILE_STR_REMOVE, 1) != 0)
        report(1, "Unable to remove domain alias from virtualdomains file");

    control_files_changed(d);
    free(alias_ascii);
    return 0;
}

int rename_domain_alias(const MailDomain *d, const char *old_alias, const char *new_alias)
{
    remove_domain_alias(d, old_alias);
    add_domain_alias(d, new_alias);
    return 0;
}
